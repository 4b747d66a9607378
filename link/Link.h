#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "link/Channel.h"
#include "link/Configuration.h"
#include "link/Deliveries.h"
#include "link/Kept.h"
#include "link/Registrations.h"
#include "link/Text.h"
#include "link/Wire.h"

namespace platform {
class LocalPort;
class MessagePorts;
class PortWait;
class TargetWatch;
} // namespace platform

namespace convey_link {

// The joint of this machine's ports and the other links of a realm: what comes to the ports of used
// applications goes to their links, what comes from links to the applications that are offered,
// and what answers goes back.
//
// Owns the ports of the used applications and of senders from elsewhere, a channel for each link,
// and what is known of who is where. One thread calls `step` whenever something may have happened;
// nothing in it waits but for the registry.
class Link {
public:
    // What it stands on, all of which outlives it.
    struct Surroundings {
        Wire& wire;
        platform::MessagePorts& ports;
        platform::PortWait& wait; // ended by what arrives at ports
        Registrations& registrations;
        std::function<bool(const std::string& app, const std::string& parameters)> launch;
        std::function<void(const std::string& line)> log;
        std::function<int64_t()> now;   // milliseconds of a steady clock
        std::string journalFolder = {}; // of this link alone, and stays when it ends
    };

    // `life` tells this run from others; not 0.
    Link(const Configuration& configuration, uint64_t life, const Surroundings& surroundings);
    // Says goodbye, and removes the registrations.
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Whether the link must end, since another has its name or the servers refuse it.
    enum class State { goesOn, nameTaken, refused };
    State state() const { return state_; }

    // Does what there is to do; the milliseconds until there is something again if nothing happens.
    // `ofPorts`: something may have happened to ports of this machine or their owners.
    int64_t step(bool ofPorts);
    // Who is there, as JSON.
    std::string status() const;
    // Whether that has changed since the last call.
    bool statusChanged();

    // The stream at which a stub that was started in the place of a used application says so.
    static constexpr const char* kControlPort = "conveylink-2.0#launch";
    // The stream from which it asks background threads of this machine.
    static constexpr const char* kPingPort = "conveylink-2.0#link";
    // A name that nobody owns, of who wants no answer.
    static constexpr const char* kLookPort = "conveylink-2.0#look";

private:
    struct Port;
    struct Used;
    struct Alias;
    struct Peer;
    struct Outgoing;
    struct Conversation;
    struct Owed;
    struct Ticket;
    struct KeptLine;
    struct Ping;

    // Link.cpp: the network, who is where, time.
    int64_t work();
    void takeEvents();
    void connected(const std::string& server);
    void takeFrame(const std::string& from, std::string_view bytes);
    void takeClaim(const Frame& frame);
    bool meet(Peer& peer, const Frame& frame);
    void takePresence(Peer& peer, const Frame& frame);
    void lookForOffered();
    bool isRunning(const std::string& app);
    void sendPresence(Peer& peer, bool always);
    void greet(Peer& peer);
    void missed(Peer& peer);
    void comeBack(Peer& peer, bool greeted, bool isNewLife);
    void askToBeGreeted(const std::string& link);
    void leave(Peer& peer, const std::string& why);
    void setState(Used& used, AppState state, const std::string& why);
    void openPorts(Used& used);
    void flush(Peer& peer);
    int64_t regularly();
    Peer& peer(const std::string& name);
    Peer* knownPeer(const std::string& name);
    Frame frame(FrameKind kind, const Peer* peer) const;
    bool publish(Peer& peer, const Frame& frame);

    // LinkKept.cpp: requests that wait on the servers' disks.
    void takeKept();
    void keptArrived(const std::string& from, const std::string& bytes, const std::string& reply);
    void clockArrived(const std::string& from, const std::string& answer);
    void handOver(Peer& peer);
    void finish(const Ticket& ticket, Outcome outcome);
    void tellUntold(Peer& peer);
    void forgetKept(int64_t now);

    // LinkMessages.cpp: texts.
    void takeTexts();
    // What handles a text may take over the block that its body alone lies in; null for none.
    using Handler = std::function<void(Text& message, platform::PortText::Block& block)>;
    bool takeFrom(Port& port, const Handler& handle);
    void takeText(platform::PortText taken, Text& message, const Handler& handle);
    void requestTaken(Used& used, Text& message, platform::PortText::Block& block);
    void pingTaken(Used& used, Text& message);
    bool ask(const Ping& ping, std::string_view text);
    bool sendPing(Peer& peer, MessageHead head, std::string_view text, int64_t until);
    void askAgain(Peer& peer);
    void replyTaken(Alias& alias, Text& message, platform::PortText::Block& block);
    void launchTaken(const Text& message);
    void launch(Used& used, std::string parameters);
    void pingAnswered(Text& message);
    void arrived(Peer& peer, Channel::Arrival& arrival, int64_t now);
    void requestArrived(Peer& peer, Channel::Arrival& arrival, int64_t now);
    void replyArrived(Peer& peer, Channel::Arrival& arrival, int64_t now);
    void pingArrived(Peer& peer, const MessageHead& head, std::string_view text, int64_t now);
    void pongArrived(Peer& peer, const MessageHead& head, std::string_view text);
    void answerPing(const Ping& ping, Text& answer);
    void notRunning(Peer& peer);
    void sendPong(const Ping& ping, Outcome outcome, std::string_view text = {});
    void deliver(const Ticket& ticket, Channel::Arrival& arrival, Text& message,
                 std::string_view sender, bool mayLaunch, int64_t now);
    void giveBack(const Outgoing& outgoing);
    void ended(Peer& peer, uint64_t message, Outcome outcome);
    void lifeEnded(Peer& peer);
    void takeDelivered();
    void tellOfEndedTargets();
    void fail(const Asked& asked, Outcome outcome);
    Alias* aliasFor(Peer& peer, const std::string& source);
    bool forgetQuietest();
    void forgetAlias(Alias& alias);
    void open(Port& port, const std::string& name, bool forTravel = false);
    bool isOwn(std::string_view name) const;
    void forget(int64_t now);

    const Configuration& configuration_;
    const uint64_t life_;
    Surroundings around_;
    State state_ = State::goesOn;
    bool connected_ = false;
    std::string server_;
    int64_t joinAt_ = INT64_MAX; // when nobody has the name
    bool joined_ = false;
    int64_t claimAt_ = 0;
    bool statusChanged_ = true;
    int64_t regularAt_ = 0;
    bool lookForNames_ = true;
    int64_t lookedAt_ = 0;

    std::set<std::string> unmet_; // who sent to a life before this one, until the next regular turn
    std::map<std::string, std::unique_ptr<Peer>> peers_;                 // each stays to the end
    std::map<std::string, std::unique_ptr<Used>, std::less<>> used_;     // by specifier
    std::map<std::string, std::unique_ptr<Alias>, std::less<>> aliases_; // by the name here
    std::unique_ptr<Port> pingPort_;
    std::unique_ptr<Port> controlPort_;

    std::map<std::pair<std::string, std::string>, Conversation> conversations_; // asker and number
    std::map<std::pair<std::string, std::string>, Owed> owed_;                  // alias and number
    std::unordered_map<uint64_t, Ticket> tickets_;
    std::map<uint64_t, Ping> askedPings_;   // of here, by the number that travels
    std::map<uint64_t, Ping> foreignPings_; // of elsewhere, by the number used here
    std::map<std::string, std::shared_ptr<platform::TargetWatch>> watched_; // offered, and running
    Keeper keeper_;
    Journal journal_;
    bool asksAll_ = true; // ports: waits do not tell of each
    uint64_t lastPort_ = 0;
    uint64_t lastTicket_ = 0;
    uint64_t lastPing_ = 0;
    Deliveries deliveries_; // the last: its threads use what is above
};

} // namespace convey_link
