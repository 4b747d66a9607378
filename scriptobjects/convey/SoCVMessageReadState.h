#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoTerminators.h"

namespace ScObjects {

// How far a text has been read, and what the lines at its front say of those behind them.
struct Convey::Message::ReadState {
    // What is searched, or copied, at once.
    static constexpr size_t kStepBytes = limits::of("receive.step");

    enum class Part : uint8_t { headers, digest, gap, body };

    const char* position = nullptr; // of the line that is being read
    const char* end = nullptr;      // of the text; null for the first zero byte
    SoString* owner = nullptr;      // of the text, which may be used up; null for none
    size_t cleaned = 0;             // as far as `cleanOn` was
    Part part = Part::headers;
    const char* searched = nullptr; // as far as this line was; null at its beginning
    const char* nameEnd = nullptr;  // of this line, when it is known
    char* copy = nullptr;           // where the rest of a value goes that takes several steps
    std::string_view uncopied;

    // The owner's bytes, to be written to.
    char* ownBytes() const { return owner->extend(0) - owner->length(); }

    // True when no NUL byte is left in the text.
    bool cleanOn(size_t bytes) {
        const auto length = static_cast<size_t>(owner->length());
        const size_t now = std::min(bytes, length - cleaned);
        replaceTerminators(ownBytes() + cleaned, now);
        cleaned += now;
        return cleaned == length;
    }

    // A value that is too large for one step has its room at once, and its bytes in steps.
    void assign(SoString& field, std::string_view value) {
        if (value.size() <= kStepBytes) {
            field.assign(value);
            return;
        }
        field.shrink(0);
        copy = field.extend(static_cast<int32_t>(value.size()));
        uncopied = value;
    }
    // True when nothing is left to be copied.
    bool copyOn(size_t& bytes) {
        const std::string_view now = uncopied.substr(0, bytes);
        std::memcpy(copy, now.data(), now.size());
        copy += now.size();
        uncopied.remove_prefix(now.size());
        bytes -= now.size();
        return uncopied.empty();
    }

    // The same for a body that goes to the front of its own buffer.
    bool moveOn(size_t bytes) {
        const size_t now = std::min(bytes, bodyLength - moved);
        std::memmove(ownBytes() + moved, body + moved, now);
        moved += now;
        return moved == bodyLength;
    }

    const char* body = nullptr; // from the digest on
    size_t bodyLength = 0;
    bool takesOver = false; // the body gets the text's buffer
    size_t moved = 0;
    std::unique_ptr<ConveyUtils::MD5> digest; // of what lies before `digestPosition`
    const char* digestPosition = nullptr;
    bool newFormat = true;
    bool hasDigest = false;
    bool hasMD5 = false;
    std::string_view md5;
    const char* signedRegion = nullptr;
    int32_t userHeaders = 0;
    // The message's headers by name, once they are many. Ordered: who knows a hash can write names
    // that all have the same.
    std::map<std::string_view, Header*> byName;
};

} // namespace ScObjects
