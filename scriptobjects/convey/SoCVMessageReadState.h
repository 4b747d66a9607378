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
#include "scriptobjects/convey/SoCVMessageLines.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

// How far a text has been read, and what the lines at its front say of those behind them.
struct Convey::Message::ReadState {
    // What is searched, or copied, at once.
    static constexpr size_t kStepBytes = limits::of("receive.step");

    // What most lines are shorter than.
    static constexpr size_t kNearBytes = 1024;

    // Of a text of unknown end, where its end is sought first: ten headers have some 300 bytes.
    static constexpr size_t kWindowBytes = 256;

    enum class Part : uint8_t { headers, digest, gap, body };

    const char* position = nullptr; // of the line that is being read
    const char* end = nullptr;      // of the text; null for the first zero byte
    const char* known = nullptr;    // no zero byte lies before it: the end, when that is known
    size_t window = kWindowBytes;   // to be looked through from there on
    SoString* owner = nullptr;      // of the text, which may be used up; null for none
    SoString* rest = nullptr;       // the second piece of the text; null for none
    Part part = Part::headers;
    ConveyData::LineKind kind = ConveyData::LineKind::user; // of the line that is taken
    const char* searched = nullptr; // as far as this line was; null at its beginning
    const char* nameEnd = nullptr;  // of this line, when it is known
    char* copy = nullptr;           // where the rest of a value goes that takes several steps
    std::string_view uncopied;

    // Looks on for the end of a text that is read to its first zero byte; false when there is
    // nothing more. The more the further: a text of small messages has its end sought for each.
    bool lookOn() {
        if (end != nullptr) {
            return false;
        }
        const size_t length = strnlen(known, window);
        known += length;
        window = std::min(2 * window, kStepBytes);
        return length > 0;
    }

    // The next `mark`, or the end of the text; null when it is not within `bytes`, and then `from`
    // is where to search on.
    const char* findEnd(const char*& from, char mark, size_t& bytes) {
        for (;;) {
            const size_t most = std::min({static_cast<size_t>(known - from), kStepBytes, bytes});
            if (const void* const found = std::memchr(from, mark, most)) {
                return static_cast<const char*>(found);
            }
            from += most;
            bytes -= most;
            if (from == known && !lookOn()) {
                return from;
            }
            if (bytes == 0) {
                return nullptr;
            }
        }
    }

    // The kind of a line all of which is near, as it is of most, and the ends of its name and
    // value.
    bool findNearLine(const char*& endOfName, const char*& endOfValue) {
        if (position == known && !lookOn()) {
            return false;
        }
        const size_t most = std::min(static_cast<size_t>(known - position), kNearBytes);
        const auto find = [&](const char* from, const char* to, char mark) {
            return static_cast<const char*>(
                std::memchr(from, mark, static_cast<size_t>(to - from)));
        };
        const bool isSure = most >= ConveyData::LineKinds::kReadBytes;
        if (isSure) {
            size_t nameBytes = 0;
            kind = ConveyData::kLineKinds.at(position, nameBytes);
            if (kind != ConveyData::LineKind::user) {
                endOfName = position + nameBytes;
                return (endOfValue = find(endOfName, position + most, '\n')) != nullptr;
            }
        }
        if ((endOfValue = find(position, position + most, '\n')) == nullptr ||
            (endOfName = find(position, endOfValue, ':')) == nullptr) {
            return false;
        }
        if (!isSure) {
            kind = ConveyData::kLineKinds.of({position, endOfName});
        }
        return true;
    }

    // The same of any line; false when they are not within `bytes`. What has no colon reaches for
    // that of a later line: there is nothing better to be made of it, and every reader makes the
    // same.
    bool findLine(const char*& endOfName, const char*& endOfValue, size_t& bytes) {
        const char* from = searched == nullptr ? position : searched;
        endOfValue = nullptr;
        if (nameEnd == nullptr && (nameEnd = findEnd(from, ':', bytes)) != nullptr) {
            from = *nameEnd == '\0' ? nameEnd : nameEnd + 1;
        }
        if (nameEnd != nullptr) {
            endOfValue = findEnd(from, '\n', bytes);
        }
        endOfName = nameEnd;
        if (endOfValue == nullptr) {
            searched = from;
            return false;
        }
        searched = nameEnd = nullptr;
        return true;
    }

    // The owner's bytes, to be written to.
    char* ownBytes() const { return owner->extend(0) - owner->length(); }

    // Makes one of the two pieces, behind the lines, where the second is not just the body.
    void join() {
        const char* const before = owner->c_str();
        owner->append(std::exchange(*rest, SoString()).view());
        rest = nullptr;
        const auto move = [&](const char* old) { return owner->c_str() + (old - before); };
        position = move(position);
        known = end = owner->c_str() + owner->length();
        if (signedRegion != nullptr) {
            signedRegion = move(signedRegion);
            md5 = md5.data() == nullptr ? md5 : std::string_view(move(md5.data()), md5.size());
        }
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
    const char* digestEnd = nullptr;
    bool newFormat = true;
    size_t sealBytes = 0; // of a digest's line in front of the text that fits all behind it
    // True when what is to be digested is what that line is known to fit.
    bool isSealed() const {
        return sealBytes != 0 && position == end && signedRegion == owner->c_str() + sealBytes;
    }
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
