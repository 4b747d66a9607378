#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "scriptobjects/convey/SoCVArrivals.h"
#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVOccupations.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVOwedReplies.h"
#include "scriptobjects/convey/SoCVTakers.h"
#include "scriptobjects/convey/SoCVTraffic.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace platform {
class PortWait;
} // namespace platform

namespace ScObjects {

class InterAppStream;

namespace ConveyData {

// All of an instance but its face. The instance holds it, and so does whoever is in the middle of
// something when the instance is deleted.
//
// Locking: its own lock guards name and stream, and is never held while a handler, a stream or
// another instance is called; the queues and the conversations have their own.
class PrivateData : public SoLockable,
                    public MessageQueue::Listener,
                    public OwedReply::Giver,
                    public std::enable_shared_from_this<PrivateData> {
public:
    // Opens the stream for `streamName`, or for one of its instances.
    PrivateData(ConveyContext* context, const SoString& streamName);
    ~PrivateData() override;

    bool watchesTraffic() const override;
    void traffic(const Convey::Message& message, const SoString& root, const char* event) override;
    void expired(const Convey::Message& message) override;

    void giveOwed(const OwedReply& reply, const Convey::Message& request, int32_t code,
                  const SoString& text) noexcept override;

    // Answers the replies that are owed, gives the name back and forgets messages and handlers. The
    // rest of the life of the object is that of the calls that are still in it.
    void close();
    bool isClosed() const { return closed_.load(); }

    bool send(Convey::Message& message, bool mayLaunch, uint32_t waitSeconds,
              const SoString* launchParameters);
    // As `send` for a target that takes the message at once. False when it does not, or when that
    // cannot be said without waiting: nothing was sent and nobody was told then.
    bool sendAtOnce(Convey::Message& message);
    // What nobody waits for: the background's way out. Completes the message like `send`.
    Delivery post(std::unique_ptr<Convey::Message> message);
    bool sendResult(const Convey::Message& request, const SoString& result);
    bool processIncoming(uint32_t serialNumber, bool process);
    // Draws what has arrived into the queue, within bounds.
    struct Received {
        bool more = false; // there is more than there was time for
        bool any = false;
    };
    Received receiveArrived();
    // Has what arrives announced to the host's main loop, which then draws it, or again to `wait`.
    // False while it is for the background to draw. The background thread only.
    bool leaveArrivals(platform::PortWait& wait, bool on);
    // Takes out what has expired while nobody looked.
    void removeExpired();
    // Tells askers that the process that took their request has ended, once all that it had sent
    // before has been received. True when there may be more to receive.
    bool tellOfEndedTakers();
    // Every round: takers may have new connections, and some are of no use any more.
    void tidyTakers();
    // Queues a complete message until its target can be reached; false when it has no target.
    bool queueOutgoing(std::unique_ptr<Convey::Message> message);
    // A pass over what waits to be sent, which waits for no target; has the courier woken when
    // there is work for it.
    Outbox::Left processOutgoing();
    // The courier's pass.
    Outbox::Left carryOutgoing();

    // Tells the background thread that something is to be done here at that time; see
    // `ConveyThread::noteDue`.
    void noteDue(int64_t steadyMilliseconds) const;
    // When the background thread has to look at this instance although nothing was announced to it.
    // What changes that, but for what arrives, tells the thread.
    enum class Looks { none, regular, each };
    Looks neededLooks() const;
    // The steady millisecond by which the background thread is to look again when nothing is
    // announced to it, INT64_MAX for never; 0 while only looking shows what is to be done.
    int64_t nextLook();

    bool incomingPending() const;
    void notePump() { occupations_.notePump(); }
    // Raises the signal of the host's main loop when a message is there to be handled.
    void remindHost() const;
    bool outgoingPending() const { return !isClosed() && !outbox_.messages().isEmpty(); }

    Convey::MsgHandler* findHandler(const SoString& type, uint32_t serialNumber) const;
    std::shared_ptr<HandlerSlot> findSlot(const SoString& type, uint32_t serialNumber) const;
    // Has the message's number watched: "Timeout" is told when no answer came in so many seconds.
    void watchTime(const Convey::Message& message, uint32_t seconds);
    void unwatchTime(uint32_t serialNumber);
    Convey::MsgHandler* changeHandler(Convey::MsgHandler* handler);
    Convey::MsgHandler* removeHandler(const SoString& type, uint32_t serialNumber);
    bool deleteHandler(const Convey::MsgHandler* handler);
    bool deleteHandlers(uint32_t serialNumber);

    SoString appName() const;
    void setAppName(const SoString& appName);
    ConveyContext* context() const { return context_.load(); }
    void setContext(ConveyContext* context) { context_.store(context); }
    // By which its context and that one's thread know it; 0 before it had one.
    uint64_t number() const { return number_.load(); }
    void setNumber(uint64_t number) { number_.store(number); }
    MessageQueue& incoming() { return incoming_; }
    MessageQueue& outgoing() { return outbox_.messages(); }
    void setDiagnosticsRoots();
    void watch(platform::PortWait& wait) const;
    void appendDiagnostics(SoString& out, const SoString& path) const;

    // Whether it has a port.
    bool isReachable() const { return stream() != nullptr; }

private:
    std::shared_ptr<InterAppStream> stream() const;
    void sendError(const Convey::Message& request, const char* text, int32_t code,
                   uint32_t waitSeconds, bool isAbsent = false);
    bool sendResponse(const Convey::Message& request, const char* type,
                      std::unique_ptr<Convey::Message> response);
    std::unique_ptr<Convey::Message> replyTo(const Convey::Message& request, const char* type,
                                             std::unique_ptr<Convey::Message> response) const;
    std::unique_ptr<Convey::Message> resultOf(const Convey::Message& request,
                                              const SoString& result) const;
    void postWithEnd(const Convey::Message& request, Convey::Message& result, bool& sent);
    void requestProcessed(Convey::Message& message);
    const char* prepare(Convey::Message& message, Convey::Message::Text& text,
                        std::shared_ptr<PrivateData>& receiver);
    platform::SendResult handOver(const Convey::Message& message, const InterAppStream& stream,
                                  const Convey::Message::Text& text, int32_t timeoutMilliseconds,
                                  uint32_t waitSeconds);
    platform::SendResult handOverInTime(const Convey::Message& message,
                                        const InterAppStream& stream,
                                        const Convey::Message::Text& text, bool mayLaunch,
                                        uint32_t waitSeconds);
    std::shared_ptr<PrivateData> receiverOf(const Convey::Message& message) const;
    bool deliverTo(const std::shared_ptr<PrivateData>& receiver, const Convey::Message& message);
    bool handTo(const std::shared_ptr<PrivateData>& receiver,
                std::unique_ptr<Convey::Message>& message);
    std::unique_ptr<Takers::Sending> beginSending(std::optional<AwaitedRequest> request);
    void watchTaker(platform::TargetWatch& taker) const;
    Delivery deliver(const Convey::Message& message, const Convey::Message::Text& text,
                     bool mayLaunch, uint32_t waitSeconds, const SoString* launchParameters);
    Delivery queueForLaunch(const Convey::Message& message, uint32_t waitSeconds,
                            const SoString* launchParameters);
    void complete(Convey::Message& message) const;
    SoString nameOfAsker(const SoString& name) const;
    bool isHeldUp(const Convey::Message& message, std::set<std::string>& heldUp) const;
    void letHeldUpGoOn(const Outbox::Left& left) const;
    void watchTime(const Convey::Message& message);
    bool waitForTarget(const Convey::Message& message);
    bool waitForResponse(const Conversations::Wait& wait, const Convey::Message& message,
                         uint32_t seconds);
    bool receive(int messages, bool needed);
    // Who is told of what comes in: everybody who waits for it, or not the host's main loop, which
    // handles it next.
    enum class Told { all, notTheLoop };
    Received receiveInTurn(int messages, bool needed, Told told);
    void receiveMessage(std::unique_ptr<Convey::Message> message, Told told);
    MessageQueue::Taken takeWanted(uint32_t serialNumber, Conversations::Turn& turn);
    void accept(std::unique_ptr<Convey::Message> message, Told told = Told::all);
    bool isForThisLife(const Convey::Message& message);
    bool isLastOf(const MessageQueue::Taken& taken) const;
    bool handle(MessageQueue::Taken& taken, Conversations::Turn& turn);
    // What is left to be sent when a request was handled: its result, as far as it is wanted.
    using Result = std::unique_ptr<Convey::Message>;
    Result dispatch(MessageQueue::Taken& taken, Conversations::Turn& turn, bool& called);
    [[nodiscard]] Result answer(const Convey::Message& request, int32_t code, const SoString& text);
    void answerLost(const Convey::Message& request);
    void finishSurely(const Convey::Message& message, const Reply& reply, Result result);
    void finish(const Convey::Message& message, const Reply& reply, bool endIsSent);
    void noteActivity() const;
    SoString infoRoot(const char* leaf) const;

    std::atomic<ConveyContext*> context_;
    std::atomic<uint64_t> number_{0};
    std::atomic<bool> closed_{false};
    std::shared_ptr<InterAppStream> stream_ SO_GUARDED_BY(this);
    MessageQueue incoming_;
    Outbox outbox_;
    Conversations conversations_;
    Occupations occupations_;
    Traffic traffic_;
    OwedReplies owed_;
    const std::shared_ptr<Takers> takers_ = std::make_shared<Takers>();
    std::atomic<uint32_t> answersToPredecessor_{0};
    std::atomic<uint32_t> rejected_{0};    // texts whose digest does not fit
    std::atomic<uint32_t> answersLost_{0}; // there was no memory to make them
    SoString appName_ SO_GUARDED_BY(this);
    // From the stream to the queue one thread at a time, or messages would overtake each other.
    std::mutex receivingTurn_;
    Arrivals arrivals_;                // of who has that turn
    std::atomic<bool> areLeft_{false}; // arrivals, to the host's main loop
};

} // namespace ConveyData
} // namespace ScObjects
