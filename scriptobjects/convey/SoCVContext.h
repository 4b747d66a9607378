#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

class ConveyConnector;
class ConveyThread;

// The messaging state of this process: its instances, its background thread, the count of its
// messages. One context at a time is the current one; the start of the layer makes it, the end of
// the layer deletes it.
//
// Owns its thread and the instances that were made by `new`: its end stops the one, without holding
// a lock, and deletes the others; instances that live elsewhere are closed and stay their owners'.
// Threads: any.
class SO_EXPORT ConveyContext : public SoLockable {
public:
    // `appSpecifier`: the specifier of this application. Starts the background thread.
    explicit ConveyContext(const SoString& appSpecifier);
    ~ConveyContext() override;

    // The current context, or null; good until it is replaced. Waits for a setup that is under way.
    static ConveyContext* getCurrentContext();
    // The same without waiting.
    static ConveyContext* currentContextNow();

    // Makes `context` (owned from now on; null for none) the current one and deletes the one that
    // was, after `context` has taken over its instances. The same context again changes nothing.
    // Without a new one, calls of other threads that wait in the old one end; one that does
    // not, being in a handler, say (`convey limits`, exit.wait), keeps the old one's memory. No
    // other thread may be using the old one otherwise.
    static void setCurrentContext(ConveyContext* context);

    // Takes over the instances, the main instance and the count of another context, which keeps
    // none of them.
    void appendContext(ConveyContext& other);

    // The instance itself when it belongs to this context; the first one of a name; else null.
    Convey* findInstance(Convey* instance);
    Convey* findInstance(const SoString& appName);
    // One that is there already is not added again.
    void appendInstance(Convey* instance);
    void removeInstance(Convey* instance);
    // Gives an instance another name. Those of this context have to get theirs here: they are found
    // by it.
    void renameInstance(Convey* instance, const SoString& appName);
    int32_t getNumberOfInstances() const;
    // In the order in which they came; null out of range. Quick behind or beside the one that was
    // asked for last, and at both ends.
    Convey* getNthInstance(int32_t index);
    void setMainInstance(Convey* instance);
    Convey* getMainInstance();

    // A number for the next message. The first of a process is 1; a context that is made later goes
    // on with the number handed out last, so its first one repeats that.
    uint32_t getNextSerialNumber();

    bool isLogging() const;
    void setLogging(bool on);
    // The background thread, good as long as the context.
    ConveyThread* getThread() const { return thread_.get(); }
    // The process-wide registry, or null.
    ConveyConnector* getConnector() const;
    // The specifier of this application without suffix: the main instance's name, else that of the
    // background thread, as its port has it.
    SoString getAppSpecifier() const;
    // How this process identifies its user; see ConveyUtils::getSignature.
    SoString getSignature() const;
    // Appends the context's rows of the diagnostics text.
    void appendDiagnostics(SoString& out, const SoString& path) const;

    // For the layer's own parts: a call of a host into the layer, for as long as it lasts. The
    // contexts that it may have met outlive it.
    class Visit {
    public:
        Visit();
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;
    };
    // The same: instances that stay usable while others delete them.
    std::shared_ptr<ConveyData::PrivateData> pin(const SoString& appName) const;
    std::shared_ptr<ConveyData::PrivateData> pinMain() const;
    // By its number here (`PrivateData::number`); null for one that is gone.
    std::shared_ptr<ConveyData::PrivateData> pin(uint64_t number) const;
    // The next of them all, in their order, behind `number` (0: the first), which becomes its own;
    // null behind the last. None is passed over by who deletes or makes some meanwhile.
    std::shared_ptr<ConveyData::PrivateData> pinNext(uint64_t& number) const;

    // Raised whenever a message comes in or a handler goes: what waits looks again. `wait` returns
    // when it is no longer `seen`, or after so many milliseconds.
    uint64_t activity() const;
    void noteActivity();
    void waitForActivity(uint64_t seen, int64_t milliseconds);

private:
    // Stops the thread and parts with the instances; true when the thread has ended.
    bool end();

    // The instances by their names, so that what each message asks does not grow with their number;
    // those of one name in the order in which they came.
    using Names = std::multimap<std::string, Convey*, std::less<>>;
    Convey* firstOfNameLocked(const SoString& appName) const SO_REQUIRES(this);

    // By numbers that grow, so in the order in which they came, and each is parted with without a
    // look at the others.
    using Instances = std::map<uint64_t, Convey*>;
    // Where each is in both.
    struct Place {
        Instances::iterator instance;
        Names::iterator name;
    };
    // One of them, and how many are before it.
    struct Counted {
        Instances::const_iterator instance;
        int32_t index = -1; // of none
    };
    void appendLocked(Convey* instance) SO_REQUIRES(this);

    uint32_t serialNumber_ SO_GUARDED_BY(this);
    Instances instances_ SO_GUARDED_BY(this);
    std::atomic<uint64_t> lastNumber_{0}; // of the newest, also when it is gone
    Counted lastAsked_ SO_GUARDED_BY(this);
    Names names_ SO_GUARDED_BY(this);
    std::unordered_map<const Convey*, Place> places_ SO_GUARDED_BY(this);
    Convey* mainInstance_ SO_GUARDED_BY(this) = nullptr;
    bool logging_ SO_GUARDED_BY(this) = false;
    mutable SoString signature_ SO_GUARDED_BY(this);
    std::atomic<uint64_t> activity_{0};
    std::atomic<int32_t> waiting_{0}; // for it to change
    std::mutex activityMutex_;        // theirs
    std::condition_variable activityChanged_;
    std::unique_ptr<ConveyThread> thread_; // last: it uses what is above
};

} // namespace ScObjects
