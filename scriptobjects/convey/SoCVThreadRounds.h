#pragma once

#include "scriptobjects/core/SoExport.h"

namespace ScObjects::ConveyData {

// When the background thread has made its regular rounds. While there is nothing to do it makes
// none; they are counted all the same, since they had been made on time. Times are monotonic
// milliseconds. Not for several threads at once.
class SO_EXPORT ThreadRounds {
public:
    // A round was made.
    void note(double time);
    // From now on rounds are left out.
    void beginRest() { resting_ = true; }
    // They are not any more.
    void endRest(double time);

    // Of the last round; 0 before the first.
    double last(double time) const { return at(time).last_; }
    // The usual milliseconds between two; 0 before the second.
    double average(double time) const { return at(time).average_; }

private:
    ThreadRounds at(double time) const;

    double average_ = 0;
    double last_ = 0;
    bool resting_ = false;
};

} // namespace ScObjects::ConveyData
