#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "limits/Limits.h"
#include "platform/Service.h"
#include "platform/TextMemory.h"

namespace platform {

// What a text has in front that is made of all the bytes behind it: a digest's line. It is given
// these bytes piece by piece, in their order, and so grows at both ends while the text is under
// way. One thread at a time.
class PortSeal {
public:
    static constexpr size_t kMaximumBytes = limits::of("port.seal");

    PortSeal() = default;
    virtual ~PortSeal() = default;
    PortSeal(const PortSeal&) = delete;
    PortSeal& operator=(const PortSeal&) = delete;

    void take(std::string_view bytes) {
        taken_ += bytes.size();
        add(bytes);
    }
    size_t taken() const { return taken_; }
    // The seal, at most kMaximumBytes and at least one; nothing is taken after that. It is good
    // while this object is, and the same each time.
    virtual std::string_view finish() = 0;

private:
    virtual void add(std::string_view bytes) = 0;

    size_t taken_ = 0;
};

// A text as its sender has it: one behind the other, two pieces of which the second may be empty.
// With a seal, that belongs in front of both; it has taken as much of them as it says, and takes
// the rest while the text is sent.
struct PortPieces {
    std::string_view head;
    std::string_view body;
    PortSeal* seal = nullptr;
    size_t size() const { return head.size() + body.size(); }

    // Lets the seal take on, about so many bytes. False when it has all.
    bool sealOn(size_t bytes) const {
        const size_t taken = seal->taken();
        const std::string_view left =
            taken < head.size() ? head.substr(taken) : body.substr(taken - head.size());
        seal->take(left.substr(0, bytes));
        return seal->taken() < size();
    }
    // The finished seal.
    std::string_view sealed() const {
        while (seal->taken() < size()) {
            (void)sealOn(size());
        }
        return seal->finish();
    }
};

// How long a send may take. Its owner may draw a large text slowly, or stand still in the middle of
// it: who broke it off and sent it again, each time after a while, might never be done.
struct SendTime {
    // Implicit: as a rule a send has one time for all. 0 does not wait.
    SendTime(int64_t inAll) : milliseconds(inAll) {}
    SendTime(int64_t inAll, int64_t begun, const std::atomic<bool>& end)
        : milliseconds(inAll), begunMilliseconds(begun), stop(&end) {}

    int64_t milliseconds;
    // Of one that the owner has begun to take in parts, from the beginning of the send, where that
    // is longer.
    int64_t begunMilliseconds = 0;
    // The time is up when another thread has set it, within a tenth of a second; null for none. It
    // outlives the send.
    const std::atomic<bool>* stop = nullptr;
};

// A received text, in a block of the process heap with at least one byte of room behind the text.
// The beginning of a large one may be a piece of its own: as a rule its sender has cut it there,
// and then what follows need not be moved to be used without it.
class PortText {
public:
    struct Free {
        void operator()(char* block) const { TextMemory::free(block); }
    };
    using Block = std::unique_ptr<char, Free>;

    PortText() = default;
    PortText(PortText&& other) noexcept { *this = std::move(other); }
    PortText& operator=(PortText&& other) noexcept {
        data_ = std::move(other.data_);
        head_ = std::move(other.head_);
        size_ = std::exchange(other.size_, 0);
        headSize_ = std::exchange(other.headSize_, 0);
        process_ = other.process_;
        sealBytes_ = other.sealBytes_;
        mayHaveZero_ = other.mayHaveZero_;
        return *this;
    }

    // Room for `size` bytes, not initialised, and for a seal if that `isSealed`; false, and nothing
    // changed, without memory. The block has a whole number of steps, as the strings that take it
    // over have, so that it need not be moved for them.
    [[nodiscard]] bool allocate(size_t size, bool isSealed = false) {
        Block block = make(size + (isSealed ? PortSeal::kMaximumBytes : 0));
        if (block == nullptr) {
            return false;
        }
        data_ = std::move(block);
        size_ = size;
        head_.reset();
        headSize_ = sealBytes_ = 0;
        return true;
    }
    size_t size() const { return size_; }
    // The whole text in one piece; joined now when it is in two.
    char* data() {
        join();
        return data_.get();
    }
    std::string_view view() { return {data(), size_}; }
    // The number of the process that sent it, as the system says; 0 where it does not.
    int32_t process() const { return process_; }
    void setProcess(int32_t process) { process_ = process; }
    // False when it is known to hold no zero byte.
    bool mayHaveZero() const { return mayHaveZero_; }
    void setMayHaveZero(bool may) { mayHaveZero_ = may; }
    // The block, now the caller's, to be given back to TextMemory; null when empty.
    char* release() {
        join();
        size_ = 0;
        return data_.release();
    }

    // The bytes of the piece of its own at the beginning; 0 for none.
    size_t headSize() const { return headSize_; }
    // Makes the first bytes, which are written, a piece of its own. False, and nothing changed,
    // without memory.
    [[nodiscard]] bool splitOff(size_t bytes) {
        Block block = make(bytes);
        if (block == nullptr || headSize_ != 0) {
            return false;
        }
        std::memcpy(block.get(), data_.get(), bytes);
        head_ = std::move(block);
        headSize_ = bytes;
        return true;
    }
    // Puts the seal in front of a text that was allocated with room for it; `fits`: it is the one
    // that the bytes behind it have. False, and nothing changed, without memory.
    [[nodiscard]] bool setSeal(std::string_view seal, bool fits) {
        if (headSize_ != 0) {
            Block block = make(seal.size() + headSize_);
            if (block == nullptr) {
                return false;
            }
            std::memcpy(block.get() + seal.size(), head_.get(), headSize_);
            head_ = std::move(block);
            headSize_ += seal.size();
        } else {
            std::memmove(data_.get() + seal.size(), data_.get(), size_);
        }
        std::memcpy((headSize_ != 0 ? head_ : data_).get(), seal.data(), seal.size());
        size_ += seal.size();
        sealBytes_ = fits ? seal.size() : 0;
        return true;
    }
    // The bytes of a seal at the beginning that was found to fit what follows as it came; 0 for
    // none.
    size_t sealBytes() const { return sealBytes_; }
    // Where the byte `at`, of those behind the head, lies.
    char* place(size_t at) { return data_.get() + (at - headSize_); }
    // The two pieces, each a block as above and the caller's; the text is empty then.
    std::pair<Block, Block> releasePieces() {
        size_ = headSize_ = 0;
        return {std::move(head_), std::move(data_)};
    }

private:
    static constexpr size_t kStep = 128;

    static Block make(size_t size) {
        return Block(static_cast<char*>(TextMemory::allocate((size / kStep + 1) * kStep)));
    }
    // The block has room for both: it was made for the whole text.
    void join() {
        if (headSize_ != 0) {
            std::memmove(data_.get() + headSize_, data_.get(), size_ - headSize_);
            std::memcpy(data_.get(), head_.get(), headSize_);
            head_.reset();
            headSize_ = 0;
        }
    }

    Block data_;
    Block head_;
    size_t size_ = 0;
    size_t headSize_ = 0;
    size_t sealBytes_ = 0;
    int32_t process_ = 0;
    bool mayHaveZero_ = true;
};

// What a port has met since it was opened.
struct PortStatistics {
    uint64_t texts = 0;
    uint64_t bytes = 0;         // of those texts
    uint64_t connections = 0;   // open now
    uint64_t strangers = 0;     // connections of other users, closed unheard
    uint64_t malformed = 0;     // connections closed for what is no text of ours
    uint64_t descriptors = 0;   // connections closed for file descriptors in their packets
    uint64_t withoutMemory = 0; // texts dropped, since there was no memory for them
    uint64_t overLimit = 0;     // connections closed for keeping too much open or half sent
    uint64_t notAccepted = 0;   // attempts to accept a connection for which the system had no room:
                                // no descriptor, no memory; it is tried again
};

// A port of this user as an observer sees it.
struct PortDescription {
    std::string name;          // the end of a long one is a digest
    uint32_t owner = 0;        // the number of its process, 0 when that cannot be found out
    bool stale = false;        // nobody owns it: what an owner that died has left
    int64_t connections = -1;  // open to it, -1 when that cannot be found out, as with the next
    int64_t waitingBytes = -1; // in its queue, with what the system needs to keep them
    bool dropsSeals = false;   // its owner has said that it looks at none
};

// Whether somebody owns a name. Who decides about launching must not take what could not be found
// out for an absence.
enum class PortState {
    free,   // nobody owns it: `open` would succeed now
    owned,  // somebody does, this process included
    unknown // could not be found out: no descriptor, no memory, a folder or file that is refused
};

enum class SendResult {
    delivered,  // the whole text lies in the receiver's queue
    noReceiver, // nobody owns the name, or the owner died
    timedOut,   // the queue stayed full; nothing of the text will arrive
    tooLarge,   // longer than kMaximumTextBytes
    failed      // the ports cannot be used, whether somebody owns the name could not be found out,
                // or the owner is another user; reported
};

// A place in what arrives at a port: behind all that one process had sent there at a moment.
struct PortPlace {
    int32_t process = 0;      // 0: of all processes
    uint64_t connections = 0; // to be accepted until then, so that those of the process are
};

// The end of a named port that receives. While it exists its process owns the name; with it the
// name is given back, and what was not taken is lost.
//
// Porting contract: texts arrive whole, and those of one sender in the order sent. What has not
// been taken stays in the system's queue, whose bound holds the senders back, except for the few
// that one call may have drawn ahead. What a sender leaves half sent when it dies is dropped. Only
// this user's processes and root's are heard. The owner's descriptors do not survive exec, and in a
// child after fork the port is dead: it takes nothing. Threads: any.
class LocalPort {
public:
    virtual ~LocalPort() = default;

    // Takes the next text; false when none has arrived. Does not block.
    [[nodiscard]] virtual bool take(PortText& out) = 0;

    // True when the last `take` stopped in the middle of large texts (`convey limits`:
    // receive.bytes), so that its caller can look after something else. Then there are bytes to be
    // read at once, and a wait for events ends at once.
    virtual bool hasMore() const = 0;

    // False while something is to be done here at a time that no wait ends for, for want of what
    // the system needs to tell it: who serves the port must look from time to time.
    virtual bool tellsAll() const { return true; }

    // Leaves what this process sends in the system's queue from now on, or takes it again. Texts
    // that were drawn already are handed on. For who has no room for more of one sender, and goes
    // on taking from others. No wait ends for what is held back.
    virtual void hold(int32_t process, bool on) = 0;

    // Waits until a text can be taken, at most `timeoutMilliseconds`; false when the time is up.
    // `soon`: the answer is expected within microseconds, so it may be worth a short busy wait
    // where another processor is free to give it.
    [[nodiscard]] virtual bool wait(int64_t timeoutMilliseconds, bool soon) = 0;

    // Readable while `take` may find something, for `PollSignal::join`; -1 where there is none.
    virtual int descriptor() const { return -1; }

    // From now on texts whose seal comes last are given to a seal of `make`, piece by piece as they
    // arrive, and the text says whether it fits. `make` may return null for none; it is called, and
    // the seal used, while others wait for this port, and throws nothing.
    virtual void checkSeals(const std::function<std::unique_ptr<PortSeal>()>& /*make*/) {}

    // The place behind all that this process has sent here until now.
    virtual PortPlace placeBehind(int32_t process) const = 0;

    // True once nothing from before the place is left to be taken: it was taken, or will never be
    // whole. What others send puts that off by a few thousand connections at most; what the process
    // itself sends puts it off for as long as it goes on. A few system calls.
    [[nodiscard]] virtual bool isPast(const PortPlace& place) = 0;

    virtual PortStatistics statistics() const = 0;
};

// Watches one owner of a name, from a text that it took: the system tells at once when that process
// ends, however it does, so that nobody waits for an answer that cannot come.
//
// What the owner sent before its end lies in this process's ports by then: take that first. A watch
// keeps the connection to the owner open, and belongs to all that sent to the same owner. Threads:
// any.
class TargetWatch {
public:
    virtual ~TargetWatch() = default;

    // True from when that owner has ended, or has given the name back, on; false while it lives and
    // while that cannot be found out. A few system calls at most; does not block.
    [[nodiscard]] virtual bool ended() = 0;

    // The number of the owner's process, 0 where the system does not say.
    virtual int32_t process() const = 0;
};

// Waits for several ports, and for the things that a thread that serves them must know of.
//
// Porting contract: `wait` may end without reason. Threads: one waits, any may do the rest.
class PortWait {
public:
    virtual ~PortWait() = default;

    // From now on a text that arrives at `port` ends a wait, until the port is gone. A text that
    // was there before ends one wait, and no further one until another arrives. That somebody has
    // removed what makes the port known to others is reported during a wait, where the system can
    // tell. `number`: by which `reported` tells of it; below 2^60. One that was added before gets
    // the new one.
    virtual void add(const LocalPort& port, uint64_t number) = 0;

    // No wait ends for what arrives at a port that was added from now on, as its owner waits for it
    // elsewhere; or again, as if it were added then.
    virtual void pause(const LocalPort& port, uint64_t number, bool on) = 0;

    // From now on the end of the watched owner ends a wait, until the watch is gone. An owner that
    // has closed the connection before, for want of room, is not told any more: so ask `ended`
    // from time to time as well. To add a watch again does nothing.
    virtual void add(TargetWatch& watch) = 0;

    // From now on a wait ends at once while something can be read from `descriptor`, which is the
    // caller's and is no port: so whoever waits must read all that is there. Off before it is
    // closed. False where it cannot be waited for.
    [[nodiscard]] virtual bool watch(int descriptor, bool on) = 0;

    // Whether a port that somebody opens ends a wait too, as far as the system can tell.
    virtual void watchNames(bool on) = 0;

    // False while something that was added, or names that are to be watched, could not be: who
    // waits must look from time to time.
    virtual bool tellsAll() const = 0;

    // Ends the wait, or the next one when nobody waits.
    virtual void wake() = 0;

    // Waits at most `timeoutMilliseconds`; false when the time is up.
    virtual bool wait(int64_t timeoutMilliseconds) = 0;

    // Whether something of ports and their owners may have ended the last wait, and not `wake` or a
    // descriptor of `watch` alone. Threads: the one that waits.
    virtual bool wasOfPorts() const = 0;

    // The numbers of ports for whose texts the last wait ended; good until the next, which tells of
    // those for which there was no room in this one. All of them as long as `tellsAll`; a port may
    // be among them that is gone. Threads: the one that waits.
    virtual std::span<const uint64_t> reported() const = 0;
};

// Named ports between the processes of one user. A name is any bytes but NUL, at least one.
class MessagePorts : public Service<MessagePorts> {
public:
    // Longer texts are refused by the sender and by the receiver: 64 MiB of body, and headers.
    static constexpr size_t kMaximumTextBytes = limits::of("port.text");

    virtual ~MessagePorts() = default;

    // Becomes the owner of a name. Null when it has one, in this process or another, or when ports
    // cannot be used, which is reported. Of several that try at once exactly one succeeds. The name
    // of an owner that died, however it did, is free at once.
    [[nodiscard]] virtual std::unique_ptr<LocalPort> open(const std::string& name) = 0;
    // The same for who drops seals unread: senders that know that make none, and what they send
    // comes without. Only the owner of a name can say so, for its own port.
    [[nodiscard]] virtual std::unique_ptr<LocalPort> openUnsealed(const std::string& name) {
        return open(name);
    }

    // Whether somebody owns the name. Takes nothing, so that a process that opens the name at this
    // moment gets it. `unknown` is reported with the system's reason, and `error` receives its
    // number (errno); 0 with the other answers. A name that cannot be one is `unknown`, too.
    [[nodiscard]] virtual PortState look(const std::string& name, int& error) = 0;

    // True when nobody owns the name; false also when that could not be found out.
    [[nodiscard]] bool isFree(const std::string& name) {
        int error = 0;
        return look(name, error) == PortState::free;
    }

    // Hands a text to the owner of `name`; at most for the time given while its queue is full. What
    // is broken off then is dropped, and its owner has none of it. A seal is made meanwhile, or
    // before where the owner must have it first, or not at all where the owner drops it. Sends to
    // one name from several threads go one after another. `taker`, where it is not null, receives a
    // watch over the owner that took the text, when it was delivered; null without memory.
    virtual SendResult send(const std::string& name, const PortPieces& text, SendTime time,
                            std::shared_ptr<TargetWatch>* taker) = 0;
    SendResult send(const std::string& name, std::string_view text, int64_t timeoutMilliseconds,
                    std::shared_ptr<TargetWatch>* taker = nullptr) {
        return send(name, PortPieces{text, {}}, timeoutMilliseconds, taker);
    }

    // Gives back what sending keeps for later (connections), as far as no thread is sending. The
    // next send makes it anew; nothing that was delivered is lost.
    virtual void closeConnections() = 0;

    // A wait for ports that these ports have opened; null when the system gives none.
    [[nodiscard]] virtual std::unique_ptr<PortWait> newWait() = 0;

    // The ports of this user, by name. For people: looks at every process of the user.
    virtual std::vector<PortDescription> list() = 0;

    // Removes what owners that died have left; the number of ports removed. Hinders nobody who is
    // about to open one of them.
    virtual size_t removeStale() = 0;

    // Where the ports of this process and its peers are found, for people; whether it can be used
    // or not. Two that name different places do not see each other.
    virtual std::string place() const = 0;

    static MessagePorts& own();
};

} // namespace platform
