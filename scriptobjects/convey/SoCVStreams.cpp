// The streams whose names are made of specifiers, which the streams themselves know nothing of.
#include <memory>
#include <new>

#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

constexpr const char* kProcessStreamSuffix = "ping";
constexpr const char* kFallbackName = "interappstream-1.0";
constexpr int kInstances = 8;

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

std::unique_ptr<InterAppStream> goodStream(const SoString& name) {
    auto stream = std::make_unique<InterAppStream>(name);
    return stream->isGood() ? std::move(stream) : nullptr;
}

std::unique_ptr<InterAppStream> nextAvailable(const SoString& name) {
    if (name.isEmpty()) {
        return nullptr;
    }
    if (auto stream = goodStream(name)) {
        return stream;
    }
    Convey::Specifier specifier(name.c_str(), false);
    if (specifier.isEmpty() || !specifier.instance().isEmpty()) {
        return nullptr;
    }
    for (int instance = 1; instance <= kInstances; ++instance) {
        SoString digits;
        digits << instance;
        specifier.setInstance(digits);
        if (auto stream = goodStream(specifier)) {
            return stream;
        }
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

InterAppStream::~InterAppStream() = default;

void InterAppStream::InitTerm::init(const SoString& specifier) {
    ProcessStream::instance().set(nullptr); // its name may be the one that is asked for
    Convey::Specifier name(specifier.c_str(), false);
    name.setSuffix(kProcessStreamSuffix);
    ProcessStream::instance().set(ConveyUtils::createNextAvailableInterAppStream(name));
}

void InterAppStream::InitTerm::exit() {
    ProcessStream::instance().set(nullptr);
}

InterAppStream* InterAppStream::get() {
    return ProcessStream::instance().getOrMake();
}

} // namespace ScObjects
