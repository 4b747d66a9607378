// One of the processes that talk: sends requests to random others, answers theirs, and starts and
// stops the layer every few seconds.
// Usage: soak_worker STATES JOURNAL INDEX COUNT SEED
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <map>
#include <random>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"
#include "soak/Journal.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;
using Time = std::chrono::steady_clock;

constexpr int64_t kOverdueMilliseconds = 20'000; // far behind the time-out, and its watcher's
constexpr size_t kMaximumPending = 64;

std::atomic<int> gEnd{0}; // lock-free, so that a handler on any thread may set it

int64_t milliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Time::now().time_since_epoch())
        .count();
}

size_t entriesOf(const char* folder) {
    size_t entries = 0;
    if (DIR* const directory = opendir(folder)) {
        while (readdir(directory) != nullptr) {
            ++entries;
        }
        closedir(directory);
    }
    return entries;
}

std::string bodyOf(const std::string& id, size_t bytes) {
    std::string body = id + " " + std::to_string(bytes) + "\n";
    while (body.size() < bytes) {
        body += id + "/" + std::to_string(body.size()) + " ";
    }
    return body;
}

class Worker {
public:
    Worker(soak::States& states, int journal, unsigned index, unsigned count, unsigned seed)
        : state_(states[index]),
          journal_(journal),
          index_(index),
          count_(count),
          random_(seed ^ static_cast<unsigned>(getpid())) {}

    int run() {
        note("P");
        while (gEnd == 0) {
            if (!live()) {
                return 1;
            }
            note("C " + std::to_string(entriesOf("/proc/self/fd")) + " " +
                 std::to_string(threads()) + " " + std::to_string(mallinfo2().uordblks));
        }
        return 0;
    }

private:
    // A thread that has been joined may still be seen for a moment.
    static size_t threads() {
        size_t fewest = entriesOf("/proc/self/task");
        for (int i = 0; i < 5 && fewest > 1; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            fewest = std::min(fewest, entriesOf("/proc/self/task"));
        }
        return fewest;
    }
    class Handler : public Convey::MsgHandler {
    public:
        explicit Handler(Worker& worker) : worker_(worker) {}
        int32_t handleMessage(int event, Convey::Message& message, SoString* result) override {
            return worker_.handle(event, message, result);
        }
        SoString getMsgType() const override { return "Tessaly"; }

    private:
        Worker& worker_;
    };
    struct Pending {
        std::string id;
        unsigned target;
        int64_t sent;  // by the clock of the machine
        int64_t since; // by the worker's own time
    };

    static std::string nameOf(unsigned index) { return "soak" + std::to_string(index) + "-1.0"; }
    unsigned upTo(unsigned most) { return static_cast<unsigned>(random_() % (most + 1)); }
    void note(std::string line) const {
        line += '\n';
        if (write(journal_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            std::perror("journal");
            std::_Exit(3);
        }
    }

    // One life of the layer in this process.
    bool live() {
        if (!Convey::InitTerm::init(nameOf(index_).c_str(), true)) {
            std::fprintf(stderr, "%s: the layer does not start\n", nameOf(index_).c_str());
            return false;
        }
        note("B " + std::to_string(milliseconds()));
        {
            Convey instance(nameOf(index_).c_str(), new Handler(*this), true, nullptr);
            const int64_t end = milliseconds() + 1500 + upTo(2500);
            while (gEnd == 0 && milliseconds() < end) {
                for (unsigned i = upTo(3); i > 0 && pending_.size() < kMaximumPending; --i) {
                    send(instance);
                }
                round();
            }
            // What is under way comes to its end, one way or another.
            while (!pending_.empty()) {
                round();
            }
            note("D " + std::to_string(milliseconds()));
        }
        late_.clear();
        return Convey::InitTerm::exit();
    }

    void round() {
        (void)Convey::pumpOrWait(5);
        state_.beats.fetch_add(1);
        // Time in which this process was stopped does not count.
        const int64_t now = milliseconds();
        ownTime_ += std::min<int64_t>(now - lastRound_, 100);
        lastRound_ = now;
        for (auto pending = pending_.begin(); pending != pending_.end();) {
            if (ownTime_ - pending->second.since > kOverdueMilliseconds) {
                note("S " + pending->second.id);
                pending = pending_.erase(pending);
            } else {
                ++pending;
            }
        }
    }

    void send(Convey& instance) {
        const unsigned target = (index_ + 1 + upTo(count_ - 2)) % count_;
        const std::string id = std::to_string(index_) + "." + std::to_string(getpid()) + "." +
                               std::to_string(++lastNumber_);
        const unsigned kind = upTo(99);
        const size_t bytes = kind < 80 ? upTo(1000) : kind < 98 ? upTo(64'000) : upTo(2'000'000);
        Convey::Message message;
        message.setTarget(nameOf(target).c_str());
        message.setResponseRequest("Result Error Timeout");
        message.setTimeout(soak::kTimeoutSeconds);
        message.setSerialNumber(message.getNextSerialNumber(nullptr));
        message.setBody(SoString(bodyOf(id, bytes).c_str()));
        const uint32_t serial = message.getSerialNumber();
        const Pending request{id, target, milliseconds(), ownTime_};
        pending_[serial] = request;
        if (instance.send(message, false, 0, nullptr)) {
            state_.sent.fetch_add(1);
        } else {
            state_.refused.fetch_add(1);
            late_[serial] = request; // should it have been handled all the same
            pending_.erase(serial);
        }
    }

    int32_t handle(int event, Convey::Message& message, SoString* result) {
        using namespace ScObjects::ConveyData;
        const std::string body(message.getBody().view());
        if (event == CV_EVENT_REQUEST) {
            const std::string id = body.substr(0, body.find(' '));
            const size_t bytes = std::strtoul(body.c_str() + id.size(), nullptr, 10);
            note((body == bodyOf(id, bytes) ? "H " : "X ") + id);
            *result = ("re " + id).c_str();
            return 0;
        }
        const uint32_t serial = message.getSerialNumber();
        const auto pending = pending_.find(serial);
        const auto late = late_.find(serial);
        if (pending == pending_.end() && late == late_.end()) {
            return 0;
        }
        const Pending request = pending != pending_.end() ? pending->second : late->second;
        const std::string& id = request.id;
        if (event == CV_EVENT_RESULT) {
            // Numbers begin anew with each process: ours say what they answer, so that an answer to
            // a predecessor of this name is told from a wrong one.
            const std::string own = "re " + std::to_string(index_) + ".";
            if (body != "re " + id && body.starts_with(own)) {
                note("Z " + body.substr(3));
                return 0;
            }
            note((body == "re " + id ? "A " : "X ") + id);
        } else if (event == CV_EVENT_TIMEOUT) {
            note("T " + id + " " + std::to_string(request.target) + " " +
                 std::to_string(request.sent) + " " + std::to_string(milliseconds()));
            late_[serial] = request; // the result may come all the same
        } else if (event == CV_EVENT_ERROR) {
            note("E " + id);
            late_[serial] = request;
        } else {
            return 0;
        }
        if (pending != pending_.end()) {
            pending_.erase(pending);
        }
        return 0;
    }

    soak::WorkerState& state_;
    const int journal_;
    const unsigned index_;
    const unsigned count_;
    std::mt19937 random_;
    std::map<uint32_t, Pending> pending_; // by serial number
    std::map<uint32_t, Pending> late_;
    uint64_t lastNumber_ = 0;
    int64_t ownTime_ = 0; // milliseconds
    int64_t lastRound_ = milliseconds();
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("usage: soak_worker STATES JOURNAL INDEX COUNT SEED\n", stderr);
        return 2;
    }
    (void)mallopt(M_ARENA_MAX, 1); // so that one figure counts all that is in use
    std::signal(SIGTERM, [](int) { gEnd = 1; });
    const int file = open(argv[1], O_RDWR | O_CLOEXEC);
    const int journal = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    void* const page =
        mmap(nullptr, sizeof(soak::States), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (journal < 0 || page == MAP_FAILED) {
        std::perror("soak_worker");
        return 2;
    }
    const auto number = [argv](int i) {
        return static_cast<unsigned>(std::strtoul(argv[i], nullptr, 10));
    };
    return Worker(*static_cast<soak::States*>(page), journal, number(3), number(4), number(5))
        .run();
}
