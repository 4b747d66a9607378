#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/MessagePort.h"
#include "platform/linux/PortDescriptor.h"

namespace platform {

class PortReceiver;

// Waits for the events of ports, for a call of `wake` and for new files in the port folder. Notices
// when the files of a port are removed by somebody else.
class PortWaiter final : public PortWait {
public:
    // Null when the system gives no descriptors.
    static std::unique_ptr<PortWaiter> make();

    void add(const LocalPort& port, uint64_t number) override;
    void pause(const LocalPort& port, uint64_t number, bool on) override;
    void add(TargetWatch& watch) override;
    bool watch(int descriptor, bool on) override;
    void watchNames(bool on) override;
    bool tellsAll() const override;
    void wake() override;
    bool wait(int64_t timeoutMilliseconds) override;
    bool wasOfPorts() const override { return wasOfPorts_; }
    std::span<const uint64_t> reported() const override { return {reported_, reportedCount_}; }

private:
    static constexpr int kEventsAtOnce = 16;
    struct Files {
        const PortReceiver* port;
        std::string lock;
        std::string socket;
    };

    PortWaiter(PortDescriptor events, PortDescriptor wakes);
    bool tellOnce(int fd, uint64_t what) const;
    bool watchFile(const std::string& path, int& watch);
    std::vector<const PortReceiver*> readFileEvents();
    void reportChanged();
    void watchFiles();

    const PortDescriptor events_;
    const PortDescriptor wakes_;
    std::atomic<bool> portsMissed_{false}; // the system would not watch one
    std::atomic<int64_t> watchAt_{0};      // when the files are watched, 0 when none waits for it
    bool wasOfPorts_ = false;              // of the waiting thread, as the next three
    uint64_t reported_[kEventsAtOnce] = {};
    size_t reportedCount_ = 0;
    int64_t lookAgain_ = 0;    // milliseconds, after the end of a target
    mutable std::mutex mutex_; // guards what follows
    PortDescriptor files_;     // inotify; missing where the system gives no more of them
    // Ports whose files are not watched until this process has lived for a while. Only told on by
    // this class: they may be gone.
    std::vector<Files> unwatched_;
    std::unordered_map<int, const PortReceiver*> watched_; // the same, by the watches of the files
    std::set<const PortReceiver*> unwatchable_;            // the same: the system would not
    int names_ = -1;           // its watch on the folder, while names are watched
    bool namesMissed_ = false; // they should be, and are not
};

} // namespace platform
