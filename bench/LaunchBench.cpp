// How long a message takes to a target that must be launched for it, from sending it to the
// target's handler, beside a bare fork, exec and connect of the same program. Arguments: rounds.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"
#include "tests/support/Process.h"

namespace {

using namespace bench;
using ScObjects::Convey;
using ScObjects::SoString;

// Milliseconds from `start` to what the target reports.
double reported(int fifo, Time::time_point start) {
    int64_t when = 0;
    if (read(fifo, &when, sizeof when) != sizeof when) {
        fail("report");
    }
    return static_cast<double>(when - start.time_since_epoch().count()) / 1e6;
}

// The target's end is not to be measured with the next start.
void waitForEnd() {
    while (Convey::targetIsRunning("target-1.0")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

double launched(const Convey& instance, int fifo) {
    const auto start = Time::now();
    Convey::Message message;
    message.setTarget("target-1.0");
    message.setBody(SoString("measured"));
    (void)instance.send(message, true, 0, nullptr); // false: it is queued
    return reported(fifo, start);
}

double bare(int listener, const std::string& name, int fifo) {
    const auto start = Time::now();
    const pid_t child = fork();
    if (child == 0) {
        execl(LAUNCH_TARGET, LAUNCH_TARGET, name.c_str(), nullptr);
        _exit(1);
    }
    const int connection = accept(listener, nullptr, nullptr);
    if (send(connection, "x", 1, 0) != 1) {
        fail("send");
    }
    const double time = reported(fifo, start);
    close(connection);
    waitpid(child, nullptr, 0);
    return time;
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 15;
    const bench::BenchFolder folder;
    const std::string report = folder.file("report");
    setenv("BENCH_REPORT", report.c_str(), 1);
    (void)runProcess({OVREL_CAPS_TOOL, "add-app", "target-1.0", "--path", LAUNCH_TARGET});
    const std::string name = folder.file("bare");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (mkfifo(report.c_str(), 0600) != 0 || listener < 0 ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0 || !Convey::InitTerm::init("kivra-7.0", true)) {
        fail("launch_bench");
    }
    const int fifo = open(report.c_str(), O_RDWR | O_CLOEXEC);
    std::vector<double> ours;
    std::vector<double> bares;
    {
        const Convey instance("kivra-7.0", nullptr, true, nullptr);
        for (int i = 0; i < rounds; ++i) {
            ours.push_back(launched(instance, fifo));
            waitForEnd();
            bares.push_back(bare(listener, name, fifo));
        }
    }
    (void)Convey::InitTerm::exit();
    const double goal = 1.5 * median(bares) + 20;
    std::printf(
        "| measure | Convey | beside | ratio | goal |\n|---|---|---|---|---|\n"
        "| message to a target that is launched for it | %.2f ms | %.2f ms bare fork, exec, "
        "connect | %.2f | <= %.2f ms (1.5 x and 20 ms) |\n",
        median(ours), median(bares), median(ours) / median(bares), goal);
    return 0;
}
