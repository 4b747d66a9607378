#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <sys/epoll.h>
#include <unordered_map>
#include <vector>

#include "limits/Limits.h"
#include "platform/MessagePort.h"
#include "platform/linux/PortBatch.h"
#include "platform/linux/PortDescriptor.h"
#include "platform/linux/PortName.h"

namespace platform {

// A name that this process owns: the lock on the name's file says so, the socket beside it listens.
class PortReceiver final : public LocalPort {
public:
    // Null when the name has an owner or cannot be had, which is reported.
    static std::unique_ptr<PortReceiver> open(const std::string& name, PortSeals seals);
    ~PortReceiver() override;

    bool take(PortText& out) override;
    bool wait(int64_t timeoutMilliseconds, bool soon) override;
    bool hasMore() const override;
    bool tellsAll() const override;
    void hold(int32_t process, bool on) override;
    void checkSeals(const std::function<std::unique_ptr<PortSeal>()>& make) override;
    PortPlace placeBehind(int32_t process) const override;
    bool isPast(const PortPlace& place) override;
    PortStatistics statistics() const override;

    // Readable when something has arrived; to be waited for, not to be read.
    int descriptor() const override { return events_.get(); }

    // The port's two files, to be watched by `reportLost`.
    const PortName& name() const { return name_; }

    // Reports, once each, those of these ports (null: of all) of which somebody has removed a file:
    // who is connected can go on, but nobody finds them any more. Ports that are closed are passed
    // over. Threads: any.
    static void reportLost(const std::vector<const PortReceiver*>* ports);

private:
    static constexpr uint64_t kListener = 0; // among the events; connections are numbered from 1
    // Above every number that a connection can reach.
    static constexpr uint64_t kTimer = UINT64_MAX;
    // What one call draws ahead of its caller: some packets of some connections.
    static constexpr int kEventsAtOnce = 8;
    static constexpr int kPacketsAtOnce = 16;
    static constexpr int64_t kStalledMilliseconds = limits::of("port.half-sent.stalled");

    struct Connection {
        PortDescriptor socket;
        int32_t process = 0;
        uint64_t lastText = 0;    // counts the texts of all connections
        bool promises = false;    // what a batch needs
        bool comesInRows = false; // small texts did, and the last packet was one
        bool hungUp = false;      // its sender has closed it; what it sent comes before what ...
        bool mustWait = false;    // ... a newer connection of the same process brings
        PortText part;            // the text of which some packets have arrived
        size_t received = 0;      // bytes of it
        bool isSealed = false;    // its seal comes behind it, or what is announced so
        std::unique_ptr<PortSeal> seal; // of what has arrived; null for nobody who asks
        size_t waiting = 0; // bytes announced, for which there is no room yet; it is not read
        std::unique_ptr<PortBatch> batch; // drawn together with what waits; null for nothing
        int64_t progressAt = 0;           // when so much had arrived, ...
        size_t progressBytes = 0;         // ... since then
        bool isHalf() const { return part.size() != 0 || waiting != 0; }
        bool wantsSeal() const { return part.size() != 0 && received == part.size(); }
    };
    // By the order of arrival.
    using Connections = std::map<uint64_t, Connection>;
    enum class Reading { open, closed };

    PortReceiver(PortFolder folder, const std::string& name, PortSeals seals);

    class OpenPorts;

    static int64_t now();

    bool listen();
    void deafen();
    void pauseListening();
    void resumeListening();
    bool hasMoreLocked() const;
    bool spin();

    // Connections.
    bool fill();
    bool readHot(int packets);
    void readEvents(const epoll_event* events, int count, int packets);
    bool hasNewcomer() const;
    void acceptAll();
    void admit(PortDescriptor socket, int32_t process, bool promises);
    bool isHeld(const Connection& connection) const;
    bool watch(uint64_t number, const Connection& connection);
    bool olderOnesAreRead(Connections::iterator connection);
    bool makeRoom(int32_t process);
    void readOut(Connections::iterator connection);
    void read(Connections::iterator connection, int packets);
    Reading readPackets(Connection& connection, int packets);
    bool mayBatch(const Connection& connection);
    Reading takeBatch(Connection& connection, PortBatch& batch);
    Reading takePacket(Connection& connection, const PortBatch::Packet& packet);
    Reading takeFirst(Connection& connection, const unsigned char* in, size_t bytes);
    Reading takePart(Connection& connection, size_t bytes);
    Reading takeSeal(Connection& connection, const unsigned char* in, size_t bytes);
    void finishPart(Connection& connection);

    // Half-sent texts.
    Reading startPart(Connection& connection, size_t length);
    void noteArrived(Connection& connection, size_t bytes);
    static bool isWholeInQueue(const Connection& connection);
    static bool hasUnread(const Connection& connection);
    void release(const Connection& connection);
    size_t announcedBy(int32_t process) const;
    bool makeRoomForPart(const Connection& connection, size_t length, bool byClosing);
    void giveRoom(bool byClosing);
    void tendLater(int64_t milliseconds);
    void tend();

    PortName name_;
    const PortSeals seals_;
    std::atomic<bool> lossIsReported_{false};
    PortDescriptor listener_;
    PortDescriptor events_;

    mutable std::mutex mutex_; // guards all that follows
    Connections connections_;
    std::set<int32_t> held_; // processes whose connections are not read
    uint64_t lastNumber_ = 0;
    uint64_t lastText_ = 0;
    uint64_t accepted_ = 0; // connections, whatever became of them
    uint64_t hot_ = 0;      // the connection that brought the last text, looked at first
    uint32_t hotRuns_ = 0;
    uint32_t waits_ = 0;      // since one found what had come before it
    bool isHotEmpty_ = false; // as was seen when it was read last, and nobody has looked since
    int64_t listenAgain_ = 0; // when new connections are accepted again, while that is paused
    size_t announcedBytes_ = 0;
    std::unordered_map<int32_t, size_t> announcedBy_; // the same, of each process
    size_t waiting_ = 0;                              // connections that wait for room for a text
    bool makesRoom_ = false; // so that making room for one does not ask for room for others
    int64_t tendAt_ = 0;     // when halves are looked at, while there are any
    PortDescriptor timer_;   // reports that time; missing where the system gives none
    std::deque<PortText> ready_;
    size_t partBytesRead_ = 0; // of large texts, since the caller came; more for what takes longer
    std::function<std::unique_ptr<PortSeal>()> makeSeal_;
    const std::unique_ptr<unsigned char[]> buffer_;
    std::unique_ptr<PortBatch> batch_; // made when small texts come in rows
    PortStatistics statistics_;

    std::atomic<bool> listeningPaused_{false}; // the process has no descriptors left
    std::atomic<int> spinCredit_;
};

} // namespace platform
