#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

class CVDiagnosticsRows;

namespace ConveyData {

class OwedReplies;

// The reply to one request, which the handler has taken over: the request is not over when the
// handler returns, but when the answer is given.
//
// Shared by the host, who has a handle, the call of the handler, and the instance, which ends it
// with itself. Owns the request, without its body, from the end of the call on. Threads: any; its
// own plain mutex guards it, and nothing else is called under that.
class OwedReply {
public:
    // The instance, which sends the answer and brings the request to its end.
    class Giver {
    public:
        virtual ~Giver();
        virtual void giveOwed(const OwedReply& reply, const Convey::Message& request, int32_t code,
                              const SoString& text) noexcept = 0;
    };

    explicit OwedReply(std::weak_ptr<Giver> giver) : giver_(std::move(giver)) {}

    // Answers with a result (code 0) or an error. False when it was answered before or the
    // instance has ended. With no lock held.
    bool give(int32_t code, const SoString& text) noexcept;
    // Whether nobody has answered.
    [[nodiscard]] bool isOpen() const { return state_.load() != State::given; }

    // For the call when the handler has returned. Takes the request over; false when the answer is
    // there already, or the handler has failed, which ends it with that.
    bool keep(std::unique_ptr<Convey::Message>& request);
    // What was given in time; what the handler failed with counts more. False when nothing was.
    bool takeGiven(int32_t& code, SoString& text);

    // A call of a handler, on the stack of its thread.
    class Call {
    public:
        // The giver, and the replies that it owes, live as long as the call; null for what is no
        // request. Throws std::bad_alloc.
        Call(std::weak_ptr<Giver> giver, OwedReplies* owed, const Convey::Message& request);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        // Takes over the reply to what the calling thread's innermost handler was called with; null
        // outside of handlers, for what is no request, and the second time.
        static std::shared_ptr<OwedReply> take();
        const std::shared_ptr<OwedReply>& taken() const { return reply_; }
        // Behind the handler. False when its instance has ended within, which has answered.
        bool end();

    private:
        friend class OwedReplies;

        const std::weak_ptr<Giver> giver_;
        OwedReplies* owed_; // null when it has ended
        const Convey::Message& request_;
        Call* const outer_;
        std::shared_ptr<OwedReply> reply_;
        std::atomic<OwedReply*> shown_{nullptr}; // the same, for who ends the instance
    };

private:
    enum class State : uint8_t { handling, owed, given };
    void endCall();

    const std::weak_ptr<Giver> giver_;
    mutable std::mutex mutex_;
    std::atomic<State> state_{State::handling}; // changes under the mutex
    int32_t code_ = 0; // this and the text: what was given while the handler ran
    SoString text_;
    std::unique_ptr<Convey::Message> request_;
};

// The replies that an instance owes, and what they cost for whom; and the requests whose handlers
// run, which it owes an answer if it ends within.
//
// Threads: any. No reply is given under the lock.
class OwedReplies : public SoLockable {
public:
    OwedReplies() = default;

    enum class Kept : uint8_t { kept, answered, refused };
    // Keeps the request, the reply's from then on, for as long as the reply is owed; refused when
    // too much is owed to this asker, or to all, and when the instance ends.
    Kept keep(const std::shared_ptr<OwedReply>& reply, std::unique_ptr<Convey::Message>& request);
    void remove(const OwedReply& reply) noexcept;
    // Answers all with the error that the target has ended, and keeps none from now on. `answer` is
    // called with those whose handlers run: with what they have answered, or the same error.
    using Answer = std::function<void(const Convey::Message&, int32_t code, const SoString& text)>;
    void close(const Answer& answer) noexcept;

    void appendDiagnostics(CVDiagnosticsRows& rows) const;

private:
    struct Entry {
        std::shared_ptr<OwedReply> reply;
        std::string asker;
        int64_t bytes = 0;
        uint32_t since = 0; // seconds since 1970
    };
    using Entries = std::unordered_map<const OwedReply*, Entry>;

    friend class OwedReply::Call;

    void discharge(const Entry& entry) SO_REQUIRES(this);
    bool remove(const OwedReply::Call& call) noexcept;
    void answerHandled(const Answer& answer);

    std::vector<const OwedReply::Call*> calls_ SO_GUARDED_BY(this);
    Entries entries_ SO_GUARDED_BY(this);
    std::unordered_map<std::string, int64_t> bytesOf_ SO_GUARDED_BY(this); // by asker
    int64_t bytes_ SO_GUARDED_BY(this) = 0;
    bool closed_ SO_GUARDED_BY(this) = false;
};

} // namespace ConveyData
} // namespace ScObjects
