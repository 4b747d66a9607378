#include "scriptobjects/stream/InterAppStream.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "limits/Limits.h"
#include "platform/Log.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects {
namespace {

// For a process that has named no stream: who sends needs one of its own all the same.
constexpr const char* kFallbackName = "interappstream-1.0";
constexpr int kInstances = limits::of("stream.instances");
constexpr auto kNamePause = std::chrono::milliseconds(20); // what a short-lived owner lives

std::unique_ptr<InterAppStream> nextAvailable(const SoString& name, bool& allTaken);

// The stream of the process, and the lock that makes it once.
class ProcessStream { // lives for ever, so it must not count as a user of the layer's locks
public:
    static ProcessStream& instance() {
        static auto* const stream = new ProcessStream;
        return *stream;
    }

    void set(InterAppStream* stream) {
        std::unique_ptr<InterAppStream> old; // deleted after the lock is given up
        const std::lock_guard<std::mutex> guard(mutex_);
        old.reset(stream_);
        stream_ = stream;
    }

    InterAppStream* getOrMake(bool& allTaken) {
        allTaken = false;
        const std::lock_guard<std::mutex> guard(mutex_);
        // Under the lock: two threads that come first together must not take two names.
        if (stream_ == nullptr) {
            stream_ = nextAvailable(kFallbackName, allTaken).release();
        }
        return stream_;
    }

private:
    std::mutex mutex_;
    InterAppStream* stream_ = nullptr; // under the mutex
};

// The stream at which launch parameters came, for the instance of its name.
class KeptStream {
public:
    static KeptStream& instance() {
        static auto* const kept = new KeptStream;
        return *kept;
    }

    void set(std::unique_ptr<InterAppStream> stream) {
        std::unique_ptr<InterAppStream> old; // deleted after the lock is given up
        const std::lock_guard<std::mutex> guard(mutex_);
        old.swap(stream_);
        stream_ = std::move(stream);
    }

    std::unique_ptr<InterAppStream> take(const SoString& name) {
        std::unique_ptr<InterAppStream> found;
        const std::lock_guard<std::mutex> guard(mutex_);
        if (stream_ != nullptr && stream_->getName() == name) {
            found.swap(stream_);
        }
        return found;
    }

private:
    std::mutex mutex_;
    std::unique_ptr<InterAppStream> stream_; // under the mutex
};

// Null when the name has an owner, which `isTaken` tells, or cannot be had for another reason: that
// is none to go by another name, under which nobody looks for this one.
std::unique_ptr<InterAppStream> goodStream(const SoString& name, bool& isTaken) {
    isTaken = false;
    // Before the name is tried: it would be found taken, by this process itself.
    if (auto kept = KeptStream::instance().take(name)) {
        return kept;
    }
    auto presence = InterAppStream::Presence::absent;
    // Twice, as an owner can have ended between the attempt and the look.
    for (int attempt = 0; attempt < 2 && presence == InterAppStream::Presence::absent; ++attempt) {
        auto stream = std::make_unique<InterAppStream>(name);
        if (stream->isGood()) {
            return stream;
        }
        // A stream that is not good does not say why: an owner and want of memory look the same.
        presence = stream->presenceOf(name);
    }
    isTaken = presence == InterAppStream::Presence::present;
    return nullptr;
}

// `allTaken` tells whether owners of the names are why there is none.
std::unique_ptr<InterAppStream> nextAvailable(const SoString& name, bool& allTaken) {
    allTaken = false;
    if (name.isEmpty()) {
        return nullptr;
    }
    bool isTaken = false;
    if (auto stream = goodStream(name, isTaken)) {
        return stream;
    }
    Convey::Specifier specifier(name.c_str(), false);
    // Who asks for a certain instance means that one, and no other name will do.
    if (!isTaken || specifier.isEmpty() || !specifier.instance().isEmpty()) {
        return nullptr;
    }
    // A name that could not be had for another reason ends the search: the next would be one under
    // which nobody looks.
    for (int instance = 1; isTaken && instance <= kInstances; ++instance) {
        SoString digits;
        digits << instance;
        specifier.setInstance(digits);
        if (auto stream = goodStream(specifier, isTaken)) {
            return stream;
        }
    }
    allTaken = isTaken;
    return nullptr;
}

void tellThatAllAreTaken(const char* name) {
    platform::Log::system().problem(std::string(name) + " and its " + std::to_string(kInstances) +
                                    " instances are all taken");
}

} // namespace

InterAppStream* ConveyUtils::createNextAvailableInterAppStream(const SoString& name) {
    try {
        bool allTaken = false;
        auto stream = nextAvailable(name, allTaken);
        if (allTaken) {
            tellThatAllAreTaken(name.c_str());
        }
        return stream.release();
        // As when the port itself finds no memory: a name that cannot be had.
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void ConveyUtils::keepStreamFor(std::unique_ptr<InterAppStream> stream) {
    KeptStream::instance().set(std::move(stream));
}

InterAppStream::~InterAppStream() = default;

void InterAppStream::InitTerm::init(const SoString& specifier) {
    ProcessStream::instance().set(nullptr); // its name may be the one that is asked for
    Convey::Specifier name(specifier.c_str(), false);
    // The name without a suffix is for the main instance, which has a stream of its own.
    name.setSuffix(ConveyData::CV_SUFFIX_PING);
    bool allTaken = false; // `get` tries another name then
    ProcessStream::instance().set(nextAvailable(name, allTaken).release());
}

void InterAppStream::InitTerm::exit() {
    KeptStream::instance().set(nullptr);
    ProcessStream::instance().set(nullptr);
    platform::MessagePorts::system().closeConnections(); // kept for the next message until now
}

InterAppStream* InterAppStream::get() {
    return get(0);
}

InterAppStream* InterAppStream::get(int64_t waitMilliseconds) {
    // By a clock that nobody steps, like every wait inside a call.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMilliseconds);
    for (;;) {
        bool allTaken = false;
        InterAppStream* const stream = ProcessStream::instance().getOrMake(allTaken);
        // Only names that others give back soon are worth a wait; what else is wrong stays wrong.
        if (stream != nullptr || !allTaken) {
            return stream;
        }
        if (std::chrono::steady_clock::now() >= end) {
            tellThatAllAreTaken(kFallbackName);
            return nullptr;
        }
        // Nothing announces that a name has been given back.
        std::this_thread::sleep_for(kNamePause);
    }
}

} // namespace ScObjects
