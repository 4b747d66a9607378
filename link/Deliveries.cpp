#include "link/Deliveries.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "link/Bounds.h"
#include "platform/Clock.h"
#include "platform/MessagePort.h"
#include "scriptobjects/stream/BaseInterAppStream.h"

namespace convey_link {
namespace {

using platform::SendResult;

// A text that goes in one packet is taken or not, at once.
constexpr size_t kAtOnceBytes = limits::of("port.packet");
constexpr int64_t kTryMilliseconds = 1000;
constexpr auto kPause = std::chrono::milliseconds(50);
// Of one that does not come: it may end at each start.
constexpr int kLaunches = 2;
constexpr int64_t kLaunchAgainMilliseconds = 3000;
// Targets that take nothing, at one time; those behind them wait for one of the threads.
constexpr size_t kWorkers = 16;

using platform::monotonicNow;

std::string portName(const std::string& target) {
    return ScObjects::BaseInterAppStream::kPortNamePrefix + target;
}

} // namespace

Deliveries::Deliveries(platform::MessagePorts& ports, std::function<void()> wake,
                       std::function<bool(const std::string&)> launch)
    : ports_(ports), wake_(std::move(wake)), launch_(std::move(launch)) {}

Deliveries::~Deliveries() {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        stop_ = true;
        changed_.notify_all();
    }
    for (std::thread& worker : workers_) {
        worker.join();
    }
}

void Deliveries::post(const std::string& target, PortMessage text, int64_t deadline, bool mayLaunch,
                      uint64_t ticket) {
    if (target != togetherTarget_ || togetherText_.size() + text.size() > kAtOnceBytes) {
        (void)handOver(); // what has ended waits for `take`
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    if (lines_.count(target) == 0 && text.size() <= kAtOnceBytes) {
        togetherTarget_ = target;
        togetherText_ += text.head; // all of a small one
        together_.push_back({togetherText_.size(), deadline, mayLaunch, ticket});
    } else {
        queueLocked(target, {std::move(text), deadline, mayLaunch, ticket});
    }
}

bool Deliveries::handOver() {
    if (together_.empty()) {
        return false;
    }
    const std::string target = std::exchange(togetherTarget_, {});
    const bool isWatched = std::any_of(together_.begin(), together_.end(),
                                       [](const Together& one) { return one.ticket != 0; });
    std::shared_ptr<platform::TargetWatch> taker;
    const SendResult result =
        ports_.send(portName(target), togetherText_, 0, isWatched ? &taker : nullptr);
    const std::lock_guard<std::mutex> guard(mutex_);
    size_t begin = 0;
    for (const Together& one : together_) {
        if (result != SendResult::delivered &&
            (result != SendResult::noReceiver || one.mayLaunch)) {
            queueLocked(target, {togetherText_.substr(begin, one.end - begin), one.deadline,
                                 one.mayLaunch, one.ticket});
        } else if (one.ticket != 0) {
            ended_.push_back(
                {one.ticket,
                 result == SendResult::delivered ? Outcome::delivered : Outcome::notRunning,
                 taker});
        }
        begin = one.end;
    }
    together_.clear();
    togetherText_.clear();
    return !ended_.empty();
}

void Deliveries::queueLocked(const std::string& target, Waiting waiting) {
    if (keptTexts_ >= bounds::kKeptMessages ||
        keptBytes_ + waiting.text.size() > bounds::kKeptBytes) {
        if (waiting.ticket != 0) {
            ended_.push_back({waiting.ticket, Outcome::tooMuch, nullptr});
        }
        return;
    }
    keptBytes_ += waiting.text.size();
    ++keptTexts_;
    std::deque<Waiting>& line = lines_[target];
    line.push_back(std::move(waiting));
    if (line.size() > 1) {
        return;
    }
    ready_.push_back(target);
    if (idle_ == 0 && workers_.size() < kWorkers) {
        workers_.emplace_back([this] { work(); });
    }
    changed_.notify_one();
}

Deliveries::Ended Deliveries::deliver(const std::string& target, const Waiting& waiting) {
    Ended ended{waiting.ticket, Outcome::expired, nullptr};
    int launches = 0;
    int64_t launchAt = 0;
    int64_t launchEnd = 0; // 0: not launched
    for (int64_t left = waiting.deadline - monotonicNow(); left > 0;
         left = waiting.deadline - monotonicNow()) {
        // What has begun goes on at the target's pace: a large text that was begun anew after each
        // try would never arrive at a slow one.
        switch (ports_.send(portName(target), waiting.text.pieces(),
                            {std::min(left, kTryMilliseconds), left, stop_},
                            waiting.ticket == 0 ? nullptr : &ended.taker)) {
        case SendResult::delivered:
            ended.outcome = Outcome::delivered;
            return ended;
        case SendResult::tooLarge:
            ended.outcome = Outcome::refused;
            return ended;
        case SendResult::noReceiver:
            if (!waiting.mayLaunch) {
                ended.outcome = Outcome::notRunning;
                return ended;
            }
            // A process that has just ended may have counted as running at the first launch, which
            // then started none.
            if (launches < kLaunches && launchAt <= monotonicNow()) {
                ++launches;
                launchAt = monotonicNow() + kLaunchAgainMilliseconds;
                launchEnd =
                    launchEnd == 0 ? monotonicNow() + bounds::kLaunchMilliseconds : launchEnd;
                if (!launch_(target)) {
                    ended.outcome = Outcome::notLaunched;
                    return ended;
                }
            } else if (launchEnd <= monotonicNow()) {
                ended.outcome = Outcome::notLaunched;
                return ended;
            }
            break;
        default:
            break; // full, or could not be found out: again
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_for(lock, kPause, [this] { return stop_.load(); })) {
            break;
        }
    }
    return ended;
}

void Deliveries::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
        if (ready_.empty()) {
            ++idle_;
            changed_.wait(lock, [this] { return stop_ || !ready_.empty(); });
            --idle_;
            continue;
        }
        const std::string target = std::move(ready_.front());
        ready_.pop_front();
        std::deque<Waiting>& line = lines_[target]; // others only push behind its front
        while (!line.empty() && !stop_) {
            const Waiting& front = line.front();
            lock.unlock();
            Ended ended = deliver(target, front);
            lock.lock();
            keptBytes_ -= front.text.size();
            --keptTexts_;
            if (ended.ticket != 0) {
                ended_.push_back(std::move(ended));
                lock.unlock();
                wake_();
                lock.lock();
            }
            line.pop_front(); // not before: another would work at a line that somebody fills again
        }
        if (line.empty()) {
            lines_.erase(target);
        }
    }
}

std::vector<Deliveries::Ended> Deliveries::take() {
    (void)handOver(); // all that has ended is taken below
    const std::lock_guard<std::mutex> guard(mutex_);
    return std::exchange(ended_, {});
}

} // namespace convey_link
