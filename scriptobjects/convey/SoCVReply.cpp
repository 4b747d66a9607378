#include "scriptobjects/convey/SoCVReply.h"

#include <new>
#include <utility>

#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVOwedReplies.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects {

using namespace ConveyData;

Convey::Reply::Reply() noexcept = default;
Convey::Reply::Reply(Reply&& other) noexcept = default;

Convey::Reply& Convey::Reply::operator=(Reply&& other) noexcept {
    // What this one was the reply to is let go of, and so answered, when `other` goes with it.
    std::swap(owed_, other.owed_);
    return *this;
}

Convey::Reply::~Reply() {
    if (isOpen()) {
        try {
            (void)give(CV_CODE_NOT_ANSWERED, CV_ERROR_NOT_ANSWERED);
        } catch (const std::bad_alloc&) { // of the text
            (void)give(CV_CODE_NOT_ANSWERED, SoString());
        }
    }
}

Convey::Reply Convey::Reply::take() noexcept {
    Reply reply;
    try {
        reply.owed_ = OwedReply::Call::take();
    } catch (const std::bad_alloc&) { // void, as it says
    }
    return reply;
}

bool Convey::Reply::give(int32_t code, const SoString& text) noexcept {
    // The end of the layer waits for whoever is in it.
    const ConveyContext::Visit visit;
    return owed_ != nullptr && owed_->give(code, text);
}

bool Convey::Reply::result(const SoString& text) noexcept {
    return give(0, text);
}

bool Convey::Reply::error(int32_t code, const SoString& text) noexcept {
    return give(code == 0 ? CV_CODE_NOT_ANSWERED : code, text);
}

bool Convey::Reply::isOpen() const noexcept {
    return owed_ != nullptr && owed_->isOpen();
}

} // namespace ScObjects
