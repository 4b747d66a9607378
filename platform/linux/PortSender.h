#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/MessagePort.h"

namespace platform {

// The sending side of this process's ports: one connection a target, kept until the target is gone
// or too many others were used since. Threads: any.
class PortSender {
public:
    PortSender();
    ~PortSender();
    PortSender(const PortSender&) = delete;
    PortSender& operator=(const PortSender&) = delete;

    // As MessagePorts promises.
    SendResult send(const std::string& name, const PortPieces& text, SendTime time,
                    std::shared_ptr<TargetWatch>* taker);
    // Closes the connections that no thread is using.
    void closeIdle();

    // Lets the end of the watched owner be an event, `kind`, of this epoll descriptor.
    static void report(TargetWatch& watch, int events, uint64_t kind);

private:
    class Connection;
    class Watch; // over one owner, by the connection to it

    std::shared_ptr<Connection> connectionTo(const std::string& name);
    void forget(const std::string& name, const std::shared_ptr<Connection>& connection);

    struct Entry {
        std::shared_ptr<Connection> connection;
        uint64_t lastUse = 0;
    };
    std::mutex mutex_; // guards the cache, never held across a wait
    using Cache = std::unordered_map<std::string, Entry>;
    Cache cache_;
    // Of the cache, the one that was asked for last: who sends several texts has one target for a
    // while. Null for none.
    Cache::value_type* last_ = nullptr;
    uint64_t uses_ = 0;
};

} // namespace platform
