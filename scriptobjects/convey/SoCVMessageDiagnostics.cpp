// The rows that describe a message.
#include <algorithm>
#include <string>

#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

constexpr size_t kShownDigits = 8; // of a serial number, so that rows of one level line up

// A leaf, or the row that says that there is none.
void addOrUndefined(CVDiagnosticsRows& rows, bool has, const char* name, const char* label,
                    const SoString& value) {
    if (has) {
        rows.leaf(name, label, value);
    } else {
        rows.undefined(name, label);
    }
}

SoString decimal(uint32_t number) {
    SoString text;
    text << number;
    return text;
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
    SoString path = root;
    path << "/msg" << serialNumber_;
    CVDiagnosticsRows rows(out, path);
    const SoString time = ConveyUtils::getTimeString(&timestamp_);
    const SoString digits = decimal(serialNumber_);
    std::string shown(digits.view());
    shown.insert(0, kShownDigits - std::min(shown.size(), kShownDigits), '0');
    SoString heading("msg[");
    heading << time << "]";
    rows.node("", heading.view(), shown);
    rows.leaf("/version", CV_VERSION, version_);
    rows.leaf("/target", CV_TARGET, target_);
    rows.leaf("/sender", CV_SENDER, sender_);
    rows.leaf("/senderid", CV_SENDER_ID, ConveyUtils::getSenderID()); // of whoever writes the rows
    addOrUndefined(rows, timeout_ != 0, "/timeout", CV_TIMEOUT, decimal(timeout_));
    addOrUndefined(rows, !type_.isEmpty(), "/type", CV_TYPE, type_);
    // Readers know this row without its last mark when it has a value.
    if (!responseRequest_.isEmpty()) {
        rows.unclosedLeaf("/request", CV_RESPONSE_REQUEST, responseRequest_.view());
    } else {
        rows.undefined("/request", CV_RESPONSE_REQUEST);
    }
    if (headers_ != nullptr) {
        rows.node("/headers", "Headers");
        for (const Header* header = headers_; header != nullptr; header = header->next) {
            // Anybody's text in a path: the writer keeps it from ending its field.
            SoString name("/headers/");
            name << header->name;
            rows.leaf(name.view(), header->name.view(), header->value);
        }
    } else {
        rows.leaf("/headers", "Headers", "(no headers)");
    }
    addOrUndefined(rows, timestamp_ != 0, "/timestamp", CV_TIMESTAMP, time);
    rows.leaf("/serialnumber", CV_SERIAL_NUMBER, digits);
    const struct {
        const char* name;
        const char* label;
        uint32_t number;
    } replies[] = {{"/received", CV_RECEIVED, received_},
                   {"/result", CV_RESULT, result_},
                   {"/error", CV_ERROR, error_}};
    for (const auto& reply : replies) {
        addOrUndefined(rows, reply.number != CV_INVALID_MESSAGE_NUMBER, reply.name, reply.label,
                       decimal(reply.number));
    }
    addBody(rows, body_);
}

} // namespace ScObjects
