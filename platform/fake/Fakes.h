#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Desktop.h"
#include "platform/Files.h"
#include "platform/Frameworks.h"
#include "platform/Locale.h"
#include "platform/Log.h"
#include "platform/MessagePort.h"
#include "platform/Processes.h"
#include "platform/Random.h"
#include "platform/Threads.h"

// The services as a test wants them. Each keeps its interface's contract and has public switches
// for what the real system does only on a bad day.
namespace platform {

class FakeLocale : public Locale {
public:
    bool readable = true;
    std::string text = "en_US";

    bool identifier(std::string& out) const override {
        if (readable) {
            out = text;
        }
        return readable;
    }
};

class FakeClock : public Clock {
public:
    std::atomic<int64_t> utc{1'000'000}; // other threads read what a test sets
    std::atomic<int64_t> monotonic{5'000};

    // Time passes; a test that sets `utc` alone sets the clock.
    void pass(int64_t milliseconds) {
        utc += milliseconds;
        monotonic += milliseconds;
    }
    int64_t utcMilliseconds() const override { return utc; }
    int64_t monotonicMilliseconds() const override { return monotonic; }
    TimeOfDay localTimeOfDay(int64_t seconds) const override { // a user who lives in UTC
        const auto second = static_cast<int32_t>(seconds % 86'400);
        return {second / 3600, second / 60 % 60, second % 60};
    }
};

// Files in memory, by absolute path, all of this user's own.
class FakeFiles : public Files {
public:
    std::map<std::string, std::string> files;
    std::map<std::string, std::string> links;
    std::set<std::string> folders;
    bool broken = false;   // nothing can be found out
    bool readOnly = false; // nothing can be changed

    bool exists(const std::string& path) const override {
        std::string real;
        return resolve(path, real);
    }
    bool makeFolder(const std::string& path, uint32_t) override {
        return folders.count(path) != 0 || (mayMake(path) && folders.insert(path).second);
    }
    bool removeFolder(const std::string& path) override {
        return !broken && !readOnly && folders.erase(path) != 0;
    }
    bool removeFile(const std::string& path) override {
        return !broken && !readOnly && files.erase(path) + links.erase(path) != 0;
    }
    bool makeLink(const std::string& target, const std::string& path) override {
        return mayMake(path) && links.emplace(path, target).second;
    }
    bool resolve(const std::string& path, std::string& out) const override {
        std::string real = path;
        for (int steps = 0; steps < 40 && links.count(real) != 0; ++steps) {
            real = links.at(real);
        }
        if (broken || (files.count(real) == 0 && folders.count(real) == 0)) {
            return false;
        }
        out = real;
        return true;
    }
    Reading readOwn(const std::string& path, size_t maximumBytes, std::string& out) const override {
        if (broken || links.count(path) != 0 || folders.count(path) != 0) {
            return Reading::refused;
        }
        const auto found = files.find(path);
        if (found == files.end()) {
            return Reading::missing;
        }
        if (found->second.size() > maximumBytes) {
            return Reading::refused;
        }
        out = found->second;
        return Reading::done;
    }
    bool publish(const std::string& path, std::string_view content) override {
        return mayMake(path) && files.emplace(path, content).second;
    }
    bool list(const std::string& path, std::vector<FolderEntry>& entries,
              std::string& identity) const override {
        std::string real;
        if (!resolve(path, real) || folders.count(real) == 0) {
            return false;
        }
        std::vector<FolderEntry> found;
        const auto add = [&](const std::string& child, bool isFolder) {
            if (child.rfind(real + "/", 0) == 0 &&
                child.find('/', real.size() + 1) == std::string::npos) {
                found.push_back({child.substr(real.size() + 1), isFolder});
            }
        };
        for (const auto& [file, content] : files) {
            add(file, false);
        }
        for (const std::string& folder : folders) {
            add(folder, true);
        }
        for (const auto& [link, target] : links) {
            std::string end;
            add(link, resolve(link, end) && folders.count(end) != 0);
        }
        entries = found;
        identity = real;
        return true;
    }

private:
    bool mayMake(const std::string& path) const {
        return !broken && !readOnly && !path.empty() && files.count(path) == 0 &&
               links.count(path) == 0 && folders.count(path) == 0;
    }
};

// Gives 0, 1, 2, and so on, or nothing.
class FakeRandom : public Random {
public:
    bool fails = false;
    uint8_t next = 0;

    bool fill(void* out, size_t bytes) override {
        for (size_t i = 0; i < bytes && !fails; ++i) {
            static_cast<uint8_t*>(out)[i] = next++;
        }
        return !fails;
    }
};

// Processes that are numbers only, from 5000 on, and end when a test says so.
class FakeProcesses : public Processes {
public:
    uint32_t number = 4711;
    bool cannotStart = false;
    std::map<uint32_t, std::string> running; // by number, what it was started from
    std::vector<std::string> started;        // paths, or a program's name and words

    uint32_t ownNumber() const override { return number; }
    std::string ownProgram() const override { return "/apps/program"; }
    bool isRunning(uint32_t process) override { return running.count(process) != 0; }
    std::vector<uint32_t> find(const std::string& path) const override {
        std::vector<uint32_t> found;
        for (const auto& [process, from] : running) {
            if (from == path) {
                found.push_back(process);
            }
        }
        return found;
    }
    uint32_t startApplication(const std::string& path, bool behind) override {
        started.push_back(path + (behind ? " behind" : ""));
        if (cannotStart) {
            return 0;
        }
        running[++last_] = path;
        return last_;
    }
    bool startProgram(const std::string& name, const std::vector<std::string>& words) override {
        started.push_back(name);
        for (const std::string& word : words) {
            started.back() += " " + word;
        }
        return !cannotStart;
    }

private:
    uint32_t last_ = 4999;
};

class FakeDesktop : public Desktop {
public:
    std::vector<std::string> wishes;

    bool bringToFront(uint32_t process) override {
        wishes.push_back("front " + std::to_string(process));
        return true;
    }
    uint32_t frontWindow() override { return 77; }
    void keepBehind(uint32_t process, uint32_t frontWindow) override {
        wishes.push_back("behind " + std::to_string(frontWindow) + ": " + std::to_string(process));
    }
};

// Ports within the process, which must outlive what it has opened.
class FakeMessagePorts : public MessagePorts {
public:
    bool unusable = false;   // no port can be opened
    int failures = 0;        // so many names that are free cannot be opened for want of something
    size_t queueBound = 100; // texts that a port holds

    std::unique_ptr<LocalPort> open(const std::string& name) override {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (unusable || name.empty() || queues_.count(name) != 0) {
            return nullptr;
        }
        if (failures > 0) {
            --failures;
            return nullptr;
        }
        queues_[name];
        ++owners_[name];
        ++changes_;
        changed_.notify_all();
        return std::make_unique<Port>(*this, name);
    }
    PortState look(const std::string& name, int& error) override {
        const std::lock_guard<std::mutex> guard(mutex_);
        const bool unknown = unusable || name.empty();
        error = unknown ? EMFILE : 0;
        return unknown                    ? PortState::unknown
               : queues_.count(name) == 0 ? PortState::free
                                          : PortState::owned;
    }
    using MessagePorts::send;
    SendResult send(const std::string& name, const PortPieces& text, SendTime time,
                    std::shared_ptr<TargetWatch>* taker) override {
        if (text.size() > kMaximumTextBytes) {
            return SendResult::tooLarge;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        const auto hasRoom = [&] {
            const auto queue = queues_.find(name);
            return queue == queues_.end() || queue->second.size() < queueBound;
        };
        if (!changed_.wait_for(lock, std::chrono::milliseconds(time.milliseconds), hasRoom)) {
            return SendResult::timedOut;
        }
        const auto queue = queues_.find(name);
        if (queue == queues_.end()) {
            return SendResult::noReceiver;
        }
        const std::string_view seal = text.seal == nullptr ? std::string_view() : text.sealed();
        queue->second.emplace_back(seal).append(text.head).append(text.body);
        ++changes_;
        changed_.notify_all();
        if (taker != nullptr) {
            *taker = std::make_shared<Watch>(*this, name, owners_[name]);
        }
        return SendResult::delivered;
    }

    void closeConnections() override {} // there are none

    std::unique_ptr<PortWait> newWait() override { return std::make_unique<Wait>(*this); }

    std::vector<PortDescription> list() override {
        const std::lock_guard<std::mutex> guard(mutex_);
        std::vector<PortDescription> ports;
        for (const auto& [name, queue] : queues_) {
            ports.push_back({name, 0, false, 0, 0});
            for (const std::string& text : queue) {
                ports.back().waitingBytes += static_cast<int64_t>(text.size());
            }
        }
        return ports;
    }
    size_t removeStale() override { return 0; } // owners here never die
    std::string place() const override { return "memory"; }

private:
    // Ends with every change of any port.
    class Wait : public PortWait {
    public:
        explicit Wait(FakeMessagePorts& ports) : ports_(ports) {}
        void add(const LocalPort&, uint64_t) override {}
        void pause(const LocalPort&, uint64_t, bool) override {
        } // there is no descriptor to wait at
        void add(TargetWatch&) override {}
        bool watch(int, bool) override { return false; }
        void watchNames(bool) override {}
        bool tellsAll() const override { return false; }
        void wake() override {
            const std::lock_guard<std::mutex> guard(ports_.mutex_);
            woken_ = true;
            ports_.changed_.notify_all();
        }
        bool wait(int64_t timeout) override {
            std::unique_lock<std::mutex> lock(ports_.mutex_);
            const uint64_t before = seen_;
            const bool changed =
                ports_.changed_.wait_for(lock, std::chrono::milliseconds(timeout),
                                         [&] { return woken_ || ports_.changes_ != before; });
            seen_ = ports_.changes_;
            woken_ = false;
            return changed;
        }
        bool wasOfPorts() const override { return true; }
        std::span<const uint64_t> reported() const override { return {}; }

    private:
        FakeMessagePorts& ports_;
        uint64_t seen_ = 0;
        bool woken_ = false;
    };

    class Watch : public TargetWatch {
    public:
        Watch(FakeMessagePorts& ports, std::string name, uint64_t owner)
            : ports_(ports), name_(std::move(name)), owner_(owner) {}
        bool ended() override {
            const std::lock_guard<std::mutex> guard(ports_.mutex_);
            return ports_.queues_.count(name_) == 0 || ports_.owners_[name_] != owner_;
        }
        int32_t process() const override { return 0; }

    private:
        FakeMessagePorts& ports_;
        const std::string name_;
        const uint64_t owner_;
    };

    class Port : public LocalPort {
    public:
        Port(FakeMessagePorts& ports, std::string name) : ports_(ports), name_(std::move(name)) {}
        ~Port() override {
            const std::lock_guard<std::mutex> guard(ports_.mutex_);
            ports_.queues_.erase(name_);
            ++ports_.changes_;
            ports_.changed_.notify_all();
        }
        bool take(PortText& out) override {
            const std::lock_guard<std::mutex> guard(ports_.mutex_);
            auto& queue = ports_.queues_[name_];
            PortText text;
            if (queue.empty() || !text.allocate(queue.front().size())) {
                return false;
            }
            std::memcpy(text.data(), queue.front().data(), text.size());
            statistics_.texts += 1;
            statistics_.bytes += text.size();
            out = std::move(text);
            queue.pop_front();
            ports_.changed_.notify_all();
            return true;
        }
        bool wait(int64_t timeout, bool) override {
            std::unique_lock<std::mutex> lock(ports_.mutex_);
            return ports_.changed_.wait_for(lock, std::chrono::milliseconds(timeout),
                                            [this] { return !ports_.queues_[name_].empty(); });
        }
        bool hasMore() const override { return false; }
        void hold(int32_t, bool) override {} // its texts come from this process
        PortPlace placeBehind(int32_t process) const override { return {process, 0}; }
        bool isPast(const PortPlace&) override {
            const std::lock_guard<std::mutex> guard(ports_.mutex_);
            return ports_.queues_[name_].empty();
        }
        PortStatistics statistics() const override { return statistics_; }

    private:
        FakeMessagePorts& ports_;
        const std::string name_;
        PortStatistics statistics_;
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::deque<std::string>> queues_;
    std::map<std::string, uint64_t> owners_; // that a name has had
    uint64_t changes_ = 0;                   // texts and names that have come
};

class FakeLog : public Log {
public:
    std::vector<std::string> lines;

    void problem(const std::string& line) override {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (std::find(lines.begin(), lines.end(), line) == lines.end()) {
            lines.push_back(line);
        }
    }
    void problemOfUser(const std::string& line) override { problem(line); }

private:
    std::mutex mutex_;
};

// Starts real threads, or none.
class FakeThreads : public Threads {
public:
    bool fails = false;

    bool start(std::thread& out, void (*entry)(void*), void* argument) override {
        return !fails && own().start(out, entry, argument);
    }
};

class FakeFrameworks : public Frameworks {
public:
    using Functions = std::map<std::string, void*>;

    std::string folder = "/fake/program";
    std::vector<std::string> installed;
    std::map<std::string, Functions> bundles; // by absolute path
    bool loadFails = false;
    int loaded = 0; // handles given out and not given back

    std::string mainBundleFolder() const override { return folder; }
    std::vector<std::string> installedFolders() const override { return installed; }

    void* load(const std::string& bundlePath) override {
        const auto found = bundles.find(bundlePath);
        if (loadFails || bundlePath.empty() || bundlePath.front() != '/' ||
            found == bundles.end()) {
            return nullptr;
        }
        ++loaded;
        return &found->second;
    }

    bool mayBeThere(const std::string& bundlePath) const override {
        return bundles.contains(bundlePath);
    }

    void unload(void* handle) override { loaded -= handle != nullptr ? 1 : 0; }

    void* function(void* handle, const char* name) override {
        if (handle == nullptr || name == nullptr) {
            return nullptr;
        }
        const auto& functions = *static_cast<Functions*>(handle);
        const auto found = functions.find(name);
        return found == functions.end() ? nullptr : found->second;
    }
};

// One of these, or of what a test derives from them, that is the service while it lives.
template <class Service, class Fake>
class InForce : public Fake {
    const ScopedReplacement<Service> replacement_{*this};
};

} // namespace platform
