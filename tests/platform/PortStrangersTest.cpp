// Neighbours that keep no rule: other users, and this user's own processes.

#include <sys/resource.h>

#include "limits/Limits.h"
#include "tests/platform/PortFixture.h"
#include "tests/support/Root.h"

namespace {

using PortStrangersTest = MessagePortTest;

TEST_F(PortStrangersTest, survivesGarbage) {
    const auto port = opened();
    std::string wrongMagic = packet("text");
    wrongMagic[0] = 'X';
    std::string wrongVersion = packet("text");
    wrongVersion[4] = 2;
    std::string reserved = packet("text");
    reserved[7] = 1;
    const std::pair<std::string, const char*> cases[] = {
        {"x", "too short for a header"},
        {std::string(15, '\0'), "one byte too short"},
        {wrongMagic, "another protocol"},
        {wrongVersion, "another version"},
        {reserved, "a byte that has no meaning yet"},
        {header(0, 4) + "text", "no kind"},
        {header(4, 4) + "text", "no kind"},
        {header(1, 5) + "text", "longer than what is there"},
        {header(1, 3) + "text", "shorter than what is there"},
        {header(1, UINT64_MAX) + "text", "a forged length"},
        {header(1, 65537) + std::string(65537, 'x'), "larger than a whole text may be"},
        {header(2, 0), "announces nothing"},
        {header(2, MessagePorts::kMaximumTextBytes + 1), "announces too much"},
        {header(2, UINT64_MAX), "announces too much"},
        {header(2, 4) + "text", "an announcement comes alone"},
        {header(3, 4) + "text", "so does that of a sealed text"},
        {header(3, 0), "seals nothing"},
        {header(3, MessagePorts::kMaximumTextBytes - 63), "leaves no room for a seal"},
    };
    uint64_t closed = 0;
    for (size_t i = 0; i < 2 * std::size(cases); ++i) {
        const auto& [bytes, why] = cases[i / 2];
        SCOPED_TRACE(why + std::string(i % 2 != 0 ? " in a batch" : ""));
        const int fd = rawConnection(i % 2 != 0);
        sendRow(fd, *port);
        EXPECT_TRUE(sendRaw(fd, packet("before")));
        EXPECT_TRUE(sendRaw(fd, bytes));
        EXPECT_EQ(takeOne(*port), "before") << "what was well sent arrives";
        EXPECT_FALSE(port->wait(0, false));
        EXPECT_TRUE(isClosed(fd));
        EXPECT_EQ(port->statistics().malformed, ++closed);
        close(fd);
    }
    // Parts that are more than was announced, and a seal that is more than one.
    for (const int run : {0, 1, 2, 3}) {
        const char kind = run % 2 == 0 ? 2 : 3;
        const int fd = rawConnection(run > 1);
        sendRow(fd, *port);
        EXPECT_TRUE(sendRaw(fd, header(kind, 100'000)) &&
                    sendRaw(fd, std::string(kind == 2 ? 99'999 : 100'000, 'x')) &&
                    sendRaw(fd, std::string(kind == 2 ? 2 : 65, 'x')));
        EXPECT_FALSE(port->wait(0, false));
        EXPECT_TRUE(isClosed(fd));
        EXPECT_EQ(port->statistics().malformed, ++closed);
        close(fd);
    }
    EXPECT_EQ(ports.send(kName, "still here", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "still here");
}

TEST_F(PortStrangersTest, keepsNoDescriptorThatIsSentAlong) {
    const auto port = opened();
    const int fd = rawConnection();
    const size_t before = openDescriptors();
    for (const int run : {0, 1, 2, 3}) {
        const bool inParts = run % 2 != 0;
        const int connection = run > 0 ? rawConnection(run > 1) : fd;
        sendRow(connection, *port);
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
    EXPECT_EQ(port->statistics().descriptors, 4U);
    EXPECT_EQ(openDescriptors(), before) << "the connection is gone, a clock for halves came";
}

TEST_F(PortStrangersTest, boundsWhatOneProcessKeepsOpen) {
    const auto port = opened();
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
    // Many that announce the largest text and send some of it: two have room, and of the others as
    // many as may stay wait for it.
    for (int i = 0; i < 60; ++i) {
        connections.push_back(rawConnection());
        (void)sendRaw(connections.back(), header(2, MessagePorts::kMaximumTextBytes));
        (void)sendRaw(connections.back(), "begin");
        EXPECT_FALSE(port->wait(0, false));
    }
    EXPECT_LE(port->statistics().connections, 32U);
    EXPECT_GE(port->statistics().overLimit, 28U);
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

TEST_F(PortStrangersTest, refusesAFolderThatIsNotTheUsersAlone) {
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
    if (alsoAsRoot()) {
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

TEST_F(PortStrangersTest, strangersAreNotHeardAndNotSpokenTo) {
    if (!alsoAsRoot()) {
        return;
    }
    auto port = opened();
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
    const Pipe ready;
    const std::string socketFile = fileOf(".socket");
    ASSERT_EQ(unlink(socketFile.c_str()), 0);
    const pid_t stranger = startChild([&] {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketFile.copy(address.sun_path, sizeof address.sun_path - 1);
        const bool listens =
            setuid(65534) == 0 &&
            bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            listen(fd, 5) == 0;
        ready.tell(listens ? 'y' : 'n');
        return pause();
    });
    EXPECT_EQ(ready.hear(), 'y');
    for (const std::string& path : {runtime.file(""), folder()}) {
        ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    }
    EXPECT_EQ(ports.send(kName, "secret", 1000), SendResult::failed);
    EXPECT_EQ(endOf(stranger, SIGKILL), 255);
}

// What the system took for a sender arrives, whoever has filled the port with halves before.
TEST_F(PortStrangersTest, roomIsMadeByClosingStalledHalvesAndNeverTheNewcomer) {
    const struct {
        int processes;
        int halves; // of each
        char kind;
        uint64_t announced;
        const char* why;
    } cases[] = {{16, 32, 2, 10, "all connections are taken, by 10 bytes each"},
                 {4, 2, 2, MessagePorts::kMaximumTextBytes, "all announced bytes are taken"},
                 {4, 2, 3, MessagePorts::kMaximumTextBytes - 64, "the same by sealed texts"}};
    const auto peakKilobytes = [] {
        rusage usage{};
        (void)getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;
    };
    const long before = peakKilobytes();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const auto port = opened();
        const Pipe done;
        Pipe end;
        std::vector<pid_t> children;
        for (int p = 0; p < c.processes; ++p) {
            children.push_back(startChild([&] {
                end.endTelling();
                for (int i = 0; i < c.halves; ++i) {
                    if (p + 1 == c.processes && i + 1 == c.halves) { // when the others have stalled
                        usleep(1200 * limits::of("port.half-sent.stalled"));
                    }
                    (void)sendRaw(rawConnection(), header(c.kind, c.announced));
                }
                done.tell('x');
                (void)end.hear();
                return 0;
            }));
        }
        done.doNotWait();
        for (int finished = 0; finished < c.processes;) {
            EXPECT_FALSE(port->wait(10, false)) << "no half is a text";
            finished += done.hear() == 'x' ? 1 : 0;
        }
        const auto all = static_cast<uint64_t>(c.processes * c.halves);
        for (int i = 0; i < 500 && port->statistics().connections < all; ++i) {
            EXPECT_FALSE(port->wait(10, false)); // the last may wait to be accepted
        }
        EXPECT_EQ(port->statistics().connections, all);
        EXPECT_EQ(port->statistics().overLimit, 0U) << "closed before anybody needs the room";
        if (std::getenv("CONVEY_TEST_DIVISOR") == nullptr) { // a sanitizer marks each byte
            EXPECT_LT(peakKilobytes(), before + (64 << 10)) << "memory is given as texts arrive";
        }
        // Newcomers that send while this process does something else, and end.
        constexpr int kNewcomers = 12;
        for (int i = 0; i < kNewcomers; ++i) {
            EXPECT_EQ(inChild([&] {
                          const std::string text(i % 2 == 0 ? 100 : 100'000, 'n');
                          return MessagePorts::own().send(kName, text, 0) == SendResult::delivered
                                     ? 0
                                     : 1;
                      }),
                      0);
        }
        for (int i = 0; i < kNewcomers; ++i) {
            EXPECT_THAT(takeOne(*port).size(), testing::AnyOf(100U, 100'000U)) << i;
        }
        EXPECT_GE(port->statistics().overLimit, 1U) << "there is a bound";
        end.endTelling();
        for (const pid_t child : children) {
            EXPECT_EQ(endOf(child), 0);
        }
        EXPECT_FALSE(port->wait(0, false));
        EXPECT_EQ(port->statistics().connections, 0U);
    }
}

TEST_F(PortStrangersTest, aLinkInThePlaceOfASocketLeadsNowhereElse) {
    const auto owned = opened();
    const std::string socketFile = fileOf(".socket");
    const std::string kept = runtime.write("/kept", "as it was");
    ASSERT_EQ(unlink(socketFile.c_str()), 0);
    ASSERT_EQ(symlink(kept.c_str(), socketFile.c_str()), 0);
    EXPECT_EQ(ports.send(kName, "x", 0), SendResult::noReceiver);
    // An owner that died and left a link: the next one puts its own socket there.
    const std::string stale = folder() + "/next.socket";
    ASSERT_EQ(symlink(kept.c_str(), stale.c_str()), 0);
    const auto next = opened("next");
    EXPECT_TRUE(std::filesystem::is_socket(std::filesystem::symlink_status(stale)));
    EXPECT_EQ(ports.send("next", "to the owner", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*next), "to the owner");
    EXPECT_EQ(TemporaryFolder::read(kept), "as it was");
}

} // namespace
