#pragma once

#include <string>

#include "scriptobjects/convey/SoCVMessage.h"

// Requests that measuring programs share.
namespace bench {

// Ten lines of headers, as a request of an application has, and a body.
inline ScObjects::Convey::Message request(size_t bodyBytes) {
    ScObjects::Convey::Message message;
    message.setTarget("kivra-7.0-en_us");
    message.setSender("lumen_2-7.0-en_us");
    message.setType("query");
    message.setResponseRequest("Received Result Error");
    message.setTimeout(60);
    message.setSerialNumber(4711);
    message.setHeader("Document", "/home/user/Documents/report.txt");
    message.setHeader("Page", 12L);
    message.setBody(ScObjects::SoString(std::string(bodyBytes, 'b')));
    return message;
}

} // namespace bench
