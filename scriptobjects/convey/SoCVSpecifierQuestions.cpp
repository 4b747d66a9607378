// What a specifier asks the registry and other processes about the application that it names.
#include "limits/Limits.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVLauncher.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVPing.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

constexpr int32_t kStatusSeconds = limits::of("ping.status");
constexpr int kSenderNames = limits::of("ping.names");

ConveyConnector* sharedConnector() {
    ConveyContext* context = Convey::getSharedContext();
    return context != nullptr ? context->getConnector() : nullptr;
}

// Whether the process that was launched for the application still runs.
bool isProcessOf(const Convey::Specifier& specifier) {
    const ConveyConnector* const connector = ConveyConnector::get();
    return connector != nullptr &&
           ConveyUtils::Launcher::isProcessRunning(connector->getProcessID(specifier));
}

// Sends a message that nobody answers to see whether somebody owns the name.
bool probe(const SoString& own, const SoString& target, const char* type, uint32_t serial) {
    // A process need not send to itself to know that it runs.
    if (own == target) {
        return true;
    }
    const InterAppStream* const stream = InterAppStream::get();
    // A free name has nobody behind it. One that could not be looked at passes for taken, and the
    // send below decides.
    if (stream == nullptr || stream->canOpen(target, false)) {
        return false;
    }
    // An answer, if there is one all the same, must not reach anybody.
    SoString sender;
    for (int attempt = 0; attempt <= kSenderNames; ++attempt) {
        sender = own;
        if (attempt > 0) {
            sender << "_" << newPingNumber();
        }
        sender << "#" << type;
        if (stream->canOpen(sender, false)) {
            break;
        }
    }
    Convey::Message message;
    message.setTarget(target);
    message.setSender(sender);
    message.setType(type);
    message.setSerialNumber(serial);
    SoString text;
    // An owner whose queue is full is there all the same, and not worth waiting for.
    return (stream->isGood() && message.writeToString(text) && stream->send(target, text, 0)) ||
           !stream->canOpen(target, false);
}

// The process number comes before the port: an application that was launched a moment ago lives
// and has no port yet, and must not be launched again.
CVPresence lookFor(const Convey::Specifier& target) {
    SoString own;
    uint32_t serial = 0;
    ConveyContext* const context =
        ConveySetupThread::isSetupThreadRunning() ? nullptr : ConveyContext::getCurrentContext();
    if (context != nullptr) {
        own = context->getAppSpecifier();
        serial = context->getNextSerialNumber();
    } else {
        own = "Unknown"; // the setup asks, too, and waiting for its own end would never end
        own << ConveyUtils::getUTCTimeMilliSeconds();
    }
    if (own == target) {
        return CVPresence::own;
    }
    // Who asks for a certain endpoint learns nothing from others of the application.
    if (target.suffix().isEmpty()) {
        if (isProcessOf(target)) {
            return CVPresence::process;
        }
        if (probe(own, ConveyThread::createThreadSpecifier(target), ConveyThread::CV_PING,
                  serial)) {
            return CVPresence::thread;
        }
    }
    // Last, for who owns the endpoint and has no background thread.
    return probe(own, target, ConveyData::CV_TYPE_PLAIN, serial) ? CVPresence::endpoint
                                                                 : CVPresence::absent;
}

} // namespace

SoString Convey::Specifier::group(SoString* detail) const {
    if (detail != nullptr) {
        detail->shrink(0);
    }
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr ? connector->findGroupForSpecifier(*this, detail) : SoString();
}

SoString Convey::Specifier::preferred(const SoString& appName,
                                      const SoString& versionOrGroup) const {
    ConveyConnector* connector = sharedConnector();
    if (connector == nullptr) {
        return *this;
    }
    const SoString group = versionOrGroup.isEmpty()
                               ? connector->findGroupForSpecifier(*this, nullptr)
                               : versionOrGroup;
    SoString result;
    if (!group.isEmpty()) {
        result = connector->findPreferredApp(*this, appName, group);
    }
    return result.isEmpty() ? appName : result;
}

SoString Convey::Specifier::getApplicationPath(const char* key) const {
    const ConveyConnector* connector = ConveyConnector::get();
    return connector != nullptr ? connector->getApplicationPath(*this, key) : SoString();
}

bool Convey::Specifier::isInstalled() const {
    return !isEmpty() && !getApplicationPath(c_str()).isEmpty();
}

bool Convey::Specifier::isRunning() const {
    if (isEmpty()) {
        return false;
    }
    CVPresence presence = CVFindings::of(*this);
    // Each look at one that runs costs it a message, so a decision looks once for each name.
    if (presence == CVPresence::unknown) {
        presence = lookFor(*this);
        CVFindings::note(*this, presence);
    }
    return presence != CVPresence::absent;
}

bool Convey::Specifier::isBusy() const {
    const InterAppStream* const stream = InterAppStream::get();
    return !isEmpty() && stream != nullptr && stream->isGood() &&
           ConveyUtils::ping(*this, true, ConveyThread::CV_STATUS, newPingNumber(), kStatusSeconds,
                             nullptr, nullptr) == ConveyThread::CV_BUSY;
}

SoString Convey::Specifier::status() const {
    return Thread::ping(c_str(), ConveyThread::CV_STATUS, kStatusSeconds, nullptr);
}

bool Convey::Specifier::registerApplication(const SoString& path, const SoString* detail,
                                            bool flag) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->registerApplication(*this, path, detail, flag);
}

bool Convey::Specifier::unregisterApplication(const SoString* detail) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->unregisterApplication(*this, detail);
}

bool Convey::Specifier::addToGroup(const SoString& group, const SoString* detail) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->addToGroup(*this, group, detail);
}

bool Convey::Specifier::removeFromGroup(const SoString& group, const SoString* detail) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->removeFromGroup(*this, group, detail);
}

} // namespace ScObjects
