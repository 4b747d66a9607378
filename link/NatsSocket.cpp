#include "link/NatsSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include "link/Bounds.h"
#include "platform/Clock.h"

namespace convey_link {
namespace {

// A server that is stopped holds the link up for so long at most.
constexpr int64_t kWriteMilliseconds = 2000;
// Gathered before it is sent without waiting for more.
constexpr size_t kGatheredBytes = 256 * bounds::kKiB;
// Read in a turn, each at most what one record of TLS holds; then what they brought has its turn.
constexpr int kReadsAtOnce = 64;
// At the end, for what was published last.
constexpr int64_t kFlushMilliseconds = 300;
constexpr int kFlushLookMilliseconds = 10;

} // namespace

natsStatus NatsSocket::useIn(natsOptions* options) {
    return natsOptions_SetEventLoop(options, this, onAttach, onRead, onWrite,
                                    [](void* self) { return onRead(self, false); });
}

// The client's calls for who waits for its socket. Threads: any.
natsStatus NatsSocket::onAttach(void** user, void* self, natsConnection*, natsSock socket) {
    auto& own = *static_cast<NatsSocket*>(self);
    *user = self;
    (void)fcntl(socket, F_SETFD, FD_CLOEXEC); // else what is launched keeps it open
    own.silence_.heard(platform::monotonicNow());
    own.socket_ = socket;
    own.loop_.watch(socket, true);
    return NATS_OK;
}

natsStatus NatsSocket::onRead(void* self, bool on) {
    auto& own = *static_cast<NatsSocket*>(self);
    if (!on && own.socket_ >= 0) {
        own.loop_.watch(own.socket_.exchange(-1), false);
    }
    return NATS_OK;
}

natsStatus NatsSocket::onWrite(void* self, bool on) {
    auto& own = *static_cast<NatsSocket*>(self);
    own.wantsToWrite_ = on;
    if (on && !own.writesSoon_) {
        own.loop_.wake();
    }
    return NATS_OK;
}

bool NatsSocket::isReady(short events, int64_t milliseconds) const {
    pollfd ready{socket_, events, 0};
    return poll(&ready, 1, static_cast<int>(milliseconds)) > 0 && (ready.revents & ~POLLOUT) != 0;
}

bool NatsSocket::isConnected() const {
    return connection_ != nullptr &&
           natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED;
}

void NatsSocket::read() {
    for (int i = 0; i < kReadsAtOnce && isReady(POLLIN, 0); ++i) {
        natsConnection_ProcessReadEvent(connection_.get());
        silence_.heard(platform::monotonicNow());
    }
    if (silence_.isSilent(platform::monotonicNow())) {
        drop();
    }
}

// The client must find the same bytes at the same place when it goes on, so nothing is said until
// all is sent.
void NatsSocket::writeOut() {
    unsentBytes_ = 0;
    const int64_t end = platform::monotonicNow() + kWriteMilliseconds;
    while (wantsToWrite_ && isConnected()) {
        natsConnection_ProcessWriteEvent(connection_.get());
        if (!wantsToWrite_) {
            return;
        }
        const int64_t left = end - platform::monotonicNow();
        if (left <= 0) {
            drop();
            return;
        }
        if (isReady(POLLIN | POLLOUT, left)) { // else both sides might wait for each other
            natsConnection_ProcessReadEvent(connection_.get());
        }
    }
}

bool NatsSocket::makeRoom(size_t bytes) {
    unsentBytes_ += bytes;
    if (unsentBytes_ > kGatheredBytes) {
        writeOut();
    }
    return isConnected();
}

// The client reads the end, and looks for another server.
void NatsSocket::drop() const {
    (void)shutdown(socket_, SHUT_RDWR);
}

void NatsSocket::sayLast() {
    if (!isConnected()) {
        return;
    }
    std::atomic<bool> isSaid{false};
    std::thread flushing([&] {
        (void)natsConnection_FlushTimeout(connection_.get(), kFlushMilliseconds);
        isSaid = true;
    });
    while (!isSaid) {
        writeOut();
        if (isReady(POLLIN, kFlushLookMilliseconds)) {
            natsConnection_ProcessReadEvent(connection_.get());
        }
    }
    flushing.join();
}

} // namespace convey_link
