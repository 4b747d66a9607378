#include "scriptobjects/convey/SoCVContext.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <new>
#include <string_view>

#include "limits/Limits.h"
#include "platform/MessagePort.h"
#include "platform/Processes.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
namespace {

constinit std::atomic<ConveyContext*> gCurrentContext{nullptr};
constinit std::atomic<uint32_t> gLastSerialNumber{1}; // handed out by any context
constinit std::atomic<bool> gFirstCallSeen{false};
constinit std::atomic<uint64_t> gLastInstance{0}; // of any context, so that none is another's

constexpr const char* kBuild = "ES 4.5.6";
constexpr std::chrono::milliseconds kVisitorsMilliseconds{limits::of("exit.wait")};

// How many calls of hosts are in the layer: of all threads, and of this one.
constinit std::atomic<int32_t> gVisits{0};
constinit thread_local int32_t gOwnVisits = 0;

// Whether the calls of other threads have ended in time.
bool othersHaveLeft() {
    const auto end = std::chrono::steady_clock::now() + kVisitorsMilliseconds;
    // Looked at from time to time: to be told of it each call of a host would have to give a
    // notice, for the one end of the layer.
    while (gVisits.load() != gOwnVisits) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        ConveyUtils::sleep(1);
    }
    return true;
}

} // namespace

ConveyContext::Visit::Visit() {
    // Before the call looks for a context: the end of the layer waits for whoever may have found
    // one.
    gVisits.fetch_add(1);
    ++gOwnVisits;
}

ConveyContext::Visit::~Visit() {
    --gOwnVisits;
    gVisits.fetch_sub(1);
}

ConveyContext::ConveyContext(const SoString& appSpecifier)
    : serialNumber_(gLastSerialNumber.load()),
      thread_(std::make_unique<ConveyThread>(this, appSpecifier)) {
    // Here, where all is there that the thread uses.
    thread_->start();
}

bool ConveyContext::end() {
    // Without a lock: the thread may need each of them to come to its end.
    const bool stopped = thread_->stop();
    if (stopped) {
        (void)thread_->waitForRunExit();
    }
    while (Convey* instance = getNthInstance(0)) {
        instance->endWithContext(); // which removes it
    }
    noteActivity(); // who waits for some has nothing to wait for any more
    return stopped;
}

ConveyContext::~ConveyContext() {
    if (!end()) {
        (void)thread_.release(); // this is its own thread, which ends by itself
    }
    ConveyContext* self = this;
    // One that a host has made for itself leaves the current one alone.
    gCurrentContext.compare_exchange_strong(self, nullptr);
}

ConveyContext* ConveyContext::currentContextNow() {
    return gCurrentContext.load(std::memory_order_acquire);
}

ConveyContext* ConveyContext::getCurrentContext() {
    ConveyContext* const context = currentContextNow();
    if (context != nullptr && gFirstCallSeen.load(std::memory_order_relaxed)) {
        return context;
    }
    // The first call that finds one takes the setup's thread in, which notes how long the host had
    // to wait for it. After that nothing is asked but the pointer.
    if (context != nullptr) {
        gFirstCallSeen.store(true, std::memory_order_relaxed);
    }
    (void)ConveySetupThread::syncWithSetupThread();
    return currentContextNow();
}

void ConveyContext::setCurrentContext(ConveyContext* context) {
    ConveyContext* old = currentContextNow();
    if (old == context) {
        return;
    }
    if (old != nullptr && context != nullptr) {
        // Before it is the current one: who finds it by that finds the instances in it.
        context->appendContext(*old);
        const ObjectLock guard(*context);
        gLastSerialNumber.store(context->serialNumber_);
    }
    // The old one stays the current one while it ends, as its instances may need one.
    if (context != nullptr) {
        gCurrentContext.store(context, std::memory_order_release);
    }
    // Who waits for an answer is woken by the end of its instance, and comes by the context on its
    // way out.
    if (old != nullptr && context == nullptr && old->end() && !othersHaveLeft()) {
        old = nullptr; // a handler that does not return keeps it
    }
    delete old;
    gCurrentContext.store(context, std::memory_order_release);
}

void ConveyContext::appendContext(ConveyContext& other) {
    std::vector<Convey*> moved;
    Convey* main = nullptr;
    uint32_t number = 0;
    {
        // One lock after the other, never both: between two contexts there is no order.
        const ObjectLock guard(other);
        number = other.serialNumber_;
        main = other.mainInstance_;
        other.mainInstance_ = nullptr;
        for (const auto& [position, instance] : other.instances_) {
            moved.push_back(instance);
        }
        other.instances_.clear();
        other.lastAsked_ = {};
        other.places_.clear();
        other.names_.clear();
    }
    const ObjectLock guard(*this);
    serialNumber_ = std::max(serialNumber_, number);
    for (Convey* instance : moved) {
        instance->data()->setContext(this);
        if (findInstance(instance) == nullptr) {
            appendInstance(instance);
        }
    }
    mainInstance_ = main;
}

Convey* ConveyContext::findInstance(Convey* instance) {
    const ObjectLock guard(*this);
    return places_.count(instance) == 0 ? nullptr : instance;
}

Convey* ConveyContext::firstOfNameLocked(const SoString& appName) const {
    const auto found = names_.lower_bound(std::string_view(appName.c_str()));
    return found == names_.end() || found->first != appName.c_str() ? nullptr : found->second;
}

Convey* ConveyContext::findInstance(const SoString& appName) {
    const ObjectLock guard(*this);
    return firstOfNameLocked(appName);
}

// A share in it: its owner may delete the instance while the background is about to use it.
std::shared_ptr<ConveyData::PrivateData> ConveyContext::pin(const SoString& appName) const {
    const ObjectLock guard(*this);
    const Convey* const found = firstOfNameLocked(appName);
    return found == nullptr ? nullptr : found->data();
}

std::shared_ptr<ConveyData::PrivateData> ConveyContext::pinMain() const {
    const ObjectLock guard(*this);
    return mainInstance_ == nullptr ? nullptr : mainInstance_->data();
}

std::shared_ptr<ConveyData::PrivateData> ConveyContext::pin(uint64_t number) const {
    const ObjectLock guard(*this);
    const auto found = instances_.find(number);
    return found == instances_.end() ? nullptr : found->second->data();
}

std::shared_ptr<ConveyData::PrivateData> ConveyContext::pinNext(uint64_t& number) const {
    if (number >= lastNumber_.load()) {
        return nullptr;
    }
    const ObjectLock guard(*this);
    const auto next = instances_.upper_bound(number);
    if (next == instances_.end()) {
        return nullptr;
    }
    number = next->first;
    return next->second->data();
}

void ConveyContext::appendInstance(Convey* instance) {
    if (instance == nullptr) {
        return;
    }
    {
        const ObjectLock guard(*this);
        if (places_.count(instance) != 0) {
            return;
        }
        appendLocked(instance);
    }
    if (thread_ != nullptr) {
        thread_->watchInstance(instance);
    }
}

void ConveyContext::appendLocked(Convey* instance) {
    // The name is asked for within this lock, which comes before that of an instance: the other way
    // round two threads could wait for each other.
    const auto& data = instance->data();
    const SoString name = data == nullptr ? SoString() : data->appName();
    const auto named = names_.emplace(name.c_str(), instance);
    auto place = instances_.end();
    try {
        place = instances_.emplace_hint(place, gLastInstance.fetch_add(1) + 1, instance);
        places_.emplace(instance, Place{place, named});
    } catch (const std::bad_alloc&) {
        if (place != instances_.end()) {
            instances_.erase(place);
        }
        names_.erase(named);
        throw;
    }
    if (data != nullptr) {
        data->setNumber(place->first);
    }
    lastNumber_.store(place->first);
}

void ConveyContext::removeInstance(Convey* instance) {
    const ObjectLock guard(*this);
    const auto found = places_.find(instance);
    if (found != places_.end()) {
        const Place& place = found->second;
        if (lastAsked_.index >= 0) {
            if (place.instance == lastAsked_.instance) {
                lastAsked_ = {};
            } else if (place.instance->first < lastAsked_.instance->first) {
                --lastAsked_.index;
            }
        }
        names_.erase(place.name);
        instances_.erase(place.instance);
        places_.erase(found);
    }
    if (mainInstance_ == instance) {
        mainInstance_ = nullptr;
    }
}

void ConveyContext::renameInstance(Convey* instance, const SoString& appName) {
    const ObjectLock guard(*this);
    const auto place = places_.find(instance);
    if (place == places_.end()) {
        instance->data()->setAppName(appName);
        return;
    }
    const auto renamed = names_.emplace(appName.c_str(), instance);
    try {
        instance->data()->setAppName(appName);
    } catch (const std::bad_alloc&) {
        names_.erase(renamed);
        throw;
    }
    names_.erase(place->second.name);
    place->second.name = renamed;
}

int32_t ConveyContext::getNumberOfInstances() const {
    const ObjectLock guard(*this);
    return static_cast<int32_t>(instances_.size());
}

// Who asks for one after the other goes on from the last.
Convey* ConveyContext::getNthInstance(int32_t index) {
    const ObjectLock guard(*this);
    const auto count = static_cast<int32_t>(instances_.size());
    if (index < 0 || index >= count) {
        return nullptr;
    }
    Counted near{instances_.begin(), 0};
    if (count - 1 - index < index) {
        near = {std::prev(instances_.cend()), count - 1};
    }
    if (lastAsked_.index >= 0 &&
        std::abs(lastAsked_.index - index) < std::abs(near.index - index)) {
        near = lastAsked_;
    }
    std::advance(near.instance, index - near.index);
    lastAsked_ = {near.instance, index};
    return near.instance->second;
}

void ConveyContext::setMainInstance(Convey* instance) {
    {
        const ObjectLock guard(*this);
        mainInstance_ = instance;
    }
    if (thread_ != nullptr) {
        thread_->installForwarding(); // what pings asked for before there was one
    }
}

Convey* ConveyContext::getMainInstance() {
    const ObjectLock guard(*this);
    return mainInstance_;
}

uint32_t ConveyContext::getNextSerialNumber() {
    const ObjectLock guard(*this);
    const uint32_t number = serialNumber_++;
    // Kept beyond the context's end: the next one goes on behind it, or an answer to the one before
    // would find a request of the same number.
    gLastSerialNumber.store(number);
    return number;
}

// A message's question, answered where the numbers are: messages know nothing of contexts.
uint32_t Convey::Message::getNextSerialNumber(ConveyContext* context) const {
    if (context == nullptr) {
        context = ConveyContext::getCurrentContext();
    }
    return context == nullptr ? 0 : context->getNextSerialNumber();
}

bool ConveyContext::isLogging() const {
    const ObjectLock guard(*this);
    return logging_;
}

void ConveyContext::setLogging(bool on) {
    const ObjectLock guard(*this);
    logging_ = on;
}

ConveyConnector* ConveyContext::getConnector() const {
    return ConveyConnector::get();
}

SoString ConveyContext::getAppSpecifier() const {
    const auto main = pinMain();
    if (main == nullptr && thread_ == nullptr) {
        return SoString();
    }
    // As it stands, which is the name of its port: the start has completed it. Completed once more
    // "doc-7" would become the "doc-7.50" that it is not.
    Convey::Specifier own(
        main != nullptr ? main->appName().c_str() : thread_->getSpecifier().c_str(), false);
    own.setSuffix(SoString());
    return own;
}

SoString ConveyContext::getSignature() const {
    const ObjectLock guard(*this);
    if (signature_.isEmpty()) {
        signature_ = ConveyUtils::getSignature();
    }
    return signature_;
}

void ConveyContext::appendDiagnostics(SoString& out, const SoString& path) const {
    const Convey::Specifier own(getAppSpecifier().c_str(), false);
    CVDiagnosticsRows rows(out, path);
    rows.node("/context", "Info");
    rows.leaf("/name", "Name", own);
    rows.leaf("/status", "Status", own.status());
    const SoString group = own.group(nullptr);
    if (!group.isEmpty()) {
        rows.leaf("/group", "Group", group);
    }
    rows.leaf("/path", "Path", own.getApplicationPath(nullptr));
    rows.leaf("/version", "Version", Convey::kVersion);
    rows.leaf("/build", "Build", kBuild);
    // Only these are the context's own: what else is written asks other objects, without its lock.
    SoString number;
    bool logging = false;
    {
        const ObjectLock guard(*this);
        number << serialNumber_ + 1;
        logging = logging_;
    }
    rows.leaf("/nextsnr", "Next serial number", number);
    rows.leaf("/logging", "Logging:", logging ? "ON" : "OFF");
    rows.leaf("/now", "Now", ConveyUtils::getTimeString(nullptr));
    rows.node("/messages", "Messages");
    rows.leaf("/messages/version", "Message Version", Convey::Message().getVersion());
    rows.leaf("/messages/authentication", "Authentication",
              Convey::Message::getAuthentication() ? "ON" : "OFF");
    rows.leaf("/messages/digest", "Digest",
              ConveyData::MessageGlobals::get()->getCreateDigest() ? "ON" : "OFF");
    rows.leaf("/process", "Process", platform::Processes::system().ownNumber());
    const auto started = static_cast<uint32_t>(thread_->startTime() / 1000);
    rows.leaf("/started", "Started", ConveyUtils::getTimeString(&started));
    rows.leaf("/program", "Program", platform::Processes::system().ownProgram().c_str());
    rows.leaf("/ports", "Port folder", platform::MessagePorts::system().place().c_str());
}

uint64_t ConveyContext::activity() const {
    return activity_.load();
}

void ConveyContext::noteActivity() {
    // In this order, and who waits the other way round: one of the two sees the other, and as a
    // rule nobody waits.
    activity_.fetch_add(1);
    if (waiting_.load() != 0) {
        // A waiter that has just compared the number and is about to sleep would miss the notice
        // otherwise.
        { const std::lock_guard<std::mutex> guard(activityMutex_); }
        activityChanged_.notify_all();
    }
}

void ConveyContext::waitForActivity(uint64_t seen, int64_t milliseconds) {
    if (thread_ != nullptr && milliseconds > 0) {
        thread_->drawArrivals(); // which tells this one
    }
    // A plain mutex of its own: the object's lock is recursive, and a wait would give up one level
    // of it only.
    std::unique_lock<std::mutex> lock(activityMutex_);
    waiting_.fetch_add(1);
    activityChanged_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                              [&] { return activity_.load() != seen; });
    waiting_.fetch_sub(1);
}

} // namespace ScObjects
