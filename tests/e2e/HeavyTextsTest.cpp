// What neighbours send, at its worst: it costs a process no more than its bounds, keeps nobody else
// out, and keeps it from answering pings for a moment only.
#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"
#include "scriptobjects/stream/InterAppStream.h"
#include "tests/e2e/Scene.h"
#include "tests/support/Child.h"
#include "tests/support/TestHandler.h"

namespace {

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;
using Clock = std::chrono::steady_clock;

constexpr const char* kReader = "target-1.0";

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

// Sends the texts as soon as the target is there.
void sendTexts(const char* name, const char* target, const std::vector<std::string>& texts) {
    const InterAppStream stream(name);
    for (const std::string& text : texts) {
        while (!stream.send(target, SoString(text.c_str(), static_cast<int32_t>(text.size())),
                            60'000)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
}

std::string repeated(const std::string& part, size_t bytes) {
    std::string text;
    text.reserve(bytes + part.size());
    while (text.size() < bytes) {
        text += part;
    }
    return text;
}

using HeavyTextsTest = Scene;

TEST_F(HeavyTextsTest, aNeighboursFillIsBoundedAndKeepsNobodyOut) {
    const size_t megabytes = size_t{4} << 20; // eight of these texts fill a share
    const std::string small = "Target:target-1.0\nSender:hog-1.0\nType:x\n\n";
    const std::string many = repeated(small, megabytes / 4);
    const std::string headers =
        "Target:target-1.0\nSender:hog-1.0\nType:x\nX:" + std::string(megabytes, 'x') + "\n\n";
    std::vector<std::string> texts(10, headers);
    texts.push_back(many);
    const size_t count = 10 + many.size() / small.size();
    Child hog([&] { sendTexts("hog-1.0", kReader, texts); }); // before this process has threads
    Child other([&] {
        const InterAppStream go("go-1.0");
        (void)go.waitForMessage(120'000, false);
        sendTexts("other-1.0", kReader, {"Target:target-1.0\nSender:other-1.0\nType:x\n\n"});
    });
    ASSERT_TRUE(Convey::InitTerm::init(kReader, true));
    const long before = residentKilobytes();
    {
        size_t hogs = 0;
        size_t others = 0;
        auto* const counter = new TestHandler(
            [&](int, Convey::Message& message, SoString*) {
                ++(message.getSender() == "hog-1.0" ? hogs : others);
                return 0;
            },
            "");
        Convey instance(kReader, counter, true, nullptr);
        auto& incoming = instance.data()->incoming();
        // Nobody pumps. So many fill the hog's share.
        const int64_t filling =
            std::min(int64_t{limits::of("queue.incoming.share.messages")},
                     limits::of("queue.incoming.share.bytes") / static_cast<int64_t>(megabytes));
        ASSERT_TRUE(eventually([&] { return incoming.count() >= filling; }));
        const InterAppStream sender("starter-1.0");
        bool told = false; // once: then that name may be gone
        ASSERT_TRUE(eventually([&] { return told = told || sender.send("go-1.0", "go"); }));
        EXPECT_TRUE(eventually([&] {
            SoString rows;
            Convey::getDiagnostics(rows, false);
            return rows.view().find("other-1.0") != std::string_view::npos;
        })) << "the other one's message is there, too";
        EXPECT_LE(incoming.count(), limits::of("queue.incoming.share.messages") + 1);
        // The share, as much unread, a text on its way, the rows, and what the heap makes of it.
        if (scaled(10) == 10) { // a sanitizer keeps memory of its own
            EXPECT_LT((residentKilobytes() - before) / 1024,
                      static_cast<long>(6 * limits::of("queue.incoming.share.bytes") >> 20));
        }
        // Nothing that was delivered is lost.
        const auto end = Clock::now() + std::chrono::seconds(60);
        while (hogs < count && Clock::now() < end) {
            (void)Convey::pumpOrWait(100);
        }
        EXPECT_EQ(hogs, count);
        EXPECT_EQ(others, 1U);
    }
    EXPECT_TRUE(Convey::InitTerm::exit());
}

TEST_F(HeavyTextsTest, noTextKeepsAProcessFromAnsweringPings) {
    const auto bytes = static_cast<size_t>(scaled(16)) << 20;
    const std::string head = "Target:target-1.0\nSender:hog-1.0\n";
    std::string headers = head;
    for (int i = 0; i < limits::of("message.headers"); ++i) {
        headers += std::to_string(i) + ":\n";
    }
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"empty messages", repeated("Target:a\nSender:b\n\n", bytes), kReader},
        {"messages with many headers", repeated(headers + "\n", bytes), kReader},
        {"one message with lines without end", head + repeated("a:\n", bytes), kReader},
        {"one header", head + "a:" + std::string(bytes, 'a') + "\n\n", kReader},
        {"line feeds", head + "\n" + std::string(bytes, '\n'), kReader},
        {"NUL bytes", head + "\n" + std::string(bytes, '\0'), kReader},
        {"pings", repeated("Target:a\nType:ping\n\n", bytes), "target-1.0#thread"},
    };
    Child hog([&] { // before this process has threads
        InterAppStream go("go-1.0");
        for (const auto& [what, text, to] : cases) {
            (void)go.waitForMessage(120'000, false);
            (void)go.receive();
            sendTexts("hog-1.0", to, {text});
        }
    });
    ASSERT_TRUE(Convey::InitTerm::init("viewer-1.0", true));
    for (const auto& [what, text, to] : cases) {
        SCOPED_TRACE(what);
        const auto target = host(kReader, {"--quiet"}); // ended in the middle of the text
        sendTexts("starter-1.0", "go-1.0", {"go"});
        double longest = 0; // that it was busy before it answered
        for (const auto start = Clock::now(); Clock::now() - start < std::chrono::seconds(1);) {
            const double before = millisecondsBehindMain(target->pid());
            ASSERT_EQ(Convey::Thread::ping(kReader, nullptr, 60, nullptr), "ECHO_RESPONSE");
            longest = std::max(longest, millisecondsBehindMain(target->pid()) - before);
        }
        EXPECT_LT(longest, 1500);
    }
    EXPECT_TRUE(Convey::InitTerm::exit());
}

} // namespace
