#include "scriptobjects/convey/SoCVMessaging.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVGuard.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVSpecifier.h"

namespace ScObjects {

using namespace ConveyData;

namespace {

using Message = Convey::Message;
using Outcome = Convey::Outcome;

constexpr uint32_t kUsualSeconds = limits::of("message.watch");
// The watch of a request ends a second or two behind its time-out.
constexpr uint32_t kWatchSlackSeconds = 3;
constexpr const char* kWantsEnd = "Result Error Timeout";

// The layer, when a messenger has started it: the last one stops it.
class LayerUse {
public:
    explicit LayerUse(const char* appName) {
        const bool starts = Convey::InitTerm::init(appName, true);
        const std::lock_guard<std::mutex> guard(gMutex);
        gStarted = gStarted || starts;
        ++gUsers;
    }
    ~LayerUse() {
        {
            const std::lock_guard<std::mutex> guard(gMutex);
            if (--gUsers != 0 || !gStarted) {
                return;
            }
            gStarted = false;
        }
        // With no lock held: what ends with the layer may have a messenger of its own.
        if (!Convey::InitTerm::exit()) { // within a handler: it is left to the next one
            const std::lock_guard<std::mutex> guard(gMutex);
            gStarted = true;
        }
    }
    LayerUse(const LayerUse&) = delete;
    LayerUse& operator=(const LayerUse&) = delete;

private:
    static constinit std::mutex gMutex;
    static constinit int gUsers;
    static constinit bool gStarted;
};

constinit std::mutex LayerUse::gMutex;
constinit int LayerUse::gUsers = 0;
constinit bool LayerUse::gStarted = false;

class FunctionHandler : public Convey::MsgHandler {
public:
    FunctionHandler(const SoString& type, Convey::Messenger::Function function)
        : type_(type), function_(std::move(function)) {}

    int32_t handleMessage(int event, Message& message, SoString* result) override {
        // Late replies come to the handlers of messages when nobody waits for them any more.
        if ((event >= CV_EVENT_RECEIVED && event <= CV_EVENT_TIMEOUT) ||
            message.getType() == CV_TYPE_PROCESSED) {
            return 0;
        }
        Convey::Reply reply = Convey::Reply::take();
        if (!reply.isOpen()) { // no memory for it: the function could give no answer
            *result = CV_ERROR_OUT_OF_MEMORY;
            return CV_CODE_OUT_OF_MEMORY;
        }
        function_(message, std::move(reply));
        return 0;
    }
    SoString getMsgType() const override { return type_; }

private:
    const SoString type_;
    const Convey::Messenger::Function function_;
};

} // namespace

// The instance of a messenger. Requests have a share in it, so that they may outlive their
// messenger; that closes it.
class ConveyData::MessengerState {
public:
    explicit MessengerState(const char* appName)
        : use(std::make_unique<LayerUse>(appName)),
          instance(appName, nullptr, Convey::get() == nullptr, nullptr) {}

    std::unique_ptr<LayerUse> use;
    Convey instance; // no block of its own, so that the layer's end closes it and does not delete
};

// A request from its sending to its outcome, which is told once.
class ConveyData::Asked : public std::enable_shared_from_this<Asked> {
public:
    using Functions = Convey::Request::Functions;

    Asked(std::shared_ptr<PrivateData> instance, Functions&& functions)
        : instance_(std::move(instance)), functions_(std::move(functions)) {}

    void send(Message& message, bool mayLaunch, const SoString* parameters, uint32_t waitSeconds);
    // False, and the functions given back, when that would have to wait.
    bool trySend(Message& message, Functions& functions) noexcept;
    void heard(int event, const Message& message);
    void tell(const Outcome& outcome) noexcept;
    // Nothing will be heard any more: without memory it goes as it is registered.
    void handlerGone() noexcept {
        const bool failed = registering_ && !instance_->isClosed();
        tell(failed ? Outcome(Outcome::kError, CV_CODE_OUT_OF_MEMORY, SoString()) : Outcome());
    }
    void cancel() noexcept;
    // Ends it untold, unless it was told or is being told. True when it was open.
    bool withdraw(Functions& functions) noexcept;
    // Has nothing of it wait any more.
    void forget() noexcept;
    static void callSafely(const Functions& functions, const Outcome& outcome) noexcept;
    bool isOpen() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return state_ == State::open;
    }
    // Pumps until the outcome is told, or that time has come, and ends the request.
    Outcome pumpUntilTold(int64_t end);

private:
    enum class State : uint8_t { open, telling, told };
    class Handler;

    Outcome::Kind kindOfNotSent(const Message& error) const;
    void begin(Message& message);

    const std::shared_ptr<PrivateData> instance_;
    uint32_t number_ = CV_INVALID_MESSAGE_NUMBER; // this and the target: fixed before the sending
    SoString target_;
    std::atomic<bool> registering_{true};
    mutable std::mutex mutex_;
    std::condition_variable toldChanged_;
    State state_ = State::open;
    std::thread::id teller_;
    Functions functions_;
    std::optional<Outcome> outcome_; // when it is told
};

// What the instance calls with whatever answers the request. When it goes without an outcome,
// nothing comes any more.
class Asked::Handler : public Convey::MsgHandler {
public:
    Handler(std::shared_ptr<Asked> asked, uint32_t number)
        : asked_(std::move(asked)), number_(number) {}
    ~Handler() override {
        if (asked_ != nullptr) {
            asked_->handlerGone();
        }
    }
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    int32_t handleMessage(int event, Message& message, SoString* /*result*/) override {
        if (event == CV_EVENT_RECEIVED) {
            // Nobody has asked for it; and it takes this handler's one call.
            const auto asked = std::exchange(asked_, nullptr);
            // Its end is that of this handler.
            const std::unique_ptr<MsgHandler> replaced(
                asked->instance_->changeHandler(new Handler(asked, number_)));
            return 0;
        }
        try {
            asked_->heard(event, message);
        } catch (const std::bad_alloc&) { // of what would have been told
            asked_->tell({Outcome::kError, CV_CODE_OUT_OF_MEMORY, SoString()});
        }
        return 0;
    }
    SoString getMsgType() const override { return SoString(); }
    uint32_t getSerialNumber() const override { return number_; }

private:
    std::shared_ptr<Asked> asked_;
    const uint32_t number_;
};

void Asked::send(Message& message, bool mayLaunch, const SoString* parameters,
                 uint32_t waitSeconds) {
    if (isEmptyRequest(message)) {
        tell({Outcome::kRefused, CV_CODE_NOT_SENT, CV_ERROR_NO_TEXT});
        return;
    }
    begin(message);
    (void)instance_->send(message, mayLaunch, waitSeconds, parameters);
    // Its end may have come by before the handler was there.
    if (instance_->isClosed()) {
        forget();
    }
}

void Asked::begin(Message& message) {
    message.setSerialNumber(message.getNextSerialNumber(instance_->context()));
    number_ = message.getSerialNumber();
    target_ = message.getTarget();
    const std::unique_ptr<Convey::MsgHandler> replaced(
        instance_->changeHandler(new Handler(shared_from_this(), number_)));
    registering_ = false; // it is registered
}

bool Asked::trySend(Message& message, Functions& functions) noexcept {
    functions_ = std::exchange(functions, {});
    const bool sent = guarded(false, [&] {
        begin(message);
        return instance_->sendAtOnce(message);
    });
    // One that was told meanwhile, of the end of its instance, is over.
    const bool goesOn = sent || !withdraw(functions);
    if (!sent || instance_->isClosed()) {
        forget();
    }
    return goesOn;
}

// The errors of one's own layer are told by their texts; the words are its own, as the code is. Who
// could not send knows best whether somebody was there: by now another may be.
Outcome::Kind Asked::kindOfNotSent(const Message& error) const {
    const SoString& text = error.getBody();
    if (text == CV_ERROR_NOT_LAUNCHED || text == CV_ERROR_LAUNCH_FAILED) {
        const Convey::Specifier target(target_.c_str(), true);
        const bool wasAbsent = error.getUserHeaderValue(CV_ERROR_TARGET) == CV_TARGET_ABSENT;
        return !wasAbsent && target.isRunning() ? Outcome::kRefused
               : target.isInstalled()           ? Outcome::kNotRunning
                                                : Outcome::kNotInstalled;
    }
    return text == CV_ERROR_INVALID_SPECIFIER || text == CV_ERROR_NO_TEXT ||
                   text == CV_ERROR_TOO_MANY_WAIT
               ? Outcome::kRefused
               : Outcome::kError;
}

void Asked::heard(int event, const Message& message) {
    if (event == CV_EVENT_TIMEOUT) {
        tell({Outcome::kTimeout, 0, SoString()});
        return;
    }
    if (event != CV_EVENT_RESULT && event != CV_EVENT_ERROR) { // "Processed", and nothing before it
        tell({Outcome::kError, CV_CODE_NOT_HANDLED, CV_ERROR_NOT_HANDLED});
        return;
    }
    Outcome outcome(Outcome::kResult, 0, message.getBody());
    outcome.message_ = std::make_shared<const Message>(message);
    if (event == CV_EVENT_ERROR) {
        const SoString code = message.getUserHeaderValue(CV_ERROR_CODE);
        outcome.code_ = static_cast<int32_t>(std::strtol(code.c_str(), nullptr, 10));
        outcome.kind_ = outcome.code_ == CV_CODE_NOT_SENT   ? kindOfNotSent(message)
                        : outcome.code_ == CV_CODE_REJECTED ? Outcome::kRefused
                                                            : Outcome::kError;
    }
    tell(outcome);
}

// The name is short enough to need no memory: the functions are called without.
void Asked::callSafely(const Functions& functions, const Outcome& outcome) noexcept {
    (void)guarded(false, [&] {
        return runForeign([] { return std::string("a callback"); },
                          [&] { functions.call(outcome); });
    });
}

void Asked::tell(const Outcome& outcome) noexcept {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (state_ != State::open) {
            return;
        }
        state_ = State::telling;
        teller_ = std::this_thread::get_id();
    }
    callSafely(functions_, outcome);
    functions_ = {}; // what they hold goes before a cancellation returns
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        // A copy of texts, which memory may not suffice for: the kind alone does without.
        outcome_ =
            guarded(Outcome(outcome.kind(), outcome.code(), SoString()), [&] { return outcome; });
        state_ = State::told;
    }
    toldChanged_.notify_all();
}

void Asked::cancel() noexcept {
    Functions functions; // go without the lock
    if (withdraw(functions)) {
        forget();
    }
}

bool Asked::withdraw(Functions& functions) noexcept {
    std::unique_lock<std::mutex> lock(mutex_);
    if (state_ == State::telling && teller_ != std::this_thread::get_id()) {
        toldChanged_.wait(lock, [this] { return state_ == State::told; });
    }
    if (state_ != State::open) {
        return false;
    }
    state_ = State::told;
    functions = std::exchange(functions_, {});
    return true;
}

void Asked::forget() noexcept {
    if (number_ == CV_INVALID_MESSAGE_NUMBER) {
        return; // which would be the handlers for all messages
    }
    const ConveyContext::Visit visit;
    (void)guarded(false, [this] {
        instance_->unwatchTime(number_);
        return instance_->deleteHandlers(number_);
    });
}

Outcome Asked::pumpUntilTold(int64_t end) {
    const auto isTold = [this] {
        const std::lock_guard<std::mutex> guard(mutex_);
        return state_ == State::told;
    };
    while (!isTold() && !instance_->isClosed() && platform::monotonicNow() < end) {
        (void)Convey::pumpOrWait(kPollMilliseconds);
    }
    cancel(); // waits for who is telling it
    const std::lock_guard<std::mutex> guard(mutex_);
    return outcome_.value_or(Outcome(Outcome::kTimeout, 0, SoString()));
}

// The handle.

Convey::Pending::Pending() noexcept = default;
Convey::Pending::Pending(Pending&& other) noexcept = default;

Convey::Pending& Convey::Pending::operator=(Pending&& other) noexcept {
    if (this != &other) {
        cancel();
        asked_ = std::move(other.asked_);
    }
    return *this;
}

Convey::Pending::~Pending() {
    cancel();
}

void Convey::Pending::cancel() noexcept {
    if (const auto asked = std::exchange(asked_, nullptr)) {
        asked->cancel();
    }
}

void Convey::Pending::detach() noexcept {
    asked_ = nullptr;
}

bool Convey::Pending::isOpen() const noexcept {
    return asked_ != nullptr && asked_->isOpen();
}

// Requests.

Convey::Request::Request(std::shared_ptr<MessengerState> state, const SoString& target,
                         const SoString& body)
    : state_(std::move(state)), seconds_(kUsualSeconds) {
    message_.setTarget(target);
    message_.setBody(body);
}

Convey::Request::~Request() = default;

Convey::Request& Convey::Request::type(const SoString& type) {
    message_.setType(type);
    return *this;
}

Convey::Request& Convey::Request::header(const char* name, const SoString& value) {
    message_.setHeader(name, value.c_str());
    return *this;
}

Convey::Request& Convey::Request::within(std::chrono::milliseconds time) {
    constexpr int64_t most = INT32_MAX - kWatchSlackSeconds;
    const int64_t seconds =
        std::clamp<int64_t>(time.count() / 1000 + (time.count() % 1000 > 0 ? 1 : 0), 0, most);
    seconds_ = seconds == 0 ? kUsualSeconds : static_cast<uint32_t>(seconds);
    return *this;
}

Convey::Request& Convey::Request::launch(const SoString& parameters) {
    mayLaunch_ = true;
    launchParameters_ = parameters;
    return *this;
}

Convey::Request& Convey::Request::onResult(std::function<void(const Message&)> function) {
    functions_.onResult = std::move(function);
    return *this;
}

Convey::Request& Convey::Request::onFailure(Done function) {
    functions_.onFailure = std::move(function);
    return *this;
}

Convey::Request& Convey::Request::onOutcome(Done function) {
    functions_.onOutcome = std::move(function);
    return *this;
}

void Convey::Request::Functions::call(const Outcome& outcome) const {
    if (outcome.isResult() && onResult && outcome.message() != nullptr) {
        onResult(*outcome.message());
    } else if (!outcome.isResult() && onFailure) {
        onFailure(outcome);
    }
    if (onOutcome) {
        onOutcome(outcome);
    }
}

// Null when there was no memory even for the record of it; the functions have been told then.
std::shared_ptr<Asked> Convey::Request::ask(uint32_t waitSeconds) noexcept {
    const ConveyContext::Visit visit;
    const Outcome outOfMemory(Outcome::kError, CV_CODE_OUT_OF_MEMORY, SoString());
    std::shared_ptr<Asked> asked;
    try {
        message_.setResponseRequest(kWantsEnd);
        message_.setTimeout(seconds_);
        const auto& data = state_->instance.data();
        asked = std::make_shared<Asked>(data, std::move(functions_));
        if (data == nullptr) { // there was no memory to make the instance
            asked->tell(outOfMemory);
        } else {
            asked->send(message_, mayLaunch_, mayLaunch_ ? &launchParameters_ : nullptr,
                        waitSeconds);
        }
    } catch (const std::bad_alloc&) {
        if (asked != nullptr) {
            asked->tell(outOfMemory);
            asked->forget(); // a handler for what was not sent would stay
        } else {
            Asked::callSafely(functions_, outOfMemory);
        }
    }
    return asked;
}

Convey::Pending Convey::Request::send() {
    Pending pending;
    pending.asked_ = ask(0);
    return pending;
}

bool Convey::Request::trySend(Pending& pending) noexcept {
    const ConveyContext::Visit visit;
    std::shared_ptr<Asked> asked;
    const auto data = state_->instance.data();
    const bool goesOn = data != nullptr && guarded(false, [&] {
                            message_.setResponseRequest(kWantsEnd);
                            message_.setTimeout(seconds_);
                            asked = std::make_shared<Asked>(data, Functions());
                            return asked->trySend(message_, functions_);
                        });
    if (goesOn) {
        pending = Pending();
        pending.asked_ = std::move(asked);
    }
    return goesOn;
}

std::future<Outcome> Convey::Request::future() {
    const auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    (void)onOutcome([promise, also = std::move(functions_.onOutcome)](const Outcome& outcome) {
        promise->set_value(outcome); // first: the other one may throw
        if (also) {
            also(outcome);
        }
    });
    (void)ask(0);
    return future;
}

Outcome Convey::Request::wait() {
    const uint32_t most = seconds_ + kWatchSlackSeconds;
    const int64_t end = platform::monotonicNow() + int64_t{1000} * most;
    // Sending with a wait shows in the diagnostics, and goes on in any depth of handlers; but for a
    // target that is being launched it waits by a time of its own, which may be far longer.
    const auto asked = ask(mayLaunch_ ? 0 : most);
    return asked != nullptr ? asked->pumpUntilTold(end)
                            : Outcome(Outcome::kError, CV_CODE_OUT_OF_MEMORY, SoString());
}

bool Convey::Request::post() {
    message_.setResponseRequest(SoString());
    return state_->instance.send(message_, mayLaunch_, 0,
                                 mayLaunch_ ? &launchParameters_ : nullptr);
}

bool Convey::Request::tryPost() noexcept {
    const ConveyContext::Visit visit;
    const auto data = state_->instance.data();
    return data != nullptr && guarded(false, [&] {
               message_.setResponseRequest(SoString());
               return data->sendAtOnce(message_);
           });
}

// The messenger.

Convey::Messenger::Messenger(const char* appName)
    : state_(std::make_shared<MessengerState>(appName)) {}

Convey::Messenger::~Messenger() {
    state_->instance.endWithContext(); // now, whatever requests have a share in it
    state_->use.reset();
}

bool Convey::Messenger::isReachable() const {
    return state_->instance.isReachable();
}

SoString Convey::Messenger::name() const {
    return state_->instance.getAppName();
}

void Convey::Messenger::setFunction(const SoString& type, Function function) {
    auto handler = std::make_unique<FunctionHandler>(type, std::move(function));
    const ConveyContext::Visit visit;
    const auto& data = state_->instance.data();
    // Not by the instance's face, which keeps to itself that there was no memory: an application
    // would believe that it answers.
    if (data == nullptr) {
        throw std::bad_alloc();
    }
    delete data->changeHandler(handler.release());
}

bool Convey::Messenger::off(const SoString& type) {
    const std::unique_ptr<MsgHandler> removed(
        state_->instance.removeHandler(type, CV_INVALID_MESSAGE_NUMBER));
    return removed != nullptr;
}

Convey::Request Convey::Messenger::request(const SoString& target, const SoString& body) const {
    return {state_, target, body};
}

Convey& Convey::Messenger::instance() const {
    return state_->instance;
}

} // namespace ScObjects
