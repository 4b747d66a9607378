#pragma once

namespace platform {
class PollSignal;
} // namespace platform

namespace ScObjects::ConveyData::PollSignal {

// The one signal by which the main loop of the host learns that a pump has something to do. Made
// when a host first asks for it and kept for the life of the process, since the host's loop knows
// its descriptor; until then raising and lowering cost nothing. Threads: any.

// The signal; null when the system gives none. A child after fork gets one of its own.
platform::PollSignal* get();
// Whether there is one to raise.
bool isWatched();

// There is something to do, or there may be.
void raise();
// Before one looks for something to do; whether it was raised.
bool lower();

} // namespace ScObjects::ConveyData::PollSignal
