#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoHeap.h"

namespace ScObjects {

// A growable byte string that holds UTF-8; nothing checks that it does, and lengths count bytes.
//
// Owns its buffer, which is always terminated by a zero byte and never null. Buffers have the
// smallest multiple of 128 bytes above the length, in a larger block once a long one is appended
// to. A short text lies in the object itself until it grows: names, types and specifiers, most of
// what a registry or a message holds, take nothing from the heap, and moving them moves their
// bytes. Copies of a text from 16 KiB on share its buffer, and who changes such a string first gets
// one of its own, as large as its new text needs: handing a body on costs nothing. A moved-from
// string is empty. Used by one thread at a time; any number may read one, and copy it, that nobody
// changes. Each copy is its thread's own, whatever it shares.
//
// Texts: null counts as "", a negative length means up to the first zero byte, and a text may lie
// in the string's own buffer. Throws std::bad_alloc, the string unchanged, when memory runs out or
// the result would have 2^31 bytes.
class SO_EXPORT SoString : public SoHeap {
public:
    static constexpr int32_t kStep = 128; // bytes; headers, specifiers and paths fit one or two
    // Bytes, with the zero byte, of a text that lies in the object; whole specifiers and digests
    // fit, and with the rest of the object they fill one line of the processor's cache.
    static constexpr int32_t kShortBytes = 40;

    // Empty, and of a text.
    SoString() noexcept;
    explicit SoString(char c);
    SoString(const char* text,
             int32_t length = -1); // NOLINT(google-explicit-constructor): a text is one
    explicit SoString(std::string_view text);
    // UTF-16 in the machine's byte order, `length` units or, when negative, up to the first zero
    // unit and at most 65,536. Pairs are joined, a lone surrogate becomes the three bytes of its
    // own value.
    explicit SoString(const unsigned short* utf16, int32_t length = -1);
    // A copy, and what another one was, which is empty then.
    SoString(const SoString& other);
    SoString(SoString&& other) noexcept;
    ~SoString() override;

    // The same for one that is there.
    SoString& operator=(const SoString& other);
    SoString& operator=(SoString&& other) noexcept;

    // Replaces the content; returns the buffer, good until the next change.
    const char* assign(const char* text, int32_t length = -1);
    const char* assign(std::string_view text);

    // Adds a text at the end.
    void append(const char* text, int32_t length = -1);
    void append(std::string_view text);
    void append(char c) { append(&c, 1); }
    // The number as an unsigned 32-bit decimal: -1 is written 4294967295.
    void append(long n);

    // Lengthens the string by `bytes` (0 or more) and returns the place of the new bytes, which
    // hold anything until they are written; good until the next change or copy. For texts of a
    // known length.
    char* extend(int32_t bytes);
    // Replaces the content by a text in a buffer of the heap (`mallocHeap`) that the string owns
    // from now on; the buffer has at least one byte of room behind `length` bytes. When memory runs
    // out the string and the owner stay as they are.
    void adopt(char* heapBuffer, int32_t length);

    // Cuts the string to `n` bytes; nothing when `n` is negative or not below the length.
    void shrink(int32_t n);

    // Keeps the `length` bytes that begin at `start`, in the same buffer; both within the string.
    void cut(int32_t start, int32_t length);

    // Less than, equal to or greater than 0, as strcmp orders the two texts.
    int compare(const char* text) const;
    int compare(const SoString& other) const { return compare(other.data_); }

    // A copy in which every byte before the first zero byte has gone through tolower or toupper.
    SoString lowercase() const;
    SoString uppercase() const;
    // The same in place.
    void makeLowercase();

    // Writes the text as UTF-16 into `out`, at most `steps` code points; a code point above 0xFFFF
    // takes two units, so `out` must have room for twice `steps` units, or for `utf16Units()` of
    // them. Ends with a zero unit when a step is left for it. What is no UTF-8 gives FFFD: one unit
    // and the end for a sequence that the end of the string cuts off, one unit for every step that
    // is left for a stray continuation byte.
    void convertToUtf16(unsigned short* out, uint32_t steps) const;
    // The units that a conversion with as many steps as there are bytes, and one more, writes.
    int32_t utf16Units() const;

    // The buffer, good until the next change.
    const char* c_str() const { return data_; }
    int32_t length() const { return length_; }
    // Bytes of the buffer; for a text that lies in the object one step, as if it were on the heap.
    int32_t capacity() const { return capacity_; }
    // Bytes that the string holds of the heap: its capacity, or 0 when its text lies in the object.
    int32_t heapBytes() const { return data_ == short_ ? 0 : capacity_; }
    bool isEmpty() const { return length_ == 0; }
    // The bytes up to the length, good until the next change.
    std::string_view view() const { return {data_, static_cast<size_t>(length_)}; }

private:
    using Sharers = std::atomic<int32_t>; // how many strings have a buffer

    bool hasRoomFor(int64_t length);
    void reserveFresh(int64_t length);
    void own(char* buffer, int32_t capacity);
    Sharers*& sharers() const;
    bool isShared() const;
    bool share(const SoString& other) noexcept;
    void release();
    void take(SoString& other) noexcept;

    char* data_ = short_; // or of the heap
    int32_t length_ = 0;
    int32_t capacity_ = kStep;
    // The text when it is short; else where the count of the buffer's sharers is, which a copy may
    // set as well.
    alignas(void*) mutable char short_[kShortBytes] = {};
};

static_assert(sizeof(int32_t) == 4, "lengths are 32-bit on every platform");

inline bool operator==(const SoString& a, const SoString& b) {
    return a.compare(b) == 0;
}
inline bool operator==(const SoString& a, const char* b) {
    return a.compare(b) == 0;
}
inline bool operator<(const SoString& a, const SoString& b) {
    return a.compare(b) < 0;
}

// Appenders; they return the string on the left, so they chain. Whole numbers are written as
// unsigned 32-bit decimals (wider ones modulo 2^32, -1 as 4294967295), a double rounded to a whole
// number, half to even.
SO_EXPORT SoString& operator<<(SoString& string, const SoString& text);
SO_EXPORT SoString& operator<<(SoString& string, const char* text);
SO_EXPORT SoString& operator<<(SoString& string, std::string_view text);
SO_EXPORT SoString& operator<<(SoString& string, char c);
SO_EXPORT SoString& operator<<(SoString& string, unsigned long n);
SO_EXPORT SoString& operator<<(SoString& string, long n);
SO_EXPORT SoString& operator<<(SoString& string, unsigned int n);
SO_EXPORT SoString& operator<<(SoString& string, int n);
SO_EXPORT SoString& operator<<(SoString& string, double number);

// Writes a code point in the long form of UTF-8, up to six bytes, into `out` (room for six) and
// returns the number of bytes; FFFD in place of 0x7FFFFFFF and above. Any thread.
SO_EXPORT int32_t EncodeUTF8(uint32_t codePoint, char* out);

} // namespace ScObjects
