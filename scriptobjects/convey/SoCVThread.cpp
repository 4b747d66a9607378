#include "scriptobjects/convey/SoCVThread.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/MessagePort.h"
#include "platform/TextMemory.h"
#include "scriptobjects/convey/SoCVArrivals.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVCourier.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVDueInstances.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVPing.h"
#include "scriptobjects/convey/SoCVPollSignal.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVThreadHandlers.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

using Message = Convey::Message;
using MsgHandler = Convey::MsgHandler;
using ConveyData::Delivery;
using ConveyData::Outbox;

constexpr int64_t kRoundMilliseconds = limits::of("thread.round");
constexpr int64_t kParkedMilliseconds = limits::of("thread.parked");
constexpr unsigned kSetupPollMilliseconds = 10;
constexpr int kPingsAtOnce = limits::of("thread.pings");
constexpr int64_t kPingMilliseconds = limits::of("receive.time");
// An answer that its asker does not take is kept for as long as that waits itself, within a bound.
constexpr uint32_t kLongestAnswerSeconds = limits::of("thread.answer.age");
constexpr double kIdleIntervals = 10;
// Rounds in a row without anything to do before none is made: large blocks of memory that are kept
// need two to be given back.
constexpr int kQuietRounds = 2;

constexpr std::string_view kThreadSuffix = "#thread"; // ConveyData::CV_SUFFIX_THREAD with its mark

double roundClock() {
    return static_cast<double>(platform::Clock::system().monotonicMilliseconds());
}

} // namespace

struct ConveyThread::Left : Outbox::Left {};

ConveyThread::ConveyThread(ConveyContext* context, const SoString& appSpecifier)
    : context_(context),
      wait_(platform::MessagePorts::system().newWait()),
      startTime_(ConveyUtils::getUTCTimeMilliSeconds()),
      specifier_(createThreadSpecifier(appSpecifier)),
      outbox_(std::make_unique<Outbox>(Outbox::Kind::pings)),
      pings_(std::make_unique<ConveyData::Arrivals>()),
      due_(std::make_unique<ConveyData::DueInstances>()),
      left_(std::make_unique<ConveyData::DueInstances>()),
      dueToCarry_(std::make_unique<ConveyData::DueInstances>()) {
    // What a ping without a key of its own asks for: it is answered as long as this thread runs.
    (void)setKeyValuePair(CV_ECHO_REQUEST, CV_ECHO_RESPONSE);
    (void)setKeyValuePair(CV_STATUS, CV_IDLE);
    (void)setHandler(CV_MAIN, new ThreadMainMsgHandler(context, this));
    (void)setHandler(CV_LAUNCHED, new ThreadLaunchedMsgHandler);
    (void)setHandler(CV_DIAGNOSTICS, new ThreadDiagnosticsMsgHandler);
    (void)setHandler(CV_INFO, new ThreadInfoMsgHandler(context, this));
    (void)openStream(); // so that the process can be asked as soon as the layer has started
}

ConveyThread::~ConveyThread() = default;

ConveyThread* ConveyThread::getMainThread() {
    const ConveyContext* context = ConveyContext::getCurrentContext();
    return context == nullptr ? nullptr : context->getThread();
}

SoString ConveyThread::createThreadSpecifier(const SoString& specifier) {
    const Convey::Specifier parsed(specifier.c_str(), false);
    return parsed.isEmpty()
               ? SoString()
               : CVSpecifierParts::of(parsed.view()).textWithSuffix(ConveyData::CV_SUFFIX_THREAD);
}

SoString ConveyThread::getSpecifier() const {
    const ObjectLock guard(*this);
    return specifier_;
}

std::shared_ptr<InterAppStream> ConveyThread::stream() const {
    const ObjectLock guard(*this);
    return stream_;
}

bool ConveyThread::isIdle() const {
    const ObjectLock guard(*this);
    if (!(valueLocked(CV_STATUS, findLocked(CV_STATUS)) == CV_IDLE)) {
        return false;
    }
    // Before the second regular round there is no interval to compare with, and the status alone
    // counts.
    const double time = roundClock();
    const double average = rounds_.average(time);
    const double last = rounds_.last(time);
    return average <= 0 || last <= 0 || time - last <= kIdleIntervals * average;
}

// The thread.

bool ConveyThread::openStream() {
    const ObjectLock guard(*this);
    if (stream_ == nullptr) {
        stream_.reset(ConveyUtils::createNextAvailableInterAppStream(specifier_));
        if (stream_ != nullptr) {
            // The name that the port has got, which is another instance's where ours was taken:
            // askers know an answer by the name that they have asked.
            specifier_ = stream_->getName();
            if (wait_ != nullptr) {
                stream_->watch(*wait_, 0); // looked at in each round
            }
        }
    }
    return stream_ != nullptr;
}

void ConveyThread::run() {
    // Before any handler can run here: one that ends the layer is on this thread, which must not
    // wait for itself.
    runner_.store(std::this_thread::get_id());
    if (!openStream()) {
        // Nothing to do any more. It stays until it is stopped, because a thread that has ended and
        // that nobody waits for, as in a process that simply exits, counts as lost.
        while (!stop_.load()) {
            (void)pause(kParkedMilliseconds);
        }
        return;
    }
    while (ConveySetupThread::isSetupThreadRunning() && !stop_.load()) {
        wait(kSetupPollMilliseconds);
    }
    double nextRound = roundClock();
    Rested rested = Rested::no;
    int quiet = 0; // regular rounds since something happened
    while (!stop_.load()) {
        // Rounds that something has woken come in between and leave the regular ones where they
        // are: a flood must not put off what only time brings.
        const bool regular = rested == Rested::due || roundClock() >= nextRound;
        leaveArrivals(isHostAttentive());
        const Left rest = tryRound(regular);
        const bool isQuiet = regular && !rest.more && !rest.large && rest.retryMilliseconds < 0;
        quiet = isQuiet ? quiet + 1 : 0;
        if (regular) {
            if (rested != Rested::due) {
                const ObjectLock guard(*this);
                rounds_.note(roundClock());
            }
            // Not in the other rounds: blocks that are given back in a busy moment would have to be
            // fetched again at once.
            platform::TextMemory::giveBackWhenIdle();
            nextRound = roundClock() + static_cast<double>(kRoundMilliseconds);
        }
        rested = Rested::no;
        if (stop_.load() || rest.more) {
            continue;
        }
        const bool areLeft = arrivalsAreLeft_.load();
        if (!areLeft && quiet >= kQuietRounds && (rested = this->rest()) != Rested::no) {
            if (rested == Rested::woken) {
                quiet = 0;
                const ObjectLock guard(*this);
                nextRound = rounds_.last(roundClock()) + static_cast<double>(kRoundMilliseconds);
            }
            continue;
        }
        // A line that was refused is tried again sooner than the next round, and never later:
        // nothing announces that a target has room again.
        const auto left =
            areLeft ? kAttentionMilliseconds : static_cast<int64_t>(nextRound - roundClock());
        (void)pause(std::clamp<int64_t>(
            rest.retryMilliseconds < 0 ? left : std::min(left, rest.retryMilliseconds), 0,
            kRoundMilliseconds));
    }
    leaveArrivals(false);
}

// The steady millisecond by which there is to be a round when nothing is announced; 0 while only
// rounds show what is to be done.
int64_t ConveyThread::nextLook() const {
    if (wait_ == nullptr || !wait_->tellsAll() || platform::TextMemory::keptBytes() != 0 ||
        !pings_->isEmpty() || !outbox_->messages().isEmpty() || !stream()->tellsAll() ||
        due_->areAll()) {
        return 0;
    }
    int64_t next = INT64_MAX;
    {
        const ObjectLock guard(*this);
        for (const PingData& data : table_) {
            if (data.expiry != 0) {
                next = std::min(next, int64_t{data.expiry} * 1000);
            }
        }
    }
    // Of all others there is nothing to do.
    const ConveyContext* const context = context_.load();
    const auto look = [&](uint64_t number) {
        const auto instance = context == nullptr ? nullptr : context->pin(number);
        next = instance == nullptr ? next : std::min(next, instance->nextLook());
    };
    for (const uint64_t number : regularlyDue_) {
        look(number);
    }
    for (uint64_t number = 0; (number = due_->next(number)) != 0;) {
        look(number);
    }
    return next;
}

// Sleeps until something is announced or due. Nothing is missed: what is added from the first step
// on finds that it has to wake this thread, and what was there before is looked at in the second.
ConveyThread::Rested ConveyThread::rest() {
    restsUntil_.store(INT64_MAX);
    platform::TextMemory::wakeWhenKept(wait_.get());
    const int64_t next = nextLook();
    const int64_t left =
        next == INT64_MAX ? kParkedMilliseconds : next - ConveyUtils::getSteadyMilliseconds();
    Rested result = Rested::no;
    if (left > kRoundMilliseconds && !stop_.load()) {
        restsUntil_.store(next);
        {
            const ObjectLock guard(*this);
            rounds_.beginRest();
        }
        result = pause(std::min(left, kParkedMilliseconds)) ? Rested::woken : Rested::due;
        const ObjectLock guard(*this);
        rounds_.endRest(roundClock());
    }
    platform::TextMemory::wakeWhenKept(nullptr);
    restsUntil_.store(kAwake);
    return result;
}

void ConveyThread::noteDue(int64_t steadyMilliseconds, uint64_t instance) {
    due_->add(instance);
    if (steadyMilliseconds < restsUntil_.load()) {
        wake();
    }
}

// Waits for something to do; without the means to be woken, for no longer than a round. False when
// the time is up.
bool ConveyThread::pause(int64_t milliseconds) {
    if (wait_ != nullptr) {
        const bool woken = wait_->wait(milliseconds);
        for (const uint64_t number : wait_->reported()) {
            due_->add(number);
        }
        return woken;
    }
    wait(static_cast<unsigned>(std::min(milliseconds, kRoundMilliseconds)));
    return false;
}

// A round for which memory does not suffice is given up, and the next one tries again: texts that
// cost too much are dropped where they are read.
ConveyThread::Left ConveyThread::tryRound(bool regular) {
    try {
        return runRound(regular);
    } catch (const std::bad_alloc&) {
        failedRounds_.fetch_add(1);
        due_->addAll(); // some had their turn, and nobody knows which
    }
    platform::Log::system().problem("out of memory: a round of the background thread was given up");
    return {};
}

ConveyThread::Left ConveyThread::runRound(bool regular) {
    Left left;
    if (regular) {
        removeExpiredPingData();
    }
    // Pings first, in each round: that a process answers must not depend on what its instances have
    // to do.
    left.more = answerPings();
    left.join(outbox_->pass(stream().get(), Outbox::Carrier::round));
    left.join(serveInstances(regular));
    // Such a text passes only while its target reads on. Nobody waits for that here, or a stopped
    // target would keep the process from answering pings.
    if (left.large) {
        wakeCourier();
    }
    return left;
}

bool ConveyThread::answerPings() {
    const auto answer = [this](const std::unique_ptr<Message>& message) {
        if (!stop_.load()) { // a handler may end the layer, and what the others rely on
            answerPing(*message);
        }
    };
    return pings_->read(*stream(), kPingMilliseconds, kPingsAtOnce, false, answer) ==
           ConveyData::Arrivals::Stop::time;
}

void ConveyThread::answerPing(Message& message) {
    // A background thread asks nothing: what comes from one is an answer, and answering that would
    // go on for ever.
    if (!message.getUserHeaderValue(ConveyData::CV_PING_NUMBER).isEmpty() ||
        message.getSender().view().ends_with(kThreadSuffix)) {
        return;
    }
    // The host may have put a handler of its own in its place, or none, and then nobody is
    // answered.
    const auto handler = handlerFor(CV_MAIN);
    SoString result;
    const int32_t code =
        handler == nullptr ? 1 : ConveyData::callHandler(*handler, 1, message, &result);
    // An asker hears of a handler that threw; any other code says that it gets no answer.
    if ((code == 0 || code == ConveyData::CV_CODE_HANDLER_FAILED) &&
        !message.getSender().isEmpty()) {
        (void)sendResponse(message, result);
    }
}

ConveyThread::Left ConveyThread::serveInstances(bool regular) {
    Left left;
    ConveyData::TakenInstances due = due_->take();
    due.all = due.all || wait_ == nullptr || !wait_->tellsAll();
    if (regular) {
        due.numbers.merge(regularlyDue_);
        regularlyDue_.clear(); // of what was in both
    }
    bool waiting = false;
    for (uint64_t number = 0; const auto instance = pinNext(due, number);) {
        if (stop_.load()) {
            break;
        }
        left.join(serve(*instance, number, regular));
        waiting = waiting || instance->outgoingPending();
    }
    if (wait_ != nullptr) {
        wait_->watchNames(waiting);
    }
    return left;
}

ConveyThread::Left ConveyThread::serve(ConveyData::PrivateData& instance, uint64_t number,
                                       bool regular) {
    Left left;
    bool any = false;
    if (wait_ != nullptr && instance.leaveArrivals(*wait_, arrivalsAreLeft_.load())) {
        left_->add(number);
        instance.removeExpired();
    } else {
        const auto received = instance.receiveArrived();
        left.more = received.more;
        any = received.any;
    }
    left.more = instance.tellOfEndedTakers() || left.more;
    if (regular) {
        instance.tidyTakers();
    }
    left.join(instance.processOutgoing());
    if (regular) {
        // Messages that nobody might handle when they were looked at, and whose hindrance has gone.
        instance.remindHost();
    }
    const auto looks = instance.neededLooks();
    if (left.more || looks == ConveyData::PrivateData::Looks::each) {
        due_->add(number);
    } else if (looks != ConveyData::PrivateData::Looks::none || any || !regular) {
        // Until a look finds nothing: what has arrived was told once.
        regularlyDue_.insert(number);
    }
    return left;
}

// The one of them behind `number`, which moves on; null at the end. A share of it, since hosts make
// and delete instances meanwhile.
std::shared_ptr<ConveyData::PrivateData>
ConveyThread::pinNext(const ConveyData::TakenInstances& due, uint64_t& number) const {
    // Null once the layer was ended from a handler of this thread: it then goes on to the end of
    // its loop without one.
    const ConveyContext* const context = context_.load();
    if (context == nullptr || due.all) {
        return context == nullptr ? nullptr : context->pinNext(number);
    }
    for (auto next = due.numbers.upper_bound(number); next != due.numbers.end(); ++next) {
        number = *next;
        if (auto instance = context->pin(number)) { // else it has gone
            return instance;
        }
    }
    return nullptr;
}

void ConveyThread::wakeCourier(uint64_t instance) {
    dueToCarry_->add(instance);
    const ObjectLock guard(*this);
    if (courier_ == nullptr && !stop_.load()) {
        courier_ = std::make_unique<ConveyCourier>([this] { return carry(); });
        if (courier_->error() != kNoError) { // no thread for it now: tried again in the next round
            courier_.reset();
            return;
        }
        courier_->start();
    }
    if (courier_ != nullptr) {
        courier_->wake();
    }
}

// The courier's round; the milliseconds until the next.
int64_t ConveyThread::carry() {
    Outbox::Left left = outbox_->pass(stream().get(), Outbox::Carrier::courier);
    const ConveyData::TakenInstances due = dueToCarry_->take();
    // One courier for all instances: they wait for each other's large texts, and nobody for them.
    for (uint64_t number = 0; const auto instance = pinNext(due, number);) {
        if (stop_.load()) {
            break;
        }
        left.join(instance->carryOutgoing());
        if (instance->outgoingPending()) {
            dueToCarry_->add(number);
        }
    }
    return left.retryMilliseconds;
}

void ConveyThread::watchInstance(const Convey* instance) {
    if (const auto& added = instance->data()) {
        if (wait_ != nullptr) {
            added->watch(*wait_);
        }
        wake(added->number());
    }
}

void ConveyThread::watch(platform::TargetWatch& taker, uint64_t instance) {
    if (wait_ != nullptr) {
        wait_->add(taker);
    }
    noteDue(0, instance); // that it ends is looked for, too
}

void ConveyThread::wake(uint64_t instance) {
    due_->add(instance);
    if (wait_ != nullptr) {
        wait_->wake();
    }
}

bool ConveyThread::stop() {
    stop_.store(true);
    // Before the thread itself: while the courier sends a large text it uses the outboxes of
    // instances that end next.
    std::unique_ptr<ConveyCourier> courier;
    {
        const ObjectLock guard(*this);
        courier = std::move(courier_);
    }
    if (courier != nullptr) { // it uses the context, too
        (void)courier->stop();
        (void)courier->waitForRunExit();
    }
    if (isOwnThread()) {
        context_.store(nullptr);
        return false;
    }
    wake();
    return Thread::stop();
}

Delivery ConveyThread::post(std::unique_ptr<Message> message) {
    const auto stream = this->stream();
    const Delivery delivery = outbox_->post(stream.get(), message);
    // It may be in the middle of a whole round's sleep, and the line is due again in a millisecond.
    if (delivery == Delivery::queued) {
        wake();
    }
    return delivery;
}

bool ConveyThread::sendResponse(Message& request, const SoString& value) {
    auto answer = std::make_unique<Message>();
    answer->setTarget(request.getSender());
    answer->setSender(getSpecifier());
    answer->setType(CV_PING);
    answer->setBody(request.takeBody()); // not copied: it may be as large as a text
    answer->setHeader(CV_ECHO_REQUEST, value.c_str());
    // Which of the asker's questions this answers: it may have asked before and given up.
    answer->setHeader(ConveyData::CV_PING_NUMBER,
                      static_cast<unsigned long>(request.getSerialNumber()));
    answer->setSerialNumber(answer->getNextSerialNumber(context_.load()));
    // Kept for as long as its asker waits, within a bound.
    answer->setTimeout(std::clamp(request.getTimeout(), uint32_t{1}, kLongestAnswerSeconds));
    return post(std::move(answer)) != Delivery::refused;
}

SoString ConveyThread::ping(const SoString& target, const SoString& key, int32_t timeoutSeconds,
                            const SoString* parameters) const {
    const InterAppStream* const stream = InterAppStream::get();
    if (stream == nullptr || !stream->isGood()) {
        return SoString(CV_NOINTERAPPSTREAM);
    }
    return ConveyUtils::ping(target, true, key, newPingNumber(), timeoutSeconds, parameters,
                             nullptr);
}

void ConveyThread::appendDiagnostics(SoString& out, const SoString& path) const {
    SoString root = path;
    root << "/thread";
    const ObjectLock guard(*this);
    CVDiagnosticsRows rows(out, root);
    rows.node("", "Thread", specifier_);
    const double time = roundClock();
    const double last = rounds_.last(time);
    rows.leaf("/avgpump", "Avg. pump interval", rounds_.average(time), "ms");
    rows.leaf("/outofmemory", "Given up for want of memory",
              failedRounds_.load() + pings_->dropped());
    rows.leaf("/lastpump", "Last pump", last > 0 ? time - last : 0.0, "ms ago");
    rows.node("/ping", "Ping", static_cast<uint32_t>(table_.size()));
    root << "/ping";
    CVDiagnosticsRows entries(out, root);
    for (const PingData& data : table_) {
        appendEntry(entries, data, valueLocked(data.key, &data));
    }
}

} // namespace ScObjects
