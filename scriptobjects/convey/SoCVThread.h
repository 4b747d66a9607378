#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVThreadRounds.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoHeap.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace platform {
class PortWait;
class TargetWatch;
} // namespace platform

namespace ScObjects {

namespace ConveyData {
enum class Delivery;
class Arrivals;
class DueInstances;
class Outbox;
struct TakenInstances;
} // namespace ConveyData

class ConveyContext;
class ConveyCourier;
class CVDiagnosticsRows;
class InterAppStream;

// The background thread of this process: it answers pings from a table of keys and lets messages
// come in and go out while the host is busy. It runs at once when something arrives, when it is
// stopped, and when a port appears that messages may wait for; and every 100 milliseconds as long
// as there is something that only looking shows. Without that it sleeps until the next moment at
// which something is due.
//
// Owned by its context, which starts and stops it. Owns its stream, the table and the handlers in
// it. Handlers run on this thread, with no lock of the layer held. Threads: any.
class SO_EXPORT ConveyThread : public Thread {
public:
    // Keys and values of the table, and the answers to pings.
    static constexpr const char* CV_STATUS = "STATUS";
    static constexpr const char* CV_BUSY = "BUSY";
    static constexpr const char* CV_MAIN = "MAIN";
    static constexpr const char* CV_ECHO_REQUEST = "ECHO_REQUEST";
    static constexpr const char* CV_ECHO_RESPONSE = "ECHO_RESPONSE";
    static constexpr const char* CV_IDLE = "IDLE";
    static constexpr const char* CV_PUMPING = "PUMPING";
    static constexpr const char* CV_DIAGNOSTICS = "DIAGNOSTICS";
    static constexpr const char* CV_SEE_BODY = "SEE BODY";
    static constexpr const char* CV_INFO = "INFO";
    static constexpr const char* CV_LAUNCHED = "LAUNCHED";
    static constexpr const char* CV_LAUNCHPARAMS = "LAUNCHPARAMS";
    static constexpr const char* CV_SETUPTIME = "SETUPTIME";
    static constexpr const char* CV_PING =
        ConveyData::CV_TYPE_PING; // the type of pings and their answers
    static constexpr const char* CV_NOINTERAPPSTREAM = "NOINTERAPPSTREAM";
    static constexpr const char* CV_INVALIDSPEC = "INVALIDSPEC";
    static constexpr const char* CV_NOTHREAD = "NOTHREAD"; // the system gives the layer none
    static constexpr const char* CV_UNDEFINED = "UNDEFINED";
    static constexpr const char* CV_MSGTOSTRINGERROR = "MSGTOSTRINGERROR";
    static constexpr const char* CV_ISNOTINSTALLED = "ISNOTINSTALLED";
    static constexpr const char* CV_ISNOTRUNNING = "ISNOTRUNNING";
    static constexpr const char* CV_NOERROR = "NOERROR";

    // Keys that other processes may set: as many as a table holds.
    static constexpr size_t kMaximumKeys = limits::of("thread.keys");

    // An entry of the table.
    struct PingData {
        SoString key;
        SoString value;
        std::shared_ptr<Convey::MsgHandler> handler;
        uint32_t expiry = 0; // in steady seconds, 0 for never
    };

    ConveyThread(ConveyContext* context, const SoString& appSpecifier);
    ~ConveyThread() override;

    // The current context's thread, or null.
    static ConveyThread* getMainThread();
    // The name of the background thread of an application: its specifier with the suffix "thread";
    // empty for no specifier.
    static SoString createThreadSpecifier(const SoString& specifier);

    // The name at which it is reached.
    SoString getSpecifier() const;

    // Sets a value; false for an empty key, for one or a value that is too long, and when the table
    // is full (`convey limits`: thread.key, thread.keys, thread.table).
    bool setKeyValuePair(const SoString& key, const SoString& value);
    SoString getValueForKey(const SoString& key) const;
    // What the host does now (a text that stays), the value of CV_STATUS from then on: as each pump
    // says it twice, it is kept beside the table until that changes.
    void noteStatus(const char* status) { status_.store(status); }
    // The place of the key in the table, -1 for none. Good until the table changes.
    int32_t locateKey(const SoString& key) const;
    // Sets the handler (owned from now on, null for none) that answers the key.
    bool setHandler(const SoString& key, Convey::MsgHandler* handler);
    // The key's handler, or null; good until it is replaced.
    Convey::MsgHandler* findHandler(const SoString& key) const;
    // Lets the key's handler answer `message`; false without one. Calls it with no lock held.
    bool callHandler(const SoString& key, Convey::Message& message, SoString& answer) const;
    // Lets the entry expire so many seconds from now; false without one.
    bool setTimeout(const SoString& key, int32_t seconds);
    void removeExpiredPingData();

    // True when the status is "IDLE" and the thread has run within ten of its usual intervals.
    bool isIdle() const;

    // Asks another background thread; see Convey::Thread::ping.
    SoString ping(const SoString& target, const SoString& key, int32_t timeoutSeconds,
                  const SoString* parameters) const;

    // Answers a ping with a value; the request's body goes back with it, and leaves the request.
    // Nobody waits: what the asker does not take at once is kept for as long as it waits itself.
    // False when it is gone or nothing more is kept.
    bool sendResponse(Convey::Message& request, const SoString& value);
    // The same for any message, until its time-out.
    ConveyData::Delivery post(std::unique_ptr<Convey::Message> message);

    // Makes the observers that pings have named observe the main instance, when there is one.
    void installForwarding();

    // Lets messages to an instance that was added end the waits of this thread.
    void watchInstance(const Convey* instance);

    // Rounds look at instances with which there is something to do. So who changes one tells its
    // number with these three, behind the change; 0 is for what no instance has to do with.

    // Has it make a round at once when the process that took a request of the instance ends.
    void watch(platform::TargetWatch& taker, uint64_t instance);

    // Has it make a round at once: something was queued that a port may be opened for any moment.
    void wake(uint64_t instance = 0);
    // Something is to be done at that steady millisecond (0: as soon as a round would have been
    // made) that was not there when it went to sleep. Wakes it only if it sleeps for longer.
    void noteDue(int64_t steadyMilliseconds, uint64_t instance = 0);

    // The host's pump came by, and whether it had something to do. A host with a main loop that
    // comes at once is left to draw what arrives.
    void notePump(bool didSomething);
    // Somebody waits in the layer itself, or a pump could do nothing with what is there: what
    // arrives is for this thread to draw for a while.
    void drawArrivals();

    // The moment this thread was made, in milliseconds since 1970.
    double startTime() const { return startTime_; }

    // There is something for the courier, of that instance (0: of the thread itself). It is started
    // when there is none.
    void wakeCourier(uint64_t instance = 0);

    // Appends the thread's rows of the diagnostics text.
    void appendDiagnostics(SoString& out, const SoString& path) const;

    // Asks the thread to end; false on the thread itself, which cannot wait for its own end. Waits
    // for the courier, and so at most for the text that it is about to hand over.
    bool stop() override;
    bool isOwnThread() const { return runner_.load() == std::this_thread::get_id(); }

protected:
    void run() override;

private:
    std::shared_ptr<Convey::MsgHandler> handlerFor(const SoString& key) const;
    const PingData* findLocked(const SoString& key) const SO_REQUIRES(this);
    SoString valueLocked(const SoString& key, const PingData* data) const SO_REQUIRES(this);
    void settleStatusLocked() SO_REQUIRES(this);
    PingData* findToChangeLocked(const SoString& key) SO_REQUIRES(this);
    PingData* findOrAddLocked(const SoString& key) SO_REQUIRES(this);
    bool setLocked(const SoString& key, const SoString& value) SO_REQUIRES(this);
    static void appendEntry(CVDiagnosticsRows& rows, const PingData& data, const SoString& value);
    bool openStream();
    std::shared_ptr<InterAppStream> stream() const;
    // One round: answers pings, receives and sends for the instances.
    struct Left; // what a round has left to do
    Left runRound(bool regular);
    Left tryRound(bool regular);
    bool answerPings();
    void answerPing(Convey::Message& message);
    Left serveInstances(bool regular);
    Left serve(ConveyData::PrivateData& instance, uint64_t number, bool regular);
    std::shared_ptr<ConveyData::PrivateData> pinNext(const ConveyData::TakenInstances& due,
                                                     uint64_t& number) const;
    int64_t carry();
    bool pause(int64_t milliseconds);
    bool isHostAttentive() const;
    void leaveArrivals(bool on);
    int64_t nextLook() const;
    enum class Rested { no, woken, due };
    Rested rest();

    static constexpr int64_t kAwake = INT64_MIN;
    static constexpr int64_t kNever = INT64_MIN / 2;
    // A host that has handled nothing for so long may be in a handler: what arrives is drawn for it
    // then, so that its senders see it received and are not held up. Several times what a message
    // takes.
    static constexpr int64_t kAttentionMilliseconds = 5;

    std::atomic<ConveyContext*> context_;
    std::atomic<bool> stop_{false};
    std::atomic<std::thread::id> runner_{std::thread::id()};
    const std::shared_ptr<platform::PortWait> wait_; // null: the thread only polls
    const double startTime_;
    std::shared_ptr<InterAppStream> stream_ SO_GUARDED_BY(this);
    SoString specifier_ SO_GUARDED_BY(this);
    std::vector<PingData> table_ SO_GUARDED_BY(this);
    std::atomic<const char*> status_{nullptr}; // null: it is in the table
    ConveyData::ThreadRounds rounds_ SO_GUARDED_BY(this);
    std::atomic<int64_t> restsUntil_{kAwake};                    // in steady milliseconds
    std::atomic<int64_t> pumpedAt_{kNever};                      // the same: something was handled
    std::atomic<int64_t> drawsUntil_{kNever};                    // the same
    std::atomic<int> idlePumps_{0};                              // in a row
    std::atomic<bool> arrivalsAreLeft_{false};                   // changed by the thread itself
    const std::unique_ptr<ConveyData::Outbox> outbox_;           // answers, and what is forwarded
    std::unique_ptr<ConveyCourier> courier_ SO_GUARDED_BY(this); // null until it is needed
    std::atomic<uint32_t> failedRounds_{0};                      // for want of memory
    const std::unique_ptr<ConveyData::Arrivals> pings_;          // by the thread itself only
    const std::unique_ptr<ConveyData::DueInstances> due_;        // in the next round
    std::set<uint64_t> regularlyDue_; // in the next regular one; by the thread itself only
    const std::unique_ptr<ConveyData::DueInstances> left_; // whose arrivals are left to the host
    const std::unique_ptr<ConveyData::DueInstances> dueToCarry_;
};

} // namespace ScObjects
