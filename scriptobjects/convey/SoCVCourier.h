#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

// Carries what needs the help of its target to pass: texts that fit into no packet. A thread of its
// own, because it waits for targets and nobody may wait for it. Started with the first such text;
// most processes never have one.
//
// Owned by the background thread. Threads: any.
class ConveyCourier : public Thread {
public:
    // `carry`: sends what there is, and says for how many milliseconds there is nothing to do after
    // that, -1 for until it is woken.
    explicit ConveyCourier(std::function<int64_t()> carry) : carry_(std::move(carry)) {}

    // There is something to carry.
    void wake();
    // Ends after the text that is under way, for which it waits `send.large` at most.
    bool stop() override;

protected:
    void run() override;

private:
    const std::function<int64_t()> carry_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool woken_ = false; // this and the next under the mutex
    bool stopped_ = false;
};

} // namespace ScObjects
