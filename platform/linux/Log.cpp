#include "platform/Log.h"

#include <mutex>
#include <set>
#include <unistd.h>

#include "limits/Limits.h"

namespace platform {
namespace {

constexpr size_t kMaximumLines = limits::of("log.lines");

class LinuxLog final : public Log {
public:
    void problem(const std::string& line) override {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            if (seen_.size() >= kMaximumLines || !seen_.insert(line).second) {
                return;
            }
        }
        const std::string text = "convey: " + line + "\n";
        // Where standard error is gone there is nowhere left to say it.
        (void)!write(STDERR_FILENO, text.data(), text.size());
    }

private:
    std::mutex mutex_;
    std::set<std::string> seen_;
};

} // namespace

Log& Log::own() {
    static auto* const log = new LinuxLog;
    return *log;
}

} // namespace platform
