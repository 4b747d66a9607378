// What the engine costs: pings and requests beside a bare round trip of the same size, queues at
// two lengths, a process with nothing to do, and whole processes of the tool beside those of a
// message bus. Arguments: rounds.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "bench/Handlers.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using namespace bench;
using ScObjects::Convey;
using ScObjects::SoString;

constexpr size_t kBytes = 300;
constexpr size_t kLargeBytes = size_t{16} << 20;

void row(const char* name, double ours, const char* unit, double other, const char* of,
         double ratio, const char* goal) {
    std::printf("| %s | %.2f %s | %.2f %s %s | %.2f | %s |\n", name, ours, unit, other, unit, of,
                ratio, goal);
    std::fflush(stdout);
}

double measure(int count, const std::function<void()>& once) {
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        const auto start = Time::now();
        once();
        times.push_back(secondsSince(start));
    }
    return median(times);
}

// One request to a host and its result.
void request(Convey& instance, const SoString& body) {
    Convey::Message message;
    message.setTarget("lumen-2.0-en_us");
    message.setBody(body);
    message.setResponseRequest("Result");
    message.setSerialNumber(message.getNextSerialNumber(nullptr));
    delete instance.changeHandler(new Answering("Result", message.getSerialNumber()));
    if (!instance.send(message, false, 20, nullptr)) {
        fail("no result");
    }
}

// Seconds for as much as a large request through a socket, and a byte back.
double bareLarge() {
    constexpr size_t kPacketBytes = size_t{256} << 10;
    const Pair pair;
    std::vector<char> text(kLargeBytes, 'x');
    const auto receiveAll = [&text](int socket, size_t bytes) {
        for (size_t got = 0; got < bytes;) {
            got += receiveBare(socket, text.data() + got, text.size() - got, false);
        }
    };
    return besides(
        [&] {
            for (;;) {
                receiveAll(pair.ends[1], kLargeBytes);
                sendBare(pair.ends[1], "a", 1);
            }
        },
        [&] {
            return measure(3, [&] {
                for (size_t at = 0; at < kLargeBytes; at += kPacketBytes) {
                    sendBare(pair.ends[0], text.data() + at, kPacketBytes);
                }
                receiveAll(pair.ends[0], 1);
            });
        });
}

// Large requests to another process and their short answers, without digests. Before the layer is
// started here: the other process is a child.
void largeRequests(int rounds) {
    int ready[2];
    if (pipe(ready) != 0) {
        fail("pipe");
    }
    Convey::Message::setCreateDigest(false);
    Convey::Message::setAuthentication(false);
    const pid_t target = fork();
    char go = 0;
    if (target == 0) {
        if (!Convey::InitTerm::init("kivra-7.0", true)) {
            fail("init");
        }
        Convey own("kivra-7.0", nullptr, true, nullptr);
        delete own.changeHandler(new Answering("Tessaly", Convey::kAnySerialNumber));
        (void)!write(ready[1], &go, 1);
        for (;;) {
            (void)Convey::pumpOrWait(1000);
        }
    }
    (void)!read(ready[0], &go, 1);
    {
        const Convey::Messenger asker("viewer-1.0");
        const SoString body(std::string(kLargeBytes, 'b').c_str());
        std::vector<double> times;
        std::vector<double> bare;
        for (int i = 0; i < rounds; ++i) {
            times.push_back(1e3 * measure(1, [&] {
                                if (!asker.request("kivra-7.0", body).wait().isResult()) {
                                    fail("no result");
                                }
                            }));
            bare.push_back(1e3 * bareLarge());
        }
        row("request of 16 MiB, digest off", median(times), "ms", median(bare), "bare",
            median(times) / median(bare), "<= 1.3");
    }
    kill(target, SIGKILL);
    waitpid(target, nullptr, 0);
}

// Nanoseconds a message for putting so many into a queue and taking them out again, as an instance
// does that looks for expired ones each time. Making and deleting the messages does not count.
double queueCost(int count) {
    ScObjects::ConveyData::MessageQueue queue;
    std::vector<std::unique_ptr<Convey::Message>> messages;
    for (int i = 0; i < count; ++i) {
        messages.push_back(std::make_unique<Convey::Message>());
        messages.back()->setTarget("target");
        messages.back()->setSender("sender");
        messages.back()->setSerialNumber(static_cast<uint32_t>(i));
    }
    const auto start = Time::now();
    for (auto& message : messages) {
        if (!queue.append(message.release())) {
            fail("append");
        }
        queue.removeExpiredMessages();
    }
    for (auto& message : messages) {
        message.reset(queue.getNextMessage(0xFFFFFFFF));
        queue.removeExpiredMessages();
    }
    return secondsSince(start) / count * 1e9;
}

// Seconds for so many requests that are all sent before the first is answered, each with a handler
// of its own for the answer or none.
double inFlight(Convey& instance, int count, const char* replies, bool handlers) {
    const auto start = Time::now();
    for (int i = 0; i < count; ++i) {
        Convey::Message message;
        message.setTarget("kivra-7.0");
        message.setBody("question");
        message.setResponseRequest(replies);
        message.setTimeout(600);
        message.setSerialNumber(message.getNextSerialNumber(nullptr));
        if (handlers) {
            delete instance.changeHandler(new Answering("Result", message.getSerialNumber()));
        }
        if (!instance.send(message, false, 0, nullptr)) {
            fail("send");
        }
    }
    while (Convey::pump(ScObjects::kProcessBoth)) {
    }
    return secondsSince(start);
}

// Costs that must not grow with what is in flight already.
void manyInFlight(int rounds) {
    Convey instance("viewer-1.0", nullptr, true, nullptr);
    const Convey answering("kivra-7.0", nullptr, false, nullptr);
    std::vector<double> without;
    std::vector<double> with;
    std::vector<double> half;
    std::vector<double> whole;
    for (int i = 0; i < rounds; ++i) {
        without.push_back(1e3 * inFlight(instance, 20'000, "Result", false));
        with.push_back(1e3 * inFlight(instance, 20'000, "Result Timeout", false));
        half.push_back(1e3 * inFlight(instance, 5000, "Result", true));
        whole.push_back(1e3 * inFlight(instance, 10'000, "Result", true));
    }
    row("20,000 requests in flight, with time-outs", median(with), "ms", median(without), "without",
        median(with) / median(without), "<= 1.3");
    row("10,000 requests with a handler each", median(whole), "ms", median(half), "of 5,000",
        median(whole) / median(half), "<= 2.2");
}

// What a process has used: times that it gave up a processor, and ticks of one.
struct Use {
    double switches = 0;
    double ticks = 0;
    double kilobytes = 0; // resident, and of it what no other process shares
    double ownKilobytes = 0;
};

Use useOf(int pid) {
    Use use;
    const std::string folder = "/proc/" + std::to_string(pid);
    for (const std::string& task : {folder + "/task"}) {
        for (const auto& entry : std::filesystem::directory_iterator(task)) {
            std::ifstream status(entry.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
                    use.switches += std::atof(line.c_str() + 24);
                }
            }
        }
    }
    std::ifstream memory(folder + "/smaps_rollup");
    for (std::string line; std::getline(memory, line);) {
        if (line.rfind("Rss:", 0) == 0) {
            use.kilobytes = std::atof(line.c_str() + 4);
        } else if (line.rfind("Private_", 0) == 0) {
            use.ownKilobytes += std::atof(line.c_str() + line.find(':') + 1);
        }
    }
    std::ifstream stat(folder + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) {
            use.ticks += std::atof(field.c_str());
        }
    }
    return use;
}

// How long an asker waits for a target that is killed while it has the request, beside the kill of
// a process until its parent knows.
void killedTarget(int rounds) {
    Convey instance("viewer-1.0", nullptr, true, nullptr);
    std::vector<double> told;
    std::vector<double> bare;
    for (int i = 0; i < rounds; ++i) {
        RunningProcess target({HOST, "kivra-7.0", "--quiet"});
        (void)target.readLine();
        target.signal(SIGSTOP); // it takes the request, and does not come to answer it
        Convey::Message message;
        message.setTarget("kivra-7.0");
        message.setBody("question");
        message.setResponseRequest("Result Error");
        message.setSerialNumber(message.getNextSerialNumber(nullptr));
        if (!instance.send(message, false, 0, nullptr)) {
            fail("send");
        }
        const uint32_t number = message.getSerialNumber();
        delete instance.changeHandler(new Answering("Error", number));
        auto start = Time::now();
        target.signal(SIGKILL);
        while (instance.findHandler("Error", number) != nullptr) {
            (void)Convey::pumpOrWait(1000);
        }
        told.push_back(1e3 * secondsSince(start));
        (void)target.finish();
        RunningProcess other({HOST, "kivra-7.0", "--quiet"});
        (void)other.readLine();
        start = Time::now();
        (void)other.finish(SIGKILL);
        bare.push_back(1e3 * secondsSince(start));
    }
    row("told that a killed target has the request", median(told), "ms", median(bare),
        "kill and wait", median(told) / median(bare), "<= 50 ms");
}

// How often a process gives up a processor in ten seconds, in the middle of which a message expires
// that nobody has taken, and which has nothing else to do.
void messageThatIsDue() {
    Convey instance("viewer-1.0", nullptr, true, nullptr);
    const Convey other("kivra-7.0", nullptr, false, nullptr);
    Convey::Message message;
    message.setTarget("kivra-7.0");
    message.setBody("text");
    message.setTimeout(7);
    if (!instance.send(message, false, 0, nullptr)) {
        fail("send");
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double before = useOf(getpid()).switches;
    std::this_thread::sleep_for(std::chrono::seconds(10));
    const double own = 1; // this thread's sleep
    std::printf("| a message is due: wake-ups in ten seconds | %.0f | | | 1 |\n",
                useOf(getpid()).switches - before - own);
}

double wholeProcess(const std::vector<std::string>& arguments, const char* expectedOutput = "") {
    const auto start = Time::now();
    const ProcessResult result = runProcess(arguments);
    const double time = 1e3 * secondsSince(start);
    if (result.exitStatus != 0 || result.out.find(expectedOutput) == std::string::npos) {
        std::fprintf(stderr, "%s: %s%s\n", arguments[0].c_str(), result.out.c_str(),
                     result.err.c_str());
        std::exit(1);
    }
    return time;
}

// Two kinds of whole processes in turn: what the machine does besides meets both.
template <class Ours>
void wholeProcesses(int rounds, const char* name, Ours&& ours,
                    const std::vector<std::string>& theirs, const char* of, const char* goal) {
    if (!std::filesystem::exists(theirs[0])) {
        return;
    }
    std::vector<double> times;
    std::vector<double> others;
    for (int i = -1; i < rounds; ++i) { // the first fills caches
        const double time = ours();
        const double other = wholeProcess(theirs);
        if (i >= 0) {
            times.push_back(time);
            others.push_back(other);
        }
    }
    row(name, median(times), "ms", median(others), of, median(times) / median(others), goal);
}

void compareWholeProcesses(const TemporaryFolder& folder, int rounds) {
    const auto listing = [] { return wholeProcess({KIVRA_CONVEY_CMD}); };
    const auto check = [] {
        return wholeProcess({KIVRA_CONVEY_CMD, "check_running", "lumen-2.0-en_us"},
                            "ECHO_RESPONSE");
    };
    const auto completed = [] {
        return wholeProcess({KIVRA_CONVEY_CMD, "check_running", "lumen"}, "ECHO_RESPONSE");
    };
    const auto ping = [] {
        return wholeProcess({CONVEY_PROGRAM, "ping", "--count", "1", "lumen-2.0-en_us"});
    };
    const auto start = [] {
        const auto begin = Time::now();
        RunningProcess host({HOST, "viewer-1.0", "--quiet"});
        (void)host.readLine();
        const double time = 1e3 * secondsSince(begin);
        (void)host.finish(SIGTERM);
        return time;
    };
    const std::vector<std::string> nothing = {"/bin/true"};
    wholeProcesses(rounds, "check_running, whole process", check, nothing, "/bin/true", "");
    wholeProcesses(rounds, "listing of three, whole process", listing, nothing, "/bin/true", "");
    wholeProcesses(rounds, "start of a host, until it says so", start, nothing, "/bin/true", "");
    const std::string daemon = "/usr/bin/dbus-daemon";
    if (!std::filesystem::exists(daemon)) {
        std::printf("| no dbus-daemon here to compare with | | | | |\n");
        return;
    }
    const std::string address = "unix:path=" + folder.file("bus");
    const RunningProcess bus({daemon, "--session", "--nofork", "--address=" + address});
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    for (int i = 0; i < 1000 && !std::filesystem::exists(folder.file("bus")); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const std::vector<std::string> send = {
        "/usr/bin/dbus-send",          "--session", "--print-reply",
        "--dest=org.freedesktop.DBus", "/",         "org.freedesktop.DBus.Peer.Ping"};
    const std::vector<std::string> busctl = {
        "/usr/bin/busctl",           "--user", "call", "org.freedesktop.DBus", "/",
        "org.freedesktop.DBus.Peer", "Ping"};
    const std::vector<std::string> gdbus = {"/usr/bin/gdbus",
                                            "call",
                                            "--session",
                                            "--dest",
                                            "org.freedesktop.DBus",
                                            "--object-path",
                                            "/",
                                            "--method",
                                            "org.freedesktop.DBus.Peer.Ping"};
    const char* const name = "check_running, whole process";
    wholeProcesses(rounds, name, check, send, "dbus-send", "<= 1");
    wholeProcesses(rounds, "check_running of a name without a version", completed, send,
                   "dbus-send", "");
    wholeProcesses(rounds, name, check, busctl, "busctl", "< 1");
    wholeProcesses(rounds, name, check, gdbus, "gdbus", "< 1");
    wholeProcesses(rounds, "convey ping --count 1, whole process", ping, busctl, "busctl", "<= 1");
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const bench::BenchFolder folder;
    for (const char* application : {"kivra-7.0", "lumen-2.0-en_us", "viewer-1.0"}) {
        (void)runProcess({OVREL_CAPS_TOOL, "add-app", application, "--path", "/opt/a/A.app"});
    }
    std::printf("| measure | Convey | beside | ratio | goal |\n|---|---|---|---|---|\n");
    RunningProcess host({HOST, "lumen-2.0-en_us", "--quiet"});
    (void)host.readLine();

    // Behind the first second of its life, at whose end it has its files watched.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const Use before = useOf(host.pid());
    constexpr int kIdleSeconds = 10;
    std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
    const Use after = useOf(host.pid());

    largeRequests(5 * rounds);

    std::vector<double> bareTimes; // in turn with what is compared with it
    const auto bareRoundTrip = [&] {
        bareTimes.push_back(1e6 * roundTripBare(kBytes, 3000, false));
        return median(bareTimes);
    };
    if (!Convey::InitTerm::init("viewer-1.0", true)) {
        fail("init");
    }
    {
        Convey instance("viewer-1.0", nullptr, true, nullptr);
        const double ping = 1e6 * measure(1000 * rounds, [] {
                                if (!(Convey::Thread::ping("lumen-2.0-en_us", nullptr, 2,
                                                           nullptr) == "ECHO_RESPONSE")) {
                                    fail("ping");
                                }
                            });
        double bare = bareRoundTrip();
        row("ping", ping, "us", bare, "bare round trip", ping / bare, "<= 5");
        const SoString body(std::string(100, 'b').c_str());
        const double result = 1e6 * measure(1000 * rounds, [&] { request(instance, body); });
        bare = bareRoundTrip();
        row("request and result", result, "us", bare, "bare round trip", result / bare, "<= 5");
    }
    messageThatIsDue();
    manyInFlight(rounds);
    killedTarget(5 * rounds);
    (void)Convey::InitTerm::exit();
    std::vector<double> few;
    std::vector<double> many;
    for (int i = 0; i < rounds; ++i) {
        many.push_back(queueCost(100'000));
        for (int repeat = 0; repeat < 20; ++repeat) {
            few.push_back(queueCost(1000));
        }
    }
    row("a message through a queue of 100,000", median(many), "ns", median(few), "of 1,000",
        median(many) / median(few), "<= 1.5");
    std::printf(
        "| idle host: wake-ups in ten seconds, %% of a processor | %.0f, %.3f | | | 0, 0 |\n",
        after.switches - before.switches, (after.ticks - before.ticks) / kIdleSeconds);
    std::printf("| idle host: memory, of its own | %.1f MiB, %.1f MiB | | | |\n",
                after.kilobytes / 1024, after.ownKilobytes / 1024);
    compareWholeProcesses(folder, 5 * rounds);
    return 0;
}
