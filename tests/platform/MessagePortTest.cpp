#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/fake/Fakes.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using platform::LocalPort;
using platform::MessagePorts;
using platform::PortText;
using platform::SendResult;

constexpr int64_t kGenerous = 20'000; // milliseconds; nothing here takes as long
constexpr const char* kName = "\\\\.\\port\\app-1.0#ping";

std::string takeOne(LocalPort& port) {
    PortText text;
    return port.wait(kGenerous, false) && port.take(text) ? std::string(text.view())
                                                          : std::string("(nothing)");
}

std::vector<std::string> takeAll(LocalPort& port) {
    std::vector<std::string> texts;
    PortText text;
    while (port.take(text)) {
        texts.emplace_back(text.view());
    }
    return texts;
}

// Runs `body` in a child and gives its exit status, 255 when a signal ended it.
int inChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

// What a message port promises, kept by the real ones and by the fake.
void keepsTheContract(MessagePorts& ports) {
    EXPECT_TRUE(ports.isFree(kName));
    EXPECT_EQ(ports.send(kName, "x", 0), SendResult::noReceiver);
    std::unique_ptr<LocalPort> port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_FALSE(ports.isFree(kName));
    EXPECT_EQ(ports.open(kName), nullptr) << "this process has it already";
    PortText text;
    EXPECT_FALSE(port->take(text));
    EXPECT_FALSE(port->wait(1, false));
    EXPECT_FALSE(port->wait(0, true));

    std::vector<std::string> sent = {"one", "", std::string("two\0two", 7), std::string(9000, 'x')};
    for (const std::string& each : sent) {
        EXPECT_EQ(ports.send(kName, each, kGenerous), SendResult::delivered);
    }
    EXPECT_TRUE(port->wait(kGenerous, true));
    EXPECT_EQ(takeAll(*port), sent) << "whole and in order";
    EXPECT_EQ(port->statistics().texts, sent.size());
    EXPECT_EQ(port->statistics().bytes, 9010U);
    const std::string tooLong(MessagePorts::kMaximumTextBytes + 1, 'x');
    EXPECT_EQ(ports.send(kName, tooLong, kGenerous), SendResult::tooLarge);

    // Names that differ where a short file name would not.
    const std::string names[] = {"a",
                                 "A",
                                 "a ",
                                 "%41",
                                 "a/b",
                                 "..",
                                 std::string(300, 'n'),
                                 std::string(299, 'n') + 'm',
                                 std::string("\x01\xFF\n'", 4)};
    std::vector<std::unique_ptr<LocalPort>> others;
    for (const std::string& name : names) {
        others.push_back(ports.open(name));
        ASSERT_NE(others.back(), nullptr) << name;
    }
    for (const std::string& name : names) {
        EXPECT_EQ(ports.send(name, name, kGenerous), SendResult::delivered) << name;
    }
    for (size_t i = 0; i < others.size(); ++i) {
        EXPECT_EQ(takeOne(*others[i]), names[i]);
    }
    EXPECT_EQ(ports.open(""), nullptr);

    port.reset();
    EXPECT_TRUE(ports.isFree(kName));
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver) << "and at once";
    port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "to the next owner", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "to the next owner");

    // A full queue holds its senders; what was delivered arrives, what was not does not.
    const std::string filler(60'000, 'f');
    int delivered = 0;
    SendResult result = SendResult::delivered;
    while (result == SendResult::delivered && delivered < 100'000) {
        result = ports.send(kName, filler, 30);
        delivered += result == SendResult::delivered ? 1 : 0;
    }
    EXPECT_EQ(result, SendResult::timedOut);
    EXPECT_EQ(takeAll(*port).size(), static_cast<size_t>(delivered));
    EXPECT_EQ(ports.send(kName, "room again", 0), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "room again");
}

TEST(FakeMessagePorts, keepTheContract) {
    platform::FakeMessagePorts ports;
    keepsTheContract(ports);
    ports.unusable = true;
    EXPECT_EQ(ports.open("x"), nullptr);
    EXPECT_FALSE(ports.isFree("x"));
}

// The real ports, in a folder of the test's own.
class MessagePortTest : public testing::Test {
protected:
    MessagePortTest() { setenv("XDG_RUNTIME_DIR", runtime.file("").c_str(), 1); }

    std::string folder() const { return runtime.file("convey"); }
    std::string fileOf(const char* ending) const {
        for (const auto& entry : std::filesystem::directory_iterator(folder())) {
            if (entry.path().extension() == ending) {
                return entry.path();
            }
        }
        return "(none)";
    }
    size_t files() const {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder()),
                                                 std::filesystem::directory_iterator()));
    }

    // A socket connected to the only port, as a peer that keeps no rule would have it.
    int rawConnection() const {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        // By way of the folder, whose path may be long.
        const int directory = ::open(folder().c_str(), O_PATH | O_CLOEXEC);
        const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" +
                                 std::filesystem::path(fileOf(".socket")).filename().string();
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int connected =
            connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        close(directory);
        EXPECT_EQ(connected, 0) << path;
        return fd;
    }
    // A packet's header: kind 1 for a whole text, 2 for an announced one.
    static std::string header(char kind, uint64_t length) {
        std::string bytes = {'C', 'V', 'M', 'P', 1, kind, 0, 0};
        for (int i = 0; i < 8; ++i) {
            bytes += static_cast<char>(length >> (8 * i));
        }
        return bytes;
    }
    static std::string packet(const std::string& text) { return header(1, text.size()) + text; }
    static bool sendRaw(int fd, const std::string& bytes) {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    static bool isClosed(int fd) {
        timeval limit = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char byte;
        return recv(fd, &byte, 1, 0) == 0;
    }
    static size_t openDescriptors() {
        return static_cast<size_t>(
            std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                          std::filesystem::directory_iterator()));
    }

    TemporaryFolder runtime;
    platform::FakeLog log;
    platform::ScopedReplacement<platform::Log> logInForce{log};
    MessagePorts& ports = MessagePorts::own();
};

TEST_F(MessagePortTest, keepsTheContract) {
    keepsTheContract(ports);
    EXPECT_EQ(files(), 0U) << "every port has removed its files";
    EXPECT_EQ(log.lines, std::vector<std::string>());
}

TEST_F(MessagePortTest, carriesTextsOfEverySize) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    for (const size_t size :
         {size_t{0}, size_t{1}, size_t{1023}, size_t{1025}, size_t{65535}, size_t{65536},
          size_t{65537}, (size_t{1} << 20) - 1, (size_t{1} << 20) + 1, size_t{16} << 20,
          MessagePorts::kMaximumTextBytes}) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; i += 509) {
            text[i] = static_cast<char>(i / 509 + 1);
        }
        std::thread sender(
            [&] { EXPECT_EQ(ports.send(kName, text, kGenerous), SendResult::delivered) << size; });
        const std::string received = takeOne(*port);
        sender.join();
        EXPECT_TRUE(received == text) << size << " bytes sent, " << received.size() << " received";
    }
}

TEST_F(MessagePortTest, survivesGarbage) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    std::string wrongMagic = packet("text");
    wrongMagic[0] = 'X';
    std::string wrongVersion = packet("text");
    wrongVersion[4] = 2;
    std::string reserved = packet("text");
    reserved[7] = 1;
    const struct {
        std::string bytes;
        const char* why;
    } cases[] = {
        {"x", "too short for a header"},
        {std::string(15, '\0'), "one byte too short"},
        {wrongMagic, "another protocol"},
        {wrongVersion, "another version"},
        {reserved, "a byte that has no meaning yet"},
        {header(0, 4) + "text", "no kind"},
        {header(3, 4) + "text", "no kind"},
        {header(1, 5) + "text", "longer than what is there"},
        {header(1, 3) + "text", "shorter than what is there"},
        {header(1, UINT64_MAX) + "text", "a forged length"},
        {header(1, 65537) + std::string(65537, 'x'), "larger than a whole text may be"},
        {header(2, 0), "announces nothing"},
        {header(2, MessagePorts::kMaximumTextBytes + 1), "announces too much"},
        {header(2, UINT64_MAX), "announces too much"},
        {header(2, 4) + "text", "an announcement comes alone"},
    };
    uint64_t closed = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const int fd = rawConnection();
        EXPECT_TRUE(sendRaw(fd, packet("before")));
        EXPECT_TRUE(sendRaw(fd, c.bytes));
        EXPECT_EQ(takeOne(*port), "before") << "what was well sent arrives";
        EXPECT_FALSE(port->wait(0, false));
        EXPECT_TRUE(isClosed(fd));
        EXPECT_EQ(port->statistics().malformed, ++closed);
        close(fd);
    }
    // Parts that are more than was announced.
    const int fd = rawConnection();
    EXPECT_TRUE(sendRaw(fd, header(2, 100'000)) && sendRaw(fd, std::string(99'999, 'x')) &&
                sendRaw(fd, "xx"));
    EXPECT_FALSE(port->wait(0, false));
    EXPECT_TRUE(isClosed(fd));
    EXPECT_EQ(port->statistics().malformed, ++closed);
    close(fd);
    EXPECT_EQ(ports.send(kName, "still here", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "still here");
}

TEST_F(MessagePortTest, keepsNoDescriptorThatIsSentAlong) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    const int fd = rawConnection();
    const size_t before = openDescriptors();
    for (const bool inParts : {false, true}) {
        const int connection = inParts ? rawConnection() : fd;
        const std::string bytes = inParts ? "part" : packet("text");
        if (inParts) {
            EXPECT_TRUE(sendRaw(connection, header(2, 100)));
        }
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec piece = {const_cast<char*>(bytes.data()), bytes.size()};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* const stray = CMSG_FIRSTHDR(&message);
        stray->cmsg_level = SOL_SOCKET;
        stray->cmsg_type = SCM_RIGHTS;
        stray->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(stray), &connection, sizeof(int));
        ASSERT_GT(sendmsg(connection, &message, MSG_NOSIGNAL), 0);
        EXPECT_FALSE(port->wait(0, false));
        EXPECT_TRUE(isClosed(connection));
        close(connection);
    }
    EXPECT_EQ(port->statistics().descriptors, 2U);
    EXPECT_EQ(openDescriptors(), before - 1);
}

TEST_F(MessagePortTest, aSenderThatDiesAnywhereLeavesNoPart) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    // A whole text, then a large one in packets, cut off behind each of them.
    const std::string part(30'000, 'p');
    std::vector<std::string> packets = {packet("whole"), header(2, 3 * part.size()), part, part,
                                        part};
    for (size_t sent = 0; sent <= packets.size(); ++sent) {
        SCOPED_TRACE("dies behind packet " + std::to_string(sent));
        const int status = inChild([&] {
            const int fd = rawConnection();
            for (size_t i = 0; i < sent; ++i) {
                if (!sendRaw(fd, packets[i])) {
                    return 1;
                }
            }
            return raise(SIGKILL);
        });
        EXPECT_EQ(status, 255);
        std::vector<std::string> expected;
        if (sent >= 1) {
            expected.emplace_back("whole");
        }
        if (sent == packets.size()) {
            expected.push_back(part + part + part);
        }
        // Twice: what ends a visit may be the end of a text.
        std::vector<std::string> received = takeAll(*port);
        for (std::string& text : takeAll(*port)) {
            received.push_back(std::move(text));
        }
        EXPECT_EQ(received, expected);
        EXPECT_EQ(port->statistics().connections, 0U);
    }
}

TEST_F(MessagePortTest, boundsWhatOneProcessKeepsOpen) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    // Many that each send a text and stay: the oldest are closed, and no text is lost by that.
    std::vector<int> connections;
    for (int i = 0; i < 200; ++i) {
        connections.push_back(rawConnection());
        EXPECT_TRUE(sendRaw(connections.back(), packet(std::to_string(i))));
    }
    EXPECT_EQ(takeAll(*port).size(), 200U);
    EXPECT_LE(port->statistics().connections, 32U);
    for (const int fd : connections) {
        close(fd);
    }
    connections.clear();
    EXPECT_FALSE(port->wait(0, false));
    // Many that announce the largest text and send some of it.
    for (int i = 0; i < 60; ++i) {
        connections.push_back(rawConnection());
        (void)sendRaw(connections.back(), header(2, MessagePorts::kMaximumTextBytes));
        (void)sendRaw(connections.back(), "begin");
        EXPECT_FALSE(port->wait(0, false));
    }
    EXPECT_LE(port->statistics().connections, 2U) << "as many as two largest texts";
    EXPECT_EQ(port->statistics().overLimit, 58U);
    // And small ones, as many as connections.
    for (int i = 0; i < 60; ++i) {
        connections.push_back(rawConnection());
        (void)sendRaw(connections.back(), header(2, 1));
        EXPECT_FALSE(port->wait(0, false));
    }
    EXPECT_LE(port->statistics().connections, 32U);
    for (const int fd : connections) {
        close(fd);
    }
    EXPECT_EQ(ports.send(kName, "still here", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "still here");
}

TEST_F(MessagePortTest, readsAClosedConnectionBeforeItsSuccessor) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    std::vector<std::string> sent;
    // More than one visit reads, before the receiver has seen any of the connections.
    for (int connection = 0; connection < 3; ++connection) {
        const int fd = rawConnection();
        for (int i = 0; i < 100; ++i) {
            sent.push_back(std::to_string(connection) + "." + std::to_string(i));
            EXPECT_TRUE(sendRaw(fd, packet(sent.back())));
        }
        close(fd);
    }
    EXPECT_EQ(takeAll(*port), sent);
}

TEST_F(MessagePortTest, keepsTheOrderOfEachOfManySenders) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    constexpr int kSenders = 8;
    constexpr int kTexts = 2000;
    std::vector<pid_t> children;
    for (int sender = 0; sender < kSenders; ++sender) {
        children.push_back(fork());
        if (children.back() == 0) {
            for (int i = 0; i < kTexts; ++i) {
                std::string text = std::to_string(sender) + " " + std::to_string(i);
                text.resize(i % 500 == 0 ? 200'000 : 40, ' ');
                if (MessagePorts::own().send(kName, text, kGenerous) != SendResult::delivered) {
                    _exit(1);
                }
            }
            _exit(0);
        }
    }
    std::vector<int> next(kSenders, 0);
    for (int i = 0; i < kSenders * kTexts; ++i) {
        const std::string text = takeOne(*port);
        char* rest = nullptr;
        const long sender = std::strtol(text.c_str(), &rest, 10);
        ASSERT_LT(sender, kSenders) << text;
        ASSERT_EQ(std::strtol(rest, nullptr, 10), next[static_cast<size_t>(sender)]++) << text;
    }
    for (const pid_t child : children) {
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_FALSE(port->wait(0, false));
}

TEST_F(MessagePortTest, sendersToOneNameTakeTurnsAndDoNotHoldOthers) {
    const auto full = ports.open("full");
    const auto other = ports.open("other");
    const std::string filler(60'000, 'f');
    while (ports.send("full", filler, 0) == SendResult::delivered) {
    }
    std::thread waiting([&] { EXPECT_EQ(ports.send("full", "a", 300), SendResult::timedOut); });
    std::thread queued([&] { EXPECT_EQ(ports.send("full", "b", 100), SendResult::timedOut); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ports.send("other", "c", kGenerous), SendResult::delivered);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    waiting.join();
    queued.join();
    EXPECT_EQ(takeOne(*other), "c");
}

TEST_F(MessagePortTest, largeTextsThatAreBrokenOffDoNotPileUp) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "whole", kGenerous), SendResult::delivered);
    const std::string large(size_t{30} << 20, 'x'); // more than any queue holds
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(ports.send(kName, large, 5), SendResult::timedOut);
    }
    EXPECT_EQ(ports.send(kName, "small", 5), SendResult::timedOut) << "behind what is not read";
    EXPECT_EQ(takeAll(*port), std::vector<std::string>{"whole"});
    EXPECT_EQ(port->statistics().connections, 1U);
    std::thread sender([&] {
        EXPECT_EQ(ports.send(kName, large, kGenerous), SendResult::delivered);
        EXPECT_EQ(ports.send(kName, "last", kGenerous), SendResult::delivered);
    });
    EXPECT_EQ(takeOne(*port).size(), large.size());
    EXPECT_EQ(takeOne(*port), "last");
    sender.join();
}

TEST_F(MessagePortTest, aNameIsFreeWhenItsOwnerIsKilled) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t owner = fork();
    if (owner == 0) {
        const auto port = ports.open(kName);
        (void)!write(ready[1], port != nullptr ? "y" : "n", 1);
        pause();
        _exit(0);
    }
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    EXPECT_FALSE(ports.isFree(kName));
    EXPECT_EQ(ports.open(kName), nullptr);
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::delivered);
    kill(owner, SIGKILL);
    waitpid(owner, nullptr, 0);
    EXPECT_TRUE(ports.isFree(kName));
    EXPECT_EQ(files(), 2U) << "it could not clear away";
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver);
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "y", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeAll(*port), std::vector<std::string>{"y"});
    close(ready[0]);
    close(ready[1]);
}

TEST_F(MessagePortTest, oneOfFiftyProcessesGetsTheName) {
    for (int round = 0; round < 5; ++round) {
        int start[2];
        int results[2];
        int end[2];
        ASSERT_TRUE(pipe(start) == 0 && pipe(results) == 0 && pipe(end) == 0);
        std::vector<pid_t> children;
        for (int i = 0; i < 50; ++i) {
            children.push_back(fork());
            if (children.back() == 0) {
                char byte;
                close(start[1]);
                close(end[1]);
                (void)!read(start[0], &byte, 1); // all begin when the parent closes its end
                // Those that only ask must not keep anybody from the name.
                const bool asked = i % 2 == 0 && !ports.isFree(kName);
                const auto port = i % 2 == 0 ? nullptr : ports.open(kName);
                (void)!write(results[1], port != nullptr ? "w" : asked ? "a" : "l", 1);
                (void)!read(end[0], &byte, 1);
                _exit(0);
            }
        }
        close(start[0]);
        close(start[1]);
        int winners = 0;
        for (size_t i = 0; i < children.size(); ++i) {
            char result = 0;
            ASSERT_EQ(read(results[0], &result, 1), 1);
            winners += result == 'w' ? 1 : 0;
        }
        EXPECT_EQ(winners, 1) << "round " << round;
        close(end[1]);
        for (const pid_t child : children) {
            waitpid(child, nullptr, 0);
        }
        for (const int fd : {results[0], results[1], end[0]}) {
            close(fd);
        }
        EXPECT_TRUE(ports.isFree(kName));
    }
}

TEST_F(MessagePortTest, aChildAfterForkTakesNothingAndSendsForItself) {
    auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "parent", kGenerous), SendResult::delivered);
    int end[2];
    ASSERT_EQ(pipe(end), 0);
    const pid_t child = fork();
    if (child == 0) {
        PortText text;
        const bool stolen = port->take(text) || port->wait(10, true);
        const bool sent =
            MessagePorts::own().send(kName, "child", kGenerous) == SendResult::delivered;
        port.reset(); // must not remove the parent's files
        close(end[1]);
        char byte;
        (void)!read(end[0], &byte, 1);
        _exit(!stolen && sent ? 0 : 1);
    }
    EXPECT_EQ(takeOne(*port), "parent");
    EXPECT_EQ(takeOne(*port), "child");
    EXPECT_EQ(ports.send(kName, "again", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "again");
    port.reset();
    EXPECT_TRUE(ports.isFree(kName)) << "although the child lives";
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver);
    close(end[0]);
    close(end[1]);
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(MessagePortTest, aProcessThatEndsWhileItOpensPortsLeavesNoFile) {
    ASSERT_NE(ports.open(kName), nullptr);
    for (int round = 0; round < 40; ++round) {
        EXPECT_EQ(inChild([&] {
                      const auto kept = ports.open("kept");
                      std::thread([this] {
                          for (;;) {
                              (void)ports.open("opened and closed");
                          }
                      }).detach();
                      std::this_thread::sleep_for(std::chrono::microseconds(100 * round));
                      std::exit(kept != nullptr ? 0 : 1); // with all ports open
                      return 2;
                  }),
                  0);
        EXPECT_EQ(files(), 0U) << "round " << round;
    }
}

TEST_F(MessagePortTest, noDescriptorSurvivesExec) {
    std::set<int> inherited;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error; // the iterator's own is gone when it is done
        if (std::filesystem::read_symlink(entry.path(), error).string().rfind("socket:", 0) == 0) {
            inherited.insert(std::stoi(entry.path().filename().string()));
        }
    }
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "x");
    int sockets = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error);
        const int fd = std::stoi(entry.path().filename().string());
        const bool isOurs = target.rfind("socket:", 0) == 0 || target.rfind(folder(), 0) == 0 ||
                            target.find("eventpoll") != std::string::npos;
        if (isOurs && inherited.count(fd) == 0) {
            ++sockets;
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << target;
        }
    }
    EXPECT_EQ(sockets, 6) << "folder, lock, events, listener, both ends of a connection";
}

TEST_F(MessagePortTest, refusesAFolderThatIsNotTheUsersAlone) {
    ASSERT_EQ(mkdir(runtime.file("/elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(symlink(runtime.file("/elsewhere").c_str(), folder().c_str()), 0);
    const auto isRefused = [&](const char* why) {
        log.lines.clear();
        EXPECT_EQ(ports.open(kName), nullptr) << why;
        EXPECT_FALSE(ports.isFree(kName)) << why;
        EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::failed) << why;
        EXPECT_EQ(log.lines.size(), 1U) << why;
    };
    isRefused("a link");
    ASSERT_EQ(unlink(folder().c_str()), 0);
    runtime.write("convey", "");
    isRefused("a file");
    ASSERT_EQ(unlink(folder().c_str()), 0);
    for (const mode_t mode : {mode_t{0710}, mode_t{0701}, mode_t{0777}}) {
        ASSERT_EQ(mkdir(folder().c_str(), 0700), 0);
        ASSERT_EQ(chmod(folder().c_str(), mode), 0);
        isRefused("open to others");
        ASSERT_EQ(rmdir(folder().c_str()), 0);
    }
    if (getuid() == 0) {
        ASSERT_EQ(mkdir(folder().c_str(), 0700), 0);
        ASSERT_EQ(chown(folder().c_str(), 65534, 65534), 0);
        isRefused("another user's");
        ASSERT_EQ(rmdir(folder().c_str()), 0);
    }
    // Links in the place of a port's files.
    ASSERT_NE(ports.open(kName), nullptr);
    const std::string lock = folder() + "/" + "x.lock";
    ASSERT_EQ(symlink(runtime.write("/target", "kept").c_str(), lock.c_str()), 0);
    EXPECT_EQ(ports.open("x"), nullptr);
    EXPECT_EQ(TemporaryFolder::read(runtime.file("/target")), "kept");
}

TEST_F(MessagePortTest, aDeletedFolderIsMadeAgain) {
    const auto old = ports.open(kName);
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(ports.send(kName, "before", kGenerous), SendResult::delivered);
    std::filesystem::remove_all(folder());
    EXPECT_EQ(ports.send(kName, "over the old connection", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeAll(*old).size(), 2U);
    const auto fresh = ports.open(kName);
    ASSERT_NE(fresh, nullptr) << "nothing is left that says who owned it";
    EXPECT_EQ(files(), 2U);
}

TEST_F(MessagePortTest, waitsWithoutBusyLoopWhileThereAreNoDescriptors) {
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    // A sanitizer needs descriptors to check the first call of each.
    EXPECT_FALSE(port->wait(0, false));
    platform::Log::system().problem("first");
    const int fd = rawConnection();
    EXPECT_TRUE(sendRaw(fd, packet("late")));
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {static_cast<rlim_t>(fd), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    rusage before{};
    rusage after{};
    (void)getrusage(RUSAGE_SELF, &before);
    EXPECT_FALSE(port->wait(500, false));
    (void)getrusage(RUSAGE_SELF, &after);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const auto cpu = [](const rusage& usage) {
        return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1'000'000 +
               usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
    };
    EXPECT_LT(cpu(after) - cpu(before), 250'000) << "microseconds of a processor in half a second";
    EXPECT_EQ(takeOne(*port), "late");
    EXPECT_EQ(log.lines.size(), 2U);
    close(fd);
}

TEST_F(MessagePortTest, strangersAreNotHeardAndNotSpokenTo) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    const auto asNobody = [](const std::function<int()>& body) {
        return inChild([&] { return setgid(65534) == 0 && setuid(65534) == 0 ? body() : 99; });
    };
    EXPECT_EQ(asNobody([&] {
                  return MessagePorts::own().send(kName, "x", 1000) == SendResult::delivered;
              }),
              0)
        << "the folder is closed to it";
    // Even when somebody has opened all the doors.
    for (const std::string& path : {runtime.file(""), folder(), fileOf(".socket")}) {
        ASSERT_EQ(chmod(path.c_str(), 0777), 0);
    }
    EXPECT_EQ(asNobody([&] { return sendRaw(rawConnection(), packet("x")) ? 0 : 1; }), 0);
    EXPECT_FALSE(port->wait(100, false));
    EXPECT_EQ(port->statistics().strangers, 1U);
    EXPECT_EQ(port->statistics().texts, 0U);

    // A stranger that listens at the name while its lock is held.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const std::string socketFile = fileOf(".socket");
    ASSERT_EQ(unlink(socketFile.c_str()), 0);
    const pid_t stranger = fork();
    if (stranger == 0) {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketFile.copy(address.sun_path, sizeof address.sun_path - 1);
        const bool listens =
            setuid(65534) == 0 &&
            bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            listen(fd, 5) == 0;
        (void)!write(ready[1], listens ? "y" : "n", 1);
        pause();
    }
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    for (const std::string& path : {runtime.file(""), folder()}) {
        ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    }
    EXPECT_EQ(ports.send(kName, "secret", 1000), SendResult::failed);
    kill(stranger, SIGKILL);
    waitpid(stranger, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

} // namespace
