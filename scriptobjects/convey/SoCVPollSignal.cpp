#include "scriptobjects/convey/SoCVPollSignal.h"

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/MainLoop.h"

namespace ScObjects::ConveyData::PollSignal {
namespace {

constinit std::atomic<platform::PollSignal*> gSignal{nullptr}; // never deleted

} // namespace

platform::PollSignal* get() {
    static auto* const making = new std::mutex;
    const std::lock_guard<std::mutex> guard(*making);
    const platform::PollSignal* const made = gSignal.load();
    // A child after fork finds one without a descriptor, and gets one of its own.
    if (made == nullptr || made->descriptor() < 0) {
        gSignal.store(platform::MainLoops::system().newSignal().release());
        raise(); // what came before somebody asked
    }
    return gSignal.load();
}

bool isWatched() {
    // Asked for each message, so in no order: `get` raises the signal for those who have not seen
    // it yet.
    return gSignal.load(std::memory_order_relaxed) != nullptr;
}

void raise() {
    // By who made it perhaps on another thread: it must be seen whole.
    if (auto* const signal = gSignal.load(std::memory_order_acquire)) {
        signal->raise();
    }
}

bool lower() {
    auto* const signal = gSignal.load(std::memory_order_acquire);
    return signal != nullptr && signal->lower();
}

} // namespace ScObjects::ConveyData::PollSignal
