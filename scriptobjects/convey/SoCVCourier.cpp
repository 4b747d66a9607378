#include "scriptobjects/convey/SoCVCourier.h"

#include <chrono>

namespace ScObjects {

void ConveyCourier::wake() {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        woken_ = true;
    }
    changed_.notify_all();
}

bool ConveyCourier::stop() {
    // What is being handed over at present ends by the time that it has itself.
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
    return Thread::stop();
}

void ConveyCourier::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopped_) {
        // Cleared before the pass and not behind it: who wakes it meanwhile has work that this pass
        // may have gone past already.
        woken_ = false;
        // A pass may wait for a target, and who wakes this thread waits for nobody.
        lock.unlock();
        const int64_t milliseconds = carry_();
        lock.lock();
        const auto isAwaited = [this] { return woken_ || stopped_; };
        if (milliseconds < 0) {
            changed_.wait(lock, isAwaited);
        } else {
            (void)changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), isAwaited);
        }
    }
}

} // namespace ScObjects
