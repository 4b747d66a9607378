#pragma once

#include <memory>
#include <string>

// One way for two processes to talk, as the comparison uses each of them: a text goes over and
// comes back, or goes over only.
namespace bench {

// Texts that begin with this are answered with one of the same size, others are only taken.
constexpr char kAnswer = 'r';
constexpr char kTakeOnly = 'o';

class Peer {
public:
    Peer() = default;
    virtual ~Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // In a process of its own, forked before anybody has called `connect`: does not return.
    virtual void serve() = 0;
    // In the measuring process.
    virtual void connect() = 0;
    // Sends a text and waits for the answer.
    virtual void roundTrip(const std::string& text) = 0;
    // Sends a text; it may still be on its way afterwards, but behind those before it.
    virtual void sendOnly(const std::string& text) = 0;
    // The same without waiting for room; false when the text is refused.
    virtual bool offer(const std::string& text) = 0;
};

// Each pair of processes needs its own. `folder` takes sockets.
std::unique_ptr<Peer> bareSocketPeer();
// `digest`: each text is signed and checked, as it is unless an application switches it off.
// `soon`: waits as a host does that expects the next text at once, which may be a short busy wait.
std::unique_ptr<Peer> conveyPeer(bool digest, bool soon);
// No peer: the digests that the texts of such a run need, without the texts.
std::unique_ptr<Peer> digestPeer();
std::unique_ptr<Peer> zeroMqPeer(const std::string& folder);
std::unique_ptr<Peer> nngPeer(const std::string& folder);
// sd-bus: over a pair of sockets, and through the bus at `address`.
std::unique_ptr<Peer> directBusPeer();
std::unique_ptr<Peer> brokerBusPeer(const std::string& address);

} // namespace bench
