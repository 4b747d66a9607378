#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/epoll.h>

#include "platform/MessagePort.h"
#include "platform/linux/PortDescriptor.h"
#include "platform/linux/PortFolder.h"

namespace platform {

// A name that this process owns: the lock on the name's file says so, the socket beside it listens.
class PortReceiver final : public LocalPort {
public:
    // Null when the name has an owner or cannot be had, which is reported.
    static std::unique_ptr<PortReceiver> open(const std::string& name);
    ~PortReceiver() override;

    bool take(PortText& out) override;
    bool wait(int64_t timeoutMilliseconds, bool soon) override;
    PortStatistics statistics() const override;

    // Readable when something has arrived; to be waited for, not to be read.
    int events() const { return events_.get(); }

    // The file whose lock says that the name is owned.
    std::string lockPath() const;

    // Reports the ports of this process whose files somebody has removed: who is connected can go
    // on, but nobody finds them any more. Threads: any.
    static void reportLost();

private:
    struct Connection {
        PortDescriptor socket;
        int32_t process = 0;
        uint64_t lastText = 0; // counts the texts of all connections
        bool hungUp = false;   // its sender has closed it; what it sent comes before what ...
        bool mustWait = false; // ... a newer connection of the same process brings
        PortText part;         // the text of which some packets have arrived
        size_t received = 0;   // bytes of it
    };
    // By the order of arrival.
    using Connections = std::map<uint64_t, Connection>;
    enum class Reading { open, closed };

    PortReceiver(PortFolder folder, std::string fileName);

    class OpenPorts;

    void removeFiles() const;
    bool lockName();
    bool holdsLockFile() const;
    bool listen();
    bool fill();
    void acceptAll();
    void admit(PortDescriptor socket, int32_t process);
    bool makeRoom(int32_t process);
    bool readHot(int packets);
    void readEvents(const epoll_event* events, int count, int packets);
    void read(Connections::iterator connection, int packets);
    Reading readPackets(Connection& connection, int packets);
    Reading takePacket(Connection& connection, size_t bytes);
    bool startPart(Connection& connection, size_t length);
    bool olderOnesAreRead(Connections::iterator connection);
    void pauseListening();
    void resumeListening();
    bool spin();

    const PortFolder folder_;
    const std::string fileName_;
    PortDescriptor lock_;
    PortDescriptor listener_;
    PortDescriptor events_;

    mutable std::mutex mutex_; // guards all that follows
    Connections connections_;
    uint64_t lastNumber_ = 0;
    uint64_t lastText_ = 0;
    uint64_t hot_ = 0; // the connection that brought the last text, looked at first
    uint32_t hotRuns_ = 0;
    int64_t listenAgain_ = 0; // when new connections are accepted again, while that is paused
    size_t announcedBytes_ = 0;
    std::deque<PortText> ready_;
    const std::unique_ptr<unsigned char[]> buffer_;
    PortStatistics statistics_;

    std::atomic<bool> listeningPaused_{false}; // the process has no descriptors left
    std::atomic<int> spinCredit_;
};

} // namespace platform
