// Round trips and one-way texts of two processes: Convey beside a bare socket and beside public
// message libraries, in turn, at sizes from a note to a picture.
// Usage: peers_bench [ROUNDS [SIZE | stopped]]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <vector>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "bench/peers/Peer.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using namespace bench;

constexpr const char* kBroker = "/usr/bin/dbus-daemon";

struct Size {
    const char* name;
    size_t bytes;
    int roundTrips; // of each round
    int oneWay;
};
constexpr Size kSizes[] = {
    {"0.3 KiB", 300, 3000, 30'000}, {"4 KiB", 4096, 3000, 20'000},
    {"64 KiB", 65'536, 1000, 3000}, {"256 KiB", 1 << 18, 300, 600},
    {"1 MiB", 1 << 20, 100, 200},   {"16 MiB", size_t{16} << 20, 6, 10},
};

// Texts from here on wait for half of a round trip's digests: the others are made beside them.
constexpr size_t kOverlapped = 1 << 18;

double quantile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(std::ceil(share * static_cast<double>(values.size())));
    return values[std::min(index == 0 ? 0 : index - 1, values.size() - 1)];
}

struct Contestant {
    std::function<std::unique_ptr<Peer>()> make;
    std::string name;
    std::vector<double> roundTrips; // microseconds
    std::vector<double> rates;      // texts a second
};

// What one round of a contestant gave, from the process that measured it.
void writeAll(int fd, const void* bytes, size_t size) {
    const char* at = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = write(fd, at, size);
        if (written <= 0) {
            _exit(1);
        }
        at += written;
        size -= static_cast<size_t>(written);
    }
}

// The other process of a peer, which ends with this one.
pid_t startServer(Peer& peer) {
    const pid_t server = fork();
    if (server == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        peer.serve();
        _exit(0);
    }
    return server;
}

[[noreturn]] void measure(const Contestant& one, const Size& size, int result) {
    const std::unique_ptr<Peer> peer = one.make();
    const pid_t server = startServer(*peer);
    const std::string asked = std::string(1, kAnswer) + std::string(size.bytes - 1, 'x');
    const std::string given = std::string(1, kTakeOnly) + std::string(size.bytes - 1, 'x');
    std::vector<double> figures;
    peer->connect();
    for (int i = 0; i < size.roundTrips / 10 + 1; ++i) { // until everything is warm
        peer->roundTrip(asked);
    }
    for (int i = 0; i < size.roundTrips; ++i) {
        const auto start = Time::now();
        peer->roundTrip(asked);
        figures.push_back(1e6 * secondsSince(start));
    }
    const auto start = Time::now();
    for (int i = 0; i < size.oneWay; ++i) {
        peer->sendOnly(given);
    }
    peer->roundTrip(std::string(1, kAnswer)); // behind all of them
    figures.push_back(size.oneWay / secondsSince(start));
    writeAll(result, figures.data(), figures.size() * sizeof figures[0]);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    _exit(0);
}

// Resident memory of a process, in MiB.
double memoryOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    double pages = 0;
    double resident = 0;
    file >> pages >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

// What a sender meets whose receiver is stopped, in a process of its own.
void measureStopped(const Contestant& one, pid_t broker) {
    constexpr int kTexts = 300'000;
    const pid_t process = fork();
    if (process != 0) {
        waitpid(process, nullptr, 0);
        return;
    }
    const std::unique_ptr<Peer> peer = one.make();
    const pid_t server = startServer(*peer);
    peer->connect();
    peer->roundTrip(std::string(1, kAnswer));
    kill(server, SIGSTOP);
    const double before = memoryOf(getpid());
    const double brokerBefore = broker == -1 ? 0 : memoryOf(broker);
    const std::string text = std::string(1, kTakeOnly) + std::string(299, 'x');
    int accepted = 0;
    int refusals = 0; // some refuse while a thread of theirs is busy, so one is not the end
    while (accepted < kTexts && refusals < 100) {
        if (peer->offer(text)) {
            ++accepted;
            refusals = 0;
        } else {
            ++refusals;
            usleep(1000);
        }
    }
    std::printf("| %s | %d%s | %.0f MiB |", one.name.c_str(), accepted,
                accepted == kTexts ? ", never refused" : ", then refused",
                memoryOf(getpid()) - before);
    if (broker == -1) {
        std::printf(" |\n");
    } else {
        std::printf(" %.0f MiB |\n", memoryOf(broker) - brokerBefore);
    }
    std::fflush(stdout);
    kill(server, SIGKILL);
    _exit(0);
}

// Each round has processes of its own: where the scheduler puts a pair decides much, and it decides
// anew for each. No library is used in this process, as not all of them survive a fork.
void runRound(Contestant& one, const Size& size) {
    int result[2];
    if (pipe(result) != 0) {
        fail("pipe");
    }
    const pid_t process = fork();
    if (process == 0) {
        close(result[0]);
        measure(one, size, result[1]);
    }
    close(result[1]);
    std::string bytes;
    char block[4096];
    for (ssize_t more = 0; (more = read(result[0], block, sizeof block)) > 0;) {
        bytes.append(block, static_cast<size_t>(more));
    }
    close(result[0]);
    waitpid(process, nullptr, 0);
    std::vector<double> figures(bytes.size() / sizeof(double));
    std::memcpy(figures.data(), bytes.data(), figures.size() * sizeof(double));
    if (figures.size() != static_cast<size_t>(size.roundTrips) + 1) {
        std::fprintf(stderr, "%s gave no figures\n", one.name.c_str());
        std::exit(1);
    }
    one.rates.push_back(figures.back());
    figures.pop_back();
    one.roundTrips.insert(one.roundTrips.end(), figures.begin(), figures.end());
}

std::string ratio(double ours, double theirs) {
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.2f", ours / theirs);
    return text;
}

// A bus of its own, at `address`; null where there is none.
std::unique_ptr<RunningProcess> startBroker(const TemporaryFolder& folder, std::string& address) {
    static int run = 0;
    const std::string file = folder.file("bus" + std::to_string(++run));
    address = "unix:path=" + file;
    if (!std::filesystem::exists(kBroker)) {
        return nullptr;
    }
    auto broker = std::make_unique<RunningProcess>(
        std::vector<std::string>{"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>/dev/null", kBroker,
                                 "--session", "--nofork", "--address=" + address});
    for (int i = 0; i < 1000 && !std::filesystem::exists(file); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return broker;
}

void compareStopped() {
    const TemporaryFolder folder;
    const std::string sockets = folder.file("");
    std::string bus;
    const std::unique_ptr<RunningProcess> broker = startBroker(folder, bus);
    std::printf("\n| receiver stopped: 300,000 texts of 0.3 KiB | accepted | sender grows by | "
                "broker grows by |\n|---|---|---|---|\n");
    std::fflush(stdout);
    const Contestant all[] = {
        {[] { return conveyPeer(true, true); }, "Convey", {}, {}},
        {bareSocketPeer, "bare sequenced packets", {}, {}},
        {directBusPeer, "sd-bus, peer to peer", {}, {}},
        {[&] { return zeroMqPeer(sockets); }, "ZeroMQ (ipc)", {}, {}},
        {[&] { return nngPeer(sockets); }, "nng (ipc)", {}, {}},
    };
    for (const Contestant& one : all) {
        measureStopped(one, -1);
    }
    if (broker != nullptr) {
        const auto make = [&] { return brokerBusPeer(bus); };
        measureStopped({make, "sd-bus, dbus-daemon", {}, {}}, broker->pid());
    }
}

void compare(const Size& size, int rounds) {
    const TemporaryFolder folder;
    const std::string sockets = folder.file("");
    std::string bus;
    std::vector<Contestant> all = {
        {[] { return conveyPeer(true, true); }, "Convey", {}, {}},
        {[] { return conveyPeer(true, false); }, "Convey, never spinning", {}, {}},
        {[] { return conveyPeer(false, true); }, "Convey, digest off", {}, {}},
        {digestPeer,
         size.bytes < kOverlapped ? "Convey's digests alone" : "Convey's digests alone (goal 0.55)",
         {},
         {}},
        {bareSocketPeer, "bare sequenced packets", {}, {}},
        {directBusPeer, "sd-bus, peer to peer", {}, {}},
        {[&] { return zeroMqPeer(sockets); }, "ZeroMQ (ipc)", {}, {}},
        {[&] { return nngPeer(sockets); }, "nng (ipc)", {}, {}},
    };
    if (std::filesystem::exists(kBroker)) {
        all.push_back({[&] { return brokerBusPeer(bus); }, "sd-bus, dbus-daemon", {}, {}});
    }
    for (int round = 0; round < rounds; ++round) {
        const std::unique_ptr<RunningProcess> broker = startBroker(folder, bus);
        for (Contestant& one : all) {
            runRound(one, size);
        }
    }
    const double ours = quantile(all[0].roundTrips, 0.5);
    const double ourRate = median(all[0].rates);
    for (const Contestant& one : all) {
        const double middle = quantile(one.roundTrips, 0.5);
        const double rate = median(one.rates);
        const bool isOurs = &one == &all[0];
        std::printf("| %s | %s | %.1f | %.1f | %.1f | %s | %.0f | %s |\n", size.name,
                    one.name.c_str(), middle, quantile(one.roundTrips, 0.99),
                    quantile(one.roundTrips, 0.999), isOurs ? "" : ratio(ours, middle).c_str(),
                    rate, isOurs ? "" : ratio(ourRate, rate).c_str());
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const bench::BenchFolder folder;
    std::printf("| size | by | round trip median, us | 99 %% | 99.9 %% | Convey / this | one way, "
                "texts/s | Convey / this |\n|---|---|---|---|---|---|---|---|\n");
    for (const Size& size : kSizes) {
        if (argc > 2 && std::strcmp(argv[2], size.name) != 0) {
            continue;
        }
        compare(size, rounds);
    }
    if (argc <= 2 || std::strcmp(argv[2], "stopped") == 0) {
        compareStopped();
    }
    return 0;
}
