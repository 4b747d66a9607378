#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects::ConveyData {

// Calls a host's handler. What it throws goes no further: the code is then CV_CODE_HANDLER_FAILED,
// the result a text that says so, and the process logs one line. Any thread, with no lock held.
int32_t callHandler(Convey::MsgHandler& handler, int event, Convey::Message& message,
                    SoString* result);

// How many handlers the calling thread is in, each called from within the one before.
int32_t handlerDepth();

// What tells this life of the process from those before and after it under the same name: serial
// numbers begin with 1 in each. Never 0.
uint64_t ownLife();

// What a message answers, as its type and its reply numbers say.
struct Reply {
    enum Kind : uint8_t { kNone, kReceived, kResult, kError, kProcessed, kTimeout };
    Kind kind = kNone;
    std::string_view word; // the kind as the type says it
    std::string_view
        userType; // what else the type says: that of the request, when it is the user's

    // The type with the word and the user type once each.
    SoString type() const;
};
// Good as long as the message's type is not changed.
Reply replyOf(const Convey::Message& message);
// The same for what may answer a request of this user type (empty: none): what old peers answer has
// no number of its own and is known by the type that was asked with.
Reply replyOf(const Convey::Message& message, std::string_view requestType);

// A registered handler. It is deleted when it is no longer registered and nobody is in it any more,
// so that a handler may remove itself, and one thread may remove what another is about to call.
class HandlerSlot {
public:
    explicit HandlerSlot(Convey::MsgHandler* handler);
    ~HandlerSlot();
    HandlerSlot(const HandlerSlot&) = delete;
    HandlerSlot& operator=(const HandlerSlot&) = delete;

    Convey::MsgHandler* handler() const { return handler_.load(); }
    // What the handler said of itself when it was registered.
    const std::string& type() const { return type_; }
    uint32_t number() const { return number_; }
    bool forwards() const { return forwards_; }

    // Calls the handler; 0 when it has been released.
    int32_t call(int event, Convey::Message& message, SoString* result);
    // Gives the handler away once no other thread is in it.
    Convey::MsgHandler* release();

    // Whether any handler of this process is registered to forward messages: asked for each
    // message, and as a rule there is none.
    static bool anyForwards();

private:
    class Visit;

    std::atomic<Convey::MsgHandler*> handler_;
    const std::string type_;
    const uint32_t number_;
    const bool forwards_;
    std::atomic<int32_t> inside_{0}; // calls, nested ones of a thread as well
    std::mutex mutex_;               // of those who wait until others have left
    std::condition_variable left_;
};

using HandlerSlots = std::vector<std::shared_ptr<HandlerSlot>>;

// Everything about one number that somebody waits for: the handlers for what comes, the time at
// which it is told that nothing came, who is being told something now, and how it ended. Made and
// ended by its table, whose lock guards it; who is in it, or waits for it, keeps it alive.
class Conversation {
public:
    explicit Conversation(uint32_t number) : number_(number) {}
    uint32_t number() const { return number_; }

private:
    friend class Conversations;

    enum class End : uint8_t { none, answered, timedOut, abandoned };

    // The watcher as the diagnostics and observers have always been shown it.
    std::unique_ptr<Convey::Message> watcherMessage() const;
    bool isNeeded() const {
        return !slots_.empty() || watched_ || insideDepth_ != 0 || waiting_ != 0;
    }

    const uint32_t number_;
    HandlerSlots slots_; // oldest first, one for a type
    End end_ = End::none;
    bool hadHandler_ = false;
    bool handlerRan_ = false;
    bool watched_ = false;
    std::thread::id inside_;
    int32_t insideDepth_ = 0;
    int32_t waiting_ = 0;       // waits, of any thread
    int32_t waitingInside_ = 0; // of them, those from within a handler of this conversation
    std::string requestType_;   // the user type that was asked with
    // When `watched_`: who is told, since when and for how long, and the place among the deadlines.
    std::string watcher_;
    uint32_t watchedSince_ = 0;
    uint32_t watchSeconds_ = 0;
    uint64_t watchOrder_ = 0;
    int64_t deadline_ = 0;
    std::list<Conversation*>::iterator deadlinePlace_;
};

// The conversations of an instance, and its handlers for messages of any number. Finding one, and
// ending one, takes the same time however many there are.
//
// Threads: any. No handler is called and none deleted under the lock: what is taken out is the
// caller's to let go of.
class Conversations : public SoLockable {
public:
    Conversations();
    ~Conversations() override;

    // Registers a handler, owned from now on, even when memory runs out; returns the one that it
    // replaces.
    std::shared_ptr<HandlerSlot> add(Convey::MsgHandler* handler);
    // One of just this type and number, for an empty type one of any type with the number, else the
    // one of the type for any number.
    std::shared_ptr<HandlerSlot> find(std::string_view type, uint32_t number) const;
    // The same, taken out.
    std::shared_ptr<HandlerSlot> take(std::string_view type, uint32_t number);
    // By the handler, which need not exist any more, and all of a number.
    std::shared_ptr<HandlerSlot> take(const Convey::MsgHandler* handler);
    HandlerSlots takeAll(uint32_t number);
    // The one for a message. For a reply those of its number come first, then those for any: each
    // time by its kind, by its kind with the user type, and for any type. Without one, and for all
    // other messages behind the one of the type: the default handler.
    std::shared_ptr<HandlerSlot> handlerFor(const Convey::Message& message,
                                            const Reply& reply) const;
    size_t handlerCount() const;
    // What the handlers for messages of any number are for, oldest first; empty: for any type.
    // Without those that only forward to an observer.
    std::vector<std::string> handledTypes() const;

    // The request that those who wait have sent: its type is what tells some of the replies, unless
    // it is one of the layer's. True when a handler is there for what answers it.
    bool noteRequest(const Convey::Message& request);
    // Has `watcher` told after so many seconds (below 0: never) that no answer came.
    void watch(const Convey::Message& request, const SoString& watcher, uint32_t seconds);
    void unwatch(uint32_t number);
    // The message that the watcher of a number stands for, or null.
    std::unique_ptr<Convey::Message> watcherOf(uint32_t number) const;
    // The watchers whose time has come, the newest first, as the messages that they stand for.
    std::vector<std::unique_ptr<Convey::Message>> takeExpired();
    // The steady millisecond at which the first one's time comes, INT64_MAX for none.
    int64_t firstDeadline() const;
    // All of them, the oldest first.
    std::vector<std::unique_ptr<Convey::Message>> watchers() const;
    bool isWatching() const;

    // A message's turn in the conversation that it belongs to: as long as it lasts no other thread
    // has one there. Empty for a message that belongs to none.
    class Turn {
    public:
        Turn() = default;
        ~Turn() { (void)leave(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        // Ends it; false when there is none.
        bool leave();

        Reply reply;

    private:
        friend class Conversations;
        Conversations* table_ = nullptr;
        std::shared_ptr<Conversation> conversation_;
    };
    // Takes a turn for the message: false when another has it, or, with `awaitedOnly`, when nobody
    // is in a wait for it.
    bool enter(const Convey::Message& message, bool awaitedOnly, Turn& turn);
    // A handler has been called with the turn's message: one of just its number has had its one
    // call, and is taken out.
    std::shared_ptr<HandlerSlot> handled(const Turn& turn, const Convey::Message& message,
                                         const std::shared_ptr<HandlerSlot>& slot);
    // The one end of a conversation: "Processed", "Error" or "Timeout" has come. Returns the
    // handlers that are left.
    HandlerSlots end(uint32_t number, Reply::Kind how);
    // The end of all; deletes the handlers.
    void close();

    // The numbers that somebody waits for here, or that the calling thread waits for anywhere; each
    // once.
    std::vector<uint32_t> awaitedNumbers() const;

    // Somebody's wait for the answers to a request: made before the request is sent, so that the
    // answer is not missed.
    class Wait {
    public:
        Wait(Conversations& table, const Convey::Message& request);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

        enum class State : uint8_t { open, answered, failed };
        // Open as long as handlers of the number are left, or one of them is being called.
        State state() const;
        // Whether the calling thread waits, further out, for answers to the request.
        static bool isAwaitedHere(const Convey::Message& request);

    private:
        Conversations& table_;
        const std::shared_ptr<Conversation> conversation_;
        const std::string asker_;
        bool inside_ = false;
        const Wait* const outer_; // of the same thread
        // Those of the same table, under its lock.
        friend class Conversations;
        Wait* previous_ = nullptr;
        Wait* next_ = nullptr;
    };

private:
    using Table = std::unordered_map<uint32_t, std::shared_ptr<Conversation>>;

    Conversation* findLocked(uint32_t number) const SO_REQUIRES(this);
    std::shared_ptr<Conversation> openLocked(uint32_t number) SO_REQUIRES(this);
    const std::shared_ptr<HandlerSlot>* findSlotLocked(std::string_view type, uint32_t number) const
        SO_REQUIRES(this);
    // As `find`.
    const std::shared_ptr<HandlerSlot>* findForLocked(std::string_view type, uint32_t number) const
        SO_REQUIRES(this);
    std::shared_ptr<HandlerSlot> takeLocked(const std::shared_ptr<HandlerSlot>& slot)
        SO_REQUIRES(this);
    void unwatchLocked(Conversation& conversation) SO_REQUIRES(this);
    void noteFirstSecondLocked() SO_REQUIRES(this);
    HandlerSlots endLocked(Conversation& conversation, Conversation::End end) SO_REQUIRES(this);
    void closeIfDoneLocked(Conversation& conversation) SO_REQUIRES(this);
    void leave(Conversation& conversation);

    Table table_ SO_GUARDED_BY(this);
    HandlerSlots forAny_ SO_GUARDED_BY(this); // oldest first, one for a type
    // The number of each handler, so that one is found by its address.
    std::unordered_map<const Convey::MsgHandler*, uint32_t> numbers_ SO_GUARDED_BY(this);
    std::map<int64_t, std::list<Conversation*>> deadlines_ SO_GUARDED_BY(this); // by steady second
    // The first of them, INT64_MAX for none. Changes under the lock; read without, since it is
    // asked for with each message.
    std::atomic<int64_t> firstSecond_{INT64_MAX};
    uint64_t lastWatch_ SO_GUARDED_BY(this) = 0;
    Wait* newestWait_ SO_GUARDED_BY(this) = nullptr;
};

} // namespace ScObjects::ConveyData
