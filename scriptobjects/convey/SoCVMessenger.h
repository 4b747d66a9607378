#pragma once

#include <cstdint>
#include <memory>

#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

class ConveyContext;

namespace ConveyData {
class PrivateData;
} // namespace ConveyData

// What `Convey::pump` does.
enum EnabledOperations : int32_t {
    kProcessIncoming = 1,
    kProcessOutgoing = 2,
    kProcessBoth = 3,
};

// A messenger instance: one named endpoint of the layer in this process, which sends messages,
// receives them at a port of its own and hands them to handlers. Its static operations are the
// layer as a host program sees it: start and stop, and questions about the registered applications.
//
// An instance belongs to a context. At the end of the layer the context deletes it when it was made
// by `new` and its owner has not done so; one that lives on the stack or in another object is
// closed instead: it has no context any more, its operations do nothing and give neutral values,
// also when the layer is started again, and its owner destroys it when it likes. It owns its
// queues, its stream and the handlers registered with it. Handlers run on the
// thread that pumps, with no lock of the layer held: they may send, ping, add and remove handlers
// and delete their own instance.
//
// A child after `fork` is no part of the layer: its ports are dead, no thread runs there, and it
// has to `exec` or to end by `_exit` without a call of the layer. What it starts by `exec` may
// start the layer for itself, and inherits no descriptor of this process's.
//
// Every static operation gives the neutral value (false, 0, the empty text, null) while the layer
// is not started or no registry can be read. Nothing is thrown. Threads: `InitTerm` from one thread
// at a time; everything else from any thread between `InitTerm::init` and `InitTerm::exit`.
class SO_EXPORT Convey : public SoLockable {
public:
    class Specifier;  // SoCVSpecifier.h
    class Message;    // SoCVMessage.h
    class Header;     // SoCVMessage.h
    class MsgHandler; // SoCVMessage.h
    class Reply;      // SoCVReply.h
    class Messenger;  // this and the next three: SoCVMessaging.h
    class Request;
    class Pending;
    class Outcome;

    // The layer's own version, as registrations and messages give it.
    static constexpr const char* kVersion = "2.0";
    // For `processIncomingMessage`: the next message whatever its number.
    static constexpr uint32_t kAnySerialNumber = 0xFFFFFFFF;

    // What a request that asked for errors is told, as the body and the header "Error-Code" of an
    // "Error", when the process that took it ends without having answered: at once, since the
    // system says so, and once. That process may have handled the request. Not told are requests of
    // type "Debug", and those whose time-out is over.
    static constexpr int32_t kTargetEndedCode = ConveyData::CV_CODE_TARGET_ENDED;
    static constexpr const char* kTargetEndedText = ConveyData::CV_ERROR_TARGET_ENDED;

    // Starts and stops the layer for this process.
    class SO_EXPORT InitTerm {
    public:
        // Starts the layer as the application `appSpecifier`: opens this process's stream, loads
        // the registry, makes the shared context and starts the background thread. `synchronous`:
        // all that in the calling thread; else on a thread of its own, for which everything that
        // needs the context waits. True when this call started the layer; false when it is started
        // already or `appSpecifier` is no specifier. A missing database, port folder or home folder
        // is no failure: there is less to offer then.
        static bool init(const SoString& appSpecifier, bool synchronous);

        // Stops the layer and deletes or closes the instances that are left; false when it is not
        // started, on the background thread, and within a handler: the thread that pumps would come
        // back to what is gone. Other threads that wait in `send` or pump return.
        static bool exit();
    };

    // The background thread of this process, and questions to those of others.
    class SO_EXPORT Thread {
    public:
        // Writes and reads the table by which the thread answers pings.
        static bool setPingValue(const SoString& key, const SoString& value);
        static SoString getPingValue(const SoString& key);
        // A handler (owned from now on, null for none) that answers the key instead of a value. It
        // is called on the background thread.
        static bool setPingHandler(const SoString& key, MsgHandler* handler);
        // The handler of the key, or null; good until it is replaced.
        static MsgHandler* getPingHandler(const SoString& key);

        // Asks the background thread of the application `target` for the value of `key` (null for
        // an echo, "ECHO_RESPONSE") and waits for at most `timeoutSeconds`. Other answers:
        // "NOINTERAPPSTREAM" (this process has no stream), "INVALIDSPEC" (no specifier),
        // "UNDEFINED" (this process itself, the request could not be handed over, or it could not
        // be found out what is registered or runs; also when the time is up and this process had
        // no descriptors left to let the answer in), "MSGTOSTRINGERROR", "ISNOTINSTALLED",
        // "ISNOTRUNNING", "NOERROR" (sent, and a time-out below 1 waits for nothing), "Timeout".
        // `parameters` (null for none) go along. The target "allRunningApps" asks every registered
        // application and gives the last answer. Empty without a background thread.
        static SoString ping(const char* target, const char* key, int32_t timeoutSeconds,
                             const SoString* parameters);
    };

    // Makes an instance of the application name `appName` (a specifier), with `handler` (owned from
    // now on, null for none) installed; `isMain` makes it the context's main instance. `context`
    // null: the current one, for which the layer is started if need be. When the name has an owner,
    // the first of its instances that is free is taken. Without any the instance works within the
    // process only; when memory runs out it is closed from the start, and the handler deleted.
    Convey(const char* appName, MsgHandler* handler, bool isMain, ConveyContext* context);
    // Gives the name back at once; messages that wait are dropped.
    ~Convey() override;

    // Notes what is made by `new`, which the layer's end deletes; throws like that of SoHeap.
    static void* operator new(size_t bytes);
    static void* operator new(size_t, void* place) noexcept { return place; }
    static void operator delete(void* p) noexcept;
    static void operator delete(void*, void*) noexcept {}

    // Sends a message: to an instance of this process, over the target's port, or into the queue of
    // those that wait for their target. Completes the message (target, sender, serial number). True
    // when it was handed over. `mayLaunch`: the target is launched when it does not run, with
    // `launchParameters` (null for none); otherwise the message is not queued. `waitSeconds` not 0:
    // waits for the replies as well, pumping meanwhile. It is then true when the handlers
    // registered for the message's serial number have run and returned, or "Processed" or "Error"
    // has come and ended what they waited for (without such handlers there is nothing to wait for);
    // false when the time is over, "Timeout" came instead, somebody took the handlers out, or the
    // instance or the layer has ended. Beyond a depth of handlers (`convey limits`, handler.depth)
    // only messages that are waited for are handled. Failures are told to the message's sender as
    // an "Error" message with the header "Error-Code" 59 when the message asks for errors.
    bool send(Message& message, bool mayLaunch, uint32_t waitSeconds,
              const SoString* launchParameters) const;

    // Answers `request` with the text of a result; false when it did not ask for one.
    bool sendResult(const Message& request, const SoString& result) const;

    // Receives what has arrived and, when `process` is set, handles the next message that has to do
    // with `serialNumber` (kAnySerialNumber: any). True when one was handled.
    bool processIncomingMessage(uint32_t serialNumber, bool process);
    // Tries to send what waits for its target. Always false: one pass is enough.
    bool processOutgoingMessage();

    // Whether something waits: anything, what came in, what is to go out.
    bool messagePending() const;
    bool incomingMessagePending() const;
    bool outgoingMessagePending() const;
    // Takes the next received message that has to do with the serial number away.
    bool removeIncomingMessage(uint32_t serialNumber);

    // The name under which it sends and is reached.
    SoString getAppName() const;
    // Whether it is reached there by other processes: false when every name was taken or refused,
    // when there was no memory for it, and once it is closed.
    [[nodiscard]] bool isReachable() const;
    void setAppName(const char* appName);

    // The handler for messages of `type` and of this serial number: one of just these, for an empty
    // type one of any type with the number, else the newest one of the type for any number. Null
    // without one; good until it is removed.
    MsgHandler* findHandler(const SoString& type, uint32_t serialNumber);
    // Registers a handler, owned from now on (without memory it is deleted), and returns the one of
    // the same type and number that it replaces, the caller's from now on; null without one, or
    // when it is registered already. What it says of its type and number is asked here, once. One
    // for any number and the empty type is called when there is none for "Tessaly" either.
    [[nodiscard]] MsgHandler* changeHandler(MsgHandler* handler);
    // Takes a handler out and returns it, the caller's from now on; null without one. Waits until
    // no other thread is in it.
    [[nodiscard]] MsgHandler* removeHandler(const SoString& type, uint32_t serialNumber);
    // Takes a handler out and deletes it, or has it deleted once it returns.
    bool deleteHandler(const MsgHandler* handler);
    // The same for all handlers of a serial number; false without any.
    bool deleteHandlers(uint32_t serialNumber);

    // The one that it belongs to, null once it is closed.
    ConveyContext* getContext() const;
    // Moves the instance to another context; null is ignored, and one that was closed stays so.
    void setContext(ConveyContext* context);

    // Appends the instance's rows of the diagnostics text.
    void appendDiagnostics(SoString& out, const SoString& path) const;

    // The shared context; null while the layer is not started. Good until `InitTerm::exit`.
    static ConveyContext* getSharedContext();
    // Puts another context in its place, owned from now on.
    static void setSharedContext(ConveyContext* context);

    // The main instance of a context, null for the current one; and its instance of a name.
    static Convey* get(ConveyContext* context = nullptr);
    static Convey* get(const char* appName, ConveyContext* context = nullptr);
    static void set(Convey* instance, ConveyContext* context = nullptr);

    // Whether the target's process runs.
    static bool targetIsRunning(const char* target);

    // Launches an application that does not run, with parameters that it finds at its start; 1 when
    // it was launched or runs already. At most 256 and 65,536 characters. `focus` 0: in front.
    static int32_t launchTarget(const char* target, const char* parameters, int32_t focus,
                                ConveyContext* context);

    // Brings an application to the front, as far as it runs and there is a desktop; false when it
    // is not registered.
    static bool bringToFront(const char* target, ConveyContext* context);

    // The number of the process in which an application was launched by this one, or reported to
    // run; 0 when unknown.
    static uint32_t getProcessID(const char* target);

    // Lets every instance of a context (null: the current one) process its queues. True when there
    // was a message; there may be more then: one pump handles at most 1,000 messages of each
    // instance (`pump.messages` of `convey limits`), so that a flood does not keep the host's loop
    // from all else, and leaves the poll descriptor readable when it has. False at once while the
    // layer is being set up.
    static bool pump(EnabledOperations operations, ConveyContext* context = nullptr);

    // Pumps both ways and, when there was nothing to do, waits until something arrives, at most
    // `milliseconds`, and pumps again. For hosts without a loop of their own.
    static bool pumpOrWait(uint32_t milliseconds, ConveyContext* context = nullptr);

    // A descriptor for the main loop of the host, one for the whole process: readable when a pump
    // has something to do (a message has come in or its time is over, another thread has sent one
    // to an instance of this process), and not otherwise; when it is readable,
    // `pump(kProcessBoth)`. The host computes no time: what is due is seen to by the background
    // thread. It stays the layer's, good until the process ends, also while the layer is stopped
    // and started again; it may be watched for reading by any means, and nothing else. -1 when the
    // system gives none.
    static int32_t getPollDescriptor();

    // Pumps until `quit` is called (0), the process is asked to end by SIGTERM or SIGINT (the
    // number of that), or the layer has ended or cannot wait (-1): for hosts without a loop of
    // their own, asleep until something happens. A host that blocks the two signals at its start
    // loses none that comes before `run`, and has them blocked in its other threads, as they must
    // be; threads of the layer block them.
    static int32_t run();
    // Ends `run`, or the next call of it when none is under way, when the handler that runs has
    // returned. Any thread, not from a handler of signals.
    static void quit();

    // The state of the layer as rows, or as text for people.
    static void getDiagnostics(SoString& out, bool formatted);

    // The parameters that this process was launched with.
    static SoString getLaunchOptions();
    // Whether they ask for a start without a picture.
    static bool suppressStartupScreen();

    // Whether the registry could be read to its end, so that what is not in it is not registered;
    // true also where there is no database and no library for one. False when something is there
    // and could not be read: standard error says why, and the next look at the registry tries
    // again.
    static bool isRegistryKnown();

    // The number of registered applications, as far as they are known.
    static int32_t getNumberOfRegisteredApplications();

    // The specifier of the application at `index` (0 to the number less one, in the order of
    // registration), or the name that the registry was opened under for -1; empty out of range.
    static SoString getApplicationSpecifier(int32_t index);

    // The name of an application for people: what is registered, else what its path suggests.
    // `version` and `locale` may be empty.
    static SoString getDisplayName(const SoString& appName, const SoString& version,
                                   const SoString& locale);

    // The specifier of this application, without suffix.
    static SoString getSharedAppName();

    // Changes the registry's connector ("" and "default": the installed-product database) or, with
    // "refresh", has it read anew. "removeAll" removes every application and every group for good;
    // false when there are none or they may not be removed.
    static bool useConnector(const SoString& name);

    // The registry of the connector `name` (empty and "default": the process's) as an XML document,
    // or that of one application with `specifier`. Empty when it has none. Any thread.
    static SoString getConnectorConfig(const SoString& name, const SoString& specifier);

    // Takes into the process's registry what it does not have yet, all or nothing, of the connector
    // `name`; a name with a '/' is the path of an exported document or of a database, one that
    // begins with '<' is a document. False when that cannot be done. Any thread.
    static bool importFromConnector(const SoString& name);

    // Reads the registry anew when it has changed, or when `force` is set. True when it has been
    // or will be read anew.
    static bool updateConnectorCache(bool force);

    // The folder that holds the installed-product database's framework; empty: the program's own
    // folders. To be set before `InitTerm::init`, forgotten by `InitTerm::exit`.
    static void setCapsFolder(const SoString& folder);
    static SoString getCapsFolder();

    // For the layer's own parts: the end of its context, which deletes or closes it.
    void endWithContext();
    // The same: the shared state of the instance.
    const std::shared_ptr<ConveyData::PrivateData>& data() const { return data_; }

private:
    void close();

    const std::shared_ptr<ConveyData::PrivateData> data_; // null when there was no memory for it
};

} // namespace ScObjects
