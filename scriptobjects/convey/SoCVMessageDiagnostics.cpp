#include "scriptobjects/convey/SoCVMessageDiagnostics.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

// Of a serial number, so that rows of one level line up.
constexpr std::string_view kShownDigits = "00000000";

// A number as it is shown.
class Digits {
public:
    explicit Digits(uint32_t number)
        : length_(static_cast<size_t>(
              std::to_chars(digits_.data(), digits_.data() + digits_.size(), number).ptr -
              digits_.data())) {}
    std::string_view view() const { return {digits_.data(), length_}; }

private:
    std::array<char, std::numeric_limits<uint32_t>::digits10 + 1> digits_;
    const size_t length_;
};

// A leaf, or the row that says that there is none.
void addOrUndefined(CVDiagnosticsRows& rows, bool has, const char* name, const char* label,
                    std::string_view value) {
    if (has) {
        rows.leaf(name, label, value);
    } else {
        rows.undefined(name, label);
    }
}

void addBody(CVDiagnosticsRows& rows, const SoString& body) {
    if (body.isEmpty()) {
        rows.leaf("/body", "Body", "(empty)");
        return;
    }
    // The first line only: a row is one, and a body may have megabytes.
    rows.node("/body", "Body", static_cast<uint32_t>(body.length()), " bytes");
    const std::string_view text = body.view();
    const std::string_view line = text.substr(0, text.find('\n'));
    rows.unclosedLeaf("/body/text", "Text", line.substr(0, line.find('\0'))); // which ends it, too
}

} // namespace

void Convey::Message::appendDiagnostics(SoString& out, const SoString& root) const {
    MessageRows(root).append(*this, out);
}

MessageRows::MessageRows(const SoString& root) : root_(root), writer_(ConveyUtils::getSenderID()) {}

void MessageRows::append(const Convey::Message& message, SoString& out) {
    if (time_.isEmpty() || second_ != message.getTimestamp()) {
        second_ = message.getTimestamp();
        time_ = ConveyUtils::getTimeString(&second_);
    }
    const Digits digits(message.getSerialNumber());
    const std::string_view number = digits.view();
    SoString path = root_;
    path << "/msg" << number;
    CVDiagnosticsRows rows(out, path);
    SoString heading("msg[");
    heading << time_ << "]";
    rows.node("", heading.view(), kShownDigits.substr(std::min(kShownDigits.size(), number.size())),
              number);
    rows.leaf("/version", CV_VERSION, message.getVersion());
    rows.leaf("/target", CV_TARGET, message.getTarget());
    rows.leaf("/sender", CV_SENDER, message.getSender());
    rows.leaf("/senderid", CV_SENDER_ID, writer_);
    addOrUndefined(rows, message.getTimeout() != 0, "/timeout", CV_TIMEOUT,
                   Digits(message.getTimeout()).view());
    addOrUndefined(rows, !message.getType().isEmpty(), "/type", CV_TYPE, message.getType().view());
    // Readers know this row without its last mark when it has a value.
    if (!message.getResponseRequest().isEmpty()) {
        rows.unclosedLeaf("/request", CV_RESPONSE_REQUEST, message.getResponseRequest().view());
    } else {
        rows.undefined("/request", CV_RESPONSE_REQUEST);
    }
    if (message.getHeaders() != nullptr) {
        rows.node("/headers", "Headers");
        for (const Convey::Header* header = message.getHeaders(); header != nullptr;
             header = header->next) {
            // Anybody's text in a path: the writer keeps it from ending its field.
            SoString name("/headers/");
            name << header->name;
            rows.leaf(name.view(), header->name.view(), header->value);
        }
    } else {
        rows.leaf("/headers", "Headers", "(no headers)");
    }
    addOrUndefined(rows, message.getTimestamp() != 0, "/timestamp", CV_TIMESTAMP, time_.view());
    rows.leaf("/serialnumber", CV_SERIAL_NUMBER, number);
    const struct {
        const char* name;
        const char* label;
        uint32_t number;
    } replies[] = {{"/received", CV_RECEIVED, message.getReceived()},
                   {"/result", CV_RESULT, message.getResult()},
                   {"/error", CV_ERROR, message.getError()}};
    for (const auto& reply : replies) {
        addOrUndefined(rows, reply.number != CV_INVALID_MESSAGE_NUMBER, reply.name, reply.label,
                       Digits(reply.number).view());
    }
    addBody(rows, message.getBody());
}

} // namespace ScObjects
