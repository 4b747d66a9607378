#include "scriptobjects/convey/SoCVUtilsCore.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/stream/BaseInterAppStream.h"

namespace ScObjects::ConveyUtils {
namespace {

constexpr size_t kForwardedBodyBytes = limits::of("forward.body");

// What an observer's own message brings about is not forwarded, or it would be without end.
constinit thread_local bool gForwarding = false;
constinit thread_local int gDelays = 0; // the DelayedForwarding of this thread

class ForwardingScope {
public:
    ForwardingScope() { gForwarding = true; }
    ~ForwardingScope() { gForwarding = false; }
    ForwardingScope(const ForwardingScope&) = delete;
    ForwardingScope& operator=(const ForwardingScope&) = delete;
};

// What is forwarded and has not reached its observer yet. Several threads forward what happens to
// one message, which is of use only in the order in which it happened.
struct Forwards {
    struct Kept {
        std::shared_ptr<ConveyData::HandlerSlot> observer;
        std::unique_ptr<Convey::Message> message;
    };
    std::mutex mutex;
    std::deque<Kept> kept;
    bool isBusy = false; // a thread is calling an observer
};

Forwards& forwards() {
    static auto* const all = new Forwards; // never destroyed: threads outlive main
    return *all;
}

// What is asked at the end of each round: making the above takes memory, which a destructor must
// not need.
constinit std::atomic<bool> gAnyForwarded{false};

// Calls the observers, unless another thread does: that one comes to what is left.
void handOver() noexcept {
    if (!gAnyForwarded.load()) {
        return;
    }
    Forwards& all = forwards();
    for (;;) {
        // Once more behind each call: who forwards meanwhile leaves it to this thread.
        Forwards::Kept next;
        {
            const std::lock_guard<std::mutex> guard(all.mutex);
            if (all.isBusy || all.kept.empty()) {
                return;
            }
            all.isBusy = true;
            next = std::move(all.kept.front());
            all.kept.pop_front();
        }
        // One thread at a time, since the order is all that makes the events of use, and with no
        // lock held: an observer may do whatever a handler may.
        try {
            const ForwardingScope scope;
            (void)next.observer->call(0, *next.message, nullptr);
        } catch (const std::bad_alloc&) { // the observer misses one
        }
        const std::lock_guard<std::mutex> guard(all.mutex);
        all.isBusy = false;
    }
}

std::shared_ptr<ConveyData::HandlerSlot> observerOf(const SoString& handlerType) {
    // Without waiting for a setup: this is asked in the middle of receiving.
    const ConveyContext* context = gForwarding ? nullptr : ConveyContext::currentContextNow();
    // Pinned: another thread may delete the instance meanwhile.
    const auto main = context == nullptr ? nullptr : context->pinMain();
    if (main == nullptr) {
        return nullptr;
    }
    auto slot = main->findSlot(handlerType, ConveyData::CV_INVALID_MESSAGE_NUMBER);
    return slot;
}

// Whether the observer has asked for more of the body than its first line.
bool wantsBodies() {
    const ConveyContext* const context = ConveyContext::currentContextNow();
    const ConveyThread* const thread = context == nullptr ? nullptr : context->getThread();
    return thread != nullptr && !thread->getValueForKey("FWDBODIES").isEmpty();
}

} // namespace

bool isForwarding(const char* handlerType) {
    // Asked for each message, and as a rule there is no observer.
    return ConveyData::HandlerSlot::anyForwards() && observerOf(handlerType) != nullptr;
}

bool forwardMessage(const Convey::Message& message, const SoString& handlerType,
                    const SoString& root, const SoString& label) {
    // A plain message without body is a probe, which asks for nothing.
    const SoString& type = message.getType();
    // What was forwarded is not forwarded again: observers of each other would never come to an
    // end.
    if (type == ConveyData::CV_TYPE_DEBUG || type == ConveyData::CV_TYPE_LOG ||
        type.view().starts_with(ConveyData::CV_FORWARD_PREFIX) ||
        (type == ConveyData::CV_TYPE_PLAIN && message.getBody().isEmpty())) {
        return false;
    }
    const auto observer = observerOf(handlerType);
    if (observer == nullptr) {
        return false;
    }
    auto made = std::make_unique<Convey::Message>();
    Convey::Message& forwarded = *made;
    forwarded.setHeader(ConveyData::CV_MESSAGE_ROOT, root.c_str());
    // Now, not when the observer is called: the message changes and goes on its way meanwhile.
    SoString rows;
    const bool isWhole = wantsBodies();
    const CVDiagnosticsRows::Whole whole(isWhole);
    message.appendDiagnostics(rows, root);
    if (isWhole && !message.getBody().isEmpty()) {
        SoString name("/msg");
        name << message.getSerialNumber() << "/body/whole";
        CVDiagnosticsRows(rows, root)
            .leaf(name.view(), "Whole", message.getBody().view().substr(0, kForwardedBodyBytes));
    }
    if (!label.isEmpty()) {
        const uint32_t time = message.getTimestamp();
        SoString name("/msg");
        name << message.getSerialNumber();
        SoString heading("msg[");
        heading << getTimeString(&time) << "]";
        CVDiagnosticsRows(rows, root).node(name.view(), heading.view(), label);
    }
    forwarded.setBody(std::move(rows));
    {
        Forwards& all = forwards();
        const std::lock_guard<std::mutex> guard(all.mutex);
        // With the slot, which stays usable when the observer is removed meanwhile.
        all.kept.push_back({observer, std::move(made)});
        gAnyForwarded.store(true);
    }
    // This thread may hold a lock otherwise, under which no handler may be called.
    if (gDelays == 0) {
        handOver();
    }
    return true;
}

DelayedForwarding::DelayedForwarding() {
    ++gDelays;
}

DelayedForwarding::~DelayedForwarding() {
    // The outermost only: an inner one ends while the lock of the outer is still held.
    if (--gDelays == 0) {
        handOver();
    }
}

SoString getLaunchMsgQueueName(const SoString& specifier) {
    const Convey::Specifier parsed(specifier.c_str(), false);
    return CVSpecifierParts::of(parsed.view()).applicationText();
}

SoString getStreamName(const SoString& portName) {
    const std::string_view prefix = BaseInterAppStream::kPortNamePrefix;
    std::string_view name = portName.view();
    if (name.substr(0, prefix.size()) == prefix) {
        name.remove_prefix(prefix.size());
    }
    return SoString(name);
}

bool parseInfoLine(const SoString& row, SoString& path, SoString& label, SoString& value,
                   bool& isHeading) {
    std::string_view rest = row.view();
    if (!rest.empty() && rest.back() == '\n') {
        rest.remove_suffix(1);
    }
    std::string_view fields[3];
    for (std::string_view& field : fields) {
        const size_t end = rest.find(';');
        if (end == std::string_view::npos) {
            return false;
        }
        field = rest.substr(0, end);
        rest.remove_prefix(end + 1);
    }
    if (fields[0].empty() || (fields[1] != "0" && fields[1] != "1")) {
        return false;
    }
    if (!rest.empty() && rest.back() == ';') { // some rows are not closed
        rest.remove_suffix(1);
    }
    path = SoString(fields[0]);
    isHeading = fields[1] == "1";
    label = SoString(fields[2]);
    value = SoString(rest);
    return true;
}

} // namespace ScObjects::ConveyUtils
