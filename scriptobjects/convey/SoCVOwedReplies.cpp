#include "scriptobjects/convey/SoCVOwedReplies.h"

#include <algorithm>
#include <new>
#include <utility>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

constexpr int64_t kOwedBytes = limits::of("reply.owed.bytes");
constexpr int64_t kOwedShareBytes = limits::of("reply.owed.share.bytes");

constinit thread_local OwedReply::Call* gInnermostCall = nullptr;

} // namespace

OwedReply::Giver::~Giver() = default;

bool OwedReply::give(int32_t code, const SoString& text) noexcept {
    std::unique_ptr<Message> request;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (state_ == State::given) {
            return false;
        }
        if (state_ == State::handling) {
            // The call gives it when the handler has returned: an answer that overtook the
            // handler's end would have its asker think that it is done.
            state_ = State::given;
            try {
                text_ = text;
                code_ = code;
            } catch (const std::bad_alloc&) {
                code_ = CV_CODE_OUT_OF_MEMORY;
            }
            return true;
        }
        state_ = State::given;
        request = std::move(request_);
    }
    const auto giver = giver_.lock();
    if (giver == nullptr) {
        return false;
    }
    giver->giveOwed(*this, *request, code, text);
    return true;
}

bool OwedReply::keep(std::unique_ptr<Message>& request) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (state_ == State::given) {
        return false;
    }
    state_ = State::owed;
    request->setBody(SoString()); // no answer needs it, and it may be most of what is kept
    request_ = std::move(request);
    return true;
}

bool OwedReply::takeGiven(int32_t& code, SoString& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const bool given = state_ == State::given;
    if (code == 0 && given) {
        code = code_;
        text = std::move(text_);
    }
    state_ = State::given; // whoever has it still comes too late
    return given;
}

// Without memory to keep it the call has been answered as a failure: nothing is left to give.
void OwedReply::endCall() {
    if (!isOpen()) {
        return;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    if (state_ == State::handling) {
        state_ = State::given;
    }
}

OwedReply::Call::Call(std::weak_ptr<Giver> giver, OwedReplies* owed, const Message& request)
    : giver_(std::move(giver)), owed_(owed), request_(request), outer_(gInnermostCall) {
    if (owed_ != nullptr) {
        const ObjectLock guard(*owed_);
        owed_->calls_.push_back(this);
    }
    gInnermostCall = this;
}

bool OwedReply::Call::end() {
    OwedReplies* const owed = std::exchange(owed_, nullptr);
    return owed == nullptr || owed->remove(*this);
}

OwedReply::Call::~Call() {
    gInnermostCall = outer_;
    (void)end(); // as a rule it has
    if (reply_ != nullptr) {
        reply_->endCall();
    }
}

std::shared_ptr<OwedReply> OwedReply::Call::take() {
    Call* const call = gInnermostCall;
    if (call == nullptr || call->reply_ != nullptr || call->giver_.expired()) {
        return nullptr;
    }
    call->reply_ = std::make_shared<OwedReply>(call->giver_);
    call->shown_ = call->reply_.get();
    return call->reply_;
}

OwedReplies::Kept OwedReplies::keep(const std::shared_ptr<OwedReply>& reply,
                                    std::unique_ptr<Message>& request) {
    if (!reply->isOpen()) {
        return Kept::answered; // within the handler, as most are
    }
    Entry entry;
    entry.reply = reply;
    entry.asker = request->getSender().view();
    entry.bytes = request->costBytes() - request->getBody().heapBytes();
    entry.since = ConveyUtils::getTimeSeconds();
    const ObjectLock guard(*this);
    int64_t& share = bytesOf_[entry.asker];
    const int64_t bytes = entry.bytes;
    if (closed_ || bytes_ + bytes > kOwedBytes || share + bytes > kOwedShareBytes) {
        if (share == 0) {
            bytesOf_.erase(entry.asker);
        }
        return Kept::refused;
    }
    // The entry first: from `keep` on another thread may give the reply, which looks for it.
    const auto place = entries_.emplace(reply.get(), std::move(entry)).first;
    share += bytes;
    bytes_ += bytes;
    if (!reply->keep(request)) {
        discharge(place->second);
        entries_.erase(place);
        return Kept::answered;
    }
    return Kept::kept;
}

void OwedReplies::discharge(const Entry& entry) {
    bytes_ -= entry.bytes;
    const auto share = bytesOf_.find(entry.asker);
    share->second -= entry.bytes;
    if (share->second == 0) {
        bytesOf_.erase(share);
    }
}

void OwedReplies::remove(const OwedReply& reply) noexcept {
    Entry removed; // let go of without the lock
    const ObjectLock guard(*this);
    const auto entry = entries_.find(&reply);
    if (entry != entries_.end()) {
        discharge(entry->second);
        removed = std::move(entry->second);
        entries_.erase(entry);
    }
}

// False when the end of the instance has taken it out.
bool OwedReplies::remove(const OwedReply::Call& call) noexcept {
    const ObjectLock guard(*this);
    const auto found = std::find(calls_.begin(), calls_.end(), &call);
    if (found == calls_.end()) {
        return false;
    }
    calls_.erase(found);
    return true;
}

// Each is taken out and copied under one lock: from then on its handler may return.
void OwedReplies::answerHandled(const Answer& answer) {
    for (;;) {
        std::unique_ptr<Message> request;
        int32_t code = 0;
        SoString text;
        {
            const ObjectLock guard(*this);
            if (calls_.empty()) {
                return;
            }
            const OwedReply::Call& call = *calls_.back();
            calls_.pop_back();
            request = std::make_unique<Message>(call.request_);
            OwedReply* const reply = call.shown_;
            if (reply == nullptr || !reply->takeGiven(code, text)) {
                code = CV_CODE_TARGET_ENDED;
                text = CV_ERROR_TARGET_ENDED;
            }
        }
        answer(*request, code, text);
    }
}

void OwedReplies::close(const Answer& answer) noexcept {
    try {
        answerHandled(answer);
    } catch (const std::bad_alloc&) { // their askers have their time-outs left
    }
    Entries owed;
    {
        const ObjectLock guard(*this);
        owed.swap(entries_);
        bytesOf_.clear();
        bytes_ = 0;
        closed_ = true;
    }
    for (const auto& [address, entry] : owed) {
        try {
            (void)entry.reply->give(CV_CODE_TARGET_ENDED, CV_ERROR_TARGET_ENDED);
        } catch (const std::bad_alloc&) { // of the text
            (void)entry.reply->give(CV_CODE_TARGET_ENDED, SoString());
        }
    }
}

void OwedReplies::appendDiagnostics(CVDiagnosticsRows& rows) const {
    uint32_t count = 0;
    uint32_t oldest = UINT32_MAX;
    {
        const ObjectLock guard(*this);
        count = static_cast<uint32_t>(entries_.size());
        for (const auto& [address, entry] : entries_) {
            oldest = std::min(oldest, entry.since);
        }
    }
    // As a rule none is: the rows are for who wonders why an answer does not come.
    if (count != 0) {
        rows.leaf("/owed", "Replies owed", count);
        rows.leaf("/oldestowed", "Oldest reply owed", ConveyUtils::getTimeSeconds() - oldest, "s");
    }
}

} // namespace ScObjects::ConveyData
