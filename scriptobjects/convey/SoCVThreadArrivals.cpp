// Who draws what arrives: this thread, or a host whose main loop comes at once.
//
// While a host handles message after message, waking this thread for each would cost as much as
// the rest of it. What arrives is then left to the host: it makes the descriptor of its main loop
// readable, and ends no wait here.
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVDueInstances.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVPollSignal.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVThread.h"

namespace ScObjects {
namespace {

// After a wait within the layer, which others may follow.
constexpr int64_t kDrawMilliseconds = 100;
// Pumps in a row that find nothing to handle although something has woken the loop.
constexpr int kIdlePumps = 3;

} // namespace

void ConveyThread::notePump(bool didSomething) {
    if (!ConveyData::PollSignal::isWatched()) {
        return;
    }
    if (didSomething) {
        idlePumps_.store(0, std::memory_order_relaxed);
        pumpedAt_.store(ConveyUtils::getSteadyMilliseconds(), std::memory_order_relaxed);
    } else if (arrivalsAreLeft_.load() &&
               idlePumps_.fetch_add(1, std::memory_order_relaxed) + 1 >= kIdlePumps) {
        drawArrivals();
    }
}

void ConveyThread::drawArrivals() {
    if (ConveyData::PollSignal::isWatched()) {
        drawsUntil_.store(ConveyUtils::getSteadyMilliseconds() + kDrawMilliseconds);
        // Behind the mark that keeps it from leaving them again.
        if (arrivalsAreLeft_.load()) {
            wake();
        }
    }
}

bool ConveyThread::isHostAttentive() const {
    if (wait_ == nullptr || !ConveyData::PollSignal::isWatched()) {
        return false;
    }
    const int64_t time = ConveyUtils::getSteadyMilliseconds();
    return time - pumpedAt_.load(std::memory_order_relaxed) <= kAttentionMilliseconds &&
           time >= drawsUntil_.load();
}

// For those that had something a moment ago; others follow with the first text that arrives there.
void ConveyThread::leaveArrivals(bool on) {
    const ConveyContext* const context = context_.load();
    if (context == nullptr || on == arrivalsAreLeft_.load()) {
        return;
    }
    arrivalsAreLeft_.store(on);
    if (on) {
        // Behind the mark: who has begun to wait before it was seen is seen here.
        if (!isHostAttentive()) {
            arrivalsAreLeft_.store(false);
            return;
        }
        for (const uint64_t number : regularlyDue_) {
            if (const auto instance = context->pin(number)) {
                if (instance->leaveArrivals(*wait_, true)) {
                    left_->add(number);
                }
            }
        }
        return;
    }
    const ConveyData::TakenInstances left = left_->take();
    for (uint64_t number = 0; const auto instance = pinNext(left, number);) {
        (void)instance->leaveArrivals(*wait_, false);
        due_->add(number); // the host may not have read all
    }
}

} // namespace ScObjects
