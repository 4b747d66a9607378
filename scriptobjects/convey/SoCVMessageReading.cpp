// The text form of messages: reading it, in as many steps as a reader likes.
#include <algorithm>
#include <cstring>
#include <utility>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessageFormat.h"
#include "scriptobjects/convey/SoCVMessageLines.h"
#include "scriptobjects/convey/SoCVMessageReadState.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoNumber.h"
#include "scriptobjects/core/SoTerminators.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

// What the oldest format's version line becomes, so that it passes for no newer one.
constexpr const char* kOldVersionPrefix = "@CV>";
constexpr std::string_view kNotChecked = CV_DIGEST_NOT_CHECKED;
// Compared with a lower-case word, which no system type is.
constexpr std::string_view kTypeWithoutReplyTyping = "debug";

// What a string can hold; no transport brings as much.
constexpr uint32_t kMaximumBodyBytes = limits::of("message.body");

// Of a header's name, and of the names, types and numbers that are read: what one step copies.
constexpr size_t kMaximumNameBytes = limits::of("receive.step");

// From here on moving a body within its buffer is cheaper than another buffer.
constexpr size_t kMovedBodyBytes = 65536;

// Up to so many headers, looking at each costs less than an index of their names.
constexpr int32_t kSearchedHeaders = 16;

// Noted, not refused: whether such a message counts is its handler's decision.
std::string_view stateOf(bool digestFits) {
    return digestFits ? "" : CV_DIGEST_REJECTED;
}

} // namespace

// True when the last line has been read, false when more than `bytes` are needed for that. Lines
// are counted whole, what is in the middle of a long one by its bytes.
bool Convey::Message::readHeadersLocked(ReadState& state, size_t bytes) {
    if (!state.uncopied.empty() && !state.copyOn(bytes)) {
        return false;
    }
    while (*state.position != '\0') {
        if (*state.position == '\n') {
            ++state.position;
            return true;
        }
        if (bytes == 0) {
            return false;
        }
        const char* const line = state.position;
        const char* nameEnd = nullptr;
        const char* valueEnd = nullptr;
        if (state.searched == nullptr && state.findNearLine(nameEnd, valueEnd)) {
            // Such a line is taken whole, and no text ends before its line feed.
            state.position = valueEnd + 1;
            bytes -= std::min(bytes, static_cast<size_t>(state.position - line));
            // Of the worst texts nearly every line is one header too many.
            if (state.kind != LineKind::user || state.userHeaders < kMaximumReadHeaders) {
                takeLineLocked(state, {line, nameEnd}, {nameEnd + 1, valueEnd});
            }
            continue;
        }
        if (!state.findLine(nameEnd, valueEnd, bytes)) {
            return false;
        }
        const char* const value = *nameEnd == '\0' ? nameEnd : nameEnd + 1;
        state.position = *valueEnd == '\0' ? valueEnd : valueEnd + 1;
        bytes -= std::min(
            bytes, std::min(ReadState::kStepBytes, static_cast<size_t>(state.position - line)));
        state.kind = kLineKinds.of({line, nameEnd});
        // The position has moved on: what a digest covers begins behind its line.
        takeLineLocked(state, {line, nameEnd}, {value, valueEnd});
        if (!state.uncopied.empty() && !state.copyOn(bytes)) {
            return false;
        }
    }
    return true;
}

void Convey::Message::takeLineLocked(ReadState& state, std::string_view name,
                                     std::string_view value) {
    // A word of that length is nobody's name and no kind of message, and who answers the message
    // would have to copy it.
    const auto assign = [value](SoString& field) {
        if (value.size() <= kMaximumNameBytes) {
            field.assign(value);
        }
    };
    const auto number = [value] { return parseUnsigned32(value.substr(0, kMaximumNameBytes)); };
    switch (state.kind) {
    case LineKind::sender:
        return assign(sender_);
    case LineKind::target:
        return assign(target_);
    case LineKind::type:
        return assign(type_);
    case LineKind::responseRequest:
        return assign(responseRequest_);
    case LineKind::timeout:
        timeout_ = number();
        return;
    case LineKind::timestamp:
        timestamp_ = number();
        return;
    case LineKind::contentLength:
        contentLength_ = number();
        return;
    case LineKind::serialNumber:
        serialNumber_ = number();
        return;
    case LineKind::received:
        received_ = number();
        return;
    case LineKind::result:
        result_ = number();
        return;
    case LineKind::error:
        error_ = number();
        return;
    case LineKind::oldVersion:
        version_ = kOldVersionPrefix;
        version_.append(value.substr(0, kMaximumNameBytes));
        state.newFormat = state.newFormat && !hasOldFormat();
        return;
    case LineKind::version:
        assign(version_);
        state.newFormat = state.newFormat && !hasOldFormat();
        return;
    case LineKind::life:
        askersLife_ = LifeDigits::parse(value);
        return;
    case LineKind::digest:
        // Another kind of digest, which is never checked: with it in front a text counts as
        // unchecked, whatever stands behind it.
        state.hasDigest = true;
        state.signedRegion = state.position;
        return;
    case LineKind::md5:
        if (!state.hasDigest) {
            state.hasMD5 = true;
            state.md5 = value;
            state.signedRegion = state.position;
        }
        return;
    case LineKind::user:
        break;
    }
    // Further ones are passed over: what else the message says still counts.
    if (++state.userHeaders <= kMaximumReadHeaders) {
        takeHeaderLocked(state, name, value);
    }
}

// A repeated name gives the header that is there a new value, as `setHeader` does, and each is
// found in a time that does not grow with those before it: one text may bring a million headers.
void Convey::Message::takeHeaderLocked(ReadState& state, std::string_view name,
                                       std::string_view value) {
    if (state.newFormat && name.starts_with(kHeaderEscape)) {
        name.remove_prefix(kHeaderEscape.size());
    }
    // A name of that length is what has no colon, and nobody asks for it.
    if (name.empty() || name.size() > kMaximumNameBytes) {
        return;
    }
    Header* header = nullptr;
    if (state.userHeaders < kSearchedHeaders) {
        header = findHeader(name);
    } else {
        if (state.byName.empty()) {
            for (Header* own = headers_; own != nullptr; own = own->next) {
                // The keys lie in the headers, which nobody removes while the message's lock is
                // held.
                state.byName.emplace(own->name.view(), own);
            }
        }
        const auto found = state.byName.find(name);
        header = found == state.byName.end() ? nullptr : found->second;
    }
    if (header == nullptr) {
        const bool atOnce = value.size() <= ReadState::kStepBytes;
        header = addHeaderLocked(name, atOnce ? value : std::string_view());
        if (!state.byName.empty()) {
            state.byName.emplace(header->name.view(), header);
        }
        if (atOnce) {
            return;
        }
    }
    state.assign(header->value, value);
}

void Convey::Message::beginReading() {
    version_.assign(kOldestTextVersion);
    // Only one that was used before: what the caller has set in a new one stays.
    if (!target_.isEmpty()) {
        clearLocked();
    }
    digestState_.assign(kNotChecked);
}

// Reads on for about so many bytes; true at the end of the message.
bool Convey::Message::readOnLocked(ReadState& state, size_t bytes) {
    if (state.part == ReadState::Part::headers) {
        if (!readHeadersLocked(state, bytes)) {
            return false;
        }
        // Never behind the end of the text, whatever length was announced.
        const size_t announced = std::min(contentLength_, kMaximumBodyBytes);
        const bool isApart = state.rest != nullptr && state.position == state.end &&
                             announced == static_cast<size_t>(state.rest->length());
        if (state.rest != nullptr && !isApart) {
            state.join();
        }
        // memchr looks no further than its first hit, and the text ends with a zero byte: it stays
        // within the text.
        const void* const end =
            state.end != nullptr ? state.end : std::memchr(state.position, '\0', announced);
        state.bodyLength =
            end == nullptr
                ? announced
                : std::min(announced,
                           static_cast<size_t>(static_cast<const char*>(end) - state.position));
        if (!isApart) {
            state.body = state.position;
            state.position += state.bodyLength;
        }
        state.part = ReadState::Part::digest;
    }
    // Before the body is moved: the digest covers bytes that lie in the text's buffer.
    if (state.part == ReadState::Part::digest) {
        if (!checkDigest(state, bytes)) {
            return false;
        }
        state.part = ReadState::Part::gap;
    }
    if (state.part == ReadState::Part::gap) {
        if (state.rest != nullptr) {
            body_ = std::move(*state.rest);
            state.part = ReadState::Part::body;
            return true;
        }
        for (size_t skipped = 0; *state.position == '\n'; ++state.position, ++skipped) {
            if (skipped == bytes) {
                return false;
            }
        }
        // Only as the last message: what follows would go with the buffer.
        state.takesOver = state.owner != nullptr && state.bodyLength >= kMovedBodyBytes &&
                          state.position == state.owner->c_str() + state.owner->length();
        if (!state.takesOver) {
            state.assign(body_, {state.body, state.bodyLength});
        }
        state.part = ReadState::Part::body;
    }
    return state.takesOver ? state.moveOn(bytes) : state.uncopied.empty() || state.copyOn(bytes);
}

// Where the next message begins; null when the owner of the text was used up.
const char* Convey::Message::takeBodyLocked(const ReadState& state, SoString* owner) {
    if (!state.takesOver || owner == nullptr) { // nothing is taken over without one
        return state.position;
    }
    owner->shrink(static_cast<int32_t>(state.bodyLength));
    body_ = std::move(*owner);
    return nullptr;
}

const char* Convey::Message::readLocked(const char* text, SoString* owner) {
    ReadState state;
    state.position = state.known = text;
    beginReading();
    state.owner = owner;
    (void)readOnLocked(state, SIZE_MAX);
    return takeBodyLocked(state, owner);
}

// True when the digest has been checked, as far as there is one.
bool Convey::Message::checkDigest(ReadState& state, size_t bytes) {
    if (!state.hasMD5 || !Message::getAuthentication()) {
        return true;
    }
    if (state.isSealed()) {
        digestState_.shrink(0);
        return true;
    }
    if (state.digest == nullptr) {
        const std::string_view signedText(state.signedRegion,
                                          static_cast<size_t>(state.position - state.signedRegion));
        const std::string_view rest =
            state.rest == nullptr ? std::string_view() : state.rest->view();
        if (signedText.size() + rest.size() <= bytes) { // in one step, as nearly all are
            digestState_.assign(
                stateOf(ConveyUtils::getMD5({signedText, rest}).view() == state.md5));
            return true;
        }
        state.digest = std::make_unique<ConveyUtils::MD5>();
        state.digestPosition = state.signedRegion;
        state.digestEnd = state.position;
    }
    for (;;) {
        const size_t left = static_cast<size_t>(state.digestEnd - state.digestPosition);
        const size_t now = std::min(left, bytes);
        state.digest->add({state.digestPosition, now});
        state.digestPosition += now;
        bytes -= now;
        if (now < left) {
            return false;
        }
        if (state.rest == nullptr || state.digestEnd != state.position) {
            break;
        }
        state.digestPosition = state.rest->c_str();
        state.digestEnd = state.digestPosition + state.rest->length();
    }
    digestState_.assign(stateOf(state.digest->finish().view() == state.md5));
    return true;
}

Convey::Message::Reader::Reader(SoString&& text) : text_(std::move(text)) {}

// What has zero bytes is changed when it is read, and digested then.
Convey::Message::Reader::Reader(SoString&& text, SoString&& rest, bool mayHaveZero,
                                size_t sealBytes)
    : text_(std::move(text)),
      rest_(std::move(rest)),
      mayHaveZero_(mayHaveZero),
      sealBytes_(mayHaveZero ? 0 : sealBytes) {}

Convey::Message::Reader::~Reader() = default;

// True when the text is ready to be read: without NUL bytes, and in one piece unless the first ends
// with the line in front of a body and the empty one. Without that line what stands at the end of
// the first would go on in the second.
bool Convey::Message::Reader::prepare(size_t bytes) {
    const auto clean = [&](SoString& piece, size_t before) {
        const auto length = static_cast<size_t>(piece.length());
        if (bytes == 0 || cleaned_ >= before + length) {
            return;
        }
        const size_t now = std::min(bytes, before + length - cleaned_);
        replaceTerminators(piece.extend(0) - length + (cleaned_ - before), now);
        cleaned_ += now;
        bytes -= now;
    };
    const auto textBytes = static_cast<size_t>(text_.length());
    if (mayHaveZero_) {
        clean(text_, 0);
        clean(rest_, textBytes);
        if (cleaned_ < textBytes + static_cast<size_t>(rest_.length())) {
            return false;
        }
    }
    if (!rest_.isEmpty()) {
        SoString end("\n");
        end << CV_CONTENT_LENGTH << ':' << rest_.length() << "\n\n";
        if (!text_.view().ends_with(end.view())) {
            text_.append(std::exchange(rest_, SoString()).view());
        }
    }
    (void)text_.extend(0); // a buffer of its own, which the body may become
    isPrepared_ = true;
    return true;
}

bool Convey::Message::Reader::read(Message& message, size_t bytes) {
    const ObjectLock guard(message);
    if (!isPrepared_ && !prepare(bytes)) {
        return false;
    }
    // Most are read in one step, and need no block of the heap for it.
    ReadState first;
    ReadState& state = state_ == nullptr ? first : *state_;
    if (state_ == nullptr) {
        state.position = text_.c_str() + position_;
        state.rest = rest_.isEmpty() ? nullptr : &rest_;
        state.known = state.end = text_.c_str() + text_.length();
        state.owner = &text_;
        state.sealBytes = position_ == 0 ? sealBytes_ : 0;
        message.beginReading();
    }
    if (!message.readOnLocked(state, bytes)) {
        if (state_ == nullptr) {
            state_ = std::make_unique<ReadState>(std::move(first));
        }
        return false;
    }
    const char* const next = message.takeBodyLocked(state, &text_);
    position_ = next == nullptr ? 0 : static_cast<int32_t>(next - text_.c_str());
    state_.reset();
    message.finishReading();
    return true;
}

void Convey::Message::clearLocked() {
    deleteHeaders();
    timeout_ = 0;
    contentLength_ = 0;
    serialNumber_ = 0;
    received_ = CV_INVALID_MESSAGE_NUMBER;
    result_ = CV_INVALID_MESSAGE_NUMBER;
    error_ = CV_INVALID_MESSAGE_NUMBER;
    askersLife_ = 0;
    isReply_ = false;
    for (SoString* field : {&target_, &sender_, &type_, &responseRequest_, &body_}) {
        field->shrink(0);
    }
}

const char* Convey::Message::readFromString(const char* text) {
    const ObjectLock guard(*this);
    const char* const next = readLocked(text == nullptr ? "" : text, nullptr);
    finishReading();
    return next;
}

int32_t Convey::Message::readFromString(SoString& text, int32_t offset) {
    const ObjectLock guard(*this);
    (void)text.extend(0); // a buffer of its own, which the body may become
    const char* const next = readLocked(text.c_str() + offset, &text);
    finishReading();
    return next == nullptr ? 0 : static_cast<int32_t>(next - text.c_str());
}

void Convey::Message::finishReading() {
    // A time-out counts from the time stamp: without one it would have run out long ago.
    if (timeout_ >= 1 && timestamp_ == 0) {
        timestamp_ = ConveyUtils::getTimeSeconds();
    }
    applyReplyTyping();
}

// A reply carries the number that it answers as its own, and its kind in its type.
void Convey::Message::applyReplyTyping() {
    if (type_.view() == kTypeWithoutReplyTyping) {
        return;
    }
    const struct {
        const char* word;
        uint32_t& number;
    } replies[] = {{CV_RECEIVED, received_}, {CV_RESULT, result_}, {CV_ERROR, error_}};
    // In this order: of several that a text has the last counts.
    for (const auto& reply : replies) {
        if (reply.number == CV_INVALID_MESSAGE_NUMBER) {
            continue;
        }
        serialNumber_ = reply.number;
        reply.number = CV_INVALID_MESSAGE_NUMBER;
        isReply_ = true;
        // Some peers have put the word in front already, or twice: it stands there once.
        const std::string_view word = reply.word;
        // A copy, since the view below must outlive the change of the type.
        const SoString whole = type_;
        std::string_view userType = isUserType() ? whole.view() : std::string_view();
        while (userType.starts_with(word)) {
            userType.remove_prefix(word.size());
        }
        type_ = reply.word;
        type_.append(userType.data(), static_cast<int32_t>(userType.size()));
    }
}

} // namespace ScObjects
