#include "scriptobjects/stream/MacInterAppStream.h"

#include <new>
#include <string>
#include <utility>

#include "platform/MainLoop.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVTextSeal.h"
#include "scriptobjects/core/SoTerminators.h"

namespace ScObjects {
namespace {

std::string portName(const SoString& streamName) {
    constexpr std::string_view prefix = BaseInterAppStream::kPortNamePrefix;
    std::string name;
    name.reserve(prefix.size() + streamName.view().size()); // in one block: each send makes one
    name += prefix;
    name += streamName.view();
    return name;
}

std::unique_ptr<platform::LocalPort> openPort(const SoString& name) noexcept {
    try {
        auto port = platform::MessagePorts::system().open(portName(name));
        if (port != nullptr) {
            port->checkSeals(ConveyData::TextSeal::ofArriving);
        }
        return port;
        // A stream without a port is not good, which its owner can see; constructors here throw
        // nothing.
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

} // namespace

// Not copied: the port's blocks have the room and the whole steps that a string's buffer has. When
// memory runs out they are still the port's.
MacInterAppStream::DataRef::DataRef(platform::PortText& data)
    : process(data.process()), mayHaveZero(data.mayHaveZero()), sealBytes(data.sealBytes()) {
    const size_t length = data.size();
    if (length == 0) {
        return;
    }
    const size_t headLength = data.headSize();
    auto [head, body] = data.releasePieces();
    const auto adopt = [](SoString& string, platform::PortText::Block& block, size_t bytes) {
        string.adopt(block.get(), static_cast<int32_t>(bytes));
        (void)block.release(); // the string's now
    };
    if (headLength != 0) {
        adopt(text, head, headLength);
    }
    adopt(headLength != 0 ? rest : text, body, length - headLength);
}

MacInterAppStream::DataRef::~DataRef() = default;

MacInterAppStream::MacInterAppStream(const SoString& name, bool flag)
    : BaseInterAppStream(name, flag), port_(openPort(name)) {}

MacInterAppStream::~MacInterAppStream() {
    close();
}

bool MacInterAppStream::isGood() const {
    const ObjectLock guard(*this);
    return port_ != nullptr;
}

std::shared_ptr<platform::LocalPort> MacInterAppStream::port() const {
    // Who waits at the port or asks it something holds a reference, not this lock, so that `close`
    // waits for nobody.
    const ObjectLock guard(*this);
    return port_;
}

void MacInterAppStream::close() {
    const ObjectLock guard(*this);
    if (port_ != nullptr && divertedTo_ != nullptr) {
        // Others may have a share in the port, whose end is an event for ever.
        (void)divertedTo_->join(port_->descriptor(), false);
    }
    divertedTo_ = nullptr;
    port_.reset();
    while (drawn_.count() > 0) {
        delete drawn_.removeAt(drawn_.count() - 1);
    }
    drawnBytes_ = 0;
    drawnTexts_.store(0);
}

void MacInterAppStream::watch(platform::PortWait& wait, uint64_t number) const {
    const ObjectLock guard(*this);
    watchNumber_ = number;
    if (port_ != nullptr) {
        wait.add(*port_, number);
    }
}

bool MacInterAppStream::divert(platform::PortWait& wait, platform::PollSignal& signal,
                               bool on) const {
    const ObjectLock guard(*this);
    if (port_ == nullptr || (divertedTo_ != nullptr) == on) {
        return false;
    }
    // At either place before it is gone from the other, so that nothing arrives unseen.
    if (!on) {
        wait.pause(*port_, watchNumber_, false);
        (void)divertedTo_->join(port_->descriptor(), false);
        divertedTo_ = nullptr;
        return true;
    }
    if (!signal.join(port_->descriptor(), true)) {
        return false;
    }
    divertedTo_ = &signal;
    wait.pause(*port_, watchNumber_, true);
    return true;
}

// Draws up to so many texts; true when there is something to receive then.
bool MacInterAppStream::drawLocked(int32_t maximumTexts) const {
    platform::PortText received;
    // The bounds are asked before `take`: what is taken cannot be put back, and what is left in the
    // system's queue holds its senders back.
    for (; port_ != nullptr && maximumTexts > 0 && drawn_.count() < kMaximumDrawnTexts &&
           drawnBytes_ < kMaximumDrawnBytes && port_->take(received);
         --maximumTexts) {
        auto data = std::make_unique<DataRef>(received);
        // Owned here until it is in the list, which may find no memory for it.
        drawn_.append(data.get());
        drawnBytes_ += data.release()->bytes();
        drawnTexts_.store(drawn_.count());
    }
    return drawn_.count() > 0;
}

bool MacInterAppStream::messagePending() const {
    const ObjectLock guard(*this);
    return drawLocked(kMaximumDrawnTexts);
}

bool MacInterAppStream::waitForMessage(int32_t timeoutMilliseconds, bool soon) const {
    std::shared_ptr<platform::LocalPort> port;
    {
        const ObjectLock guard(*this);
        // What has been drawn is in the port no more and would not end its wait.
        if (port_ == nullptr || drawn_.count() > 0) {
            return port_ != nullptr;
        }
        port = port_;
    }
    // The wait itself holds no lock: others receive and close meanwhile.
    if (!port->wait(timeoutMilliseconds, soon)) {
        return false;
    }
    const ObjectLock guard(*this);
    return drawLocked(1);
}

bool MacInterAppStream::hasMore() const {
    const std::shared_ptr<platform::LocalPort> port = this->port();
    return port != nullptr && port->hasMore();
}

bool MacInterAppStream::tellsAll() const {
    const std::shared_ptr<platform::LocalPort> port = this->port();
    return port == nullptr || port->tellsAll();
}

void MacInterAppStream::hold(int32_t process, bool on) {
    if (const std::shared_ptr<platform::LocalPort> port = this->port()) {
        port->hold(process, on);
    }
}

platform::PortPlace MacInterAppStream::placeBehind(int32_t process) const {
    const std::shared_ptr<platform::LocalPort> port = this->port();
    return port != nullptr ? port->placeBehind(process) : platform::PortPlace();
}

bool MacInterAppStream::isPast(const platform::PortPlace& place) const {
    // With the lock, so that no text goes from the port to what is drawn between the two looks.
    const ObjectLock guard(*this);
    for (int32_t i = 0; i < drawn_.count(); ++i) {
        if (place.process == 0 || drawn_[i]->process == place.process) {
            return false;
        }
    }
    return port_ == nullptr || port_->isPast(place);
}

std::unique_ptr<MacInterAppStream::DataRef> MacInterAppStream::take() {
    bool draws = false;
    return take(draws);
}

std::unique_ptr<MacInterAppStream::DataRef> MacInterAppStream::take(bool& draws) {
    std::unique_ptr<DataRef> data;
    if (!draws && drawnTexts_.load() == 0) {
        return data;
    }
    const ObjectLock guard(*this);
    if (drawn_.count() == 0 && std::exchange(draws, false)) {
        (void)drawLocked(kMaximumDrawnTexts);
    }
    // In one step: two threads that receive do not get the same text.
    data.reset(drawn_.removeAt(0));
    if (data != nullptr) {
        drawnBytes_ -= data->bytes();
        drawnTexts_.store(drawn_.count());
    }
    return data;
}

bool MacInterAppStream::receive() {
    const std::unique_ptr<DataRef> data = take();
    if (data == nullptr || data->text.isEmpty()) {
        return false;
    }
    if (!data->rest.isEmpty()) {
        data->text.append(std::exchange(data->rest, SoString()).view());
    }
    const auto length = static_cast<size_t>(data->text.length());
    replaceTerminators(data->text.extend(0) - length, length);
    appendPending(std::move(data->text));
    return true;
}

bool MacInterAppStream::send(const SoString& target, const SoString& text) const {
    return send(target, text, kSendTimeoutMilliseconds);
}

bool MacInterAppStream::send(const SoString& target, const SoString& text,
                             int32_t timeoutMilliseconds) const {
    return isGood() && platform::MessagePorts::system().send(portName(target), text.view(),
                                                             timeoutMilliseconds) ==
                           platform::SendResult::delivered;
}

bool MacInterAppStream::send(const SoString& target, const SoString& text,
                             int32_t timeoutMilliseconds,
                             std::shared_ptr<platform::TargetWatch>& taker) const {
    return isGood() &&
           platform::MessagePorts::system().send(portName(target), text.view(), timeoutMilliseconds,
                                                 &taker) == platform::SendResult::delivered;
}

platform::SendResult MacInterAppStream::send(const SoString& target,
                                             const platform::PortPieces& text,
                                             int32_t timeoutMilliseconds,
                                             std::shared_ptr<platform::TargetWatch>* taker) const {
    return isGood() ? platform::MessagePorts::system().send(portName(target), text,
                                                            timeoutMilliseconds, taker)
                    : platform::SendResult::failed;
}

bool MacInterAppStream::canOpen(const SoString& name, bool /*flag*/) const {
    return platform::MessagePorts::system().isFree(portName(name));
}

MacInterAppStream::Presence MacInterAppStream::presenceOf(const SoString& name) const {
    return presenceFor(name);
}

MacInterAppStream::Presence MacInterAppStream::presenceFor(const SoString& name) {
    int error = 0;
    // What could not be found out is told by the ports, with the system's reason.
    switch (platform::MessagePorts::system().look(portName(name), error)) {
    case platform::PortState::free:
        return Presence::absent;
    case platform::PortState::owned:
        return Presence::present;
    default:
        return Presence::unknown;
    }
}

platform::PortStatistics MacInterAppStream::statistics() const {
    const std::shared_ptr<platform::LocalPort> port = this->port();
    return port != nullptr ? port->statistics() : platform::PortStatistics();
}

} // namespace ScObjects
