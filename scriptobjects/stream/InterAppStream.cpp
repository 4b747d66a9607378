#include "scriptobjects/stream/InterAppStream.h"

#include <memory>
#include <new>
#include <string>

#include "limits/Limits.h"
#include "platform/Log.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects {
namespace {

constexpr const char* kFallbackName = "interappstream-1.0";
constexpr int kInstances = limits::of("stream.instances");

// The stream of the process, and the lock that makes it once.
class ProcessStream : public SoLockable {
public:
    static ProcessStream& instance() {
        static auto* const stream = new ProcessStream;
        return *stream;
    }

    void set(InterAppStream* stream) {
        std::unique_ptr<InterAppStream> old; // deleted after the lock is given up
        const ObjectLock guard(*this);
        old.reset(stream_);
        stream_ = stream;
    }

    InterAppStream* getOrMake() {
        const ObjectLock guard(*this);
        if (stream_ == nullptr) {
            stream_ = ConveyUtils::createNextAvailableInterAppStream(kFallbackName);
        }
        return stream_;
    }

private:
    InterAppStream* stream_ SO_GUARDED_BY(this) = nullptr;
};

// The stream at which launch parameters came, for the instance of its name.
class KeptStream : public SoLockable {
public:
    static KeptStream& instance() {
        static auto* const kept = new KeptStream;
        return *kept;
    }

    void set(std::unique_ptr<InterAppStream> stream) {
        std::unique_ptr<InterAppStream> old; // deleted after the lock is given up
        const ObjectLock guard(*this);
        old.swap(stream_);
        stream_ = std::move(stream);
    }

    std::unique_ptr<InterAppStream> take(const SoString& name) {
        const ObjectLock guard(*this);
        return stream_ != nullptr && stream_->getName() == name ? std::move(stream_) : nullptr;
    }

private:
    std::unique_ptr<InterAppStream> stream_ SO_GUARDED_BY(this);
};

// Null when the name has an owner, which `isTaken` tells, or cannot be had for another reason: that
// is none to go by another name, under which nobody looks for this one.
std::unique_ptr<InterAppStream> goodStream(const SoString& name, bool& isTaken) {
    isTaken = false;
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
        presence = stream->presenceOf(name);
    }
    isTaken = presence == InterAppStream::Presence::present;
    return nullptr;
}

std::unique_ptr<InterAppStream> nextAvailable(const SoString& name) {
    if (name.isEmpty()) {
        return nullptr;
    }
    bool isTaken = false;
    if (auto stream = goodStream(name, isTaken)) {
        return stream;
    }
    Convey::Specifier specifier(name.c_str(), false);
    if (!isTaken || specifier.isEmpty() || !specifier.instance().isEmpty()) {
        return nullptr;
    }
    for (int instance = 1; isTaken && instance <= kInstances; ++instance) {
        SoString digits;
        digits << instance;
        specifier.setInstance(digits);
        if (auto stream = goodStream(specifier, isTaken)) {
            return stream;
        }
    }
    if (isTaken) {
        platform::Log::system().problem(std::string(name.c_str()) + " and its instances up to " +
                                        specifier.c_str() + " are all taken");
    }
    return nullptr;
}

} // namespace

InterAppStream* ConveyUtils::createNextAvailableInterAppStream(const SoString& name) {
    try {
        return nextAvailable(name).release();
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
    name.setSuffix(ConveyData::CV_SUFFIX_PING);
    ProcessStream::instance().set(ConveyUtils::createNextAvailableInterAppStream(name));
}

void InterAppStream::InitTerm::exit() {
    KeptStream::instance().set(nullptr);
    ProcessStream::instance().set(nullptr);
    platform::MessagePorts::system().closeConnections(); // kept for the next message until now
}

InterAppStream* InterAppStream::get() {
    return ProcessStream::instance().getOrMake();
}

} // namespace ScObjects
