#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "link/Frame.h"
#include "link/Text.h"

namespace platform {
class MessagePorts;
class TargetWatch;
} // namespace platform

namespace convey_link {

// Texts on their way to ports of this machine: a line for each target, in order. A target that
// takes nothing, takes long or is being launched holds up its own line only.
//
// What a target takes at once is handed over by the caller, the small ones that come together in
// one text, since each costs the target a wake-up; the rest by threads of its own. Threads: `post`,
// `handOver` and `take` from one.
class Deliveries {
public:
    struct Ended {
        uint64_t ticket;
        Outcome outcome;
        std::shared_ptr<platform::TargetWatch> taker; // of one that was delivered; may be null
    };

    // `wake` is called from any thread when there is something to take; `launch` starts an
    // application, from any thread, and is false when that failed.
    Deliveries(platform::MessagePorts& ports, std::function<void()> wake,
               std::function<bool(const std::string&)> launch);
    ~Deliveries();
    Deliveries(const Deliveries&) = delete;
    Deliveries& operator=(const Deliveries&) = delete;

    // Hands a text to the owner of the port `target`, until `deadline` (of the steady clock).
    // `ticket` not 0: its end is to be taken. A small one goes with the next `handOver` or `take`
    // at the latest.
    void post(const std::string& target, PortMessage text, int64_t deadline, bool mayLaunch,
              uint64_t ticket);
    // Hands over what was posted; whether there is something to take now.
    bool handOver();
    std::vector<Ended> take();

private:
    struct Waiting {
        PortMessage text;
        int64_t deadline;
        bool mayLaunch;
        uint64_t ticket;
    };

    // A small text, behind the others of its target.
    struct Together {
        size_t end; // of it
        int64_t deadline;
        bool mayLaunch;
        uint64_t ticket;
    };

    Ended deliver(const std::string& target, const Waiting& waiting);
    void queueLocked(const std::string& target, Waiting waiting);
    void work();

    platform::MessagePorts& ports_;
    const std::function<void()> wake_;
    const std::function<bool(const std::string&)> launch_;
    std::string togetherTarget_; // of what goes together; of the thread that posts, as the next
    std::vector<Together> together_;
    std::string togetherText_;
    std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    std::map<std::string, std::deque<Waiting>> lines_; // the front one is being delivered
    std::deque<std::string> ready_;                    // lines that nobody works at
    std::vector<Ended> ended_;
    std::vector<std::thread> workers_;
    size_t idle_ = 0;
    size_t keptBytes_ = 0;
    size_t keptTexts_ = 0;
    std::atomic<bool> stop_{false}; // set under the mutex, read by sends without it
};

} // namespace convey_link
