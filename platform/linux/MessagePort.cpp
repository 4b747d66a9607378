#include "platform/MessagePort.h"

#include <atomic>
#include <cerrno>

#include "platform/linux/PortFolder.h"
#include "platform/linux/PortList.h"
#include "platform/linux/PortName.h"
#include "platform/linux/PortReceiver.h"
#include "platform/linux/PortSender.h"
#include "platform/linux/PortWaiter.h"

namespace platform {
namespace {

class LinuxMessagePorts final : public MessagePorts {
public:
    std::unique_ptr<LocalPort> open(const std::string& name) override {
        return PortReceiver::open(name, PortSeals::last);
    }
    std::unique_ptr<LocalPort> openUnsealed(const std::string& name) override {
        return PortReceiver::open(name, PortSeals::none);
    }

    PortState look(const std::string& name, int& error) override {
        PortFolder folder;
        PortState state = PortState::unknown;
        // For a name that no port can have; what is asked of the system sets its own.
        errno = EINVAL;
        if (!name.empty() && name.find('\0') == std::string::npos) {
            switch (folder.open(PortFolder::Use::ifThere)) {
            // Whoever opens a port makes the folder: where there is none, nobody owns anything.
            case PortFolder::State::missing:
                state = PortState::free;
                break;
            case PortFolder::State::usable:
                state = portState(folder, portFileName(name));
                break;
            default:
                break;
            }
        }
        // A folder that was refused says nothing about the name: whoever took it for a free one
        // would launch a second copy of what runs.
        error = state == PortState::unknown ? errno : 0;
        return state;
    }

    using MessagePorts::send;
    SendResult send(const std::string& name, const PortPieces& text, SendTime time,
                    std::shared_ptr<TargetWatch>* taker) override {
        return sender().send(name, text, time, taker);
    }

    void closeConnections() override { sender().closeIdle(); }

    std::unique_ptr<PortWait> newWait() override { return PortWaiter::make(); }

    std::vector<PortDescription> list() override { return listPorts(); }

    size_t removeStale() override { return removeStalePorts(); }

    std::string place() const override { return PortFolder::currentPath(); }

private:
    struct Sender {
        // Which process it is of. Not its number: that a grandchild may have again.
        uint32_t generation = PortDescriptor::generation();
        PortSender sender;
    };

    // A child after fork has a sender of its own: the parent's may have been in the middle of
    // something, and is left alone.
    PortSender& sender() {
        Sender* current = sender_.load(std::memory_order_acquire);
        if (current == nullptr || current->generation != PortDescriptor::generation()) {
            auto fresh = std::make_unique<Sender>();
            if (sender_.compare_exchange_strong(current, fresh.get())) {
                current = fresh.release();
            } // else another thread of this process was faster
        }
        return current->sender;
    }

    std::atomic<Sender*> sender_{nullptr};
};

} // namespace

MessagePorts& MessagePorts::own() {
    static auto* const ports = new LinuxMessagePorts;
    return *ports;
}

} // namespace platform
