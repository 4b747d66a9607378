#include "scriptobjects/convey/SoCVInstance.h"

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>

#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
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
      appName_(stream_ != nullptr ? stream_->getName() : streamName) {
    incoming_.setListener(this);
    outgoing().setListener(this);
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
    closed_.store(true);
    const HandlerSlots handlers = conversations_.close(); // deleted at the end
    std::shared_ptr<InterAppStream> stream;
    {
        const ObjectLock guard(*this);
        stream.swap(stream_);
    }
    noteActivity(); // who waits need not wait any longer
    if (stream != nullptr) {
        stream->close();
    }
    context_.store(nullptr);
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
        stream->watch(wait);
    }
}

void PrivateData::noteActivity() const {
    if (ConveyContext* context = this->context()) {
        context->noteActivity();
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

void PrivateData::appendDiagnostics(SoString& out, const SoString& path) const {
    const SoString name = appName();
    SoString root = path;
    root << "/" << name;
    const auto stream = this->stream();
    CVDiagnosticsRows rows(out, root);
    rows.node("", "Instance", name);
    rows.leaf("/stream", "Stream", stream != nullptr ? stream->getName() : SoString("none"));
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
        const auto count =
            static_cast<uint32_t>(static_cast<size_t>(queue.queue.count()) + queue.watchers);
        if (count != 0) {
            rows.node(queue.leaf, queue.label, count);
        } else { // readers take a node for one that has rows below
            rows.leaf(queue.leaf, queue.label, count);
        }
        (void)queue.queue.appendDiagnostics(out, queuePath);
        for (size_t i = 0; i < queue.watchers; ++i) {
            watchers[i]->appendDiagnostics(out, queuePath);
        }
    }
    rows.leaf("/handlers", "Handlers", static_cast<uint32_t>(conversations_.handlerCount()));
    rows.leaf("/predecessor", "Answers to a predecessor", answersToPredecessor_.load());
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
    return replaced == nullptr ? nullptr : replaced->release();
}

MsgHandler* PrivateData::removeHandler(const SoString& type, uint32_t serialNumber) {
    const auto removed = conversations_.take(type.view(), serialNumber);
    if (removed == nullptr) {
        return nullptr;
    }
    noteActivity();
    return removed->release();
}

bool PrivateData::deleteHandler(const MsgHandler* handler) {
    const auto removed = conversations_.take(handler);
    if (removed != nullptr) {
        noteActivity();
    }
    return removed != nullptr;
}

bool PrivateData::deleteHandlers(uint32_t serialNumber) {
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
    static auto* const all = new Blocks; // instances may end later than static objects
    return *all;
}

bool isInBlock(const void* place) {
    const std::lock_guard<std::mutex> guard(blocks().mutex);
    auto block = blocks().bytes.upper_bound(place);
    if (block == blocks().bytes.begin()) {
        return false;
    }
    --block;
    return std::less<>()(
        place, static_cast<const void*>(static_cast<const char*>(block->first) + block->second));
}

} // namespace

void* Convey::operator new(size_t bytes) {
    void* const block = SoHeap::operator new(bytes);
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
        const std::lock_guard<std::mutex> guard(blocks().mutex);
        (void)blocks().bytes.erase(p);
    }
    SoHeap::operator delete(p);
}

void Convey::endWithContext() {
    if (isInBlock(this)) {
        delete this;
        return;
    }
    if (ConveyContext* context = data_->context()) {
        context->removeInstance(this);
    }
    data_->close();
}

Convey::Convey(const char* appName, MsgHandler* handler, bool isMain, ConveyContext* context)
    : data_([&] {
          ConveySetupThread::syncWithSetupThread();
          if (context == nullptr && ConveyContext::getCurrentContext() == nullptr) {
              (void)InitTerm::init(appName, true);
          }
          return std::make_shared<PrivateData>(
              context != nullptr ? context : ConveyContext::getCurrentContext(),
              streamNameOf(appName));
      }()) {
    ConveyContext* const owner = data_->context();
    if (owner != nullptr) {
        owner->appendInstance(this);
        if (isMain) {
            owner->setMainInstance(this);
        }
    }
    data_->setDiagnosticsRoots();
    if (handler != nullptr) {
        delete changeHandler(handler);
        handler->initialize(this);
    }
}

Convey::~Convey() {
    if (ConveyContext* context = data_->context()) {
        context->removeInstance(this);
    }
    data_->close();
}

bool Convey::send(Message& message, bool mayLaunch, uint32_t waitSeconds,
                  const SoString* launchParameters) const {
    // The instance may be gone when a handler that runs meanwhile has deleted it.
    const ConveyContext::Visit visit;
    const std::shared_ptr<PrivateData> data = data_;
    return guarded(false,
                   [&] { return data->send(message, mayLaunch, waitSeconds, launchParameters); });
}

bool Convey::sendResult(const Message& request, const SoString& result) const {
    const ConveyContext::Visit visit;
    const std::shared_ptr<PrivateData> data = data_;
    return guarded(false, [&] { return data->sendResult(request, result); });
}

bool Convey::processIncomingMessage(uint32_t serialNumber, bool process) {
    const ConveyContext::Visit visit;
    const std::shared_ptr<PrivateData> data = data_;
    return guarded(false, [&] { return data->processIncoming(serialNumber, process); });
}

bool Convey::processOutgoingMessage() {
    const ConveyContext::Visit visit;
    const std::shared_ptr<PrivateData> data = data_;
    (void)guarded(false, [&] { return (void)data->processOutgoing(), true; });
    return false;
}

bool Convey::messagePending() const {
    if (incomingMessagePending() || outgoingMessagePending()) {
        return true;
    }
    (void)Thread::setPingValue(ConveyThread::CV_STATUS, ConveyThread::CV_IDLE);
    return false;
}

bool Convey::incomingMessagePending() const {
    return data_->incomingPending();
}

bool Convey::outgoingMessagePending() const {
    return data_->outgoingPending();
}

bool Convey::removeIncomingMessage(uint32_t serialNumber) {
    return guarded(false, [&] { return data_->incoming().removeMessage(serialNumber); });
}

SoString Convey::getAppName() const {
    return guarded(SoString(), [&] { return data_->appName(); });
}

void Convey::setAppName(const char* appName) {
    (void)guarded(false, [&] { return data_->setAppName(SoString(appName)), true; });
}

Convey::MsgHandler* Convey::findHandler(const SoString& type, uint32_t serialNumber) {
    return data_->findHandler(type, serialNumber);
}

Convey::MsgHandler* Convey::changeHandler(MsgHandler* handler) {
    return guarded(static_cast<MsgHandler*>(nullptr),
                   [&] { return data_->changeHandler(handler); });
}

Convey::MsgHandler* Convey::removeHandler(const SoString& type, uint32_t serialNumber) {
    return data_->removeHandler(type, serialNumber);
}

bool Convey::deleteHandler(const MsgHandler* handler) {
    return data_->deleteHandler(handler);
}

bool Convey::deleteHandlers(uint32_t serialNumber) {
    return guarded(false, [&] { return data_->deleteHandlers(serialNumber); });
}

ConveyContext* Convey::getContext() const {
    return data_->context();
}

void Convey::setContext(ConveyContext* context) {
    ConveyContext* const old = data_->context();
    if (context == nullptr || context == old || data_->isClosed()) {
        return;
    }
    if (old != nullptr) {
        old->removeInstance(this);
    }
    data_->setContext(context);
    context->appendInstance(this);
}

void Convey::appendDiagnostics(SoString& out, const SoString& path) const {
    (void)guarded(false, [&] { return data_->appendDiagnostics(out, path), true; });
}

} // namespace ScObjects
