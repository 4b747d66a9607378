#pragma once

#include <atomic>
#include <coroutine>
#include <optional>
#include <utility>

#include "scriptobjects/convey/SoConvey.h"

namespace ScObjects {

// Lets a coroutine (C++20) await a request: `Outcome o = co_await diary.request("clock", "now?")`.
// It goes on, on the thread that pumps, when the outcome is known, and at once when there was
// nothing to wait for. A coroutine that is destroyed meanwhile cancels its request. Lives in the
// coroutine, for the one expression, and takes the place of the request's `onOutcome`. Throws
// std::bad_alloc when there is no memory to register.
class ConveyAwaiter {
public:
    // The request lives as long as this.
    explicit ConveyAwaiter(Convey::Request& request) : request_(request) {}
    ConveyAwaiter(const ConveyAwaiter&) = delete;
    ConveyAwaiter& operator=(const ConveyAwaiter&) = delete;

    // What the compiler calls for `co_await`; an outcome is never there before it was asked for.
    static bool await_ready() noexcept { return false; }

    // False when the outcome came before the sending had returned, on this thread or another: both
    // go by the same step, and whoever is second has the coroutine go on.
    bool await_suspend(std::coroutine_handle<> coroutine) {
        (void)request_.onOutcome([this, coroutine](const Convey::Outcome& outcome) {
            outcome_ = outcome;
            if (first_.exchange(false)) {
                return; // it is still being sent
            }
            coroutine.resume(); // which may end this object
        });
        pending_ = request_.send();
        return first_.exchange(false);
    }

    // Gives the outcome.
    Convey::Outcome await_resume() { return std::move(*outcome_); }

private:
    Convey::Request& request_;
    std::optional<Convey::Outcome> outcome_;
    std::atomic<bool> first_{true};
    Convey::Pending pending_; // last, so that it ends first: nobody writes here then
};

inline ConveyAwaiter operator co_await(Convey::Request& request) {
    return ConveyAwaiter(request);
}
inline ConveyAwaiter operator co_await(Convey::Request&& request) {
    return ConveyAwaiter(request);
}

} // namespace ScObjects
