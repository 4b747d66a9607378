// A process whose askers take no answers: what it owes them must cost nobody else anything.
#include "tests/e2e/Scene.h"
#include "tests/support/Child.h"
#include "tests/support/Peers.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t millisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Sends its requests, stops, and counts what it is answered when it goes on.
std::string ask(const char* name, uint32_t count) {
    InterAppStream stream(name);
    for (uint32_t i = 1; i <= count; ++i) {
        Convey::Message message = request("server-1.0", "give", "Received Result");
        message.setSerialNumber(i);
        while (!sendFrom(stream, message)) { // not there yet
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    raise(SIGSTOP);
    uint32_t received = 0;
    uint32_t results = 0;
    uint32_t misplaced = 0;
    while (results < count && (stream.receive() || stream.waitForMessage(30'000, false))) {
        const SoString text = stream.getMessages();
        for (const char* next = text.c_str(); *next != '\0';) {
            Convey::Message answer;
            next = answer.readFromString(next);
            const bool isResult = answer.getType() == "Result";
            uint32_t& last = isResult ? results : received;
            misplaced += answer.getSerialNumber() == ++last ? 0 : 1;
            misplaced += isResult && received < results ? 1 : 0;
        }
    }
    return std::to_string(received) + " received, " + std::to_string(results) + " results, " +
           std::to_string(misplaced) + " misplaced";
}

// Pings the server, and by turns an application that owes nobody anything, until that file is
// there: the median and the longest time that an answer took, of the one and of the other.
std::string keepPinging(const std::string& end) {
    if (!Convey::InitTerm::init("viewer-1.0", true)) {
        return "no layer";
    }
    std::string said;
    std::vector<int64_t> times[2];
    while (!std::filesystem::exists(end)) {
        for (const bool idle : {false, true}) {
            const auto start = Clock::now();
            const SoString answer =
                Convey::Thread::ping(idle ? "idle-1.0" : "server-1.0", nullptr, 10, nullptr);
            if (answer == "ECHO_RESPONSE" || answer == "Timeout") { // else it is not there yet
                times[idle ? 1 : 0].push_back(millisecondsSince(start));
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    (void)Convey::InitTerm::exit();
    for (auto& some : times) {
        some.push_back(0); // never none
        std::sort(some.begin(), some.end());
        said += std::to_string(some[some.size() / 2]) + " " + std::to_string(some.back()) + " ";
    }
    return said;
}

// The longest time in which the pumping thread got nowhere.
struct Progress {
    void note() {
        longest = std::max(longest, millisecondsSince(last));
        last = Clock::now();
    }
    Clock::time_point last = Clock::now();
    int64_t longest = 0;
    long served = 0;
};

TestHandler* server(Progress& progress) {
    return new TestHandler([&progress](int, Convey::Message&, SoString* result) {
        *result = SoString(std::string(60'000, 'r').c_str());
        ++progress.served;
        progress.note();
        return 0;
    });
}

using StoppedPeersTest = Scene;

TEST_F(StoppedPeersTest, whatStoppedAskersAreOwedHoldsUpNobody) {
    const auto count = static_cast<uint32_t>(scaled(2500));
    const auto idle = host("idle-1.0");
    Child asker([&] { (void)folder.write("asked", ask("asker-1.0", count)); });
    Child other([&] { (void)ask("other-1.0", count); });
    const Child pinger([&] { (void)folder.write("pinged", keepPinging(folder.file("over"))); });
    ASSERT_TRUE(Convey::InitTerm::init("server-1.0", true));
    Progress progress;
    auto* const instance = new Convey("server-1.0", server(progress), true, nullptr);
    const auto pump = [&progress] {
        (void)Convey::pumpOrWait(20);
        progress.note();
        return progress.longest < 5'000;
    };
    const auto stopped = [&] {
        const bool first = asker.hasStopped();
        return other.hasStopped() && first;
    };
    while (!stopped() && pump()) {
    }
    for (const auto start = Clock::now(); millisecondsSince(start) < 2'000 && pump();) {
    }
    EXPECT_GT(progress.served, 0);
    (void)folder.write("over", "");
    std::string said;
    EXPECT_TRUE(
        eventually([&] { return !(said = TemporaryFolder::read(folder.file("pinged"))).empty(); }));
    progress.last = Clock::now(); // it waited for the pinger
    int64_t median = -1;
    int64_t longest = -1;
    int64_t idleMedian = -1;
    int64_t idleLongest = -1;
    std::istringstream(said) >> median >> longest >> idleMedian >> idleLongest;
    EXPECT_GT(longest, 0);
    EXPECT_LE(median, 50 + 4 * idleMedian) << said;
    EXPECT_LE(longest, 1'000 + 4 * idleLongest) << said;
    asker.goOn();
    const auto start = Clock::now();
    do {
        said = TemporaryFolder::read(folder.file("asked"));
    } while (said.empty() && millisecondsSince(start) < 60'000 && pump());
    const std::string all = std::to_string(count);
    EXPECT_EQ(said, all + " received, " + all + " results, 0 misplaced");
    EXPECT_LT(progress.longest, 5'000) << "milliseconds";
    const auto end = Clock::now();
    delete instance;
    EXPECT_TRUE(Convey::InitTerm::exit());
    EXPECT_LT(millisecondsSince(end), 2'000) << "the other asker is still owed its answers";
}

} // namespace
