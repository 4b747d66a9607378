#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace convey_link {

// Whether a server that is asked regularly has fallen silent, for who hears it only when he is
// there.
//
// `heard` from any thread; the rest from the one that listens.
class Silence {
public:
    // Asked every so many milliseconds; silent when two answers and the next are missing.
    explicit Silence(int64_t askedMilliseconds) : askedMilliseconds_(askedMilliseconds) {}

    void heard(int64_t now) { heardAt_ = now; }

    // To be asked more often than the server is.
    bool isSilent(int64_t now) {
        // Who was not here, because its process was stopped or was launching something, has asked
        // nothing: the server's silence begins now.
        if (std::exchange(lookedAt_, now) + 2 * askedMilliseconds_ < now) {
            heardAt_ = now;
        }
        return heardAt_ + 3 * askedMilliseconds_ < now;
    }

private:
    const int64_t askedMilliseconds_;
    std::atomic<int64_t> heardAt_{0};
    int64_t lookedAt_ = 0;
};

} // namespace convey_link
