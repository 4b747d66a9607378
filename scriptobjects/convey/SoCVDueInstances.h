#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>

#include "scriptobjects/core/SoExport.h"

namespace ScObjects::ConveyData {

struct TakenInstances {
    bool all = false; // whatever the numbers say
    std::set<uint64_t> numbers;
};

// Instances of a context with which there is something to do, by their numbers there, until it is
// taken up. Threads: any.
class SO_EXPORT DueInstances {
public:
    // 0 is no instance. Without memory for it all are due. One that was the last to be added and
    // was not taken since takes no lock.
    void add(uint64_t number) noexcept;
    void addAll() noexcept { all_.store(true); }
    // What was due, and is not any more.
    [[nodiscard]] TakenInstances take();
    bool areAll() const { return all_.load(); }
    // The next number behind this one; 0 for none.
    uint64_t next(uint64_t number) const;

private:
    std::atomic<bool> all_{false};
    mutable std::mutex mutex_; // a leaf
    std::set<uint64_t> numbers_;
    std::atomic<uint64_t> newest_{0}; // of them; changes under the mutex
};

} // namespace ScObjects::ConveyData
