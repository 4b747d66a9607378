// The rows that describe a message: path, level, label and value, each closed by ';'.
#include <algorithm>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

using namespace ConveyData;

constexpr size_t kShownDigits = 8; // of a serial number, so that rows of one level line up

} // namespace

void Convey::Message::appendDiagnostics(SoString& out, const SoString& root) const {
    SoString path = root;
    path << "/msg" << serialNumber_;
    const auto row = [&](const char* name, const char* label, const SoString& value) {
        out << path << name << ";0;" << label << ";" << value << ";\n";
    };
    const auto undefined = [&](const char* name, const char* label) {
        out << path << name << ";0;" << label << ";undefined;\n";
    };
    const auto number = [](uint32_t value) {
        SoString text;
        text << value;
        return text;
    };
    const SoString time = ConveyUtils::getTimeString(&timestamp_);
    const SoString digits = number(serialNumber_);
    out << path << ";1;msg[" << time << "];";
    for (size_t i = digits.view().size(); i < kShownDigits; ++i) {
        out << '0';
    }
    out << digits << ";\n";
    row("/version", CV_VERSION, version_);
    row("/target", CV_TARGET, target_);
    row("/sender", CV_SENDER, sender_);
    row("/senderid", CV_SENDER_ID, ConveyUtils::getSenderID()); // of whoever writes the rows
    if (timeout_ != 0) {
        row("/timeout", CV_TIMEOUT, number(timeout_));
    } else {
        undefined("/timeout", CV_TIMEOUT);
    }
    if (!type_.isEmpty()) {
        row("/type", CV_TYPE, type_);
    } else {
        undefined("/type", CV_TYPE);
    }
    if (!responseRequest_.isEmpty()) { // readers know this row without a closing ';'
        out << path << "/request;0;" << CV_RESPONSE_REQUEST << ";" << responseRequest_ << "\n";
    } else {
        undefined("/request", CV_RESPONSE_REQUEST);
    }
    if (headers_ != nullptr) {
        out << path << "/headers;1;Headers;;\n";
        for (const Header* header = headers_; header != nullptr; header = header->next) {
            out << path << "/headers/" << header->name << ";0;" << header->name << ";"
                << header->value << ";\n";
        }
    } else {
        out << path << "/headers;0;Headers;(no headers);\n";
    }
    if (timestamp_ != 0) {
        row("/timestamp", CV_TIMESTAMP, time);
    } else {
        undefined("/timestamp", CV_TIMESTAMP);
    }
    row("/serialnumber", CV_SERIAL_NUMBER, digits);
    const struct {
        const char* name;
        const char* label;
        uint32_t number;
    } replies[] = {{"/received", CV_RECEIVED, received_},
                   {"/result", CV_RESULT, result_},
                   {"/error", CV_ERROR, error_}};
    for (const auto& reply : replies) {
        if (reply.number != CV_INVALID_MESSAGE_NUMBER) {
            row(reply.name, reply.label, number(reply.number));
        } else {
            undefined(reply.name, reply.label);
        }
    }
    if (body_.isEmpty()) {
        out << path << "/body;0;Body;(empty);\n";
        return;
    }
    out << path << "/body;1;Body;" << static_cast<uint32_t>(body_.length()) << " bytes;\n";
    const std::string_view text = body_.view();
    const std::string firstLine(text.substr(0, text.find('\n')));
    out << path << "/body/text;0;Text;" << firstLine.c_str() << "\n"; // without a closing ';' too
}

} // namespace ScObjects
