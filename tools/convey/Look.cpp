#include "tools/convey/Look.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/convey/SoConvey.h"
#include "tools/convey/Model.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::ConveyThread;
namespace ConveyData = ScObjects::ConveyData;
using ScObjects::SoString;

namespace {

constexpr const char* kThread = "#thread"; // the port that each process has
// Most answer in a millisecond; each that does not has a thread wait.
constexpr size_t kLooksAtOnce = 32;

// The name that a file of a port was made of: what is not plain is two digits behind a %.
std::string portNameOf(const std::string& file) {
    std::string name;
    for (size_t i = 0; i < file.size(); ++i) {
        if (file[i] == '%' && i + 2 < file.size()) {
            name += static_cast<char>(std::strtol(file.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            name += file[i];
        }
    }
    return std::string(ScObjects::ConveyUtils::getStreamName(name.c_str()).view());
}

// Visits a folder of /proc, which may go while it is read.
template <class Visit>
void eachIn(const std::filesystem::path& folder, Visit&& visit) {
    std::error_code error;
    for (std::filesystem::directory_iterator file(folder, error), end; !error && file != end;
         file.increment(error)) {
        visit(file->path());
    }
}

// The sockets that this user's processes have open, with their owners.
std::map<std::string, uint32_t> socketOwners() {
    std::map<std::string, uint32_t> owners;
    eachIn("/proc", [&](const std::filesystem::path& process) {
        const auto number =
            static_cast<uint32_t>(std::strtoul(process.filename().c_str(), nullptr, 10));
        if (number != 0) {
            eachIn(process / "fd", [&](const std::filesystem::path& file) {
                std::error_code gone;
                owners.emplace(std::filesystem::read_symlink(file, gone).string(), number);
            });
        }
    });
    return owners;
}

bool hasStalePort(const std::string& target) {
    const auto ports = platform::MessagePorts::system().list();
    return std::any_of(ports.begin(), ports.end(), [&](const auto& port) {
        return port.stale &&
               std::string(ScObjects::ConveyUtils::getStreamName(port.name.c_str()).view()) ==
                   target + kThread;
    });
}

} // namespace

Elsewhere portsElsewhere() {
    Elsewhere found;
    const std::string own = platform::MessagePorts::system().place();
    constexpr std::string_view kEnding = ".socket";
    std::map<std::string, uint32_t> owners;
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);) {
        const size_t begin = line.find('/');
        std::istringstream fields(line.substr(0, begin));
        std::string field;
        std::string file; // the last field before the path: its number
        while (fields >> field) {
            file = field;
        }
        const std::string path = begin == std::string::npos ? "" : line.substr(begin);
        const std::filesystem::path folder = std::filesystem::path(path).parent_path();
        const std::string last = folder.filename().string();
        if (!path.ends_with(kEnding) || folder == own ||
            (last != "convey" && !last.starts_with("convey-"))) {
            continue;
        }
        if (owners.empty()) {
            owners = socketOwners();
        }
        const auto owner = owners.find("socket:[" + file + "]");
        if (owner != owners.end()) { // else another user's
            const std::string name = std::filesystem::path(path).filename().string();
            found[folder.string()][portNameOf(name.substr(0, name.size() - kEnding.size()))] =
                owner->second;
        }
    }
    return found;
}

Subject look(const std::string& target, int32_t timeoutSeconds, bool whole) {
    Subject subject;
    const auto owners = portOwners();
    subject.process = ownerOf(owners, target);
    if (subject.process != 0) {
        subject.state = lookAt(subject.process).state;
        std::ifstream place("/proc/" + std::to_string(subject.process) + "/wchan");
        std::getline(place, subject.place);
        if (subject.place == "0") { // it runs, or the system does not tell
            subject.place.clear();
        }
    }
    if (subject.state == 'T' || subject.state == 't') {
        return subject;
    }
    const SoString wish(whole ? ConveyData::CV_WHOLE : "");
    subject.rows = toStd(
        Convey::Thread::ping(target.c_str(), ConveyThread::CV_DIAGNOSTICS, timeoutSeconds, &wish));
    if (!subject.rows.empty() && subject.rows.front() == '/') { // rows begin with a path
        return subject;
    }
    const std::string answer = std::exchange(subject.rows, "");
    if (subject.process != 0 && answer == ConveyData::CV_TYPE_TIMEOUT) {
        const auto used = usedElsewhere();
        const auto link = used.find(target);
        subject.link = link == used.end() ? "" : link->second;
        return subject;
    }
    if (subject.process == 0) {
        for (const auto& [folder, ports] : portsElsewhere()) {
            const auto port = ports.find(target + kThread);
            if (port != ports.end()) {
                subject.elsewhere = folder;
                subject.process = port->second;
                return subject;
            }
        }
        subject.hasDied = hasStalePort(target);
        if (subject.hasDied) {
            return subject;
        }
        requireRegistry(); // without one nothing is known, and that is what to mend first
    }
    throw Failure(kNo, target + ": " + (answer.empty() ? "no answer" : answer),
                  {{"specifier", target}});
}

void allAtOnce(size_t count, const std::function<void(size_t)>& work) {
    // Detached, since the process may end while they ask; so nobody is left to be joined. What they
    // share lives as long as the last of them.
    struct Shared {
        std::atomic<size_t> next{0};
        std::mutex mutex;
        std::condition_variable ended;
        size_t running = 0;
        std::exception_ptr failure;
    };
    const auto shared = std::make_shared<Shared>();
    const auto share = [shared, count, &work] {
        try {
            for (size_t i = 0; (i = shared->next.fetch_add(1)) < count && !Session::isEnding();) {
                work(i);
            }
        } catch (...) {
            const std::lock_guard<std::mutex> guard(shared->mutex);
            shared->failure = std::current_exception();
        }
        const std::lock_guard<std::mutex> guard(shared->mutex);
        --shared->running;
        shared->ended.notify_one();
    };
    const size_t threads = std::max<size_t>(std::min(count, kLooksAtOnce), 1);
    shared->running = threads;
    for (size_t i = 1; i < threads; ++i) {
        try {
            std::thread(share).detach();
        } catch (const std::system_error&) { // those that there are do it, too
            const std::lock_guard<std::mutex> guard(shared->mutex);
            --shared->running;
        }
    }
    share();
    std::unique_lock<std::mutex> guard(shared->mutex);
    shared->ended.wait(guard, [&] { return shared->running == 0; });
    if (shared->failure != nullptr) {
        std::rethrow_exception(shared->failure);
    }
}

Subjects lookAtAll(const std::vector<std::string>& targets, int32_t timeoutSeconds) {
    Subjects found;
    std::mutex mutex; // of `found`
    allAtOnce(targets.size(), [&](size_t i) {
        try {
            Subject subject = look(targets[i], timeoutSeconds, false);
            const std::lock_guard<std::mutex> guard(mutex);
            found.emplace(targets[i], std::move(subject));
        } catch (const Failure&) { // who asks for its verdict is told then
        }
    });
    return found;
}

Verdict judgeRunning(const std::string& target, int32_t timeoutSeconds, bool whole,
                     std::string* rows, const Subjects& seen) {
    bool isFirst = true;
    return judge(target, [&](const std::string& name) {
        const bool isOwn = std::exchange(isFirst, false);
        try {
            const auto known = seen.find(name);
            Subject subject =
                known != seen.end() ? known->second : look(name, timeoutSeconds, isOwn && whole);
            if (isOwn && rows != nullptr) {
                *rows = subject.rows;
            }
            return subject;
        } catch (const Failure&) {
            if (isOwn) {
                throw;
            }
            return Subject(); // whom it waits for has gone
        }
    });
}

Json asJson(const Verdict& verdict) {
    return {{"word", verdict.word}, {"sentence", verdict.sentence}, {"healthy", verdict.isHealthy}};
}

} // namespace convey_tool
