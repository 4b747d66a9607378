// Ten processes that talk, while they are killed, stopped and continued at random moments,
// strangers to the protocol write to their ports, and the database is replaced and taken away below
// them. Afterwards the journals must agree: what was acknowledged was handled, nothing was handled
// or answered twice, nobody got the answer to a predecessor, no time ran out between two processes
// that ran undisturbed, no process was stuck, and nothing is left behind. Usage: soak [--preload
// LIBRARY] [SECONDS [PROCESSES [SEED]]] The library goes into the workers: with one that drops
// packets the run must find violations.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "soak/Journal.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using Time = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Sending to a target that takes nothing may wait for ten seconds; the rest is a busy machine.
constexpr milliseconds kLongestSilence{20'000};
constexpr milliseconds kUntilEnd{60'000};
constexpr int64_t kHeapGrowthBytes = 256 << 10; // tables of what was seen are bounded, not empty

// A request is handled within this time by a process that runs, or it has been lost.
constexpr int64_t kSurelyHandled = 2500; // milliseconds

int64_t monotonicNow() {
    return std::chrono::duration_cast<milliseconds>(Time::now().time_since_epoch()).count();
}

// A stretch of time, in milliseconds of the monotonic clock.
struct Span {
    int64_t from;
    int64_t until;
};

// What happened to one of the names: when it was stopped or without a process, and when it lived.
struct History {
    std::vector<Span> disturbed;
    std::vector<int64_t> kills;
    std::vector<Span> lives;

    bool wasDisturbed(const Span& span) const {
        return std::any_of(disturbed.begin(), disturbed.end(), [&](const Span& other) {
            return other.from <= span.until && span.from <= other.until;
        });
    }
    bool livedThroughout(const Span& span) const {
        return std::any_of(lives.begin(), lives.end(), [&](const Span& life) {
            return life.from <= span.from && span.until <= life.until;
        });
    }
};

// A request whose asker was told that its time is over.
struct Timeout {
    unsigned asker;
    std::string id;
    unsigned target;
    Span span; // from when it was sent until when that was told
};

struct Worker {
    pid_t pid = -1;
    bool stopped = false;
    Time::time_point continueAt;
    uint64_t beats = 0;
    uint64_t firstBeat = 0; // when it was started
    Time::time_point lastBeat;
};

class Soak {
public:
    Soak(unsigned count, unsigned seed, const char* preload)
        : workers_(count), histories_(count), preload_(preload), seed_(seed), random_(seed) {
        setenv("XDG_RUNTIME_DIR", folder_.file("run").c_str(), 1);
        setenv("HOME", folder_.file("home").c_str(), 1);
        setenv("OVREL_CAPS_DB", database_.c_str(), 1);
        for (const char* name : {"run", "home"}) {
            std::filesystem::create_directory(folder_.file(name));
            std::filesystem::permissions(folder_.file(name), std::filesystem::perms::owner_all);
        }
        for (unsigned i = 0; i < count; ++i) {
            const ProcessResult added =
                runProcess({OVREL_CAPS_TOOL, "add-app", "soak" + std::to_string(i) + "-1.0",
                            "--path", SOAK_WORKER});
            if (added.exitStatus != 0) {
                throw std::runtime_error("the database is not made: " + added.err);
            }
        }
        std::filesystem::copy_file(database_, folder_.file("copy.db"));
        const int file = open(folder_.file("states").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (ftruncate(file, sizeof(soak::States)) != 0) {
            throw std::runtime_error("no shared page");
        }
        states_ = static_cast<soak::States*>(
            mmap(nullptr, sizeof(soak::States), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        close(file);
    }
    ~Soak() {
        for (const Worker& worker : workers_) {
            if (worker.pid > 0) {
                kill(worker.pid, SIGKILL);
                waitpid(worker.pid, nullptr, 0);
            }
        }
    }
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    int run(milliseconds duration) {
        for (unsigned i = 0; i < workers_.size(); ++i) {
            start(i);
        }
        const auto end = Time::now() + duration;
        while (Time::now() < end && violations_.size() < 100) {
            std::this_thread::sleep_for(milliseconds(20));
            look();
            // About five times a second; seldom where something else is to be found.
            if (upTo(preload_ == nullptr ? 9 : 39) == 0) {
                disturb();
            }
        }
        finish();
        judge();
        report(duration);
        return violations_.empty() ? 0 : 1;
    }

private:
    unsigned upTo(unsigned most) { return static_cast<unsigned>(random_() % (most + 1)); }
    std::string journal(unsigned index) const {
        return folder_.file("journal." + std::to_string(index));
    }
    void violation(const std::string& text) { violations_.push_back(text); }

    void start(unsigned index) {
        const std::string words[] = {SOAK_WORKER,
                                     folder_.file("states"),
                                     journal(index),
                                     std::to_string(index),
                                     std::to_string(workers_.size()),
                                     std::to_string(seed_ + ++starts_)};
        Worker& worker = workers_[index];
        worker = {};
        worker.lastBeat = Time::now();
        worker.beats = worker.firstBeat = (*states_)[index].beats.load();
        worker.pid = fork();
        if (worker.pid == 0) {
            std::vector<char*> arguments;
            for (const std::string& word : words) {
                arguments.push_back(const_cast<char*>(word.c_str()));
            }
            arguments.push_back(nullptr);
            if (preload_ != nullptr) {
                setenv("LD_PRELOAD", preload_, 1);
            }
            execv(SOAK_WORKER, arguments.data());
            _exit(127);
        }
    }

    void endStop(unsigned index) {
        auto& disturbed = histories_[index].disturbed;
        if (!disturbed.empty()) {
            disturbed.back().until = std::min(disturbed.back().until, monotonicNow());
        }
    }

    // Sees who is silent, who has ended, and who has been stopped for long enough.
    void look() {
        const auto now = Time::now();
        for (unsigned i = 0; i < workers_.size(); ++i) {
            Worker& worker = workers_[i];
            int status = 0;
            if (waitpid(worker.pid, &status, WNOHANG) == worker.pid) {
                violation("worker " + std::to_string(i) + " ended by itself, status " +
                          std::to_string(status));
                start(i);
                continue;
            }
            if (worker.stopped && now >= worker.continueAt) {
                kill(worker.pid, SIGCONT);
                worker.stopped = false;
                worker.lastBeat = now;
                endStop(i);
            }
            const uint64_t beats = (*states_)[i].beats.load();
            if (worker.stopped || beats != worker.beats) {
                worker.beats = beats;
                worker.lastBeat = now;
            }
            const auto silence = std::chrono::duration_cast<milliseconds>(now - worker.lastBeat);
            longestSilence_ = std::max(longestSilence_, silence);
            if (silence > kLongestSilence) {
                violation("worker " + std::to_string(i) + " is stuck");
                kill(worker.pid, SIGKILL);
                waitpid(worker.pid, nullptr, 0);
                start(i);
            }
        }
    }

    void disturb() {
        const unsigned index = upTo(static_cast<unsigned>(workers_.size()) - 1);
        Worker& worker = workers_[index];
        switch (upTo(9)) {
        case 0:
            endStop(index);
            histories_[index].disturbed.push_back({monotonicNow(), monotonicNow()});
            histories_[index].kills.push_back(monotonicNow());
            kill(worker.pid, SIGKILL);
            waitpid(worker.pid, nullptr, 0);
            ++kills_;
            start(index);
            break;
        case 1:
        case 2:
        case 3:
        case 4:
            if (!worker.stopped) {
                histories_[index].disturbed.push_back({monotonicNow(), INT64_MAX});
                kill(worker.pid, SIGSTOP);
                worker.stopped = true;
                worker.continueAt = Time::now() + milliseconds(10 + upTo(3000));
                ++stops_;
            }
            break;
        case 5:
            changeDatabase();
            break;
        default:
            writeGarbage(index);
        }
    }

    void changeDatabase() {
        ++databaseChanges_;
        switch (upTo(2)) {
        case 0: { // replaced
            const std::string next = folder_.file("next.db");
            std::filesystem::copy_file(folder_.file("copy.db"), next);
            std::filesystem::rename(next, database_);
            break;
        }
        case 1: // gone for a moment
            std::filesystem::rename(database_, folder_.file("away.db"));
            std::this_thread::sleep_for(milliseconds(upTo(100)));
            std::filesystem::rename(folder_.file("away.db"), database_);
            break;
        default: // written by a packager
            (void)runProcess({OVREL_CAPS_TOOL, "add-app",
                              "other-" + std::to_string(upTo(99)) + ".0", "--path", "/opt/other"});
        }
    }

    // A process of the same user that does not keep to the protocol, and dies in the middle.
    void writeGarbage(unsigned index) {
        const pid_t child = fork();
        if (child == 0) {
            const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
            bool heard = false;
            if (chdir(folder_.file("run/convey").c_str()) != 0) { // whose path may be long
                _exit(1);
            }
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const std::string path = randomSocketOf(index);
            path.copy(address.sun_path, sizeof address.sun_path - 1);
            alarm(5); // its victim may be stopped
            if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
                heard = true;
                unsigned char packet[2000];
                for (unsigned i = upTo(20); i > 0; --i) {
                    for (unsigned char& byte : packet) {
                        byte = static_cast<unsigned char>(random_());
                    }
                    // The head of a packet of ours: version, a kind, and a length in the clouds.
                    const unsigned char head[] = {
                        'C', 'V', 'M', 'P', 1, static_cast<unsigned char>(upTo(2)), 0, 0};
                    if (upTo(1) == 0) {
                        std::copy(std::begin(head), std::end(head), packet);
                        std::fill(packet + 11, packet + 16, static_cast<unsigned char>(0));
                    }
                    if (send(fd, packet, upTo(sizeof packet), MSG_NOSIGNAL) < 0) {
                        break;
                    }
                }
            }
            _exit(heard ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        garbage_ += status == 0 ? 1 : 0; // else its victim was not there
    }

    // The file name of a port of the worker.
    std::string randomSocketOf(unsigned index) {
        std::vector<std::string> sockets;
        for (const auto& entry : std::filesystem::directory_iterator(".")) {
            const std::string file = entry.path().filename().string();
            if (file.find("soak" + std::to_string(index) + "-1.0") != std::string::npos &&
                file.ends_with(".socket")) {
                sockets.push_back(file);
            }
        }
        return sockets.empty() ? "none" : sockets[random_() % sockets.size()];
    }

    void finish() {
        const auto end = Time::now() + kUntilEnd;
        for (unsigned i = 0; i < workers_.size(); ++i) {
            endStop(i);
            kill(workers_[i].pid, SIGCONT);
            // One that was started a moment ago cannot be asked to end yet.
            while ((*states_)[i].beats.load() == workers_[i].firstBeat && Time::now() < end) {
                std::this_thread::sleep_for(milliseconds(5));
            }
            kill(workers_[i].pid, SIGTERM);
        }
        for (unsigned i = 0; i < workers_.size(); ++i) {
            Worker& worker = workers_[i];
            int status = 0;
            pid_t ended = 0;
            while ((ended = waitpid(worker.pid, &status, WNOHANG)) == 0 && Time::now() < end) {
                std::this_thread::sleep_for(milliseconds(20));
            }
            if (ended == 0) {
                violation("worker " + std::to_string(i) + " does not end");
                continue; // killed by the destructor
            }
            worker.pid = -1;
            if (status != 0) {
                violation("worker " + std::to_string(i) + " ended with status " +
                          std::to_string(status));
            }
        }
        std::error_code error;
        for (const auto& entry :
             std::filesystem::directory_iterator(folder_.file("run/convey"), error)) {
            violation("left behind: " + entry.path().filename().string());
        }
    }

    void judge() {
        std::map<std::string, int> handled;
        std::map<std::string, int> answered;
        std::vector<Timeout> timeouts;
        for (unsigned i = 0; i < workers_.size(); ++i) {
            std::ifstream lines(journal(i));
            for (std::string line; std::getline(lines, line);) {
                std::istringstream words(line);
                std::string kind;
                std::string id;
                words >> kind >> id;
                ++events_[kind];
                if (kind == "H") {
                    ++handled[id];
                } else if (kind == "A") {
                    ++answered[id];
                } else if (kind == "T") {
                    Timeout timeout{i, id, 0, {}};
                    words >> timeout.target >> timeout.span.from >> timeout.span.until;
                    timeouts.push_back(timeout);
                } else if (kind == "X" || kind == "S" || kind == "Z") {
                    violation((kind == "X"   ? "damaged: "
                               : kind == "S" ? "never heard of again: "
                                             : "an answer to a predecessor: ") +
                              id);
                } else if (kind == "B" || kind == "D") {
                    noteLife(histories_[i], kind == "B", std::stoll(id));
                }
            }
        }
        for (const auto& [id, times] : handled) {
            if (times != 1) {
                violation("handled " + std::to_string(times) + " times: " + id);
            }
        }
        for (const auto& [id, times] : answered) {
            if (times != 1) {
                violation("answered " + std::to_string(times) + " times: " + id);
            }
            if (handled.count(id) == 0) {
                violation("acknowledged, and not handled: " + id);
            }
        }
        judgeTimeouts(timeouts, handled);
        judgeResources();
    }

    // A life of a process that was killed has no end of its own: it ends with the kill.
    static void noteLife(History& history, bool begins, int64_t time) {
        if (begins) {
            const auto kill = std::lower_bound(history.kills.begin(), history.kills.end(), time);
            history.lives.push_back({time, kill == history.kills.end() ? INT64_MAX : *kill});
        } else if (!history.lives.empty()) {
            history.lives.back().until = time;
        }
    }

    // The time of a request runs out only when one of the two was killed or stopped meanwhile, or
    // when the target's layer ended before it surely came to the request.
    void judgeTimeouts(const std::vector<Timeout>& timeouts,
                       const std::map<std::string, int>& handled) {
        for (const Timeout& timeout : timeouts) {
            const Span& span = timeout.span;
            const History& target = histories_.at(timeout.target);
            if (histories_[timeout.asker].wasDisturbed(span) || target.wasDisturbed(span) ||
                !target.livedThroughout({span.from, span.from + kSurelyHandled})) {
                continue;
            }
            violation("timed out between two that ran: " + timeout.id + " to " +
                      std::to_string(timeout.target) +
                      (handled.count(timeout.id) != 0 ? ", handled" : ", not handled") +
                      ", sent at " + std::to_string(span.from) + ", told at " +
                      std::to_string(span.until));
        }
    }

    // After each stop of the layer a process must be as it was after the first one.
    void judgeResources() {
        for (unsigned i = 0; i < workers_.size(); ++i) {
            std::ifstream lines(journal(i));
            int64_t first[3] = {-1, -1, -1};
            int64_t last[3] = {-1, -1, -1};
            uint64_t life = 0;
            for (std::string line; std::getline(lines, line);) {
                std::istringstream words(line);
                std::string kind;
                int64_t now[3];
                words >> kind;
                if (kind == "P") { // another process
                    life = 0;
                } else if (kind == "C" && words >> now[0] >> now[1] >> now[2]) {
                    // The first life fills what is made once and kept.
                    if (++life == 2) {
                        std::copy(std::begin(now), std::end(now), first);
                    } else if (life > 2) {
                        std::copy(std::begin(now), std::end(now), last);
                        compare(i, first, last);
                    }
                }
            }
        }
    }
    void compare(unsigned index, const int64_t (&first)[3], const int64_t (&last)[3]) {
        ++comparisons_;
        heapGrowth_ = std::max(heapGrowth_, last[2] - first[2]);
        if (last[0] != first[0] || last[1] > first[1] || last[2] - first[2] > kHeapGrowthBytes) {
            violation("worker " + std::to_string(index) + " holds " + std::to_string(last[0]) +
                      " descriptors, " + std::to_string(last[1]) + " threads, " +
                      std::to_string(last[2]) + " bytes; after its second life " +
                      std::to_string(first[0]) + ", " + std::to_string(first[1]) + ", " +
                      std::to_string(first[2]));
        }
    }

    void report(milliseconds duration) {
        uint64_t sent = 0;
        uint64_t refused = 0;
        for (const soak::WorkerState& state : *states_) {
            sent += state.sent.load();
            refused += state.refused.load();
        }
        const bool isShort = duration < std::chrono::seconds(30); // too short for third lives
        if (events_["A"] == 0 || (comparisons_ == 0 && !isShort)) {
            violation("nothing was acknowledged or compared: the run proves nothing");
        }
        std::printf("%lld s, %zu processes, seed %u\n",
                    static_cast<long long>(duration.count() / 1000), workers_.size(), seed_);
        std::printf("disturbances: %u kills, %u stops, %u hostile connections, %u changes of the "
                    "database\n",
                    kills_, stops_, garbage_, databaseChanges_);
        std::printf("requests: %llu sent, %llu refused at once; %d handled, %d results, %d "
                    "time-outs, %d errors, %d answers to a predecessor\n",
                    static_cast<unsigned long long>(sent), static_cast<unsigned long long>(refused),
                    events_["H"], events_["A"], events_["T"], events_["E"], events_["Z"]);
        std::printf("longest silence of a process that was not stopped: %lld ms\n",
                    static_cast<long long>(longestSilence_.count()));
        std::printf("lives of the layer: %d; compared: %d, most heap kept beyond the second: %lld "
                    "bytes\n",
                    events_["C"], comparisons_, static_cast<long long>(heapGrowth_));
        for (const std::string& text : violations_) {
            std::printf("VIOLATION %s\n", text.c_str());
        }
        std::printf("%zu violations\n", violations_.size());
    }

    const TemporaryFolder folder_;
    const std::string database_ = folder_.file("caps.db");
    std::vector<Worker> workers_;
    std::vector<History> histories_;
    const char* const preload_; // a library for the workers, or null
    const unsigned seed_;
    std::mt19937 random_;
    soak::States* states_ = nullptr;
    unsigned starts_ = 0;
    unsigned kills_ = 0;
    unsigned stops_ = 0;
    unsigned garbage_ = 0;
    unsigned databaseChanges_ = 0;
    milliseconds longestSilence_{0};
    std::map<std::string, int> events_;
    int comparisons_ = 0;
    int64_t heapGrowth_ = 0;
    std::vector<std::string> violations_;
};

} // namespace

int main(int argc, char** argv) {
    const char* preload = nullptr;
    if (argc > 2 && std::string(argv[1]) == "--preload") {
        preload = argv[2];
        argc -= 2;
        argv += 2;
    }
    const auto number = [&](int i, unsigned usual) {
        return argc > i ? static_cast<unsigned>(std::strtoul(argv[i], nullptr, 10)) : usual;
    };
    const unsigned count = number(2, 10);
    if (count < 2 || count > soak::kMaximumWorkers) {
        std::fprintf(stderr,
                     "usage: soak [--preload LIBRARY] [SECONDS [PROCESSES [SEED]]], 2 to %zu "
                     "processes\n",
                     soak::kMaximumWorkers);
        return 2;
    }
    try {
        return Soak(count, number(3, std::random_device()()), preload)
            .run(std::chrono::seconds(number(1, 600)));
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "soak: %s\n", problem.what());
        return 2;
    }
}
