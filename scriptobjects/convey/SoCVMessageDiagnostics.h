#pragma once

#include <cstdint>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects::ConveyData {

// Writes the rows of messages that stand under one path. Makes once what thousands of them have in
// common: who writes, and the time of the last one as a text. One thread; std::bad_alloc is thrown.
class MessageRows {
public:
    explicit MessageRows(const SoString& root);

    // Appends the rows of a message, which nobody changes meanwhile.
    void append(const Convey::Message& message, SoString& out);

private:
    const SoString root_;
    const SoString writer_; // the rows name who writes them, not who has sent the message
    uint32_t second_ = 0;
    SoString time_; // of `second_`; empty at first
};

} // namespace ScObjects::ConveyData
