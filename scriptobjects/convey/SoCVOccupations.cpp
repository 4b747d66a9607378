#include "scriptobjects/convey/SoCVOccupations.h"

#include <algorithm>
#include <string>

#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"

namespace ScObjects::ConveyData {
Occupations::Entry::Entry(Occupations& of, Kind kind, const Convey::Message& message)
    : of_(of), kind_(kind), message_(message), since_(platform::monotonicNow()) {
    // Linked through the entry itself, which lies on the stack: noting what a thread does needs no
    // memory, and so cannot fail where memory is what is missing.
    const ObjectLock guard(of_);
    next_ = of_.newest_;
    if (next_ != nullptr) {
        next_->previous_ = this;
    }
    of_.newest_ = this;
}

// In any order: threads come and go as they like.
Occupations::Entry::~Entry() {
    const ObjectLock guard(of_);
    (previous_ != nullptr ? previous_->next_ : of_.newest_) = next_;
    if (next_ != nullptr) {
        next_->previous_ = previous_;
    }
}

void Occupations::notePump() {
    pumped_.store(platform::monotonicNow(), std::memory_order_relaxed);
}

void Occupations::appendLocked(CVDiagnosticsRows& rows, Kind kind, int64_t time) const {
    const std::string root = kind == Kind::handling  ? "/handling"
                             : kind == Kind::waiting ? "/waiting"
                                                     : "/sending";
    const char* const label = kind == Kind::handling  ? "Handling"
                              : kind == Kind::waiting ? "Waiting for replies"
                                                      : "Sending";
    uint32_t count = 0;
    for (const Entry* entry = newest_; entry != nullptr; entry = entry->next_) {
        count += entry->kind_ == kind ? 1 : 0;
    }
    rows.count(root, label, count);
    for (const Entry* entry = newest_; entry != nullptr; entry = entry->next_) {
        if (entry->kind_ == kind) {
            // Counted down, as the newest comes first: the oldest is 0, and keeps its row when
            // others begin behind it.
            const std::string own = root + "/" + std::to_string(--count);
            rows.node(own, "Message", entry->message_.getSerialNumber());
            rows.leaf(own + "/type", "Type", entry->message_.getType());
            rows.leaf(own + "/sender", "Sender", entry->message_.getSender());
            rows.leaf(own + "/target", "Target", entry->message_.getTarget());
            rows.leaf(own + "/for", "For", static_cast<uint32_t>(time - entry->since_), "ms");
        }
    }
}

void Occupations::appendDiagnostics(CVDiagnosticsRows& rows) const {
    const ObjectLock guard(*this);
    // One moment for all: readers tell by the ages what a thread began last.
    const int64_t time = platform::monotonicNow();
    appendLocked(rows, Kind::handling, time);
    appendLocked(rows, Kind::waiting, time);
    appendLocked(rows, Kind::sending, time);
    if (const int64_t pumped = pumped_.load(std::memory_order_relaxed); pumped >= 0) {
        // It may have been since.
        rows.leaf("/pumped", "Last pumped",
                  static_cast<uint32_t>(std::max<int64_t>(time - pumped, 0)), "ms ago");
    } else {
        rows.undefined("/pumped", "Last pumped");
    }
}

} // namespace ScObjects::ConveyData
