#include "scriptobjects/convey/SoCVTraffic.h"

#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"

namespace ScObjects::ConveyData {

void Traffic::noteIn(const Convey::Message& message) {
    count(in_);
    switch (replyOf(message).kind) {
    case Reply::kNone:
        return;
    case Reply::kError:
        count(errors_);
        break;
    case Reply::kTimeout:
        count(timeouts_);
        break;
    default:
        break;
    }
    count(replies_);
}

void Traffic::appendDiagnostics(CVDiagnosticsRows& rows, uint32_t dropped) const {
    const struct {
        const char* leaf;
        const char* label;
        uint32_t number;
    } counts[] = {{"/counts/in", "Messages in", in_},
                  {"/counts/out", "Messages out", out_},
                  {"/counts/replies", "Replies that came in", replies_},
                  {"/counts/errors", "Errors among them", errors_},
                  {"/counts/timeouts", "Time-outs among them", timeouts_},
                  {"/counts/told", "Errors told", errorsTold_},
                  {"/counts/dropped", "Dropped", dropped_ + dropped}};
    rows.node("/counts", "Messages so far");
    for (const auto& count : counts) {
        rows.leaf(count.leaf, count.label, count.number);
    }
}

} // namespace ScObjects::ConveyData
