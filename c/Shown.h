#pragma once

#include <utility>

#include "c/include/convey.h"
#include "scriptobjects/convey/SoConvey.h"

// What the functions that do something share with those that only read.

struct convey_outcome {
    explicit convey_outcome(ScObjects::Convey::Outcome how) : outcome(std::move(how)) {}

    const ScObjects::Convey::Outcome outcome;
};

// A message is shown as it is.
inline const ScObjects::Convey::Message& shown(const convey_message* message) {
    return *reinterpret_cast<const ScObjects::Convey::Message*>(message);
}

inline const convey_message* shown(const ScObjects::Convey::Message* message) {
    return reinterpret_cast<const convey_message*>(message);
}

inline const char* given(const char* text) {
    return text == nullptr ? "" : text;
}
