// The text form of messages: writing it, and the dump for people.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

#include "limits/Limits.h"
#include "platform/MessagePort.h"
#include "platform/Processes.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessageFormat.h"
#include "scriptobjects/convey/SoCVTextSeal.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

// A text whose body is larger goes in several packets in any case.
constexpr size_t kWholeTextBytes = limits::of("port.packet");

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

// Header blocks up to this size are put together on the stack; ten headers have some 500 bytes.
constexpr size_t kStackBlockBytes = 2048;

} // namespace

bool Convey::Message::hasOldFormat() const {
    return isOldTextFormat(version_.view());
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
        room += kHeaderEscape.size() + header->name.view().size() + header->value.view().size() + 2;
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
            writer.add(kHeaderEscape);
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

// Appends all but the body, with room for so much of it; where that is, or null without a target or
// a sender.
char* Convey::Message::writeLines(SoString& out, size_t bodyBytes, bool withDigest) const {
    if (target_.isEmpty() || sender_.isEmpty()) {
        return nullptr;
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
    if (withDigest) {
        digest = ConveyUtils::getMD5({header, body});
        digestBytes = std::string_view(CV_MD5).size() + digest.view().size() + 2;
    }
    // Behind what `out` holds already: a text may have several messages.
    Writer writer(out.extend(static_cast<int32_t>(digestBytes + header.size() + bodyBytes)));
    if (digestBytes != 0) {
        writer.addLine(CV_MD5, digest.view());
    }
    writer.add(header);
    return writer.end();
}

bool Convey::Message::writeToString(SoString& out) const {
    const std::string_view body = body_.view();
    char* const place = writeLines(out, body.size(), getCreateDigest());
    if (place == nullptr) {
        return false;
    }
    (void)std::char_traits<char>::copy(place, body.data(), body.size());
    return true;
}

bool Convey::Message::Text::write(const Message& message) {
    const std::string_view body = message.body_.view();
    const bool isLarge = body.size() > kWholeTextBytes;
    SoString head;
    // The digest of a large one is made while it is sent.
    if (isLarge ? message.writeLines(head, 0, false) == nullptr : !message.writeToString(head)) {
        return false;
    }
    seal_ = isLarge && getCreateDigest() ? std::make_shared<TextSeal>() : nullptr;
    head_ = std::move(head);
    body_ = isLarge ? body : std::string_view();
    return true;
}

platform::PortPieces Convey::Message::Text::pieces() const {
    return {head_.view(), body_, seal_.get()};
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
