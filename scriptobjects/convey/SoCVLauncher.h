#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoVector.h"

namespace ScObjects {

class InterAppStream;

namespace ConveyUtils {

// Starts applications, hands them their parameters and brings them to the front. The connector asks
// it; hosts use `Convey::launchTarget` and `Convey::bringToFront`. Threads: any; no lock of the
// layer may be held.
class SO_EXPORT Launcher {
public:
    // How an application is started. Other values are as good as kInFront.
    enum Focus : int32_t { kInFront = 0, kBehind = 1 };

    // How the process of an application is found. Other values find none.
    enum SearchHint : int32_t { kByBundlePath = 3 };

    // What begins like this is opened, and not looked for on the disk; compared exactly, so
    // HTTPS:// is a path.
    static constexpr std::string_view kWebAddress = "https://";

    // Starts the application at `path`: a bundle, a program or a desktop entry; or opens a web
    // address ("https://"), of which it is told who asks. A bundle that runs already is not started
    // a second time but brought to the front, unless it is the calling process or `specifier` names
    // an instance.
    //
    // `params`, null for none, are queued for it in three messages: to its launch queue, to its
    // process and, as the comment lines of a script, to itself. Until it has received that script,
    // or for five minutes, or until the launch has failed, a port says that parameters are waiting.
    // Messages that were queued for a failed launch end by their time-out.
    //
    // True when it was started or opened. `pid`, when given, receives the number of its process, 0
    // when it has none.
    static bool launch(const SoString& specifier, const SoString& path, const SoString* params,
                       Focus focus, uint32_t* pid);

    // Brings the running application whose bundle lies at `path` to the front; nothing happens
    // when none runs or it shows no window.
    static void bringToFront(const SoString& path, SearchHint hint);

    // Whether the process that was launched under this number runs; false for 0.
    static bool isProcessRunning(uint32_t pid);
};

} // namespace ConveyUtils

// Watches one message of a launch for its time-out, and holds what says that a launch is pending.
// Deleting it ends both.
class LaunchTimeoutMsgHandler : public Convey::MsgHandler {
public:
    // `key`: of the ping table, emptied when the watch ends. `queueName`: the launch queue whose
    // "haslaunchparams" port is held, null for none.
    LaunchTimeoutMsgHandler(const SoString& key, uint32_t serial, const SoString* queueName);
    ~LaunchTimeoutMsgHandler() override;
    LaunchTimeoutMsgHandler(const LaunchTimeoutMsgHandler&) = delete;
    LaunchTimeoutMsgHandler& operator=(const LaunchTimeoutMsgHandler&) = delete;

    // Nobody received the message: stops waiting for that.
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;
    SoString getMsgType() const override { return ConveyData::CV_TYPE_TIMEOUT; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    void removePingKey() const;

    const SoString key_;
    const uint32_t serial_;
    const std::unique_ptr<InterAppStream> port_;
};

// Waits for the acknowledgement of one message of a launch, which ends its watch.
class LaunchReceivedMsgHandler : public Convey::MsgHandler {
public:
    explicit LaunchReceivedMsgHandler(uint32_t serial) : serial_(serial) {}

    // Further messages of the same launch that the acknowledgement makes unnecessary.
    void addCompanions(const SoVector<uint32_t>& companions);

    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;
    SoString getMsgType() const override { return ConveyData::CV_TYPE_RECEIVED; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const uint32_t serial_;
    std::vector<uint32_t> companions_;
};

} // namespace ScObjects
