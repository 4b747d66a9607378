#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

class InterAppStream;

namespace ConveyData {

class Arrivals;

// A request whose asker wants errors and is in this process: what it takes to tell it that the
// process that took the request has ended.
struct AwaitedRequest {
    uint32_t number = 0;
    std::string asker;
    std::string target;
    std::string type;   // the user type that was asked with, by which old peers answer
    int64_t until = 0;  // monotonic milliseconds; then who took it is forgotten
    uint64_t place = 0; // in the order of sending; tells it from others of the number

    // Null for a message that is no such request. `seconds`: its asker waits for as long at least.
    static std::optional<AwaitedRequest> of(const Convey::Message& message, uint32_t seconds);
    // The request again, as far as an "Error" for it needs it.
    std::unique_ptr<Convey::Message> message() const;
};

// The requests of an instance that other processes have taken and not answered yet, by who took
// them. When one of these ends, nothing else will be heard of its requests.
//
// An answer ends a request when it is received, not when the owner comes to handle it. Owns what it
// keeps, a watch for each taker among it, which keeps the connection to it open. Threads: any;
// nothing else is called under the lock.
class Takers : public SoLockable {
public:
    Takers();
    ~Takers() override;

    // A request that is being sent, from before that: its answer may come at once. Without `taken`
    // it is forgotten with the object.
    class Sending {
    public:
        // `watch` is called for a taker that has no request yet.
        Sending(std::shared_ptr<Takers> takers, AwaitedRequest request,
                std::function<void(platform::TargetWatch&)> watch);
        ~Sending();
        Sending(const Sending&) = delete;
        Sending& operator=(const Sending&) = delete;

        // As the stream's send; what was delivered is its taker's.
        platform::SendResult send(const InterAppStream& stream, const Convey::Message::Text& text,
                                  int32_t timeoutMilliseconds);

    private:
        const std::shared_ptr<Takers> takers_;
        const std::function<void(platform::TargetWatch&)> watch_;
        const SoString target_;
        const uint32_t number_;
        uint64_t place_ = 0;
    };

    // True when no request and no taker is kept.
    bool isEmpty() const;
    // A message has come in: what ends its request is noted.
    void noteReceived(const Convey::Message& message);
    // Asks whether takers have ended, a few system calls for each. True when there are some whose
    // requests `takeLost` will give.
    bool haveEnded();
    // Notes which of the takers that had ended when that was asked have sent nothing that is still
    // to be read here, whatever others send. To be called in the turn of who receives, when all
    // that was read has been noted.
    void noteRead(const InterAppStream& stream, const Arrivals& arrivals);
    // The unanswered requests of those takers, in the order in which they were sent.
    std::vector<AwaitedRequest> takeLost();
    // Watches the takers once more: one may have a new connection.
    void watchAgain(const std::function<void(platform::TargetWatch&)>& watch);
    // Forgets takers without requests, and requests whose time is over.
    void forgetOld();
    // Forgets all, and keeps nothing from now on.
    void close();

private:
    struct Taker {
        std::shared_ptr<platform::TargetWatch> watch;
        std::list<uint32_t> numbers;
        bool ended = false;
        std::optional<platform::PortPlace> end; // behind what it had sent then
        bool isRead = false;                    // so far
    };
    struct Entry {
        AwaitedRequest request;
        Taker* taker = nullptr; // null while it is being sent
        std::list<uint32_t>::iterator inTaker;
    };
    using Entries = std::unordered_map<uint32_t, Entry>;

    uint64_t begin(AwaitedRequest&& request);
    bool taken(uint32_t number, uint64_t place, const std::shared_ptr<platform::TargetWatch>& by);
    void abandon(uint32_t number, uint64_t place);
    void eraseLocked(Entries::iterator entry) SO_REQUIRES(this);
    std::vector<std::shared_ptr<platform::TargetWatch>> watchesLocked() const SO_REQUIRES(this);

    Entries entries_ SO_GUARDED_BY(this);
    std::unordered_map<const platform::TargetWatch*, Taker> takers_ SO_GUARDED_BY(this);
    uint64_t lastPlace_ SO_GUARDED_BY(this) = 0;
    bool closed_ SO_GUARDED_BY(this) = false;
    // Some have ended and are not told of yet: looked at whenever something was received.
    std::atomic<bool> anyEnded_{false};
    // There are entries: asked for with each message, of which most answer nothing. Set under the
    // lock, before the request is sent.
    std::atomic<bool> anyRequests_{false};
};

} // namespace ConveyData
} // namespace ScObjects
