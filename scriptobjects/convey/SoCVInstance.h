#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace platform {
class PortWait;
} // namespace platform

namespace ScObjects {

class InterAppStream;

namespace ConveyData {

// A registered handler. It is deleted when it is no longer registered and nobody is in it any more,
// so that a handler may remove itself, and one thread may remove what another is about to call.
class HandlerSlot {
public:
    explicit HandlerSlot(Convey::MsgHandler* handler);
    ~HandlerSlot();
    HandlerSlot(const HandlerSlot&) = delete;
    HandlerSlot& operator=(const HandlerSlot&) = delete;

    Convey::MsgHandler* handler() const { return handler_.load(); }

    // Calls the handler; 0 when it has been released.
    int32_t call(int event, Convey::Message& message, SoString* result);
    // Gives the handler away once no other thread is in it.
    Convey::MsgHandler* release();

    // Whether any handler of this process is registered to forward messages: asked for each
    // message, and as a rule there is none.
    static bool anyForwards();

private:
    std::atomic<Convey::MsgHandler*> handler_;
    const bool forwards_;
    std::mutex mutex_;
    std::condition_variable left_;
    std::vector<std::thread::id> inside_; // the threads in the handler, nested calls twice
};

// All of an instance but its face. The instance holds it, and so does whoever is in the middle of
// something when the instance is deleted.
//
// Locking: its own lock guards name, stream and handlers, and is never held while a handler, a
// stream or another instance is called; the queues have their own.
class PrivateData : public SoLockable, public std::enable_shared_from_this<PrivateData> {
public:
    // Opens the stream for `streamName`, or for one of its instances.
    PrivateData(ConveyContext* context, const SoString& streamName);
    ~PrivateData() override;

    // Gives the name back and forgets messages and handlers. The rest of the life of the object is
    // that of the calls that are still in it.
    void close();
    bool isClosed() const { return closed_.load(); }

    bool send(Convey::Message& message, bool mayLaunch, uint32_t waitSeconds,
              const SoString* launchParameters);
    // What nobody waits for: the background's way out. Completes the message like `send`.
    Delivery post(std::unique_ptr<Convey::Message> message);
    bool sendResult(const Convey::Message& request, const SoString& result);
    bool processIncoming(uint32_t serialNumber, bool process);
    // Draws what has arrived into the queue, within bounds; true when there may be more.
    bool receiveArrived();
    // Queues a complete message until its target can be reached; false when it has no target.
    bool queueOutgoing(std::unique_ptr<Convey::Message> message);
    // A pass over what waits to be sent, which waits for no target; has the courier woken when
    // there is work for it.
    Outbox::Left processOutgoing();
    // The courier's pass.
    Outbox::Left carryOutgoing();

    bool incomingPending() const;
    bool outgoingPending() const { return !outbox_.messages().isEmpty(); }

    Convey::MsgHandler* findHandler(const SoString& type, uint32_t serialNumber) const;
    std::shared_ptr<HandlerSlot> findSlot(const SoString& type, uint32_t serialNumber) const;
    Convey::MsgHandler* changeHandler(Convey::MsgHandler* handler);
    Convey::MsgHandler* removeHandler(const SoString& type, uint32_t serialNumber);
    bool deleteHandler(const Convey::MsgHandler* handler);
    bool deleteHandlers(uint32_t serialNumber);

    SoString appName() const;
    void setAppName(const SoString& appName);
    ConveyContext* context() const { return context_.load(); }
    void setContext(ConveyContext* context) { context_.store(context); }
    MessageQueue& incoming() { return incoming_; }
    MessageQueue& outgoing() { return outbox_.messages(); }
    void setDiagnosticsRoots();
    void watch(platform::PortWait& wait) const;
    void appendDiagnostics(SoString& out, const SoString& path) const;

private:
    using Slots = std::vector<std::shared_ptr<HandlerSlot>>;

    std::shared_ptr<InterAppStream> stream() const;
    void registerInstance() const;
    Slots::const_iterator findSlotLocked(const SoString& type, uint32_t serialNumber) const
        SO_REQUIRES(this);
    Slots::const_iterator findExactlyLocked(const SoString& type, uint32_t serialNumber) const
        SO_REQUIRES(this);

    void sendError(const Convey::Message& request, const char* text, int32_t code,
                   uint32_t waitSeconds);
    bool sendResponse(const Convey::Message& request, const char* type,
                      std::unique_ptr<Convey::Message> response);
    void requestProcessed(Convey::Message& message) const;
    bool deliverLocally(const Convey::Message& message);
    Delivery deliver(const Convey::Message& message, const SoString& text, bool mayLaunch,
                     uint32_t waitSeconds, const SoString* launchParameters);
    Delivery queueForLaunch(const Convey::Message& message, uint32_t waitSeconds,
                            const SoString* launchParameters);
    void complete(Convey::Message& message) const;
    SoString nameOfAsker(const SoString& name) const;
    void watchTime(const Convey::Message& message);
    bool waitForTarget(const Convey::Message& message);
    bool waitForResponse(const Convey::Message& message, uint32_t seconds);
    void receiveTexts(SoString&& text);
    void accept(std::unique_ptr<Convey::Message> message);
    void dispatch(const Convey::Message& message);
    void finish(const Convey::Message& message);
    void noteActivity() const;
    SoString infoRoot(const char* leaf) const;

    std::atomic<ConveyContext*> context_;
    std::atomic<bool> closed_{false};
    std::shared_ptr<InterAppStream> stream_ SO_GUARDED_BY(this);
    bool registered_ = false; // by the constructor
    MessageQueue incoming_;
    Outbox outbox_{Outbox::Kind::messages};
    Slots handlers_ SO_GUARDED_BY(this); // oldest first
    SoString appName_ SO_GUARDED_BY(this);
    // From the stream to the queue one thread at a time, or messages would overtake each other.
    std::mutex receivingTurn_;
};

} // namespace ConveyData
} // namespace ScObjects
