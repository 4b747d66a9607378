#include "scriptobjects/convey/SoCVInstance.h"

#include <algorithm>

#include "scriptobjects/convey/SoCVContext.h"
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

constinit std::atomic<int> gForwarding{0}; // handlers that forward, of all instances

// The canonical text of a name, which is that of a stream.
SoString streamNameOf(const char* appName) {
    const Specifier specifier(appName, false);
    return CVSpecifierParts::of(specifier.view()).text();
}

} // namespace

HandlerSlot::HandlerSlot(MsgHandler* handler)
    : handler_(handler), forwards_(handler->getMsgType().view().substr(0, 3) == "FWD") {
    gForwarding.fetch_add(forwards_ ? 1 : 0, std::memory_order_relaxed);
}

HandlerSlot::~HandlerSlot() {
    gForwarding.fetch_sub(forwards_ ? 1 : 0, std::memory_order_relaxed);
    delete handler_.load();
}

bool HandlerSlot::anyForwards() {
    return gForwarding.load(std::memory_order_relaxed) != 0;
}

int32_t HandlerSlot::call(int event, Message& message, SoString* result) {
    const std::thread::id self = std::this_thread::get_id();
    MsgHandler* handler = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        handler = handler_.load();
        if (handler == nullptr) {
            return 0;
        }
        inside_.push_back(self);
    }
    const int32_t code = handler->handleMessage(event, message, result);
    const std::lock_guard<std::mutex> guard(mutex_);
    inside_.erase(std::find(inside_.begin(), inside_.end(), self));
    left_.notify_all();
    return code;
}

MsgHandler* HandlerSlot::release() {
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mutex_);
    MsgHandler* const handler = handler_.exchange(nullptr);
    left_.wait(lock, [&] {
        return std::all_of(inside_.begin(), inside_.end(),
                           [self](std::thread::id id) { return id == self; });
    });
    return handler;
}

PrivateData::PrivateData(ConveyContext* context, const SoString& streamName)
    : context_(context),
      stream_(ConveyUtils::createNextAvailableInterAppStream(streamName)),
      appName_(stream_ != nullptr ? stream_->getName() : streamName) {
    if (stream_ == nullptr) {
        return;
    }
    const Specifier own(appName_.c_str(), false);
    if (!own.instance().isEmpty() && !own.isInstalled()) {
        Specifier whole(own);
        whole.setInstance(SoString());
        registered_ = whole.registerApplication(whole.getApplicationPath(nullptr), nullptr, false);
    }
}

PrivateData::~PrivateData() = default;

void PrivateData::close() {
    closed_.store(true);
    std::shared_ptr<InterAppStream> stream;
    Slots handlers; // deleted when the lock has been given up
    {
        const ObjectLock guard(*this);
        stream.swap(stream_);
        handlers.swap(handlers_);
    }
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
    out << root << ";1;Instance;" << name << ";\n";
    out << root << "/stream;0;Stream;" << (stream != nullptr ? stream->getName() : SoString("none"))
        << ";\n";
    const struct {
        const char* leaf;
        const char* label;
        const MessageQueue& queue;
    } queues[] = {{"/in", "Incoming", incoming_}, {"/out", "Outgoing", outbox_.messages()}};
    for (const auto& queue : queues) {
        SoString queuePath = root;
        queuePath << queue.leaf;
        const auto count = static_cast<uint32_t>(queue.queue.count());
        out << queuePath << (count != 0 ? ";1;" : ";0;") << queue.label << ";" << count << ";\n";
        (void)queue.queue.appendDiagnostics(out, queuePath);
    }
    size_t handlers = 0;
    {
        const ObjectLock guard(*this);
        handlers = handlers_.size();
    }
    out << root << "/handlers;0;Handlers;" << static_cast<uint32_t>(handlers) << ";\n";
}

// Handlers.

PrivateData::Slots::const_iterator PrivateData::findExactlyLocked(const SoString& type,
                                                                  uint32_t serialNumber) const {
    // From the newest to the oldest.
    for (auto i = handlers_.end(); i != handlers_.begin();) {
        --i;
        const MsgHandler* handler = (*i)->handler();
        if (handler != nullptr && handler->getSerialNumber() == serialNumber &&
            handler->getMsgType() == type) {
            return i;
        }
    }
    return handlers_.end();
}

PrivateData::Slots::const_iterator PrivateData::findSlotLocked(const SoString& type,
                                                               uint32_t serialNumber) const {
    const auto exact = findExactlyLocked(type, serialNumber);
    if (exact != handlers_.end()) {
        return exact;
    }
    if (type.isEmpty()) {
        for (auto i = handlers_.end(); i != handlers_.begin();) {
            --i;
            const MsgHandler* handler = (*i)->handler();
            if (handler != nullptr && handler->getSerialNumber() == serialNumber) {
                return i;
            }
        }
    }
    return findExactlyLocked(type, CV_INVALID_MESSAGE_NUMBER);
}

std::shared_ptr<HandlerSlot> PrivateData::findSlot(const SoString& type,
                                                   uint32_t serialNumber) const {
    const ObjectLock guard(*this);
    const auto found = findSlotLocked(type, serialNumber);
    return found == handlers_.end() ? nullptr : *found;
}

MsgHandler* PrivateData::findHandler(const SoString& type, uint32_t serialNumber) const {
    const auto slot = findSlot(type, serialNumber);
    return slot == nullptr ? nullptr : slot->handler();
}

MsgHandler* PrivateData::changeHandler(MsgHandler* handler) {
    if (handler == nullptr) {
        return nullptr;
    }
    std::shared_ptr<HandlerSlot> replaced;
    {
        const ObjectLock guard(*this);
        const auto found = findExactlyLocked(handler->getMsgType(), handler->getSerialNumber());
        if (found != handlers_.end()) {
            if ((*found)->handler() == handler) {
                return nullptr;
            }
            replaced = *found;
            handlers_.erase(found);
        }
        handlers_.push_back(std::make_shared<HandlerSlot>(handler));
    }
    return replaced == nullptr ? nullptr : replaced->release();
}

MsgHandler* PrivateData::removeHandler(const SoString& type, uint32_t serialNumber) {
    std::shared_ptr<HandlerSlot> removed;
    {
        const ObjectLock guard(*this);
        const auto found = findSlotLocked(type, serialNumber);
        if (found == handlers_.end()) {
            return nullptr;
        }
        removed = *found;
        handlers_.erase(found);
    }
    noteActivity();
    return removed->release();
}

bool PrivateData::deleteHandler(const MsgHandler* handler) {
    std::shared_ptr<HandlerSlot> removed; // deleted when the lock has been given up
    {
        const ObjectLock guard(*this);
        const auto found = std::find_if(handlers_.begin(), handlers_.end(), [&](const auto& slot) {
            return slot->handler() == handler;
        });
        if (handler == nullptr || found == handlers_.end()) {
            return false;
        }
        removed = *found;
        handlers_.erase(found);
    }
    noteActivity();
    return true;
}

bool PrivateData::deleteHandlers(uint32_t serialNumber) {
    Slots removed; // deleted when the lock has been given up
    {
        const ObjectLock guard(*this);
        const auto kept = std::stable_partition(
            handlers_.begin(), handlers_.end(), [serialNumber](const auto& slot) {
                const MsgHandler* handler = slot->handler();
                return handler != nullptr && handler->getSerialNumber() != serialNumber;
            });
        removed.assign(std::make_move_iterator(kept), std::make_move_iterator(handlers_.end()));
        handlers_.erase(kept, handlers_.end());
    }
    if (!removed.empty()) {
        noteActivity();
    }
    return !removed.empty();
}

// The face.

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
    const std::shared_ptr<PrivateData> data = data_;
    return data->send(message, mayLaunch, waitSeconds, launchParameters);
}

bool Convey::sendResult(const Message& request, const SoString& result) const {
    const std::shared_ptr<PrivateData> data = data_;
    return data->sendResult(request, result);
}

bool Convey::processIncomingMessage(uint32_t serialNumber, bool process) {
    const std::shared_ptr<PrivateData> data = data_;
    return data->processIncoming(serialNumber, process);
}

bool Convey::processOutgoingMessage() {
    const std::shared_ptr<PrivateData> data = data_;
    (void)data->processOutgoing();
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
    return data_->incoming().removeMessage(serialNumber);
}

SoString Convey::getAppName() const {
    return data_->appName();
}

void Convey::setAppName(const char* appName) {
    data_->setAppName(SoString(appName));
}

Convey::MsgHandler* Convey::findHandler(const SoString& type, uint32_t serialNumber) {
    return data_->findHandler(type, serialNumber);
}

Convey::MsgHandler* Convey::changeHandler(MsgHandler* handler) {
    return data_->changeHandler(handler);
}

Convey::MsgHandler* Convey::removeHandler(const SoString& type, uint32_t serialNumber) {
    return data_->removeHandler(type, serialNumber);
}

bool Convey::deleteHandler(const MsgHandler* handler) {
    return data_->deleteHandler(handler);
}

bool Convey::deleteHandlers(uint32_t serialNumber) {
    return data_->deleteHandlers(serialNumber);
}

ConveyContext* Convey::getContext() const {
    return data_->context();
}

void Convey::setContext(ConveyContext* context) {
    ConveyContext* const old = data_->context();
    if (context == nullptr || context == old) {
        return;
    }
    if (old != nullptr) {
        old->removeInstance(this);
    }
    data_->setContext(context);
    context->appendInstance(this);
}

void Convey::appendDiagnostics(SoString& out, const SoString& path) const {
    data_->appendDiagnostics(out, path);
}

} // namespace ScObjects
