#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVReply.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

namespace ConveyData {
class Asked;
class MessengerState;
} // namespace ConveyData

// How a request ended: one of these, once. A value; copies share the message.
class SO_EXPORT Convey::Outcome {
public:
    // How a request ends.
    enum Kind : int32_t {
        // The target's result: `text` and `message`.
        kResult = 0,
        // The target could not: `code` and `text` say why (docs/messages.md has the layer's own).
        kError = 1,
        // No answer in time. The target may have handled the request, or still do so.
        kTimeout = 2,
        // Not sent: the target is registered and does not run, and was not to be or could not be
        // launched; nobody has its name; or it runs and did not take the request, or refused it
        // (`text` says which).
        kNotRunning = 3,
        kNotInstalled = 4,
        kRefused = 5,
        // The handle, the messenger or the layer has ended.
        kCancelled = 6,
    };

    Outcome() = default; // cancelled
    // One without a message.
    Outcome(Kind kind, int32_t code, const SoString& text)
        : kind_(kind), code_(code), text_(text) {}

    // How it ended, and whether that is by a result.
    Kind kind() const { return kind_; }
    bool isResult() const { return kind_ == kResult; }
    explicit operator bool() const { return isResult(); }
    // Of an error, and of what was not sent; else 0.
    int32_t code() const { return code_; }
    // The result, or the text of the error.
    const SoString& text() const { return text_; }
    // The reply with its headers; null when none came. Good as long as the outcome.
    const Message* message() const { return message_.get(); }

private:
    friend class ConveyData::Asked;

    Kind kind_ = kCancelled;
    int32_t code_ = 0;
    SoString text_;
    std::shared_ptr<const Message> message_;
};

// A request that was sent. Its end cancels: the functions of the request are not called any more
// when it returns, and are not running (on another thread they have returned; within one of them it
// returns at once). The target is not told. Any thread, one at a time.
class SO_EXPORT Convey::Pending {
public:
    // Of no request, and of that of another, which is left without one.
    Pending() noexcept;
    Pending(Pending&& other) noexcept;
    Pending& operator=(Pending&& other) noexcept;
    ~Pending();

    // Ends it as the destructor does.
    void cancel() noexcept;
    // Lets the request go on without the handle.
    void detach() noexcept;
    // Whether the outcome is not known yet.
    [[nodiscard]] bool isOpen() const noexcept;

private:
    friend class Request;
    std::shared_ptr<ConveyData::Asked> asked_;
};

// A request while it is put together, in one expression: `diary.request(...).type(...).send()`.
// It is sent once, by one of the operations at the end; none of them, and nothing is sent. One
// thread. Running out of memory while it is put together throws std::bad_alloc; sending throws
// nothing.
class SO_EXPORT Convey::Request {
public:
    // A function for an outcome.
    using Done = std::function<void(const Outcome&)>;

    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // "Tessaly" without.
    Request& type(const SoString& type);
    // A header for the target; the last value of a name counts. Line feeds: `Message::setHeader`.
    Request& header(const char* name, const SoString& value);
    // The time-out (by a name that no macro of curses has): when the outcome is `kTimeout`, in
    // whole seconds, rounded up; without, and for 0, 60. It is told one or two seconds later, when
    // the target can have told nothing any more.
    Request& within(std::chrono::milliseconds time);
    // Has the target launched with these parameters when it does not run.
    Request& launch(const SoString& parameters = SoString());

    // The functions that are called with the outcome, each at most once, on the thread that pumps;
    // within `send` when there was no memory to send or nothing to say. What they throw is logged.
    Request& onResult(std::function<void(const Message&)> function);
    Request& onFailure(Done function); // any outcome but a result
    Request& onOutcome(Done function); // any

    // Sends, and waits for nothing but the target's port (10 seconds at most).
    [[nodiscard]] Pending send();
    // Sends when the target takes it at once, which is nearly always, and waits for nothing. False:
    // it would have to wait, or to be launched, or something is wrong; nothing has happened, and
    // `send` (perhaps on another thread) goes on. For threads that must not wait, as a main loop.
    [[nodiscard]] bool trySend(Pending& pending) noexcept;
    // The same; the future is ready when a thread that pumps has the outcome. Who pumps himself
    // must not wait for it. Throws std::bad_alloc when there is no memory for a future.
    [[nodiscard]] std::future<Outcome> future();
    // Sends and pumps on the calling thread until the outcome is known: handlers of the process may
    // run within.
    Outcome wait();
    // Sends without asking for replies. True when it was handed over; one that has to wait for its
    // target to be launched is not yet.
    bool post();
    // As trySend.
    [[nodiscard]] bool tryPost() noexcept;

private:
    friend class Messenger;
    Request(std::shared_ptr<ConveyData::MessengerState> state, const SoString& target,
            const SoString& body);
    struct Functions {
        void call(const Outcome& outcome) const;

        std::function<void(const Message&)> onResult;
        Done onFailure;
        Done onOutcome;
    };
    friend class ConveyData::Asked;
    std::shared_ptr<ConveyData::Asked> ask(uint32_t waitSeconds) noexcept;

    const std::shared_ptr<ConveyData::MessengerState> state_;
    Message message_;
    uint32_t seconds_;
    bool mayLaunch_ = false;
    SoString launchParameters_;
    Functions functions_;
};

// An application as an object: an instance of its name, with functions as handlers.
//
// Starts the layer when it is not started, and the last messenger to go stops it then; a layer that
// was started by `InitTerm::init` goes on. Owns its functions. Somebody has to pump
// (docs/main-loop.md); functions run on that thread, with no lock of the layer held, and may do
// anything, end their own messenger included. Threads: any, except that making and ending
// messengers that start and stop the layer is for one thread at a time.
class SO_EXPORT Convey::Messenger {
public:
    // A function for messages that come in; the reply is its own.
    using Function = std::function<void(const Message&, Reply)>;

    // Throws std::bad_alloc when there is no memory for it; else `isReachable` says how it went.
    explicit Messenger(const char* appName);
    // The outcome of its requests is `kCancelled`, and the replies that it owes are errors.
    ~Messenger();
    Messenger(const Messenger&) = delete;
    Messenger& operator=(const Messenger&) = delete;

    // Whether others reach it, and under which name: as Convey's.
    [[nodiscard]] bool isReachable() const;
    SoString name() const;

    // Has `function` called with each message of the type (CV_TYPE_PLAIN: also those for whose type
    // there is no function; "": what is left then), in place of the one before. It takes
    // `(const Message&, Reply)` and answers when it likes, or `(const Message&)` and returns the
    // result, or nothing for an empty one. One that throws answers "Error". Throws std::bad_alloc
    // when there is no memory for it; the one before stays then.
    template <class F>
    void on(const SoString& type, F&& function) {
        // Shared, so that what can only be moved is a function, too.
        const auto shared = std::make_shared<std::decay_t<F>>(std::forward<F>(function));
        if constexpr (std::is_invocable_v<std::decay_t<F>&, const Message&, Reply>) {
            setFunction(type, [shared](const Message& message, Reply reply) {
                (*shared)(message, std::move(reply));
            });
        } else if constexpr (std::is_void_v<
                                 std::invoke_result_t<std::decay_t<F>&, const Message&>>) {
            setFunction(type, [shared](const Message& message, Reply reply) {
                (*shared)(message);
                (void)reply.result(SoString());
            });
        } else {
            setFunction(type, [shared](const Message& message, Reply reply) {
                (void)reply.result(textOf((*shared)(message)));
            });
        }
    }
    // Takes the function of a type out; false without one.
    bool off(const SoString& type);

    // Begins a request of this messenger to a target (a specifier, which is completed). Throws
    // std::bad_alloc.
    Request request(const SoString& target, const SoString& body) const;

    // What it stands on; good as long as the messenger.
    Convey& instance() const;

private:
    static const SoString& textOf(const SoString& text) { return text; }
    static SoString textOf(const char* text) { return SoString(text); }
    static SoString textOf(const std::string& text) { return SoString(std::string_view(text)); }
    void setFunction(const SoString& type, Function function);

    const std::shared_ptr<ConveyData::MessengerState> state_;
};

} // namespace ScObjects
