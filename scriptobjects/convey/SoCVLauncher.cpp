#include "scriptobjects/convey/SoCVLauncher.h"

#include <new>
#include <string_view>

#include "limits/Limits.h"
#include "platform/Desktop.h"
#include "platform/Files.h"
#include "platform/Processes.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVLaunchParameters.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

using ConveyData::PrivateData;
using ConveyUtils::Launcher;
using Message = Convey::Message;

constexpr std::string_view kAppExtension = ".app";
constexpr uint32_t kLaunchSeconds = limits::of("launch.age");

std::unique_ptr<InterAppStream> pendingPort(const SoString* queueName) {
    if (queueName == nullptr) {
        return nullptr;
    }
    Convey::Specifier name(queueName->c_str(), false);
    (void)name.setSuffix(ConveyUtils::kPendingSuffix);
    // Taken when another launch of the application is pending: its port says the same.
    return std::make_unique<InterAppStream>(name);
}

// Removes the handler of just this type and number, and not one of the host's for any number.
void deleteExactly(PrivateData& instance, const char* type, uint32_t serial) {
    const auto slot = instance.findSlot(type, serial);
    const Convey::MsgHandler* const handler = slot == nullptr ? nullptr : slot->handler();
    if (handler != nullptr && handler->getSerialNumber() == serial) {
        (void)instance.deleteHandler(handler);
    }
}

// The instance that a reply is for.
std::shared_ptr<PrivateData> receiverOf(const Message& message) {
    const ConveyContext* const context = ConveyContext::currentContextNow();
    return context == nullptr ? nullptr : context->pin(message.getTarget());
}

// The messages of one launch, and what watches them.
class HandOver {
public:
    HandOver(ConveyContext& context, PrivateData& sender)
        : context_(context),
          sender_(sender),
          name_(sender.appName()),
          key_(ConveyThread::CV_LAUNCHPARAMS) {
        key_ << ':' << name_;
    }

    void begin(const SoString& specifier, const SoString& params) {
        const SoString queueName = ConveyUtils::getLaunchMsgQueueName(specifier);
        // All have a target and a sender, so none is refused.
        (void)sender_.queueOutgoing(
            newMessage(queueName, ConveyData::CV_TYPE_LAUNCH_PARAMETERS, params));

        // Its queue has the number of the process in its name, which is not known before the start.
        process_ = newMessage(SoString(), ConveyData::CV_TYPE_LAUNCH_PARAMETERS, params);
        processTarget_ = Convey::Specifier(specifier.c_str(), false).appName();
        processTarget_ << "#";

        // All of it comment lines: who runs what it is sent as a script runs nothing.
        SoString script("// ");
        script << key_ << "\n// " << params << "\n";
        auto message = newMessage(specifier, ConveyData::CV_TYPE_PLAIN, script);
        message->setResponseRequest(ConveyData::CV_WANTS_RECEIVED);
        scriptSerial_ = message->getSerialNumber();
        // Before it is queued: its acknowledgement may be here at once. From here on the port says
        // that parameters wait, and the target has not been started yet.
        watch(scriptSerial_, &queueName);
        (void)sender_.queueOutgoing(std::move(message));
    }

    // Once the number of the process is known.
    void complete(uint32_t pid) {
        if (process_ == nullptr) {
            return;
        }
        processTarget_ << pid;
        process_->setTarget(processTarget_);
        const uint32_t serial = process_->getSerialNumber();
        (void)sender_.queueOutgoing(std::move(process_));
        // Without a port: that of the script's watch stands for the whole launch.
        watch(serial, nullptr);
    }

    // Nobody will come for the parameters: a target that is started by hand must not wait for them.
    void abandon() {
        if (scriptSerial_ != 0) {
            deleteExactly(sender_, ConveyData::CV_TYPE_TIMEOUT, scriptSerial_);
            deleteExactly(sender_, ConveyData::CV_TYPE_RECEIVED, scriptSerial_);
            sender_.unwatchTime(scriptSerial_);
        }
    }

private:
    std::unique_ptr<Message> newMessage(const SoString& target, const char* type,
                                        const SoString& body) const {
        auto message = std::make_unique<Message>();
        message->setTarget(target);
        message->setSender(name_);
        message->setSerialNumber(context_.getNextSerialNumber());
        message->setTimeout(kLaunchSeconds);
        message->setType(type);
        message->setBody(body);
        return message;
    }

    // Handlers for the acknowledgement and for the time-out, which a watcher in the own queue tells
    // when it is over.
    void watch(uint32_t serial, const SoString* queueName) {
        delete sender_.changeHandler(new LaunchTimeoutMsgHandler(key_, serial, queueName));
        delete sender_.changeHandler(new LaunchReceivedMsgHandler(serial));
        Message watched;
        watched.setSender(name_);
        watched.setSerialNumber(serial);
        sender_.watchTime(watched, kLaunchSeconds);
    }

    ConveyContext& context_;
    PrivateData& sender_;
    const SoString name_;
    SoString key_;
    uint32_t scriptSerial_ = 0; // 0: nothing was queued
    std::unique_ptr<Message> process_;
    SoString processTarget_;
};

bool openAddress(const SoString& path, const PrivateData* asker) {
    std::string address(path.view());
    address += "?sender=";
    if (asker != nullptr) {
        address += asker->appName().view();
    }
    // As one argument: no shell reads what the address contains.
    return platform::Processes::system().startProgram("xdg-open", {address});
}

// A bundle runs once for the user, except that nobody launches itself by being there.
uint32_t runningBundle(const SoString& specifier, const std::string& path) {
    // An instance is wanted beside what runs: that takes a process of its own.
    if (!path.ends_with(kAppExtension) ||
        !Convey::Specifier(specifier.c_str(), false).instance().isEmpty()) {
        return 0;
    }
    platform::Processes& processes = platform::Processes::system();
    for (const uint32_t process : processes.find(path)) {
        if (process != processes.ownNumber()) {
            return process;
        }
    }
    return 0;
}

uint32_t start(const SoString& specifier, const std::string& path, Launcher::Focus focus) {
    platform::Desktop& desktop = platform::Desktop::system();
    if (const uint32_t running = runningBundle(specifier, path)) {
        if (focus != Launcher::kBehind) {
            (void)desktop.bringToFront(running); // it may have no window
        }
        return running;
    }
    const bool behind = focus == Launcher::kBehind;
    // Before the start: what is in front now is what the focus is given back to.
    const uint32_t front = behind ? desktop.frontWindow() : 0;
    const uint32_t started = platform::Processes::system().startApplication(path, behind);
    if (behind && started != 0) {
        desktop.keepBehind(started, front);
    }
    return started;
}

} // namespace

bool Launcher::launch(const SoString& specifier, const SoString& path, const SoString* params,
                      Focus focus, uint32_t* pid) {
    if (pid != nullptr) {
        *pid = 0;
    }
    if (path.isEmpty()) {
        return false;
    }
    try {
        ConveyContext* const context = ConveyContext::getCurrentContext();
        const auto main = context == nullptr ? nullptr : context->pinMain();
        if (path.view().substr(0, Launcher::kWebAddress.size()) == Launcher::kWebAddress) {
            // A browser takes it: there is no process that parameters could be for.
            return openAddress(path, main.get());
        }
        // Before the start: the target looks for its parameters first of all.
        std::unique_ptr<HandOver> handOver;
        // They go as messages of the main instance; without one the target starts without them.
        if (params != nullptr && main != nullptr) {
            handOver = std::make_unique<HandOver>(*context, *main);
            handOver->begin(specifier, *params);
        }
        const std::string file(path.view());
        const uint32_t started =
            platform::Files::system().exists(file) ? start(specifier, file, focus) : 0;
        if (handOver != nullptr && started != 0) {
            handOver->complete(started);
        } else if (handOver != nullptr) {
            handOver->abandon();
        }
        if (pid != nullptr) {
            *pid = started;
        }
        return started != 0;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void Launcher::bringToFront(const SoString& path, SearchHint hint) {
    if (hint != kByBundlePath || path.isEmpty()) {
        return;
    }
    try {
        for (const uint32_t process : platform::Processes::system().find(path.c_str())) {
            if (platform::Desktop::system().bringToFront(process)) {
                return; // of several processes, one has the windows
            }
        }
    } catch (const std::bad_alloc&) {
        return; // as without a desktop
    }
}

bool Launcher::isProcessRunning(uint32_t pid) {
    return pid != 0 && platform::Processes::system().isRunning(pid);
}

LaunchTimeoutMsgHandler::LaunchTimeoutMsgHandler(const SoString& key, uint32_t serial,
                                                 const SoString* queueName)
    : key_(key), serial_(serial), port_(pendingPort(queueName)) {}

LaunchTimeoutMsgHandler::~LaunchTimeoutMsgHandler() {
    // The key says that a launch is pending, as the port does, and goes with it.
    removePingKey();
}

void LaunchTimeoutMsgHandler::removePingKey() const {
    try {
        ConveyThread* const thread = ConveyThread::getMainThread();
        // Only where it stands: to set it empty would make a new one of it.
        if (thread != nullptr && thread->locateKey(key_) >= 0) {
            (void)thread->setKeyValuePair(key_, SoString());
        }
    } catch (const std::bad_alloc&) {
        return; // the entry expires by itself
    }
}

int32_t LaunchTimeoutMsgHandler::handleMessage(int /*event*/, Message& message, SoString* result) {
    removePingKey();
    if (const auto instance = receiverOf(message)) {
        deleteExactly(*instance, ConveyData::CV_TYPE_RECEIVED, serial_);
    }
    if (result != nullptr) {
        *result = ConveyThread::CV_LAUNCHED;
    }
    return 0;
}

void LaunchReceivedMsgHandler::addCompanions(const SoVector<uint32_t>& companions) {
    for (int32_t i = 0; i < companions.count(); ++i) {
        companions_.push_back(*companions[i]);
    }
}

int32_t LaunchReceivedMsgHandler::handleMessage(int /*event*/, Message& message,
                                                SoString* /*result*/) {
    const auto instance = receiverOf(message);
    if (instance == nullptr) {
        return 0;
    }
    // With the handler goes the port that says that parameters wait.
    deleteExactly(*instance, ConveyData::CV_TYPE_TIMEOUT, serial_);
    instance->unwatchTime(serial_);
    for (const uint32_t companion : companions_) {
        deleteExactly(*instance, ConveyData::CV_TYPE_TIMEOUT, companion);
        instance->unwatchTime(companion);
        instance->outgoing().dropNumber(companion);
    }
    return 0;
}

} // namespace ScObjects
