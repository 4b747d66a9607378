#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <nats/nats.h>

#include "link/NatsClient.h"
#include "link/Silence.h"
#include "link/Wire.h"

namespace convey_link {

// The client's connection, and its socket: read and written by whoever calls, not by the client.
//
// The client has no thread here that reads: each text would go from that one to a second, which
// hands it to a handler, and from there to the one that looks after ports. Instead that one reads
// and writes itself, where all of it comes together, and what it says in a turn goes in one piece.
//
// The client must close the socket in this thread only, which may be in the middle of using it: so
// nothing else may find that the server has gone (its pings never count as too many), and whoever
// does here shuts the socket down, which is read as its end.
//
// One thread makes, owns and ends the connection; all else, and all changes of it, while `mutex` is
// held, by a turn or without one.
class NatsSocket {
public:
    // A server that is asked every so many milliseconds and says nothing counts as ended.
    NatsSocket(const WireLoop& loop, int64_t askedMilliseconds)
        : loop_(loop), silence_(askedMilliseconds) {}

    // Connections that are made with these are read and written here. They end before this.
    natsStatus useIn(natsOptions* options);

    // While the thread that takes uses the connection: it writes itself before it waits.
    class Turn {
    public:
        explicit Turn(NatsSocket& socket) : socket_(socket), guard_(socket.mutex) {
            socket_.writesSoon_ = true;
        }
        ~Turn() { socket_.writesSoon_ = false; }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        NatsSocket& socket_;
        const std::lock_guard<std::mutex> guard_;
    };

    // Null while there is none.
    natsConnection* connection() const { return connection_.get(); }
    void own(natsConnection* made) { connection_.reset(made); }
    bool isConnected() const;
    // What has come by now; ends the talk with a server that has been silent for too long.
    void read();
    // Whether so many bytes may be said.
    [[nodiscard]] bool makeRoom(size_t bytes);
    // Waits while the server takes nothing, for two seconds at most: then the talk ends.
    void writeOut();
    // What was published last, such as that this link ends, when its server goes on.
    void sayLast();

    mutable std::mutex mutex;

private:
    static natsStatus onAttach(void** user, void* self, natsConnection*, natsSock socket);
    static natsStatus onRead(void* self, bool on);
    static natsStatus onWrite(void* self, bool on);
    bool isReady(short events, int64_t milliseconds) const;
    void drop() const;

    const WireLoop& loop_;
    Owned<natsConnection> connection_;
    Silence silence_;
    size_t unsentBytes_ = 0;
    std::atomic<int> socket_{-1};
    std::atomic<bool> wantsToWrite_{false};
    std::atomic<bool> writesSoon_{false};
};

} // namespace convey_link
