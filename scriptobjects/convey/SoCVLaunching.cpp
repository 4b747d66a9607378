#include "scriptobjects/convey/SoCVLaunching.h"

#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "limits/Limits.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects {
namespace {

constexpr size_t kMaximumTargetBytes = limits::of("launch.target");
constexpr size_t kMaximumParameterBytes = limits::of("launch.parameters");
constexpr uint32_t kParametersSeconds = limits::of("launch.age");
// This application is launched without parameters and fetches them by itself.
constexpr const char* kLaunchedWithoutParameters = "docsafe-8.0";
// What a caller writes into the parameters to have it so for any application.
constexpr std::string_view kNoParameters = "-noparam";

bool isTooLong(const char* parameters) {
    return parameters != nullptr && std::strlen(parameters) > kMaximumParameterBytes;
}

// The parameters of an application that is being launched, as it finds them.
SoString launchParametersFor(const Convey::Specifier& target, const char* parameters) {
    SoString text("-specifier ");
    text << target << " -nostartupscreen";
    const SoString instance = target.instance();
    if (!instance.isEmpty()) {
        text << " -instance " << instance;
    }
    if (parameters != nullptr && *parameters != '\0') {
        text << " " << parameters;
    }
    return text;
}

SoString pathOf(const Convey::Specifier& target, const SoString& own) {
    SoString path = target.getApplicationPath(own.c_str());
    if (path.isEmpty()) { // instances share the path of their application
        Convey::Specifier whole(target);
        (void)whole.setInstance(SoString());
        path = whole.getApplicationPath(own.c_str());
    }
    return path;
}

// Queues the parameters for the target, which fetches them when it starts.
void queueLaunchParameters(ConveyContext& context, ConveyData::PrivateData& main,
                           const Convey::Specifier& target, const SoString& parameters) {
    auto message = std::make_unique<Convey::Message>();
    message->setTarget(ConveyUtils::getLaunchMsgQueueName(target));
    message->setSender(main.appName());
    message->setType(ConveyData::CV_TYPE_LAUNCH_PARAMETERS);
    message->setSerialNumber(context.getNextSerialNumber());
    message->setTimeout(kParametersSeconds);
    message->setBody(parameters);
    (void)main.queueOutgoing(std::move(message)); // it has a target and a sender
}

int32_t launch(const CVResolution& resolution, const char* parameters, int32_t focus,
               ConveyContext& context) {
    const auto main = context.pinMain();
    if (main == nullptr || isTooLong(parameters) || resolution.specifier().isEmpty() ||
        context.pin(resolution.specifier()) != nullptr) {
        return 0;
    }
    // Whatever endpoint is meant, what is launched is its application.
    CVResolution application = resolution.withoutSuffix();
    if (application.isRunning()) {
        return 1;
    }
    const Convey::Specifier& target = application.specifier();
    ConveyConnector* const connector = ConveyConnector::get();
    // Before anything is left for it: who has no path cannot come for it.
    if (connector == nullptr || pathOf(target, context.getAppSpecifier()).isEmpty()) {
        return 0;
    }
    const SoString text = launchParametersFor(target, parameters);
    Convey::Specifier keyName(target);
    (void)keyName.setInstance(SoString());
    SoString key(ConveyThread::CV_LAUNCHPARAMS);
    key << ':' << keyName;
    ConveyThread* const thread = context.getThread();
    (void)thread->setKeyValuePair(key, text);
    // It stays as long as the parameters wait, and goes by itself.
    (void)thread->setTimeout(key, kParametersSeconds);
    const bool withoutParameters = target == kLaunchedWithoutParameters ||
                                   text.view().find(kNoParameters) != std::string_view::npos;
    // Before it is started: it may look for them in its queue at once.
    queueLaunchParameters(context, *main, target, text);
    // By the connector, which remembers the process: it counts as running from now on, before it
    // has a port.
    const int32_t result = connector->launchTarget(target, withoutParameters ? SoString() : text,
                                                   focus == 0, &context);
    if (result != 1) { // one that is started by hand must not find them
        (void)thread->setKeyValuePair(key, SoString());
    }
    return result;
}

} // namespace

int32_t ConveyUtils::launchNamed(const char* target, const char* parameters, int32_t focus,
                                 ConveyContext& context) {
    if (std::strlen(target) > kMaximumTargetBytes || isTooLong(parameters)) {
        return 0; // before anything is asked of the registry
    }
    return launchResolved(CVResolution(target), parameters, focus, context);
}

int32_t ConveyUtils::launchResolved(const CVResolution& resolution, const char* parameters,
                                    int32_t focus, ConveyContext& context) {
    try {
        return launch(resolution, parameters, focus, context);
    } catch (const std::bad_alloc&) {
        return 0; // the sender's message gets its error instead of an exception
    }
}

} // namespace ScObjects
