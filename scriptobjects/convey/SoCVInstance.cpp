#include "scriptobjects/convey/SoCVInstance.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <new>

#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVGuard.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVPollSignal.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

using namespace ConveyData;
using Message = Convey::Message;
using MsgHandler = Convey::MsgHandler;
using Specifier = Convey::Specifier;

// The canonical text of a name, which is that of a stream.
SoString streamNameOf(const char* appName) {
    const Specifier specifier(appName, false);
    return CVSpecifierParts::of(specifier.view()).text();
}

} // namespace

PrivateData::PrivateData(ConveyContext* context, const SoString& streamName)
    : context_(context),
      stream_(ConveyUtils::createNextAvailableInterAppStream(streamName)),
      outbox_(Outbox::Kind::messages,
              [this](AwaitedRequest&& request) { return beginSending(std::move(request)); }),
      appName_(stream_ != nullptr ? stream_->getName() : streamName) {
    incoming_.setListener(this);
    outgoing().setListener(this);
    // Without a port it takes part within the process, where it is found by its name.
    if (stream_ == nullptr) {
        return;
    }
    const Specifier own(appName_.c_str(), false);
    if (!own.instance().isEmpty() && !own.isInstalled()) {
        Specifier whole(own);
        whole.setInstance(SoString());
        (void)whole.registerApplication(whole.getApplicationPath(nullptr), nullptr, false);
    }
}

PrivateData::~PrivateData() = default;

void PrivateData::close() {
    // While there is a way out for the answers.
    owed_.close([this](const Message& request, int32_t code, const SoString& text) {
        finishSurely(request, {}, answer(request, code, text));
    });
    // Who waits looks at it when it is woken below.
    closed_.store(true);
    std::shared_ptr<InterAppStream> stream;
    {
        const ObjectLock guard(*this);
        stream.swap(stream_);
    }
    noteActivity(); // who waits need not wait any longer
    // Closed now, and not with the last share in it: calls that are still in here may hold one, and
    // the name is to be free at once.
    if (stream != nullptr) {
        stream->close();
    }
    // Behind the notice, which goes by the context.
    context_.store(nullptr);
    takers_->close();
    conversations_.close(); // last: it calls the destructors of handlers
}

std::shared_ptr<InterAppStream> PrivateData::stream() const {
    const ObjectLock guard(*this);
    return stream_;
}

SoString PrivateData::appName() const {
    const ObjectLock guard(*this);
    return appName_;
}

void PrivateData::setAppName(const SoString& appName) {
    const ObjectLock guard(*this);
    appName_ = appName;
}

void PrivateData::watch(platform::PortWait& wait) const {
    if (const auto stream = this->stream()) {
        stream->watch(wait, number());
    }
}

bool PrivateData::leaveArrivals(platform::PortWait& wait, bool on) {
    if (areLeft_ != on) {
        const auto stream = this->stream();
        platform::PollSignal* const signal = PollSignal::get();
        if (stream != nullptr && signal != nullptr && stream->divert(wait, *signal, on)) {
            areLeft_ = on;
        }
    }
    return areLeft_;
}

// Both ways in which a host may wait: threads of its own in the layer, and a main loop at its
// descriptor.
void PrivateData::noteActivity() const {
    if (ConveyContext* context = this->context()) {
        context->noteActivity();
    }
    remindHost();
}

void PrivateData::remindHost() const {
    // Only with a message for a handler: a signal that was raised for nothing would have a program
    // run in which nothing happens.
    if (PollSignal::isWatched() && !isClosed() && !incoming_.isEmpty()) {
        PollSignal::raise();
    }
}

SoString PrivateData::infoRoot(const char* leaf) const {
    SoString root("/");
    root << Convey::getSharedAppName() << "/instances/" << appName() << "/" << leaf;
    return root;
}

void PrivateData::setDiagnosticsRoots() {
    incoming_.setDiagnosticsRoot(infoRoot("in"));
    outbox_.messages().setDiagnosticsRoot(infoRoot("out"));
}

namespace {

// How long the oldest message of a queue waits.
void appendOldest(CVDiagnosticsRows& rows, const MessageQueue& queue, const char* leaf,
                  const char* label) {
    const uint32_t now = ConveyUtils::getTimeSeconds();
    uint32_t oldest = now;
    bool any = false;
    queue.forEach([&](const Message& message) {
        any = true;
        oldest = std::min(oldest, message.getTimestamp());
    });
    if (any) {
        rows.leaf(leaf, label, now - oldest, "s");
    } else {
        rows.undefined(leaf, label);
    }
}

// What others may ask of this instance.
void appendTypes(CVDiagnosticsRows& rows, const std::vector<std::string>& types) {
    rows.count("/types", "Types with a handler", types.size());
    for (size_t i = 0; i < types.size(); ++i) {
        rows.leaf("/types/" + std::to_string(i), "Type", types[i].empty() ? "any" : types[i]);
    }
}

} // namespace

void PrivateData::appendDiagnostics(SoString& out, const SoString& path) const {
    const SoString name = appName();
    SoString root = path;
    root << "/" << name;
    const auto stream = this->stream();
    CVDiagnosticsRows rows(out, root);
    rows.node("", "Instance", name);
    rows.leaf("/stream", "Stream", stream != nullptr ? stream->getName() : SoString("none"));
    // Once for both: their number and their rows are of the same moment.
    const auto watchers = conversations_.watchers();
    const struct {
        const char* leaf;
        const char* label;
        const MessageQueue& queue;
        size_t watchers; // which count as messages that wait
    } queues[] = {{"/in", "Incoming", incoming_, watchers.size()},
                  {"/out", "Outgoing", outbox_.messages(), 0}};
    for (const auto& queue : queues) {
        SoString queuePath = root;
        queuePath << queue.leaf;
        rows.count(queue.leaf, queue.label,
                   static_cast<size_t>(queue.queue.count()) + queue.watchers);
        (void)queue.queue.appendDiagnostics(out, queuePath);
        for (size_t i = 0; i < queue.watchers; ++i) {
            watchers[i]->appendDiagnostics(out, queuePath);
        }
    }
    rows.leaf("/handlers", "Handlers", static_cast<uint32_t>(conversations_.handlerCount()));
    rows.leaf("/outofmemory", "Texts dropped for want of memory", arrivals_.dropped());
    rows.leaf("/predecessor", "Answers to a predecessor", answersToPredecessor_.load());
    rows.leaf("/rejected", CV_DIGEST_REJECTED, rejected_.load());
    if (const uint32_t lost = answersLost_.load()) {
        rows.leaf("/lost", "Answers lost for want of memory", lost);
    }
    occupations_.appendDiagnostics(rows);
    owed_.appendDiagnostics(rows);
    appendOldest(rows, incoming_, "/oldestin", "Oldest incoming");
    appendOldest(rows, outbox_.messages(), "/oldestout", "Oldest outgoing");
    rows.leaf("/inbytes", "Incoming bytes",
              static_cast<uint32_t>(std::min<int64_t>(arrivals_.load().bytes, UINT32_MAX)));
    rows.leaf("/full", "Senders without room", static_cast<uint32_t>(arrivals_.withoutRoom()));
    traffic_.appendDiagnostics(rows, incoming_.dropped() + outbox_.messages().dropped());
    outbox_.appendDiagnostics(rows);
    appendTypes(rows, conversations_.handledTypes());
}

// Handlers.

std::shared_ptr<HandlerSlot> PrivateData::findSlot(const SoString& type,
                                                   uint32_t serialNumber) const {
    return conversations_.find(type.view(), serialNumber);
}

MsgHandler* PrivateData::findHandler(const SoString& type, uint32_t serialNumber) const {
    const auto slot = findSlot(type, serialNumber);
    return slot == nullptr ? nullptr : slot->handler();
}

MsgHandler* PrivateData::changeHandler(MsgHandler* handler) {
    const auto replaced = handler == nullptr ? nullptr : conversations_.add(handler);
    // `release` waits until no other thread is in it: what the caller gets it may delete.
    return replaced == nullptr ? nullptr : replaced->release();
}

MsgHandler* PrivateData::removeHandler(const SoString& type, uint32_t serialNumber) {
    const auto removed = conversations_.take(type.view(), serialNumber);
    if (removed == nullptr) {
        return nullptr;
    }
    // Who waits in `send` for this number sees that its handlers are gone.
    noteActivity();
    return removed->release();
}

bool PrivateData::deleteHandler(const MsgHandler* handler) {
    // Nobody is waited for here, so that a handler may delete itself: its slot goes with the last
    // thread that is in it.
    const auto removed = conversations_.take(handler);
    if (removed != nullptr) {
        noteActivity();
    }
    return removed != nullptr;
}

bool PrivateData::deleteHandlers(uint32_t serialNumber) {
    // They go with this call, with no lock held.
    const HandlerSlots removed = conversations_.takeAll(serialNumber);
    if (!removed.empty()) {
        noteActivity();
    }
    return !removed.empty();
}

// The face.

namespace {

// The blocks of memory in which `new` has made instances: what stands elsewhere is not ours to
// delete.
struct Blocks {
    std::mutex mutex;
    std::map<const void*, size_t, std::less<>> bytes;
};

Blocks& blocks() {
    // Never destroyed, since instances may end later than static objects; and in a place of its
    // own, since a destructor may be the first to ask, which must not need memory.
    alignas(Blocks) static std::byte place[sizeof(Blocks)];
    static auto* const all = new (place) Blocks;
    return *all;
}

bool isInBlock(const void* place) {
    const std::lock_guard<std::mutex> guard(blocks().mutex);
    // The block that begins last before the place: an instance may be a base of a larger object and
    // begin within its block.
    auto block = blocks().bytes.upper_bound(place);
    if (block == blocks().bytes.begin()) {
        return false;
    }
    --block;
    // Only this orders addresses of different blocks; the bare operator need not.
    return std::less<>()(
        place, static_cast<const void*>(static_cast<const char*>(block->first) + block->second));
}

} // namespace

void* Convey::operator new(size_t bytes) {
    void* const block = SoHeap::operator new(bytes);
    // A block that is not noted would pass for memory of somebody else's, which nobody deletes:
    // without memory for the note there is no instance.
    try {
        const std::lock_guard<std::mutex> guard(blocks().mutex);
        blocks().bytes.emplace(block, bytes);
    } catch (...) {
        SoHeap::operator delete(block);
        throw;
    }
    return block;
}

void Convey::operator delete(void* p) noexcept {
    if (p != nullptr) {
        // Before the block goes: another thread may be given the same one as soon as it is free.
        const std::lock_guard<std::mutex> guard(blocks().mutex);
        (void)blocks().bytes.erase(p);
    }
    SoHeap::operator delete(p);
}

void Convey::endWithContext() {
    if (isInBlock(this)) {
        delete this;
    } else {
        close();
    }
}

// A call of the face. The instance may be gone when a handler that runs meanwhile has deleted
// it, and has nothing behind its face when memory ran out as it was made.
template <class Value, class Operation>
static Value onData(const std::shared_ptr<PrivateData>& shared, Value neutral,
                    Operation&& operation) noexcept {
    const ConveyContext::Visit visit;
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it keeps the state alive
    const std::shared_ptr<PrivateData> data = shared;
    return data == nullptr ? std::move(neutral)
                           : guarded(std::move(neutral), [&] { return operation(*data); });
}

Convey::Convey(const char* appName, MsgHandler* handler, bool isMain, ConveyContext* context)
    : data_(guarded(std::shared_ptr<PrivateData>(), [&] {
          // A setup in the background makes the context that this instance is to belong to.
          ConveySetupThread::syncWithSetupThread();
          if (context == nullptr && ConveyContext::getCurrentContext() == nullptr) {
              (void)InitTerm::init(appName, true);
          }
          return std::make_shared<PrivateData>(
              context != nullptr ? context : ConveyContext::getCurrentContext(),
              streamNameOf(appName));
      })) {
    // Owned from the call on, whatever of the rest fails.
    std::unique_ptr<MsgHandler> owned(handler);
    const bool isWhole = onData(data_, false, [&](PrivateData& data) {
        if (ConveyContext* const owner = data.context()) {
            owner->appendInstance(this);
            if (isMain) {
                owner->setMainInstance(this);
            }
        }
        data.setDiagnosticsRoots();
        if (handler != nullptr) {
            delete data.changeHandler(owned.release());
            (void)runForeign([] { return std::string("the initialization of a handler"); },
                             [&] { handler->initialize(this); });
        }
        return true;
    });
    // Without memory for all of it: one that is closed does nothing, where half an instance would
    // take messages that it cannot handle.
    if (!isWhole) {
        close();
    }
}

Convey::~Convey() {
    close();
}

bool Convey::isReachable() const {
    return data_ != nullptr && data_->isReachable();
}

void Convey::close() {
    // There is nothing behind the face when memory ran out as it was made.
    if (data_ == nullptr) {
        return;
    }
    // First, so that nobody finds it any more; then it ends for those who have.
    if (ConveyContext* context = data_->context()) {
        context->removeInstance(this);
    }
    data_->close();
}

bool Convey::send(Message& message, bool mayLaunch, uint32_t waitSeconds,
                  const SoString* launchParameters) const {
    return onData(data_, false, [&](PrivateData& data) {
        return data.send(message, mayLaunch, waitSeconds, launchParameters);
    });
}

bool Convey::sendResult(const Message& request, const SoString& result) const {
    return onData(data_, false,
                  [&](PrivateData& data) { return data.sendResult(request, result); });
}

bool Convey::processIncomingMessage(uint32_t serialNumber, bool process) {
    return onData(data_, false,
                  [&](PrivateData& data) { return data.processIncoming(serialNumber, process); });
}

bool Convey::processOutgoingMessage() {
    return onData(data_, false,
                  [](PrivateData& data) { return (void)data.processOutgoing(), false; });
}

bool Convey::messagePending() const {
    if (incomingMessagePending() || outgoingMessagePending()) {
        return true;
    }
    (void)Thread::setPingValue(ConveyThread::CV_STATUS, ConveyThread::CV_IDLE);
    return false;
}

bool Convey::incomingMessagePending() const {
    return onData(data_, false, [](PrivateData& data) { return data.incomingPending(); });
}

bool Convey::outgoingMessagePending() const {
    return onData(data_, false, [](PrivateData& data) { return data.outgoingPending(); });
}

bool Convey::removeIncomingMessage(uint32_t serialNumber) {
    return onData(data_, false,
                  [&](PrivateData& data) { return data.incoming().removeMessage(serialNumber); });
}

SoString Convey::getAppName() const {
    return onData(data_, SoString(), [](PrivateData& data) { return data.appName(); });
}

void Convey::setAppName(const char* appName) {
    (void)onData(data_, false, [&](PrivateData& data) {
        const SoString name(appName);
        // By the context, which finds it by its name.
        if (ConveyContext* const context = data.context()) {
            context->renameInstance(this, name);
        } else {
            data.setAppName(name);
        }
        return true;
    });
}

Convey::MsgHandler* Convey::findHandler(const SoString& type, uint32_t serialNumber) {
    return onData(data_, static_cast<MsgHandler*>(nullptr),
                  [&](PrivateData& data) { return data.findHandler(type, serialNumber); });
}

Convey::MsgHandler* Convey::changeHandler(MsgHandler* handler) {
    std::unique_ptr<MsgHandler> owned(handler);
    return onData(data_, static_cast<MsgHandler*>(nullptr),
                  [&](PrivateData& data) { return data.changeHandler(owned.release()); });
}

Convey::MsgHandler* Convey::removeHandler(const SoString& type, uint32_t serialNumber) {
    return onData(data_, static_cast<MsgHandler*>(nullptr),
                  [&](PrivateData& data) { return data.removeHandler(type, serialNumber); });
}

bool Convey::deleteHandler(const MsgHandler* handler) {
    return onData(data_, false, [&](PrivateData& data) { return data.deleteHandler(handler); });
}

bool Convey::deleteHandlers(uint32_t serialNumber) {
    return onData(data_, false,
                  [&](PrivateData& data) { return data.deleteHandlers(serialNumber); });
}

ConveyContext* Convey::getContext() const {
    return data_ == nullptr ? nullptr : data_->context();
}

void Convey::setContext(ConveyContext* context) {
    (void)onData(data_, false, [&](PrivateData& data) {
        ConveyContext* const old = data.context();
        if (context == nullptr || context == old || data.isClosed()) {
            return false;
        }
        context->appendInstance(this); // first: it may fail
        if (old != nullptr) {
            old->removeInstance(this);
        }
        data.setContext(context);
        data.noteDue(0); // what was told to the thread of the old one
        return true;
    });
}

void Convey::appendDiagnostics(SoString& out, const SoString& path) const {
    (void)onData(data_, false,
                 [&](PrivateData& data) { return data.appendDiagnostics(out, path), true; });
}

} // namespace ScObjects
