#include "scriptobjects/core/SoString.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "limits/Limits.h"
#include "platform/TextMemory.h"

namespace ScObjects {
namespace {

constexpr int64_t kMaximumLength = limits::of("string.length");
constexpr int32_t kMaximumScannedUnits = limits::of("string.unmeasured");
constexpr uint32_t kReplacement = 0xFFFD;
constexpr int kEncodedBytes = 6; // of the longest code point

// The smallest multiple of the step that is above `length`. Above, so that the zero byte has room
// behind a text that fills its step.
int32_t capacityFor(int64_t length) {
    return static_cast<int32_t>((length + SoString::kStep) / SoString::kStep * SoString::kStep);
}

// A text that has become long by appending goes on growing: with a step more each time it would be
// copied for every step, and take quadratic time. The room behind it is the block's, not the
// string's, whose capacity stays that of its length.
constexpr int32_t kLargeLength = 16 << 10;

// Sharing costs about as much as copying so many; and of what is shorter, appending makes a buffer
// anew at each step.
constexpr int32_t kSharedLength = kLargeLength;

int64_t spareFor(int32_t length, int64_t newLength) {
    return length < kLargeLength ? 0
                                 : std::clamp<int64_t>(kMaximumLength - newLength, 0, length / 4);
}

// The buffer (null for none) with room for a text of `length` bytes, content kept.
char* grown(char* buffer, int64_t length) {
    // The capacity, a step more than the length at most, must fit into 32 bits, too.
    if (length > kMaximumLength) {
        throw std::bad_alloc();
    }
    const auto bytes = static_cast<size_t>(capacityFor(length));
    void* const larger =
        buffer == nullptr ? SoHeap::mallocHeap(bytes) : SoHeap::reallocHeap(buffer, bytes);
    if (larger == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<char*>(larger);
}

char* newBuffer(int64_t length) {
    return grown(nullptr, length);
}

// What a text with a length, or without one, stands for.
std::string_view viewOf(const char* text, int32_t length) {
    if (text == nullptr) {
        return {};
    }
    return {text, length >= 0 ? static_cast<size_t>(length) : std::strlen(text)};
}

// Lengths that a string cannot have are all the same, and never negative.
int64_t lengthOf(std::string_view text) {
    return static_cast<int64_t>(std::min<uint64_t>(text.size(), kMaximumLength + 1));
}

template <class Convert>
void convertBytes(char* text, Convert&& convert) {
    for (; *text != '\0'; ++text) {
        // tolower and toupper are not defined for the negative numbers that a char may be.
        *text = static_cast<char>(convert(static_cast<unsigned char>(*text)));
    }
}

// What a specifier is made of as a rule, and no locale's tolower changes.
bool isSurelyLower(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '-' && c <= '9') || c == '_' || c == '#';
}

bool isHighSurrogate(uint32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(uint32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// Calls `use` with each code point of the units.
template <class Use>
void walkUtf16(const unsigned short* units, int32_t count, Use&& use) {
    for (int32_t i = 0; i < count; ++i) {
        uint32_t codePoint = units[i];
        if (isHighSurrogate(codePoint) && i + 1 < count && isLowSurrogate(units[i + 1])) {
            codePoint = 0x10000 + ((codePoint & 0x3FFU) << 10) + (units[i + 1] & 0x3FFU);
            ++i;
        }
        use(codePoint);
    }
}

// The bytes that a sequence with this first byte has: 0 for a continuation byte, which begins none.
int sequenceLength(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC0) {
        return 0;
    }
    if (first < 0xE0) {
        return 2;
    }
    if (first < 0xF0) {
        return 3;
    }
    if (first < 0xF8) {
        return 4;
    }
    // The long forms, which EncodeUTF8 writes, are read as well.
    return first < 0xFC ? 5 : 6;
}

uint32_t decode(const char* text, int length) {
    const auto first = static_cast<unsigned char>(*text);
    uint32_t codePoint = length == 1 ? first : first & (0x7FU >> length);
    for (int i = 1; i < length; ++i) {
        codePoint = (codePoint << 6) | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    return codePoint;
}

// Calls `use` with each unit; see convertToUtf16. `steps` counts code points.
template <class Use>
void walkUtf8(const char* text, const char* end, uint32_t steps, Use&& use) {
    bool cutOff = false;
    for (uint32_t step = 0; step < steps; ++step) {
        if (text == end || cutOff) {
            use(0);
            return;
        }
        const int length = sequenceLength(static_cast<unsigned char>(*text));
        if (length == 0) {
            use(kReplacement); // and again, until the steps are used up
            continue;
        }
        if (length > end - text) {
            use(kReplacement);
            cutOff = true;
            continue;
        }
        const uint32_t codePoint = decode(text, length);
        // In any form: an encoded zero ends a text as a zero byte does, for whoever gets the units.
        if (codePoint == 0) {
            use(0);
            return;
        }
        text += length;
        if (codePoint < 0x10000) {
            use(codePoint);
        } else if (codePoint < 0x110000) {
            use(0xD800 + ((codePoint - 0x10000) >> 10));
            use(0xDC00 + (codePoint & 0x3FF));
        } else {
            use(kReplacement);
        }
    }
}

} // namespace

SoString::SoString() noexcept = default;

SoString::SoString(char c) : length_(1) {
    short_[0] = c;
}

// For constructors: an uninitialised buffer for `length` bytes, which may be none.
inline void SoString::reserveFresh(int64_t length) {
    if (length >= kShortBytes) {
        own(newBuffer(length), capacityFor(length));
    }
    length_ = static_cast<int32_t>(length);
    data_[length] = '\0';
}

// Has a buffer of the heap from now on, which no other string has.
inline void SoString::own(char* buffer, int32_t capacity) {
    data_ = buffer;
    capacity_ = capacity;
    new (short_) Sharers*(nullptr);
}

// Of a string with a buffer of the heap; null until it is copied first.
inline SoString::Sharers*& SoString::sharers() const {
    return *std::launder(reinterpret_cast<Sharers**>(short_));
}

// Once it is false nobody else can make it true: who would copy another string with this buffer has
// none. What others have read of the buffer, they have read before.
inline bool SoString::isShared() const {
    if (data_ == short_) {
        return false;
    }
    const Sharers* const count = sharers();
    return count != nullptr && count->load(std::memory_order_acquire) > 1;
}

inline void SoString::release() {
    if (data_ == short_) {
        return;
    }
    Sharers* const count = sharers();
    if (count == nullptr || count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete count;
        freeHeap(data_);
    }
}

// For one that holds nothing: the other's text in the same buffer; false when it is to be copied.
// The other may be read, and copied, by several threads at once.
bool SoString::share(const SoString& other) noexcept {
    // A buffer that is much larger would stay as long as this string, which does not say so.
    if (other.length_ < kSharedLength ||
        platform::TextMemory::roomOf(other.data_) / 2 > static_cast<size_t>(other.length_)) {
        return false;
    }
    const std::atomic_ref<Sharers*> place(other.sharers());
    Sharers* count = place.load(std::memory_order_acquire);
    if (count == nullptr) {
        auto* const first = new (std::nothrow) Sharers(1);
        if (first == nullptr) {
            return false;
        }
        if (place.compare_exchange_strong(count, first, std::memory_order_acq_rel)) {
            count = first;
        } else {
            delete first; // another thread was faster
        }
    }
    count->fetch_add(1, std::memory_order_relaxed);
    own(other.data_, capacityFor(other.length_));
    sharers() = count;
    length_ = other.length_;
    return true;
}

SoString::SoString(const char* text, int32_t length) : SoString(viewOf(text, length)) {}

SoString::SoString(std::string_view text) {
    reserveFresh(lengthOf(text));
    (void)std::char_traits<char>::copy(data_, text.data(), text.size()); // null when it is empty
}

SoString::SoString(const SoString& other) : SoHeap(other) {
    if (other.data_ == other.short_) { // all of them, as below
        std::memcpy(short_, other.short_, kShortBytes);
        length_ = other.length_;
        return;
    }
    if (!share(other)) {
        reserveFresh(other.length_);
        std::memcpy(data_, other.data_, static_cast<size_t>(length_));
    }
}

SoString::SoString(SoString&& other) noexcept : SoHeap(other) {
    take(other);
}

// What the other holds, whatever this one points to. Who uses the other again finds it empty.
void SoString::take(SoString& other) noexcept {
    // All of them, or the place of the count: a number that is known here costs less than the
    // length, which is not.
    std::memcpy(short_, other.short_, kShortBytes);
    data_ = other.data_ == other.short_ ? short_ : std::exchange(other.data_, other.short_);
    length_ = std::exchange(other.length_, 0);
    capacity_ = std::exchange(other.capacity_, kStep);
    other.short_[0] = '\0';
}

SoString::SoString(const unsigned short* utf16, int32_t length) {
    // The bound: a text whose end is missing must not be sought through all of the host's memory.
    if (utf16 != nullptr && length < 0) {
        for (length = 0; length < kMaximumScannedUnits && utf16[length] != 0;) {
            ++length;
        }
    }
    const int32_t count = utf16 == nullptr ? 0 : length;
    // Twice over the units: the first walk tells the size, so that the buffer has the capacity that
    // every string of this length has.
    char encoded[kEncodedBytes];
    int64_t bytes = 0;
    walkUtf16(utf16, count, [&](uint32_t c) { bytes += EncodeUTF8(c, encoded); });
    reserveFresh(bytes);
    char* out = data_;
    walkUtf16(utf16, count, [&](uint32_t c) { out += EncodeUTF8(c, out); });
}

SoString::~SoString() {
    release();
}

SoString& SoString::operator=(const SoString& other) {
    if (this == &other) {
        return *this;
    }
    if (data_ == short_ && other.data_ == other.short_) {
        std::memcpy(short_, other.short_, kShortBytes);
        length_ = other.length_;
    } else if (other.length_ >= kSharedLength) {
        *this = SoString(other);
    } else {
        assign(other.view());
    }
    return *this;
}

SoString& SoString::operator=(SoString&& other) noexcept {
    if (this != &other) { // moved into itself it keeps its text
        release();
        take(other);
    }
    return *this;
}

const char* SoString::assign(const char* text, int32_t length) {
    return assign(viewOf(text, length));
}

const char* SoString::assign(std::string_view text) {
    if (isShared()) {
        *this = SoString(text); // which may be a part of this one
        return data_;
    }
    if (text.size() < kShortBytes) { // any buffer has that room
        (void)std::char_traits<char>::move(data_, text.data(), text.size());
        length_ = static_cast<int32_t>(text.size());
        data_[text.size()] = '\0';
        return data_;
    }
    const int64_t bytes = lengthOf(text);
    if ((data_ == short_ ? kShortBytes : capacity_) <= bytes) {
        // A text that needs more room than the buffer has does not lie in it.
        // The new buffer comes before the old one goes: without memory the string stays as it is.
        char* buffer = newBuffer(bytes);
        release();
        own(buffer, capacityFor(bytes));
    }
    // Moved, not copied: it may be a part of what this buffer holds.
    (void)std::char_traits<char>::move(data_, text.data(), text.size());
    length_ = static_cast<int32_t>(bytes);
    data_[length_] = '\0';
    return data_;
}

bool SoString::hasRoomFor(int64_t length) {
    if (data_ == short_) {
        return length < kShortBytes;
    }
    if (length >= capacity_ && length_ >= kLargeLength && length <= kMaximumLength &&
        static_cast<size_t>(capacityFor(length)) <= platform::TextMemory::roomOf(data_)) {
        capacity_ = capacityFor(length);
    }
    return length < capacity_;
}

void SoString::append(const char* text, int32_t length) {
    append(viewOf(text, length));
}

void SoString::append(std::string_view text) {
    if (text.empty()) {
        return;
    }
    // The text may be a part of this one, which may move.
    const bool isOwn =
        !std::less<>()(text.data(), data_) && std::less<>()(text.data(), data_ + length_);
    const ptrdiff_t offset = isOwn ? text.data() - data_ : 0;
    if (text.size() > static_cast<size_t>(kMaximumLength)) {
        throw std::bad_alloc();
    }
    char* const place = extend(static_cast<int32_t>(text.size()));
    std::memmove(place, isOwn ? data_ + offset : text.data(), text.size());
}

char* SoString::extend(int32_t bytes) {
    // In 64 bits: the sum of two lengths that are allowed may be one that is not.
    const int64_t newLength = static_cast<int64_t>(length_) + bytes;
    const bool isShared = this->isShared();
    if (isShared || !hasRoomFor(newLength)) {
        const int64_t room = newLength + (bytes == 0 ? 0 : spareFor(length_, newLength));
        if (isShared || length_ < kLargeLength) {
            char* const buffer = newBuffer(room);
            std::memcpy(buffer, data_, static_cast<size_t>(length_) + 1);
            release();
            own(buffer, capacityFor(newLength));
        } else {
            data_ = grown(data_, room); // whose pages the system moves: megabytes are not copied
            capacity_ = capacityFor(newLength);
        }
    }
    char* const place = data_ + length_;
    length_ = static_cast<int32_t>(newLength);
    data_[length_] = '\0';
    return place;
}

void SoString::adopt(char* heapBuffer, int32_t length) {
    // Refused before the block is touched: until all has succeeded it is its owner's to free.
    if (length > kMaximumLength) {
        throw std::bad_alloc();
    }
    const int32_t capacity = capacityFor(length);
    char* buffer = heapBuffer;
    const auto needed = static_cast<size_t>(capacity);
    const size_t room = platform::TextMemory::roomOf(heapBuffer);
    // As it is, as a rule. One that is a little larger stays so: a large block that was cut would
    // be of no use for the next text. Any other becomes what strings expect of their buffers.
    if (room < needed || room - needed > needed / 16) {
        buffer = static_cast<char*>(SoHeap::reallocHeap(heapBuffer, needed));
    }
    if (buffer == nullptr) {
        throw std::bad_alloc();
    }
    release();
    own(buffer, capacity);
    length_ = length;
    data_[length_] = '\0';
}

void SoString::append(long n) {
    // 32 bits, however wide a `long` is: texts are the same bytes on every machine.
    char digits[std::numeric_limits<uint32_t>::digits10 + 1];
    const auto result = std::to_chars(digits, digits + sizeof digits, static_cast<uint32_t>(n));
    append(std::string_view(digits, static_cast<size_t>(result.ptr - digits)));
}

void SoString::shrink(int32_t n) {
    if (n < 0 || n >= length_) {
        return;
    }
    if (isShared()) {
        assign(view().substr(0, static_cast<size_t>(n)));
        return;
    }
    length_ = n;
    data_[n] = '\0';
}

void SoString::cut(int32_t start, int32_t length) {
    if (isShared()) {
        assign(view().substr(static_cast<size_t>(start), static_cast<size_t>(length)));
        return;
    }
    std::memmove(data_, data_ + start, static_cast<size_t>(length));
    shrink(length);
}

int SoString::compare(const char* text) const {
    // It compares unsigned bytes, so the order is the same whatever a char is.
    return std::strcmp(data_, text != nullptr ? text : "");
}

SoString SoString::lowercase() const {
    SoString result(*this);
    result.makeLowercase();
    return result;
}

SoString SoString::uppercase() const {
    SoString result(*this);
    (void)result.extend(0); // before it is changed: the buffer may be this one's as well
    convertBytes(result.data_, [](int c) { return std::toupper(c); });
    return result;
}

void SoString::makeLowercase() {
    // What comes here is in lower case as a rule, and then no byte goes through the locale and none
    // is written.
    char* text = data_;
    while (isSurelyLower(*text)) {
        ++text;
    }
    if (*text != '\0') {
        const ptrdiff_t lower = text - data_;
        (void)extend(0); // a buffer of its own
        convertBytes(data_ + lower, [](int c) { return std::tolower(c); });
    }
}

void SoString::convertToUtf16(unsigned short* out, uint32_t steps) const {
    walkUtf8(data_, data_ + length_, steps,
             [&out](uint32_t unit) { *out++ = static_cast<unsigned short>(unit); });
}

int32_t SoString::utf16Units() const {
    int64_t units = 0;
    walkUtf8(data_, data_ + length_, static_cast<uint32_t>(length_) + 1,
             [&units](uint32_t) { ++units; });
    return static_cast<int32_t>(units); // a byte gives one unit at most
}

SoString& operator<<(SoString& string, const SoString& text) {
    string.append(text.view());
    return string;
}

SoString& operator<<(SoString& string, std::string_view text) {
    string.append(text);
    return string;
}

SoString& operator<<(SoString& string, const char* text) {
    string.append(text);
    return string;
}

SoString& operator<<(SoString& string, char c) {
    string.append(c);
    return string;
}

SoString& operator<<(SoString& string, unsigned long n) {
    string.append(static_cast<long>(n));
    return string;
}

SoString& operator<<(SoString& string, long n) {
    string.append(n);
    return string;
}

SoString& operator<<(SoString& string, unsigned int n) {
    string.append(static_cast<long>(n));
    return string;
}

SoString& operator<<(SoString& string, int n) {
    string.append(static_cast<long>(n));
    return string;
}

SoString& operator<<(SoString& string, double number) {
    // The largest double has 309 digits; "%.0f" writes no decimal point, whatever the locale.
    char digits[std::numeric_limits<double>::max_exponent10 + 8];
    const int bytes = std::snprintf(digits, sizeof digits, "%.0f", number);
    string.append(digits, bytes);
    return string;
}

int32_t EncodeUTF8(uint32_t codePoint, char* out) {
    if (codePoint < 0x80) {
        *out = static_cast<char>(codePoint);
        return 1;
    }
    if (codePoint >= 0x7FFFFFFF) {
        codePoint = kReplacement;
    }
    struct Form {
        uint32_t below;
        uint32_t lead;
        int32_t bytes;
    };
    static constexpr std::array<Form, 5> forms = {{{0x800, 0xC0, 2},
                                                   {0x10000, 0xE0, 3},
                                                   {0x200000, 0xF0, 4},
                                                   {0x4000000, 0xF8, 5},
                                                   {0x7FFFFFFF, 0xFC, 6}}};
    // What was replaced above would be beyond the last form: this walk ends.
    const Form* form = forms.data();
    while (codePoint >= form->below) {
        ++form;
    }
    for (int32_t i = form->bytes - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (codePoint & 0x3F));
        codePoint >>= 6;
    }
    *out = static_cast<char>(form->lead | codePoint);
    return form->bytes;
}

} // namespace ScObjects
