#include "scriptobjects/convey/SoCVThreadRounds.h"

#include <cmath>

#include "limits/Limits.h"

namespace ScObjects::ConveyData {
namespace {

constexpr double kRound = limits::of("thread.round");
constexpr double kWeight = 0.1; // of the newest interval

} // namespace

// The regular rounds only: a busy second must not make the usual interval look short.
void ThreadRounds::note(double time) {
    if (last_ > 0) {
        const double interval = time - last_;
        average_ = average_ > 0 ? average_ + kWeight * (interval - average_) : interval;
    }
    last_ = time;
}

void ThreadRounds::endRest(double time) {
    *this = at(time);
    resting_ = false;
}

// With the rounds that were left out, each at its time.
ThreadRounds ThreadRounds::at(double time) const {
    ThreadRounds result = *this;
    const double rounds = resting_ && last_ > 0 ? std::floor((time - last_) / kRound) : 0;
    if (rounds > 0) {
        result.last_ += rounds * kRound;
        result.average_ =
            average_ > 0 ? kRound + (average_ - kRound) * std::pow(1 - kWeight, rounds) : kRound;
    }
    return result;
}

} // namespace ScObjects::ConveyData
