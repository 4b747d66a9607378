#pragma once

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// The limit that benchmarks compare with: two processes and a pair of sequenced-packet sockets,
// without any code of the layer.
namespace bench {

using Time = std::chrono::steady_clock;

constexpr auto kSpin = std::chrono::microseconds(30);

[[noreturn]] inline void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

inline double secondsSince(Time::time_point start) {
    return std::chrono::duration<double>(Time::now() - start).count();
}

// Runs `other` in a process of its own beside `measured` and returns what that measured.
inline double besides(const std::function<void()>& other, const std::function<double()>& measured) {
    const pid_t child = fork();
    if (child == 0) {
        other();
        _exit(0);
    }
    const double result = measured();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return result;
}

// A connected pair of sockets as one listens and one connects.
struct Pair {
    int ends[2];
    Pair() {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) {
            fail("socketpair");
        }
        for (const int end : ends) {
            const int bytes = 4 << 20;
            (void)setsockopt(end, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        }
    }
    ~Pair() {
        close(ends[0]);
        close(ends[1]);
    }
};

inline size_t receiveBare(int socket, char* buffer, size_t size, bool spinning) {
    if (spinning) {
        const auto end = Time::now() + kSpin;
        do {
            const ssize_t bytes = recv(socket, buffer, size, MSG_DONTWAIT);
            if (bytes >= 0) {
                return static_cast<size_t>(bytes);
            }
        } while (Time::now() < end);
    }
    const ssize_t bytes = recv(socket, buffer, size, 0);
    if (bytes < 0) {
        fail("recv");
    }
    return static_cast<size_t>(bytes);
}

inline void sendBare(int socket, const char* bytes, size_t size) {
    if (send(socket, bytes, size, MSG_NOSIGNAL) < 0) {
        fail("send");
    }
}

inline double roundTripBare(size_t bytes, int count, bool spinning) {
    const Pair pair;
    std::vector<char> text(bytes, 'x');
    std::vector<char> buffer(bytes + 1);
    return besides(
        [&] {
            for (;;) {
                const size_t got =
                    receiveBare(pair.ends[1], buffer.data(), buffer.size(), spinning);
                sendBare(pair.ends[1], buffer.data(), got);
            }
        },
        [&] {
            const auto start = Time::now();
            for (int i = 0; i < count; ++i) {
                sendBare(pair.ends[0], text.data(), text.size());
                (void)receiveBare(pair.ends[0], buffer.data(), buffer.size(), spinning);
            }
            return secondsSince(start) / count;
        });
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace bench
