#pragma once

#include <cstddef>
#include <cstdint>

#include "limits/Limits.h"

namespace platform {

// What begins a packet on a port's socket. A small text follows its header in the same packet. A
// larger one is announced by a packet with the header alone, and the packets behind it hold nothing
// but its bytes. A sealed one is announced without its seal, which is known, and comes, last: in
// one packet behind the others.
struct PortPacket {
    enum Kind : uint8_t { whole = 1, announced = 2, sealed = 3 };

    static constexpr size_t kHeaderBytes = 16;
    // A text up to this size goes in one packet; also the room that a receiver has for a packet
    // whose text it does not know yet.
    static constexpr size_t kMaximumWholeBytes = limits::of("port.packet");
    // The most bytes of a larger text in one packet: more gained nothing where it was measured.
    static constexpr size_t kMaximumPartBytes = limits::of("port.part");
    // The same of a sealed one, which is digested at both ends, so that the receiver begins early.
    // More than the head of a message may have.
    static constexpr size_t kSealedPartBytes = limits::of("port.sealed-part");

    Kind kind = whole;
    uint64_t length = 0; // of the text

    void write(unsigned char* out) const;
    // False when `bytes` bytes at `in` do not begin with a header.
    [[nodiscard]] bool read(const unsigned char* in, size_t bytes);
};

inline constexpr unsigned char kPacketStart[8] = {'C', 'V', 'M', 'P', 1, 0, 0, 0};
inline constexpr size_t kKindPlace = 5;   // version before it, two zero bytes behind it
inline constexpr size_t kLengthPlace = 8; // eight bytes, the lowest first

inline void PortPacket::write(unsigned char* out) const {
    for (size_t i = 0; i < kLengthPlace; ++i) {
        out[i] = i == kKindPlace ? static_cast<unsigned char>(kind) : kPacketStart[i];
    }
    for (size_t i = 0; i < 8; ++i) {
        out[kLengthPlace + i] = static_cast<unsigned char>(length >> (8 * i));
    }
}

inline bool PortPacket::read(const unsigned char* in, size_t bytes) {
    if (bytes < kHeaderBytes || in[kKindPlace] < whole || in[kKindPlace] > sealed) {
        return false;
    }
    for (size_t i = 0; i < kLengthPlace; ++i) {
        if (i != kKindPlace && in[i] != kPacketStart[i]) {
            return false;
        }
    }
    kind = static_cast<Kind>(in[kKindPlace]);
    length = 0;
    for (size_t i = 8; i > 0; --i) {
        length = length << 8 | in[kLengthPlace + i - 1];
    }
    return true;
}

} // namespace platform
