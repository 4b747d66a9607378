#include "scriptobjects/convey/SoCVLaunchParameters.h"

#include <memory>

#include "limits/Limits.h"
#include "platform/Processes.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyUtils {
namespace {

// Waits end with a whole slice: the ten seconds for the queue of the process are twelve.
constexpr int32_t kSliceSeconds = 4;
constexpr int32_t kProcessQueueSeconds = limits::of("launch.process-queue");
constexpr int32_t kLaunchQueueSeconds = limits::of("launch.queue");

// What cannot be found out is asked once more, and is then no reason to wait for minutes: standard
// error has been told.
bool isLauncherWaiting(const InterAppStream& stream, const SoString& pendingName) {
    using Presence = InterAppStream::Presence;
    Presence found = stream.presenceOf(pendingName);
    if (found == Presence::unknown) {
        found = stream.presenceOf(pendingName);
    }
    return found == Presence::present;
}

// Waits for the parameters at an open stream. True also when the launcher has gone without leaving
// any: nobody will send them.
bool receiveFrom(InterAppStream& stream, SoString& parameters, int32_t seconds,
                 const SoString& pendingName) {
    bool pending = stream.messagePending();
    for (int32_t elapsed = 0; !pending && elapsed < seconds; elapsed += kSliceSeconds) {
        pending = stream.waitForMessage(kSliceSeconds * 1000, false);
        if (!pending && !isLauncherWaiting(stream, pendingName)) {
            pending = stream.messagePending(); // what it sent before it went is here
            if (!pending) {
                return true;
            }
        }
    }
    if (!pending || !stream.receive() || stream.isEmpty()) {
        return false;
    }
    const SoString text = stream.getMessages();
    Convey::Message message;
    (void)message.readFromString(text.c_str());
    parameters = message.getBody();
    return true;
}

} // namespace

bool receiveLaunchParams(const SoString& queueName, SoString& parameters, int32_t seconds,
                         const SoString& pendingName) {
    InterAppStream stream(queueName);
    // Without a port there is nothing to wait for. That is no failure, which would end the start of
    // the layer.
    return !stream.isGood() || receiveFrom(stream, parameters, seconds, pendingName);
}

bool getLaunchParameters(const SoString& specifier, SoString& parameters) {
    parameters.shrink(0);
    const Convey::Specifier parsed(specifier.c_str(), false);
    const SoString appName = parsed.appName();
    if (appName.isEmpty()) {
        return false;
    }
    const SoString queueName = CVSpecifierParts::of(parsed.view()).applicationText();
    Convey::Specifier pendingName(queueName.c_str(), false);
    (void)pendingName.setSuffix(kPendingSuffix);
    const InterAppStream* const stream = InterAppStream::get();
    if (stream == nullptr) {
        return true; // nothing can have been sent to a process that nothing can be sent to
    }
    if (!isLauncherWaiting(*stream, pendingName)) {
        return true;
    }
    // The queue of this process first: what comes there is for no other, while another start of the
    // application may be at the launch queue.
    SoString processQueue = appName;
    processQueue << "#" << platform::Processes::system().ownNumber();
    if (receiveLaunchParams(processQueue, parameters, kProcessQueueSeconds, pendingName)) {
        return true;
    }
    auto launchQueue = std::make_unique<InterAppStream>(queueName);
    if (!launchQueue->isGood()) {
        return true;
    }
    const bool received = receiveFrom(*launchQueue, parameters, kLaunchQueueSeconds, pendingName);
    // What came behind the parameters is for the instance that will have this name: with the stream
    // it would be lost.
    keepStreamFor(std::move(launchQueue));
    return received;
}

} // namespace ScObjects::ConveyUtils
