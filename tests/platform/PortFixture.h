#pragma once

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/fake/Fakes.h"
#include "tests/support/TemporaryFolder.h"

// What the tests of the real ports share.

using platform::LocalPort;
using platform::MessagePorts;
using platform::PortState;
using platform::PortText;
using platform::SendResult;

inline constexpr int64_t kGenerous = 20'000; // milliseconds; nothing here takes as long
inline constexpr const char* kName = "\\\\.\\port\\app-1.0#ping";

inline std::string takeOne(LocalPort& port) {
    PortText text;
    return port.wait(kGenerous, false) && port.take(text) ? std::string(text.view())
                                                          : std::string("(nothing)");
}

inline std::vector<std::string> takeAll(LocalPort& port) {
    std::vector<std::string> texts;
    PortText text;
    while (port.take(text)) {
        texts.emplace_back(text.view());
    }
    return texts;
}

// Processes tell each other single bytes over it; closed with the object.
class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe(ends_), 0); }
    ~Pipe() {
        close(ends_[0]);
        endTelling();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void tell(char byte) const { (void)!write(ends_[1], &byte, 1); }
    int readEnd() const { return ends_[0]; }
    // Waits for one; '\0' when nobody is left who could tell.
    char hear() const {
        char byte = '\0';
        return read(ends_[0], &byte, 1) == 1 ? byte : '\0';
    }
    void endTelling() { close(std::exchange(ends_[1], -1)); }
    // From now on `hear` does not wait.
    void doNotWait() const { EXPECT_EQ(fcntl(ends_[0], F_SETFL, O_NONBLOCK), 0); }

private:
    int ends_[2] = {-1, -1};
};

// A child that does `body` and ends.
inline pid_t startChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    return child;
}

// The exit status of a child, 255 when a signal ended it.
inline int endOf(pid_t child, int signal = 0) {
    int status = 0;
    (void)kill(child, signal);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

inline int inChild(const std::function<int()>& body) {
    return endOf(startChild(body));
}

// The real ports, in a folder of the test's own.
class MessagePortTest : public testing::Test {
protected:
    MessagePortTest() { setenv("XDG_RUNTIME_DIR", runtime.file("").c_str(), 1); }

    // A port that is there: without it a test ends.
    std::unique_ptr<LocalPort> opened(const std::string& name = kName) const {
        std::unique_ptr<LocalPort> port = ports.open(name);
        return port != nullptr ? std::move(port) : throw std::runtime_error("cannot open " + name);
    }
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

    // A socket connected to the only port, as a peer that keeps no rule would have it. One that
    // `promises` is read in batches, once small texts have come in a row.
    int rawConnection(bool promises = false) const {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (promises) {
            const std::string own =
                "CVMP1-parts-of-1-MiB-test-" + std::to_string(getpid()) + "-" + std::to_string(fd);
            own.copy(address.sun_path + 1, sizeof address.sun_path - 1);
            EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address),
                           static_cast<socklen_t>(sizeof(sa_family_t) + 1 + own.size())),
                      0);
            address.sun_path[0] = '\0';
        }
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
    // A packet's header: kind 1 for a whole text, 2 for an announced one, 3 for a sealed one.
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
    // Small texts in a row, so that what follows them comes in a batch, where one was promised.
    static void sendRow(int fd, LocalPort& port) {
        EXPECT_TRUE(sendRaw(fd, packet("a")) && sendRaw(fd, packet("row")));
        EXPECT_EQ(takeAll(port), (std::vector<std::string>{"a", "row"}));
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
    platform::InForce<platform::Log, platform::FakeLog> log;
    MessagePorts& ports = MessagePorts::own();
};
