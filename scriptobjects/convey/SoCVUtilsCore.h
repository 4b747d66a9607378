#pragma once

#include <cstdint>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

// Services of the messaging engine that belong to no one class. Threads: any.
namespace ScObjects::ConveyUtils {

// Asks the background threads of `target`, or of every registered application for
// "allRunningApps", over this process's stream; see Convey::Thread::ping for the answers. `request`
// false sends an answer instead of a question. `answered`, null for none, receives how many
// targets gave an answer or let the time pass. The waits last `timeoutSeconds` at most, each. Empty
// when this process has no good stream.
SO_EXPORT SoString ping(const SoString& target, bool request, const SoString& key,
                        uint32_t serialNumber, int32_t timeoutSeconds, const SoString* parameters,
                        int32_t* answered);

// Hands a message to the observer that is registered with the main instance for `handlerType`
// ("FWDMESSAGES", "FWDERRORS", "FWDLOGS"), as rows under the path `root`, with `label` saying what
// happened to it. Observers are called one after the other in the order of what is forwarded, by
// whichever thread comes to it. False without an observer, for messages of type "Debug" and "Log",
// for empty ones and for what an observer's own messages bring about.
SO_EXPORT bool forwardMessage(const Convey::Message& message, const SoString& handlerType,
                              const SoString& root, const SoString& label);
// Whether there is such an observer, and it may be told.
bool isForwarding(const char* handlerType);

// As long as one lives, what its thread forwards is kept; its end hands it to the observers, which
// are handlers of the host and may do anything, receiving included. Declared before a lock under
// which messages are forwarded.
class DelayedForwarding {
public:
    DelayedForwarding();
    ~DelayedForwarding();
    DelayedForwarding(const DelayedForwarding&) = delete;
    DelayedForwarding& operator=(const DelayedForwarding&) = delete;
};

// The name of the queue at which a launched application finds its parameters: application name,
// version and locale of the specifier.
SO_EXPORT SoString getLaunchMsgQueueName(const SoString& specifier);

// The name of the stream that a port belongs to; the port's own when it belongs to none.
SO_EXPORT SoString getStreamName(const SoString& portName);

// Splits a row of the diagnostics text into its path, label and value; `isHeading` is true for a
// row that has others below it. False, and nothing changed, for what is no row.
SO_EXPORT bool parseInfoLine(const SoString& row, SoString& path, SoString& label, SoString& value,
                             bool& isHeading);

} // namespace ScObjects::ConveyUtils
