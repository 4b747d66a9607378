#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects::ConveyData {

// Whether the message watches the time of another.
bool isWatcher(const Convey::Message& message);

// Messages that wait, oldest first: those that were received and those that are to be sent. A
// message whose time has run out is retired, and its sender told when it asked for that.
//
// Owns its messages. Threads: any. Its listener is told when the queue's lock has been given up,
// and may use the queue. Appending, taking and looking for the oldest of a target take the same
// time however many there are: who takes some only does not look at the others each time.
class SO_EXPORT MessageQueue : public SoLockable {
public:
    // What a message without a time-out gets, in seconds, so that nothing waits for ever by
    // accident.
    static constexpr uint32_t kDefaultTimeoutSeconds = limits::of("message.timeout");

    // Who is told what happens in a queue. Nothing that it throws goes any further.
    class SO_EXPORT Listener {
    public:
        virtual ~Listener();
        // Whether `traffic` is to be called; asked with the queue's lock held.
        virtual bool watchesTraffic() const = 0;
        // A message was "added", "picked", "requeued" or has "timed out" in the queue of that root.
        virtual void traffic(const Convey::Message& message, const SoString& root,
                             const char* event) = 0;
        // The time of a message has run out whose sender is to be told.
        virtual void expired(const Convey::Message& message) = 0;
    };

    MessageQueue() = default;
    ~MessageQueue() override;

    // To be set before the queue is used; not owned, null for none.
    void setListener(Listener* listener) { listener_ = listener; }

    bool isEmpty() const { return count() == 0; }
    int32_t count() const { return count_.load(); }
    // Bytes of the bodies.
    int64_t bodyBytes() const;
    // How many have gone without having been taken: their time was over, or nobody wants them any
    // more. Watchers do not count, and the number wraps.
    uint32_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

    // Adds a message at the end, the queue's from now on. False, and it stays the caller's, for
    // null, for a message without a sender or a target, and when memory runs out, which is thrown.
    // A missing timestamp becomes now, a time-out of 0 the default, except that a watcher (type
    // "Ignore") without a time-out ends at once. `isAnswer`: it is of use to the process that
    // asked, and to no other of its name.
    [[nodiscard]] bool append(Convey::Message* message, bool isAnswer = false);

    // Takes the oldest message that has not expired, the caller's from now on; null without one.
    // Watchers (type "Ignore") that are related to `serial` (all of them for
    // CV_INVALID_MESSAGE_NUMBER) are passed over and move to the end.
    [[nodiscard]] Convey::Message* getNextMessage(uint32_t serial);
    // What a taker wants; asked with the queue's lock held, of the older messages first.
    struct Choice {
        // Whether the message waits for its sender, and so all for which the answer is yes do that
        // have the same one: these are not asked about again one by one.
        std::function<bool(const Convey::Message&)> isHeldUp;
        std::function<bool(const Convey::Message&)> wants;
        // Messages of other serial numbers are not looked at; null: of all.
        const std::vector<uint32_t>* numbers = nullptr;
    };
    // A message that was taken, the holder's; none when it is null.
    struct Taken {
        std::unique_ptr<Convey::Message> message;
        uint64_t position = 0;
        bool isAnswer = false;
        int64_t deadline = 0; // in steady milliseconds
    };
    // Takes like `getNextMessage` the oldest that is not held up and wanted.
    [[nodiscard]] Taken takeWanted(uint32_t serial, const Choice& choice);
    // Returns it to its place, with the time that it had. When memory runs out, which is thrown, it
    // stays the caller's.
    void putBack(Taken& taken);
    // Like `getNextMessage`, and deletes it; false for CV_INVALID_MESSAGE_NUMBER and without a
    // message.
    bool removeMessage(uint32_t serial);
    // Deletes the watchers that an instance has set to itself for the message with this number.
    void removeTimeoutMessage(uint32_t serial);
    // Retires all messages whose time has run out.
    void removeExpiredMessages();
    // The steady millisecond at which the first of them is over, INT64_MAX for none. Looks at each.
    int64_t firstDeadline();
    // Not after that moment, at once.
    int64_t nextDeadline() const { return firstDeadline_.load(std::memory_order_relaxed); }
    // Since when the first waits of all whose `waitsSince` was asked, INT64_MAX for none; 0 when
    // it was not asked of one. Looks at each.
    int64_t oldest() const;

    // The oldest message for `target` (compared exactly), the queue's; null without one. Good until
    // the queue changes.
    Convey::Message* findMessageForTarget(const SoString& target) const;

    // Shows all messages, oldest first, under the queue's lock.
    void forEach(const std::function<void(const Convey::Message&)>& visit) const;
    // Deletes those with this serial number.
    void dropNumber(uint32_t serial);

    // A pass over the messages of one target, which other threads may change meanwhile:
    // `visitNextFor` shows the first of them behind `position`, under the queue's lock, and moves
    // `position` to it; false at the end. The queue may then drop the message at a position, or
    // keep it with another time; false when it is gone.
    bool visitNextFor(std::string_view target, uint64_t& position,
                      const std::function<void(const Convey::Message&)>& visit) const;
    bool drop(std::string_view target, uint64_t position);
    bool keep(std::string_view target, uint64_t position, uint32_t timestamp,
              uint32_t timeoutSeconds, uint32_t queueStamp);
    // The same, and it is over at the next look.
    bool end(std::string_view target, uint64_t position, uint32_t timestamp,
             uint32_t timeoutSeconds);
    // The steady millisecond since which it waits: that of `queueStamp`, in seconds since 1970, as
    // the time of day was when this was first asked.
    int64_t waitsSince(std::string_view target, uint64_t position, uint32_t queueStamp);
    // The targets that have messages.
    std::vector<std::string> targets() const;
    // What waits for one target.
    struct Load {
        int32_t messages = 0;
        int64_t bytes = 0; // of bodies
    };
    Load loadOf(std::string_view target) const;
    // Which line that is: a number that is another one once the last of its messages had gone and
    // another came; 0 while nothing waits.
    uint64_t numberOfLine(std::string_view target) const;
    // All that were appended as answers.
    Load answers() const;
    // Deletes the answers for a target that is gone; how many there were.
    int32_t dropAnswersFor(const std::string& target);

    // The path under which the queue's traffic is reported to an observer; empty, as at first: it
    // is not.
    void setDiagnosticsRoot(const SoString& root);

    // Appends the rows of the messages of type "Log" when `path` begins with "/log", else of all
    // others; returns their number.
    int32_t appendDiagnostics(SoString& out, const SoString& path) const;

private:
    struct Entry;
    struct Line;
    // The orders that an entry has a place in.
    enum Order : uint8_t { ofAll, ofTarget, ofTurn, ofNumber, kOrders };
    struct Link {
        Entry* previous = nullptr;
        Entry* next = nullptr;
    };
    // Entries by position. Owns none.
    template <Order order>
    struct Chain {
        Entry* first = nullptr;
        Entry* last = nullptr;
        void insert(Entry& entry);
        void remove(Entry& entry);
    };
    struct Entry {
        uint64_t position = 0;
        std::unique_ptr<Convey::Message> message;
        int64_t deadline = 0; // in steady milliseconds, as the next
        int64_t since = 0;    // of `waitsSince`; 0 before it was asked
        bool isAnswer = false;
        bool isWatcher = false;
        Line* line = nullptr;          // that of its target
        Chain<ofTurn>* turn = nullptr; // `ready_`, or that of its sender
        Link links[kOrders];
    };
    // Owns the entries: a block of the heap for each would cost as much as all else that is done
    // with it.
    class Pool {
    public:
        Entry& take();
        void giveBack(Entry& entry) noexcept; // without a message
        // What was taken has been given back: keeps no more than the least.
        void shrink() noexcept;

    private:
        static constexpr size_t kBlock = 32; // entries; about one page
        std::vector<std::unique_ptr<Entry[]>> blocks_;
        Entry* free_ = nullptr; // linked by `ofAll`
    };
    // The messages of one target.
    struct Line {
        Chain<ofTarget> entries;
        uint64_t number = 0; // the position of the message that it was made for
        Load load;
        mutable Entry* visited = nullptr; // the last one: who goes on from there need not look
    };
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>()(text);
        }
    };
    template <class Value>
    using ByName = std::unordered_map<std::string, Value, Hash, std::equal_to<>>;
    // What is to be told to others once the lock is given up.
    class Notices;
    class Walk;

    Taken takeLocked(Notices& notices, uint32_t serial, const Choice* choice) SO_REQUIRES(this);
    void insertLocked(Taken& added) SO_REQUIRES(this);
    void linkLocked(Entry& entry) SO_REQUIRES(this);
    void unlinkLocked(Entry& entry) SO_REQUIRES(this);
    Line& lineLocked(std::string_view target) SO_REQUIRES(this);
    std::unique_ptr<Convey::Message> removeLocked(Entry& entry) SO_REQUIRES(this);
    void retireLocked(Entry& entry, std::unique_ptr<Convey::Message>& place) SO_REQUIRES(this);
    void moveToEndLocked(Entry& entry) SO_REQUIRES(this);
    void parkLocked(Entry& entry) SO_REQUIRES(this);
    void knowNumbersLocked() SO_REQUIRES(this);
    void tidyLocked() SO_REQUIRES(this);
    // A message for the diagnostics: a copy, or its rows.
    struct Shown {
        std::unique_ptr<Convey::Message> message;
        SoString rows;
    };
    // Shows the next ones behind `position`, which moves on; whether there may be more.
    bool copySome(uint64_t& position, bool wantsLogs, const SoString& path,
                  std::vector<Shown>& some) const;
    const Line* findLineLocked(std::string_view target) const SO_REQUIRES(this);
    // When it expires, as the time of day is now; 0 for one that has from the start.
    static int64_t deadlineOf(const Convey::Message& message);
    static Entry* findBehind(const Line& line, uint64_t position);
    Entry* findLocked(std::string_view target, uint64_t position) const SO_REQUIRES(this);
    void setDeadlineLocked(Entry& entry, int64_t deadline) SO_REQUIRES(this);
    bool restamp(std::string_view target, uint64_t position, uint32_t timestamp,
                 uint32_t timeoutSeconds, uint32_t queueStamp, bool isOver);

    // Every message is in `all_`, in the line of its target, and in `ready_` or, once it was found
    // to be held up, in the chain of its sender.
    Pool pool_ SO_GUARDED_BY(this);
    Chain<ofAll> all_ SO_GUARDED_BY(this);
    // Changes under the lock, behind all else; read without, since it is asked for several times
    // with each message.
    std::atomic<int32_t> count_{0};
    ByName<Line> lines_ SO_GUARDED_BY(this); // none is empty
    Line* newestLine_ SO_GUARDED_BY(this) = nullptr;
    Chain<ofTurn> ready_ SO_GUARDED_BY(this);
    ByName<Chain<ofTurn>> heldUp_ SO_GUARDED_BY(this); // none is empty
    // From the first take by number until the queue is empty: as a rule nobody asks for it.
    std::unordered_map<uint32_t, Chain<ofNumber>> numbers_ SO_GUARDED_BY(this);
    bool numbersKnown_ SO_GUARDED_BY(this) = false;
    uint64_t lastPosition_ SO_GUARDED_BY(this) = 0;
    int64_t bodyBytes_ SO_GUARDED_BY(this) = 0;
    // The last one that was shown to the diagnostics: who goes on from there need not look.
    mutable const Entry* shown_ SO_GUARDED_BY(this) = nullptr;
    Load answers_ SO_GUARDED_BY(this);
    // No message expires before it. Changes under the lock; read without, since it is asked for
    // with each message.
    std::atomic<int64_t> firstDeadline_{kNoDeadline};
    std::atomic<uint32_t> dropped_{0};
    int32_t watchers_ SO_GUARDED_BY(this) = 0;
    Listener* listener_ = nullptr;
    SoString diagnosticsRoot_ SO_GUARDED_BY(this);

    static constexpr int64_t kNoDeadline = INT64_MAX;
    static constexpr int64_t kOver = INT64_MIN; // before any second
};

} // namespace ScObjects::ConveyData
