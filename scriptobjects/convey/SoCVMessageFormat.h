#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ScObjects::ConveyData {

// What the writer and the reader of the text form of messages must agree on, besides the names of
// its lines. Any thread; nothing is thrown.

// In front of a user header that has the name of one of the format's own lines.
inline constexpr std::string_view kHeaderEscape = "@HDR>";
// The version that a text without a version line has.
inline constexpr std::string_view kOldestTextVersion = "1.0";

// Formats that came before the escape.
inline bool isOldTextFormat(std::string_view version) {
    return version.empty() || version == kOldestTextVersion || version == "2.0";
}

// The digits of a life of a process, and the life that digits stand for: 0 for what is none.
class LifeDigits {
public:
    static constexpr size_t kCount = 16;

    explicit LifeDigits(uint64_t life) {
        for (size_t i = kCount; i-- > 0; life >>= 4) {
            text_[i] = "0123456789abcdef"[life & 15];
        }
    }
    std::string_view view() const { return {text_, kCount}; }

    static uint64_t parse(std::string_view text) {
        uint64_t life = 0;
        const char* const end = text.data() + text.size();
        // What has another length was not written by a layer, and must not be taken for a life.
        return text.size() == kCount && std::from_chars(text.data(), end, life, 16).ptr == end
                   ? life
                   : 0;
    }

private:
    char text_[kCount];
};

} // namespace ScObjects::ConveyData
