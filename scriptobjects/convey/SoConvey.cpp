#include "scriptobjects/convey/SoConvey.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <string>

#include "limits/Limits.h"
#include "platform/MainLoop.h"
#include "platform/TextMemory.h"
#include "scriptobjects/connector/PCDConnector.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVLaunching.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVPing.h"
#include "scriptobjects/convey/SoCVPollSignal.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

using ConveyData::guarded;

constexpr int32_t kPumpedMessages = limits::of("pump.messages"); // of each instance
constexpr uint32_t kRefreshSeconds = limits::of("registry.refresh");
constinit std::atomic<uint32_t> gLastRefresh{0}; // seconds since 1970
constinit std::atomic<bool> gQuit{false};        // for `run`

// What `InitTerm::init` has started, in the reverse order.
void shutDown() {
    // First of all: a setup that is under way uses all of the rest.
    ConveySetupThread::reset();
    ScObjects::Thread::InitTerm::exit();
    ConveyData::MessageGlobals::exit();
    ConveyConnector::InitTerm::exit();
    InterAppStream::InitTerm::exit();
    ConveyUtils::exit();
    // Behind all that may let go of texts as it ends.
    platform::TextMemory::giveBack();
    ConveyData::PollSignal::raise(); // who sleeps in `run` has nothing to wait for any more
}

ConveyThread* mainThread() {
    return ConveyThread::getMainThread();
}

void setStatus(const char* status) {
    if (ConveyThread* thread = mainThread()) {
        thread->noteStatus(status);
    }
}

// The rows as text for people: a heading for each group, indented by its depth.
SoString formatted(const SoString& rows) {
    SoString text("Convey Diagnostics\n----------------------\n");
    std::string_view rest = rows.view();
    while (!rest.empty()) {
        // The last row may come without its line feed.
        const size_t end = std::min(rest.find('\n'), rest.size() - 1) + 1;
        const SoString row(rest.data(), static_cast<int32_t>(end));
        rest.remove_prefix(end);
        SoString path;
        SoString label;
        SoString value;
        bool isHeading = false;
        if (!ConveyUtils::parseInfoLine(row, path, label, value, isHeading)) {
            continue;
        }
        const std::string_view steps = path.view().substr(1);
        const SoString indentation(
            std::string(static_cast<size_t>(std::count(steps.begin(), steps.end(), '/')), '\t')
                .c_str());
        if (isHeading) {
            text << "\n" << indentation << label << ": " << value << "\n";
        } else {
            text << indentation << label;
            if (!value.isEmpty()) {
                text << " = " << value;
            }
            text << "\n";
        }
    }
    return text;
}

// What `query` gives of the process-wide connector, or `neutral`.
template <class Value, class Query>
Value askConnector(Value neutral, Query&& query) noexcept {
    ConveyConnector* connector = ConveyConnector::get();
    if (connector == nullptr) {
        return neutral;
    }
    return guarded(std::move(neutral), [&] { return Value(query(*connector)); });
}

} // namespace

bool Convey::InitTerm::init(const SoString& appSpecifier, bool synchronous) {
    // Without waiting for a setup: a layer that is being started counts as started.
    if (ConveyContext::currentContextNow() != nullptr ||
        ConveySetupThread::isSetupThreadRunning()) {
        return false;
    }
    return guarded(false, [&] {
        ConveyUtils::init();
        InterAppStream::InitTerm::init(appSpecifier);
        ConveyConnector::InitTerm::init(appSpecifier);
        ConveyData::MessageGlobals::init();
        ScObjects::Thread::InitTerm::init();
        const bool started = synchronous ? ConveySetupThread::runSetup(appSpecifier)
                                         : ConveySetupThread::startSetupThread(appSpecifier);
        // The next attempt is to find nothing of this one.
        if (!started) {
            shutDown();
        }
        return started;
    });
}

bool Convey::InitTerm::exit() {
    // A setup that is under way would put its context in place behind our back.
    (void)ConveySetupThread::syncWithSetupThread();
    ConveyContext* const context = ConveyContext::currentContextNow();
    if (context == nullptr && ConveySetupThread::hasRun()) {
        return guarded(false, [] { // it failed, and left the rest of the layer behind
            shutDown();
            return true;
        });
    }
    // Neither from the background thread, which would wait for its own end, nor from within a
    // handler: it would take the layer away from under its own call.
    if (context == nullptr || context->getThread()->isOwnThread() ||
        ConveyData::handlerDepth() != 0) {
        return false;
    }
    return guarded(false, [] {
        ConveyContext::setCurrentContext(nullptr);
        if (ConveyContext::currentContextNow() != nullptr) {
            return false; // one was put in place meanwhile
        }
        shutDown();
        return true;
    });
}

bool Convey::Thread::setPingValue(const SoString& key, const SoString& value) {
    return guarded(false, [&] {
        ConveyThread* const thread = mainThread();
        return thread != nullptr && thread->setKeyValuePair(key, value);
    });
}

SoString Convey::Thread::getPingValue(const SoString& key) {
    return guarded(SoString(), [&] {
        const ConveyThread* const thread = mainThread();
        return thread == nullptr ? SoString() : thread->getValueForKey(key);
    });
}

bool Convey::Thread::setPingHandler(const SoString& key, MsgHandler* handler) {
    return guarded(false, [&] {
        ConveyThread* const thread = mainThread();
        if (thread == nullptr) {
            delete handler; // owned from the call on
            return false;
        }
        return thread->setHandler(key, handler);
    });
}

Convey::MsgHandler* Convey::Thread::getPingHandler(const SoString& key) {
    const ConveyThread* const thread = mainThread();
    return thread == nullptr ? nullptr : thread->findHandler(key);
}

SoString Convey::Thread::ping(const char* target, const char* key, int32_t timeoutSeconds,
                              const SoString* parameters) {
    return guarded(SoString(), [&] {
        const ConveyThread* const thread = mainThread();
        if (thread == nullptr) {
            return SoString();
        }
        const SoString name(target);
        // The word for all applications names none, and is not completed.
        return name == kPingAll ? thread->ping(name, SoString(key), timeoutSeconds, parameters)
                                : ConveyUtils::pingResolved(CVResolution(target), SoString(key),
                                                            timeoutSeconds, parameters);
    });
}

ConveyContext* Convey::getSharedContext() {
    return ConveyContext::getCurrentContext();
}

void Convey::setSharedContext(ConveyContext* context) {
    ConveyContext::setCurrentContext(context);
}

Convey* Convey::get(ConveyContext* context) {
    context = context != nullptr ? context : ConveyContext::getCurrentContext();
    return context == nullptr ? nullptr : context->getMainInstance();
}

Convey* Convey::get(const char* appName, ConveyContext* context) {
    context = context != nullptr ? context : ConveyContext::getCurrentContext();
    return context == nullptr ? nullptr : guarded<Convey*>(nullptr, [&] {
        return context->findInstance(SoString(appName));
    });
}

void Convey::set(Convey* instance, ConveyContext* context) {
    context = context != nullptr ? context : ConveyContext::getCurrentContext();
    if (context != nullptr) {
        context->setMainInstance(instance);
    }
}

bool Convey::targetIsRunning(const char* target) {
    return guarded(false, [target] { return CVResolution(target).isRunning(); });
}

int32_t Convey::launchTarget(const char* target, const char* parameters, int32_t focus,
                             ConveyContext* context) {
    context = context != nullptr ? context : ConveyContext::getCurrentContext();
    return target == nullptr || context == nullptr ? 0 : guarded(0, [&] {
        return ConveyUtils::launchNamed(target, parameters, focus, *context);
    });
}

bool Convey::bringToFront(const char* target, ConveyContext* context) {
    return askConnector(false, [&](const ConveyConnector& connector) {
        return connector.bringToFront(Specifier(target, true).c_str(), context);
    });
}

uint32_t Convey::getProcessID(const char* target) {
    return askConnector(
        0U, [target](const ConveyConnector& c) { return c.getProcessID(Specifier(target, true)); });
}

bool Convey::pump(EnabledOperations operations, ConveyContext* context) {
    const ConveyContext::Visit visit;
    if (context == nullptr) {
        // A pump does not wait for a setup in the background, which a host has so that it need not
        // wait.
        context = ConveySetupThread::isSetupThreadRunning() ? nullptr
                                                            : ConveyContext::getCurrentContext();
    }
    if (context == nullptr) {
        return false;
    }
    return guarded(false, [&] {
        const uint32_t now = ConveyUtils::getTimeSeconds();
        uint32_t last = gLastRefresh.load();
        // Of several threads that pump, one looks.
        if (now - last >= kRefreshSeconds && gLastRefresh.compare_exchange_strong(last, now)) {
            if (ConveyConnector* connector = ConveyConnector::get()) {
                (void)connector->updateCache(false);
            }
        }
        // For who asks from outside: a host that stays in a handler shows as pumping for as long.
        setStatus(ConveyThread::CV_PUMPING);
        // Before one looks: what arrives from now on raises it again.
        (void)ConveyData::PollSignal::lower();
        bool processed = false;
        bool left = false;
        // With a share of each, as handlers may delete instances, their own among them.
        for (uint64_t number = 0; const auto instance = context->pinNext(number);) {
            instance->notePump();
            if ((operations & kProcessIncoming) != 0) {
                // Who sends without end must not keep the host from all else.
                int32_t handled = 0;
                while (handled < kPumpedMessages &&
                       instance->processIncoming(kAnySerialNumber, true)) {
                    ++handled;
                }
                processed = processed || handled > 0;
                left = left || handled == kPumpedMessages;
            }
            if ((operations & kProcessOutgoing) != 0) {
                (void)instance->processOutgoing();
            }
        }
        setStatus(ConveyThread::CV_IDLE);
        // What this pump has handled may have come in while it ran. What is left is for the next
        // one, unless this one could handle nothing: then its hindrance tells when it goes.
        if ((operations & kProcessIncoming) != 0) {
            context->getThread()->notePump(processed);
        }
        if ((ConveyData::PollSignal::lower() || processed) && ConveyData::PollSignal::isWatched()) {
            for (uint64_t number = 0; const auto instance = context->pinNext(number);) {
                instance->remindHost();
            }
        }
        // Whatever is left, wherever it lies: a host that sleeps beside it would sleep for long.
        if (left) {
            ConveyData::PollSignal::raise();
        }
        return processed;
    });
}

bool Convey::pumpOrWait(uint32_t milliseconds, ConveyContext* context) {
    // The end of the layer keeps the context until this call has left it, wait and all.
    const ConveyContext::Visit visit;
    ConveyContext* const current =
        context != nullptr ? context : ConveyContext::getCurrentContext();
    if (current == nullptr) {
        return false;
    }
    // Before the pump: what comes in behind it ends the wait at once.
    const uint64_t seen = current->activity();
    if (pump(kProcessBoth, current)) {
        return true;
    }
    current->waitForActivity(seen, milliseconds);
    return pump(kProcessBoth, current);
}

// The signal of a host that waits for it: from now on the background thread looks after what waits
// for that.
static platform::PollSignal* watchedSignal() {
    platform::PollSignal* const signal = ConveyData::PollSignal::get();
    if (ConveyThread* const thread = ConveyThread::getMainThread()) {
        thread->noteDue(0);
    }
    return signal;
}

int32_t Convey::getPollDescriptor() {
    return guarded(-1, [] {
        const platform::PollSignal* const signal = watchedSignal();
        return signal == nullptr ? -1 : signal->descriptor();
    });
}

int32_t Convey::run() {
    return guarded(-1, [] {
        platform::PollSignal* const signal = watchedSignal();
        // For as long as this runs only: then requests to end mean again what the host has made of
        // them.
        const auto requests = platform::MainLoops::system().takeEndRequests();
        int32_t request = signal == nullptr || requests == nullptr ? -1 : 0;
        while (request == 0) {
            (void)pump(kProcessBoth, nullptr);
            // Behind the pump, which lowers the signal that came with them.
            if (gQuit.exchange(false)) {
                return 0;
            }
            // The end of the layer has raised the signal, and nothing will do so again.
            if (ConveyContext::getCurrentContext() == nullptr) {
                return -1;
            }
            request = requests->wait(*signal);
        }
        return request;
    });
}

void Convey::quit() {
    // Before the signal: woken in the other order `run` might find nothing and sleep on.
    gQuit.store(true);
    ConveyData::PollSignal::raise();
}

void Convey::getDiagnostics(SoString& out, bool formattedText) {
    (void)guarded(false, [&] {
        // Aside, so that the caller's text stays as it was when memory runs out.
        SoString rows;
        const ConveyContext* const context = ConveyContext::getCurrentContext();
        if (context != nullptr) {
            SoString root("/");
            root << getSharedAppName();
            context->appendDiagnostics(rows, root);
            context->getThread()->appendDiagnostics(rows, root);
            root << "/instances";
            CVDiagnosticsRows(rows, root).node("", "Instances", context->getNumberOfInstances());
            for (uint64_t number = 0; const auto instance = context->pinNext(number);) {
                instance->appendDiagnostics(rows, root);
            }
            if (const ConveyConnector* connector = ConveyConnector::get()) {
                SoString own("/");
                own << getSharedAppName();
                connector->appendDiagnostics(rows, own);
            }
        }
        out = formattedText ? formatted(rows) : std::move(rows);
        return true;
    });
}

SoString Convey::getLaunchOptions() {
    return Thread::getPingValue(ConveyThread::CV_LAUNCHPARAMS);
}

bool Convey::suppressStartupScreen() {
    return getLaunchOptions().view().find("-nostartupscreen") != std::string_view::npos;
}

bool Convey::isRegistryKnown() {
    return guarded(false, [] { return ConveyConnector::isRegistryKnown(); });
}

int32_t Convey::getNumberOfRegisteredApplications() {
    return askConnector<int32_t>(
        0, [](const ConveyConnector& c) { return c.getNumberOfRegisteredApplications(); });
}

SoString Convey::getApplicationSpecifier(int32_t index) {
    return askConnector(
        SoString(), [index](const ConveyConnector& c) { return c.getApplicationSpecifier(index); });
}

SoString Convey::getDisplayName(const SoString& appName, const SoString& version,
                                const SoString& locale) {
    return askConnector(SoString(), [&](const ConveyConnector& c) {
        return c.getDisplayName(appName, version, locale);
    });
}

SoString Convey::getSharedAppName() {
    const ConveyContext* context = ConveyContext::getCurrentContext();
    return context == nullptr
               ? SoString()
               : guarded(SoString(), [context] { return context->getAppSpecifier(); });
}

bool Convey::useConnector(const SoString& name) {
    return guarded(false, [&] {
        ConveyConnector* const current = ConveyConnector::get();
        if (current != nullptr && name == "refresh") {
            current->clearCache();
            return true;
        }
        if (current != nullptr && name == "removeAll") {
            return current->removeAll();
        }
        const SoString type = name.isEmpty() || name == "default" ? SoString("PCD") : name;
        // Made anew it would read the whole registry again, to the same end.
        if (current != nullptr && current->getName() == type) {
            return true;
        }
        const SoString own = getSharedAppName();
        ConveyConnector* const connector = ConveyUtils::createConnector(own, type);
        if (connector == nullptr) {
            return false;
        }
        // The switches of messages stand in the registry, and another one may have others.
        ConveyConnector::set(connector);
        Message::setAuthentication(connector->getMessageAuthentication(own));
        Message::setCreateDigest(connector->getMessageDigest(own));
        return true;
    });
}

SoString Convey::getConnectorConfig(const SoString& name, const SoString& specifier) {
    return guarded(SoString(), [&] {
        const ConveyConnector* const current = ConveyConnector::get();
        if (current != nullptr &&
            (name.isEmpty() || name == "default" || name == current->getName())) {
            return current->getConnectorConfig(specifier);
        }
        // For this question only: the process's own stays in use.
        const std::unique_ptr<ConveyConnector> other(
            ConveyUtils::createConnector(getSharedAppName(), name));
        return other == nullptr ? SoString() : other->getConnectorConfig(specifier);
    });
}

bool Convey::importFromConnector(const SoString& name) {
    return guarded(false, [&] {
        ConveyConnector* const current = ConveyConnector::get();
        if (current == nullptr || name.isEmpty()) {
            return false;
        }
        // A file has a folder in its name and XML begins with its bracket: no connector's name has
        // either.
        const bool isSource =
            *name.c_str() == '<' || name.view().find('/') != std::string_view::npos;
        const SoString source = isSource ? name : getConnectorConfig(name, SoString());
        return !source.isEmpty() && current->importFrom(source);
    });
}

bool Convey::updateConnectorCache(bool force) {
    if (ConveyConnector::get() == nullptr && !useConnector("default")) {
        return false;
    }
    return askConnector(false,
                        [force](ConveyConnector& c) { return c.isGood() && c.updateCache(force); });
}

void Convey::setCapsFolder(const SoString& folder) {
    PCDConnector::setCapsFolder(folder);
}

SoString Convey::getCapsFolder() {
    return PCDConnector::getCapsFolder();
}

} // namespace ScObjects
