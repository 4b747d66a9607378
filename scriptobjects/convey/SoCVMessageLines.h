#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects::ConveyData {

// The lines of a message's text that mean something to its reader; all others are user headers. Any
// thread; nothing is thrown.
enum class LineKind : uint8_t {
    user,
    sender,
    target,
    type,
    responseRequest,
    timeout,
    timestamp,
    contentLength,
    serialNumber,
    received,
    result,
    error,
    oldVersion, // of the oldest format
    version,
    life,
    digest,
    md5,
};

// Their kinds by their beginnings. The first byte and the fifth tell the names apart, so that a
// line is compared with one of them at most, and its colon need not be sought.
class LineKinds {
public:
    // What may be read of a line to see its kind.
    static constexpr size_t kReadBytes = 24;

    constexpr LineKinds() {
        add(CV_SENDER, LineKind::sender);
        add(CV_TARGET, LineKind::target);
        add(CV_TYPE, LineKind::type);
        add(CV_RESPONSE_REQUEST, LineKind::responseRequest);
        add(CV_TIMEOUT, LineKind::timeout);
        add(CV_TIMESTAMP, LineKind::timestamp);
        add(CV_CONTENT_LENGTH, LineKind::contentLength);
        add(CV_SERIAL_NUMBER, LineKind::serialNumber);
        add(CV_RECEIVED, LineKind::received);
        add(CV_RESULT, LineKind::result);
        add(CV_ERROR, LineKind::error);
        add("Version", LineKind::oldVersion);
        add(CV_VERSION, LineKind::version);
        add(CV_LIFE, LineKind::life);
        add(CV_DIGEST, LineKind::digest);
        add(CV_MD5, LineKind::md5);
    }
    // Of a line that begins there, and the bytes of its name, which are its to say unless it is a
    // user header.
    LineKind at(const char* line, size_t& nameBytes) const {
        Words words;
        std::memcpy(words.data(), line, sizeof words);
        const Slot& slot = slots_[slotOf(line)];
        const auto differs = [&](size_t i) { return (words[i] & slot.mask[i]) ^ slot.name[i]; };
        nameBytes = slot.nameBytes;
        return (differs(0) | differs(1) | differs(2)) == 0 ? slot.kind : LineKind::user;
    }
    LineKind of(std::string_view name) const {
        char line[kReadBytes] = {};
        if (name.size() >= sizeof line) {
            return LineKind::user;
        }
        (void)std::char_traits<char>::copy(line, name.data(), name.size());
        line[name.size()] = ':';
        size_t nameBytes = 0;
        return at(line, nameBytes);
    }
    constexpr int count() const { return count_; }

private:
    using Bytes = std::array<char, kReadBytes>;
    using Words = std::array<uint64_t, kReadBytes / sizeof(uint64_t)>;
    struct Slot {
        Words name{}; // with its colon, and zeros
        Words mask{}; // of that many bytes
        size_t nameBytes = 0;
        LineKind kind = LineKind::user;
    };
    static constexpr size_t kSlots = 32;

    static constexpr size_t slotOf(const char* line) {
        return (static_cast<unsigned char>(line[0]) + static_cast<unsigned char>(line[4])) % kSlots;
    }
    constexpr void add(std::string_view name, LineKind kind) {
        Bytes bytes{};
        Bytes mask{};
        for (size_t i = 0; i <= name.size(); ++i) {
            bytes[i] = i < name.size() ? name[i] : ':';
            mask[i] = static_cast<char>(-1);
        }
        Slot& slot = slots_[slotOf(bytes.data())];
        count_ += slot.nameBytes == 0 ? 1 : 0;
        slot = {std::bit_cast<Words>(bytes), std::bit_cast<Words>(mask), name.size(), kind};
    }

    std::array<Slot, kSlots> slots_;
    int count_ = 0;
};
inline constexpr LineKinds kLineKinds;
static_assert(kLineKinds.count() == static_cast<int>(LineKind::md5), "no two share a slot");

} // namespace ScObjects::ConveyData
