#include "platform/Processes.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/Files.h"
#include "platform/Log.h"
#include "platform/linux/Bundle.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/ProcessStart.h"
#include "platform/linux/ProcessTable.h"
#include "platform/linux/RunningProgram.h"
#include "platform/linux/SessionEnvironment.h"

namespace platform {
namespace {

constexpr size_t kMaximumKnown = limits::of("process.known");

std::string withoutSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

// The number of this process, which each text has in it: a system call for each would be a tenth of
// what sending one costs. Kept on a page that the system empties in a child, however that is made;
// handlers of fork are not called for every child. The first ones ask: a process that sends a few
// texts would pay more for the page.
class OwnNumber {
public:
    static uint32_t get() {
        std::atomic<uint32_t>* const kept = kept_.load(std::memory_order_acquire);
        if (kept == nullptr) {
            if (asked_.fetch_add(1, std::memory_order_relaxed) == kAsked) { // one thread
                keep();
            }
            return static_cast<uint32_t>(getpid());
        }
        uint32_t number = kept->load(std::memory_order_relaxed);
        if (number == 0) {
            number = static_cast<uint32_t>(getpid());
            kept->store(number, std::memory_order_relaxed);
        }
        return number;
    }

private:
    static constexpr uint32_t kAsked = 16;

    // Where the system cannot do that, each is asked for.
    static void keep() {
        const auto bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void* const page =
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) {
            return;
        }
        if (madvise(page, bytes, MADV_WIPEONFORK) != 0) {
            (void)munmap(page, bytes);
            return;
        }
        kept_.store(new (page) std::atomic<uint32_t>(0), std::memory_order_release);
    }

    static constinit std::atomic<std::atomic<uint32_t>*> kept_;
    static constinit std::atomic<uint32_t> asked_;
};

constinit std::atomic<std::atomic<uint32_t>*> OwnNumber::kept_{nullptr};
constinit std::atomic<uint32_t> OwnNumber::asked_{0};

// What tells this process's root folder from others.
std::string rootFolder() {
    struct stat status {};
    return stat("/", &status) == 0
               ? std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)
               : "";
}

class LinuxProcesses final : public Processes {
public:
    uint32_t ownNumber() const override { return OwnNumber::get(); }

    std::string ownProgram() const override {
        std::error_code error;
        return std::filesystem::read_symlink("/proc/self/exe", error).string();
    }

    bool isRunning(uint32_t number) override {
        // Numbers are given again; number and time of start together are not. The first look at a
        // number decides which process it stands for from then on.
        const uint64_t start = number == 0 ? 0 : processStartTime(number);
        if (start == 0) {
            return false;
        }
        const std::lock_guard<std::mutex> guard(mutex_);
        forgetEndedLocked();
        return known_.emplace(number, start).first->second == start;
    }

    std::vector<uint32_t> find(const std::string& path) const override {
        const std::string given = withoutSlashes(path);
        const std::string real = resolvedPath(given);
        // An entry may name any program, with any arguments. So its processes are known by the
        // variables that its starter sets alone, not by what they run.
        const bool isEntry = given.ends_with(kDesktopEntryExtension);
        std::string remark; // of what cannot be started, and so does not run
        const RunningProgram program(given.ends_with(kBundleExtension)
                                         ? programOfBundle(resolvedPath(given), remark)
                                         : given);
        std::vector<uint32_t> found;
        for (const uint32_t number : ownProcesses()) {
            const bool matches =
                isEntry ? wasStarted(number, given, "GIO_LAUNCHED_DESKTOP_FILE",
                                     "GIO_LAUNCHED_DESKTOP_FILE_PID")
                        : program.isRunBy(number) ||
                              (wasStarted(number, given, kStartedFrom, kStartedNumber) &&
                               wasStartedInRoot(number, rootFolder()));
            // Asked at the end: one that has ended meanwhile must not be found.
            if ((matches || wasStartedHere(number, given)) && processStartTime(number) != 0) {
                found.push_back(number);
            }
        }
        return found;
    }

    uint32_t startApplication(const std::string& path, bool behind) override {
        const std::string given = withoutSlashes(path);
        std::string reason;
        const uint32_t number = startGiven(given, behind, reason);
        if (number == 0) {
            Log::system().problem("start " + given + ": " + reason);
            return 0;
        }
        const std::lock_guard<std::mutex> guard(mutex_);
        forgetEndedLocked();
        // Set, not only added: an older process of that number has ended.
        known_[number] = processStartTime(number);
        startedFrom_[number] = given;
        return number;
    }

    bool startProgram(const std::string& name, const std::vector<std::string>& arguments) override {
        const SessionEnvironment environment = sessionEnvironment(false);
        // Of the child's environment, which has a path also where this process was started without
        // one.
        const std::string folders = environment.value("PATH");
        std::string_view rest(folders);
        int error = ENOENT;
        while (!rest.empty()) {
            const size_t end = rest.find(':');
            const std::string program = std::string(rest.substr(0, end)) + "/" + name;
            // An empty or relative entry of the path stands for where this process happens to be.
            if (program.front() == '/' && access(program.c_str(), X_OK) == 0 &&
                startProcess(program, arguments, environment.whole(), environment.value("HOME"),
                             error) != 0) {
                return true;
            }
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        }
        Log::system().problem("start " + name + ": " + std::generic_category().message(error));
        return false;
    }

private:
    // By whatever process, and also when what it runs does not tell, as after a script that ends in
    // an exec. Children inherit the path; the number tells them from the process that was started.
    static bool wasStarted(uint32_t number, const std::string& path, const char* pathVariable,
                           const char* numberVariable) {
        return startVariableOf(number, pathVariable) == path &&
               startVariableOf(number, numberVariable) == std::to_string(number);
    }

    // One in another root folder, as in a container, has another file at that path. It may have
    // gone into one itself after its start, so it is not asked for its own.
    static bool wasStartedInRoot(uint32_t number, const std::string& root) {
        const std::string known = startVariableOf(number, kStartedRoot);
        return known.empty() || known == root;
    }

    static uint32_t startGiven(const std::string& path, bool behind, std::string& reason) {
        if (path.empty() || path.front() != '/') {
            reason = "the path is not absolute";
            return 0;
        }
        SessionEnvironment environment = sessionEnvironment(behind);
        if (path.ends_with(kDesktopEntryExtension)) {
            return startDesktopEntry(path, environment, reason);
        }
        environment.added.push_back(std::string(kStartedFrom) + "=" + path);
        environment.added.push_back(std::string(kStartedRoot) + "=" + rootFolder());
        std::string remark;
        const std::string program =
            path.ends_with(kBundleExtension) ? programOfBundle(path, remark) : path;
        if (program.empty()) {
            reason = remark;
            return 0;
        }
        // It starts all the same, perhaps another program than was meant: that is worth a line.
        if (!remark.empty()) {
            Log::system().problem("start " + path + ": " + remark);
        }
        int error = 0;
        const uint32_t number =
            startProcess(program, {}, environment.whole(), environment.value("HOME"), error);
        reason = (program == path ? "" : program + ": ") + std::generic_category().message(error);
        return number;
    }

    // In the moment of an exec a process has no variables that could be asked for.
    bool wasStartedHere(uint32_t number, const std::string& path) const {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto started = startedFrom_.find(number);
        const auto start = known_.find(number);
        return started != startedFrom_.end() && start != known_.end() && started->second == path &&
               processStartTime(number) == start->second;
    }

    void forgetEndedLocked() {
        // Looking at all of them costs a file each, so it is done only when there are many.
        if (known_.size() < kMaximumKnown) {
            return;
        }
        for (auto i = known_.begin(); i != known_.end();) {
            if (processStartTime(i->first) == i->second) {
                ++i;
            } else {
                startedFrom_.erase(i->first);
                i = known_.erase(i);
            }
        }
    }

    mutable std::mutex mutex_;
    std::map<uint32_t, uint64_t> known_; // when they started
    std::map<uint32_t, std::string> startedFrom_;
};

} // namespace

Processes& Processes::own() {
    static auto* const processes = new LinuxProcesses;
    return *processes;
}

} // namespace platform
