#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

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

// Runs `body` in a child and gives its exit status, 255 when a signal ended it.
inline int inChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
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
