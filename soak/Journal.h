#pragma once

#include <array>
#include <atomic>
#include <cstdint>

// What the driver and its workers share: a page in memory for each worker's state, and a file for
// each worker, to which it appends a line an event. A line is written by one call, so that what a
// killed worker has written is whole.
//
//   P             another process writes from here on
//   H ID          handled a request (before it is answered)
//   A ID          got the result
//   T ID TARGET SENT NOW   was told that the time of its request to that worker is over
//   E ID          was told of an error
//   Z ID          got an answer to its predecessor
//   X ID          what came was not what was sent
//   S ID          nothing was heard of it long after its time
//   B NOW, D NOW  a life of the layer begins, and is about to end
//   C FDS THREADS HEAP   after the layer was stopped: descriptors, threads, bytes in use
// Times are milliseconds of the machine's monotonic clock.
namespace soak {

inline constexpr uint32_t kTimeoutSeconds = 5;

struct WorkerState {
    std::atomic<uint64_t> beats; // rounds of the main loop
    std::atomic<uint64_t> sent;
    std::atomic<uint64_t> refused; // at once: the target does not run, or takes nothing
};

constexpr size_t kMaximumWorkers = 32;
using States = std::array<WorkerState, kMaximumWorkers>;

} // namespace soak
