#pragma once

#include <atomic>
#include <cstdint>

#include "scriptobjects/convey/SoCVMessage.h"

namespace ScObjects {

class CVDiagnosticsRows;

namespace ConveyData {

// What an instance has had to do with since it was made, in messages: numbers that say at a look
// whether anything moves. They wrap at 2^32.
//
// Threads: any. Nothing is ordered by them, so counting costs one instruction and takes no lock.
class Traffic {
public:
    // A message that came in, of this process or another; replies are counted by their kind too.
    void noteIn(const Convey::Message& message);
    // One that was handed over, or kept for its target.
    void noteOut() { count(out_); }
    // One that nobody took and nobody keeps.
    void noteDropped() { count(dropped_); }
    // An error that is told to an asker.
    void noteErrorTold() { count(errorsTold_); }

    // `dropped`: those that are known elsewhere, such as by the queues.
    void appendDiagnostics(CVDiagnosticsRows& rows, uint32_t dropped) const;

private:
    using Count = std::atomic<uint32_t>;
    static void count(Count& number) { number.fetch_add(1, std::memory_order_relaxed); }

    Count in_{0};
    Count out_{0};
    Count replies_{0};
    Count errors_{0};
    Count timeouts_{0};
    Count errorsTold_{0};
    Count dropped_{0};
};

} // namespace ConveyData
} // namespace ScObjects
