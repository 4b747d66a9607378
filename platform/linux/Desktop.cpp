#include "platform/Desktop.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "platform/linux/WindowManager.h"

namespace platform {
namespace {

using Milliseconds = std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long a process may take to show its first window, and how long that has to stay behind until
// it is left alone.
constexpr Milliseconds kUntilWindow{limits::of("desktop.window")};
constexpr Milliseconds kAfterWindow{700};
constexpr Milliseconds kWhileBehind{limits::of("desktop.behind")};
constexpr Milliseconds kLook{200}; // when nothing changes

// Windows of the process itself, or of a program that a script which was started has started.
bool belongsTo(uint32_t windowProcess, uint32_t process) {
    // A launched program is a session of its own, whose number is that of its first process, and
    // what it starts stays in that session unless it takes the trouble to leave it.
    return windowProcess == process ||
           getsid(static_cast<pid_t>(windowProcess)) == static_cast<pid_t>(process);
}

// Runs `work` on a thread of its own, which may be stuck with a display that does not answer and
// then is left alone. False when it could not be started.
bool runDetached(const std::function<void()>& work) {
    try {
        std::thread(work).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

// What `question` gives within the time that a caller is held up, else 0.
uint32_t askWithinLimit(const std::function<uint32_t(const WindowManager&)>& question) {
    struct Answer {
        std::mutex mutex;
        std::condition_variable given;
        bool done = false;
        uint32_t value = 0;
    };
    // Shared: the thread may answer when this call has long returned.
    const auto answer = std::make_shared<Answer>();
    const bool asked = runDetached([answer, question] {
        const auto manager = WindowManager::connect();
        const uint32_t value = manager == nullptr ? 0 : question(*manager);
        const std::lock_guard<std::mutex> guard(answer->mutex);
        answer->value = value;
        answer->done = true;
        answer->given.notify_all();
    });
    std::unique_lock<std::mutex> lock(answer->mutex);
    return asked && answer->given.wait_for(lock, Milliseconds(Desktop::kMaximumWaitMilliseconds),
                                           [&] { return answer->done; })
               ? answer->value
               : 0;
}

// The processes whose windows are kept behind.
class Held {
public:
    static Held& instance() {
        static auto* const held = new Held;
        return *held;
    }
    void add(uint32_t process) {
        const std::lock_guard<std::mutex> guard(mutex_);
        processes_.insert(process);
    }
    void remove(uint32_t process) {
        const std::lock_guard<std::mutex> guard(mutex_);
        processes_.erase(process);
    }
    bool contains(uint32_t process) {
        const std::lock_guard<std::mutex> guard(mutex_);
        return processes_.count(process) != 0;
    }

private:
    std::mutex mutex_;
    std::set<uint32_t> processes_;
};

bool isOneOf(uint32_t window, const std::vector<uint32_t>& windows) {
    for (const uint32_t other : windows) {
        if (other == window) {
            return true;
        }
    }
    return false;
}

// A busy manager takes its time to read a wish, and gives the focus after it has shown a window. So
// the time begins anew whenever the window is not behind.
void holdBehind(const WindowManager& manager, uint32_t process, uint32_t front) {
    auto end = steady_clock::now() + kUntilWindow;
    auto last = end; // for who takes the focus again and again
    bool seen = false;
    // Ends with the display, too, and with a later wish to see the process in front.
    while (steady_clock::now() < end && manager.waitForChange(kLook.count()) &&
           Held::instance().contains(process)) {
        const auto windows =
            manager.windowsOf([process](uint32_t other) { return belongsTo(other, process); });
        if (windows.empty()) {
            continue;
        }
        const bool isActive = isOneOf(manager.activeWindow(), windows);
        if (!seen || isActive) {
            for (const uint32_t window : windows) {
                manager.lower(window);
            }
            if (isActive && front != 0) {
                manager.activate(front);
            }
        }
        const auto time = steady_clock::now();
        if (!seen) {
            last = time + kWhileBehind;
        }
        const bool isOnTop = front != 0 && isOneOf(manager.topWindow(), windows);
        if (!seen || isActive || isOnTop) {
            end = std::min(time + kAfterWindow, last);
        }
        seen = true;
    }
    Held::instance().remove(process);
}

class LinuxDesktop final : public Desktop {
public:
    bool bringToFront(uint32_t process) override {
        Held::instance().remove(process); // the later wish counts
        return askWithinLimit([process](const WindowManager& manager) -> uint32_t {
                   const auto windows = manager.windowsOf(
                       [process](uint32_t other) { return belongsTo(other, process); });
                   if (windows.empty()) {
                       return 0;
                   }
                   // The list goes from the lowest to the topmost: the last is the one that was
                   // seen last.
                   manager.activate(windows.back());
                   (void)manager.activeWindow(); // the wish has been read when this is answered
                   return 1;
               }) != 0;
    }

    uint32_t frontWindow() override {
        return askWithinLimit([](const WindowManager& manager) { return manager.activeWindow(); });
    }

    void keepBehind(uint32_t process, uint32_t frontWindow) override {
        // Before the thread runs, which ends as soon as the process is not among these.
        Held::instance().add(process);
        // Without a thread the window comes to the front: no reason to fail a launch.
        (void)runDetached([process, frontWindow] {
            if (const auto manager = WindowManager::connect()) {
                holdBehind(*manager, process, frontWindow);
            }
        });
    }
};

} // namespace

Desktop& Desktop::own() {
    static auto* const desktop = new LinuxDesktop;
    return *desktop;
}

} // namespace platform
