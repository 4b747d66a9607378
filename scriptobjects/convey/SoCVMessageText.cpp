// The text form of messages: writing, reading, and the dump for people.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include "limits/Limits.h"
#include "platform/Processes.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoNumber.h"
#include "scriptobjects/core/SoTerminators.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

// In front of a user header that has the name of one of the format's own lines.
constexpr std::string_view kEscape = "@HDR>";
// The version that a text without a version line has.
constexpr const char* kOldestVersion = "1.0";
// What the oldest format's version line becomes, so that it passes for no newer one.
constexpr const char* kOldVersionPrefix = "@CV>";
constexpr std::string_view kOldVersionName = "Version";
// Compared with a lower-case word, which no system type is.
constexpr std::string_view kTypeWithoutReplyTyping = "debug";

// What a string can hold; no transport brings as much.
constexpr uint32_t kMaximumBodyBytes = limits::of("message.body");

// What is searched, or copied, at once.
constexpr size_t kStepBytes = limits::of("receive.step");

// Of a header's name, and of the names, types and numbers that are read: what one step copies.
constexpr size_t kMaximumNameBytes = limits::of("receive.step");

// From here on moving a body within its buffer is cheaper than another buffer.
constexpr size_t kMovedBodyBytes = 65536;

// Up to so many headers, looking at each costs less than an index of their names.
constexpr int32_t kSearchedHeaders = 16;

// User headers of these names are escaped.
constexpr std::array<std::string_view, 15> kReserved = {
    CV_SENDER,           CV_SENDER_ID, CV_TARGET,         CV_TIMEOUT,       CV_TYPE,
    CV_RESPONSE_REQUEST, CV_TIMESTAMP, CV_CONTENT_LENGTH, CV_SERIAL_NUMBER, CV_RECEIVED,
    CV_RESULT,           CV_ERROR,     CV_ERROR_CODE,     CV_VERSION,       CV_LIFE};

constexpr std::array<bool, 256> kReservedBeginnings = [] {
    std::array<bool, 256> beginnings{};
    for (const std::string_view name : kReserved) {
        beginnings[static_cast<unsigned char>(name.front())] = true;
    }
    return beginnings;
}();

bool isReserved(std::string_view name) {
    return !name.empty() && kReservedBeginnings[static_cast<unsigned char>(name.front())] &&
           std::find(kReserved.begin(), kReserved.end(), name) != kReserved.end();
}

// Formats that came before the escape.
bool isOldFormat(std::string_view version) {
    return version.empty() || version == kOldestVersion || version == "2.0";
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

// Writes a text where there is room for it: nothing is counted first.
class Writer {
public:
    explicit Writer(char* place) : place_(place) {}
    char* end() const { return place_; }

    void add(std::string_view text) {
        std::memcpy(place_, text.data(), text.size());
        place_ += text.size();
    }
    void add(char c) { *place_++ = c; }
    // In decimal digits.
    template <class Number>
    void addNumber(Number number) {
        place_ = std::to_chars(place_, place_ + kDigits, number).ptr;
    }
    void addLine(std::string_view name, std::string_view value) {
        add(name);
        add(':');
        add(value);
        add('\n');
    }
    template <class Number>
    void addLine(std::string_view name, Number number) {
        add(name);
        add(':');
        addNumber(number);
        add('\n');
    }

    static constexpr size_t kDigits = std::numeric_limits<int64_t>::digits10 + 2;

private:
    char* place_;
};

// More than the lines of the format have without their texts and the headers: the longest name,
// a number, and what sets them apart, for each.
constexpr size_t kLinesRoom = kReserved.size() * (2 * Writer::kDigits + 4);

// The next `mark`, or the end of the text, when it is near. Names and values are a few bytes long,
// as a rule: a search that is made for long texts takes more time to begin than this to end.
inline const char* findNearEnd(const char* text, char mark) {
    constexpr int kFewBytes = 100;
    for (int i = 0; i < kFewBytes; ++i, ++text) {
        if (*text == mark || *text == '\0') {
            return text;
        }
    }
    return nullptr;
}

// The same wherever it is; null when that is not within `bytes`, and then `position` is where to
// search on.
const char* findEnd(const char*& position, char mark, size_t& bytes) {
    for (size_t most = kStepBytes; bytes > 0; bytes -= most) {
        most = std::min(most, bytes);
        const size_t length = strnlen(position, most);
        if (const void* const found = std::memchr(position, mark, length)) {
            return static_cast<const char*>(found);
        }
        position += length;
        if (length < most) {
            return position;
        }
    }
    return nullptr;
}

// Header blocks up to this size are put together on the stack; ten headers have some 500 bytes.
constexpr size_t kStackBlockBytes = 2048;

} // namespace

bool Convey::Message::hasOldFormat() const {
    return isOldFormat(version_.view());
}

// Calls `use` with the name and number of each message that this one answers.
template <class Use>
void Convey::Message::forEachReply(Use&& use) const {
    const struct {
        const char* name;
        uint32_t number;
    } replies[] = {{CV_RECEIVED, received_}, {CV_RESULT, result_}, {CV_ERROR, error_}};
    for (const auto& reply : replies) {
        if (reply.number != CV_INVALID_MESSAGE_NUMBER) {
            use(reply.name, reply.number);
        }
    }
}

// Room for all lines from the version to the empty line; they need no more.
size_t Convey::Message::roomForHeaders() const {
    size_t room = kLinesRoom;
    for (const SoString* text : {&version_, &target_, &sender_, &type_, &responseRequest_}) {
        room += text->view().size();
    }
    for (const Header* header = headers_; header != nullptr; header = header->next) {
        room += kEscape.size() + header->name.view().size() + header->value.view().size() + 2;
    }
    return room;
}

// Writes these lines, which the digest covers with the body, and returns their end.
char* Convey::Message::writeHeaders(char* place) const {
    Writer writer(place);
    writer.addLine(CV_VERSION, version_.view());
    writer.addLine(CV_TARGET, target_.view());
    writer.addLine(CV_SENDER, sender_.view());
    writer.add(CV_SENDER_ID);
    writer.add(':');
    writer.add(ConveyUtils::kSenderIDPrefix);
    writer.addNumber(platform::Processes::system().ownNumber());
    writer.add('\n');
    if (timeout_ != 0) {
        // Signed, as below 0 is for ever; readers take it modulo 2^32.
        writer.addLine(CV_TIMEOUT, static_cast<int32_t>(timeout_));
    }
    if (!type_.isEmpty()) {
        writer.addLine(CV_TYPE, type_.view());
    }
    if (!responseRequest_.isEmpty()) {
        writer.addLine(CV_RESPONSE_REQUEST, responseRequest_.view());
    }
    if (askersLife_ != 0) {
        writer.addLine(CV_LIFE, LifeDigits(askersLife_).view());
    }
    // Readers of the old formats would not take the escape off.
    const bool oldFormat = hasOldFormat();
    for (const Header* header = headers_; header != nullptr; header = header->next) {
        if (!oldFormat && isReserved(header->name.view())) {
            writer.add(kEscape);
        }
        writer.addLine(header->name.view(), header->value.view());
    }
    // The time of writing, behind a blank: readers of all versions skip it.
    writer.add(CV_TIMESTAMP);
    writer.add(": ");
    writer.addNumber(ConveyUtils::getTimeSeconds());
    writer.add('\n');
    writer.addLine(CV_SERIAL_NUMBER, serialNumber_);
    forEachReply([&writer](const char* name, uint32_t number) { writer.addLine(name, number); });
    writer.addLine(CV_CONTENT_LENGTH, bodyLength());
    writer.add('\n');
    return writer.end();
}

bool Convey::Message::writeToString(SoString& out) const {
    if (target_.isEmpty() || sender_.isEmpty()) {
        return false;
    }
    // Beside `out`: what they need is known when they are written, and the digest, which stands in
    // front of what it covers, after that.
    char stackBlock[kStackBlockBytes];
    SoString heapBlock;
    const size_t room = roomForHeaders();
    char* const block =
        room <= sizeof stackBlock ? stackBlock : heapBlock.extend(static_cast<int32_t>(room));
    const std::string_view header(block, static_cast<size_t>(writeHeaders(block) - block));
    const std::string_view body = body_.view();
    SoString digest;
    size_t digestBytes = 0;
    if (getCreateDigest()) {
        digest = ConveyUtils::getMD5({header, body});
        digestBytes = std::string_view(CV_MD5).size() + digest.view().size() + 2;
    }
    // Behind what `out` holds already: a text may have several messages.
    Writer writer(out.extend(static_cast<int32_t>(digestBytes + header.size() + body.size())));
    if (digestBytes != 0) {
        writer.addLine(CV_MD5, digest.view());
    }
    writer.add(header);
    writer.add(body);
    return true;
}

// How far a text has been read, and what the lines at its front say of those behind them.
struct Convey::Message::ReadState {
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
        // What has no colon reaches for that of a later line: there is nothing better to be made
        // of it, and every reader makes the same.
        const char* const line = state.position;
        const char* from = state.searched == nullptr ? line : state.searched;
        const char* nameEnd = state.nameEnd;
        if (nameEnd == nullptr) {
            nameEnd = findNearEnd(from, ':');
            if (nameEnd == nullptr && (nameEnd = findEnd(from, ':', bytes)) == nullptr) {
                state.searched = from;
                return false;
            }
            from = *nameEnd == '\0' ? nameEnd : nameEnd + 1;
        }
        const char* const value = *nameEnd == '\0' ? nameEnd : nameEnd + 1;
        const char* valueEnd = findNearEnd(from, '\n');
        if (valueEnd == nullptr && (valueEnd = findEnd(from, '\n', bytes)) == nullptr) {
            state.searched = from;
            state.nameEnd = nameEnd;
            return false;
        }
        state.searched = state.nameEnd = nullptr;
        state.position = *valueEnd == '\0' ? valueEnd : valueEnd + 1;
        bytes -= std::min(bytes, std::min(kStepBytes, static_cast<size_t>(state.position - line)));
        // The position has moved on: what a digest covers begins behind its line.
        takeLineLocked(state, {line, static_cast<size_t>(nameEnd - line)},
                       {value, static_cast<size_t>(valueEnd - value)});
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
    static constexpr struct {
        std::string_view name;
        SoString Message::*field;
    } texts[] = {{CV_SENDER, &Message::sender_},
                 {CV_TARGET, &Message::target_},
                 {CV_TYPE, &Message::type_},
                 {CV_RESPONSE_REQUEST, &Message::responseRequest_}};
    static constexpr struct {
        std::string_view name;
        uint32_t Message::*field;
    } numbers[] = {{CV_TIMEOUT, &Message::timeout_},
                   {CV_TIMESTAMP, &Message::timestamp_},
                   {CV_CONTENT_LENGTH, &Message::contentLength_},
                   {CV_SERIAL_NUMBER, &Message::serialNumber_},
                   {CV_RECEIVED, &Message::received_},
                   {CV_RESULT, &Message::result_},
                   {CV_ERROR, &Message::error_}};
    for (const auto& text : texts) {
        if (name == text.name) {
            assign(this->*text.field);
            return;
        }
    }
    for (const auto& number : numbers) {
        if (name == number.name) {
            this->*number.field = parseUnsigned32(value.substr(0, kMaximumNameBytes));
            return;
        }
    }
    if (name == kOldVersionName) {
        version_ = kOldVersionPrefix;
        version_.append(value.substr(0, kMaximumNameBytes));
        state.newFormat = state.newFormat && !hasOldFormat();
    } else if (name == CV_VERSION) {
        assign(version_);
        state.newFormat = state.newFormat && !hasOldFormat();
    } else if (name == CV_LIFE) {
        askersLife_ = LifeDigits::parse(value);
    } else if (name == CV_DIGEST) {
        // Another kind of digest, which is never checked: with it in front a text counts as
        // unchecked, whatever stands behind it.
        state.hasDigest = true;
        state.signedRegion = state.position;
    } else if (name == CV_MD5) {
        if (!state.hasDigest) {
            state.hasMD5 = true;
            state.md5 = value;
            state.signedRegion = state.position;
        }
    } else {
        if (state.newFormat && name.substr(0, kEscape.size()) == kEscape) {
            name.remove_prefix(kEscape.size());
        }
        // Further ones are passed over: what else the message says still counts.
        if (++state.userHeaders <= kMaximumReadHeaders) {
            takeHeaderLocked(state, name, value);
        }
    }
}

// A repeated name gives the header that is there a new value, as `setHeader` does, and each is
// found in a time that does not grow with those before it: one text may bring a million headers.
void Convey::Message::takeHeaderLocked(ReadState& state, std::string_view name,
                                       std::string_view value) {
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
        header = addHeaderLocked(name, {});
        if (!state.byName.empty()) {
            state.byName.emplace(header->name.view(), header);
        }
    }
    state.assign(header->value, value);
}

void Convey::Message::beginReading() {
    version_ = kOldestVersion;
    // Only one that was used before: what the caller has set in a new one stays.
    if (!target_.isEmpty()) {
        clearLocked();
    }
    digestState_ = CV_DIGEST_NOT_CHECKED;
}

// Reads on for about so many bytes; true at the end of the message.
bool Convey::Message::readOnLocked(ReadState& state, size_t bytes) {
    if (state.part == ReadState::Part::headers) {
        if (!readHeadersLocked(state, bytes)) {
            return false;
        }
        // Never behind the end of the text, whatever length was announced.
        const size_t announced = std::min(contentLength_, kMaximumBodyBytes);
        // memchr looks no further than its first hit, and the text ends with a zero byte: it stays
        // within the text.
        const void* const end =
            state.end != nullptr ? state.end : std::memchr(state.position, '\0', announced);
        state.bodyLength =
            end == nullptr
                ? announced
                : std::min(announced,
                           static_cast<size_t>(static_cast<const char*>(end) - state.position));
        state.body = state.position;
        state.position += state.bodyLength;
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
    state.position = text;
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
    if (state.digest == nullptr) {
        state.digest = std::make_unique<ConveyUtils::MD5>();
        state.digestPosition = state.signedRegion;
    }
    const size_t left = static_cast<size_t>(state.position - state.digestPosition);
    const size_t now = std::min(left, bytes);
    state.digest->add({state.digestPosition, now});
    state.digestPosition += now;
    if (now < left) {
        return false;
    }
    // Noted, not refused: whether such a message counts is its handler's decision.
    digestState_ = state.digest->finish().view() == state.md5 ? "" : CV_DIGEST_REJECTED;
    return true;
}

Convey::Message::Reader::Reader(SoString&& text) : text_(std::move(text)) {}

Convey::Message::Reader::~Reader() = default;

bool Convey::Message::Reader::read(Message& message, size_t bytes) {
    const ObjectLock guard(message);
    if (state_ == nullptr) {
        state_ = std::make_unique<ReadState>();
        state_->position = text_.c_str() + position_;
        // Behind the first message it has been looked through.
        state_->cleaned = position_ == 0 ? 0 : static_cast<size_t>(text_.length());
        state_->end = text_.c_str() + text_.length();
        state_->owner = &text_;
        message.beginReading();
    }
    if (!state_->cleanOn(bytes) || !message.readOnLocked(*state_, bytes)) {
        return false;
    }
    const char* const next = message.takeBodyLocked(*state_, &text_);
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

bool Convey::Message::logToString(const char* label, SoString& out, bool withBody) const {
    out = "CV ";
    out << label << "------------------\n";
    const auto addText = [&out](const char* name, const SoString& value) {
        out << name << ": " << value << "\n";
    };
    const auto addNumber = [&out](const char* name, uint32_t value) {
        out << name << ": " << value << "\n";
    };
    addText(CV_TARGET, target_);
    addText(CV_SENDER, sender_);
    if (!type_.isEmpty()) {
        addText(CV_TYPE, type_);
    }
    if (!responseRequest_.isEmpty()) {
        addText(CV_RESPONSE_REQUEST, responseRequest_);
    }
    if (timeout_ != 0) {
        addNumber(CV_TIMEOUT, timeout_);
        addNumber("Deadline", timestamp_ + timeout_);
    }
    addNumber("Now", ConveyUtils::getTimeSeconds());
    out << CV_SERIAL_NUMBER << ":" << serialNumber_ << "\n";
    out << "Version:" << version_ << "\n";
    forEachReply(addNumber);
    addNumber(CV_CONTENT_LENGTH, static_cast<uint32_t>(bodyLength()));
    if (headers_ != nullptr) {
        out << "Custom Headers:\n";
        for (const Header* header = headers_; header != nullptr; header = header->next) {
            out << "   " << header->name << ": " << header->value << "\n";
        }
    }
    out << "\n";
    if (withBody) {
        out << body_ << "\n";
    } else {
        out << "<<BODY OMITTED>>\n";
    }
    return true;
}

} // namespace ScObjects
