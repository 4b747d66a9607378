#pragma once

#include <cstdint>
#include <memory>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

namespace ConveyData {
class OwedReply;
} // namespace ConveyData

// The reply to one request, to be given once: in the handler or later, on its thread or another.
// Until then the asker gets neither "Result" nor "Processed", and its time-out goes on.
//
// One that is let go of unanswered answers "Error" (CV_CODE_NOT_ANSWERED), and so does a handler
// that throws (CV_CODE_HANDLER_FAILED), also when it has answered or given its reply away before.
// The end of the instance answers what is owed (CV_CODE_TARGET_ENDED); a reply that is given after
// that, or to an asker that has ended, does nothing. When too much is owed (`convey limits`,
// reply.owed...) the request is answered with CV_CODE_TOO_MANY_OWED when its handler returns, and
// its reply is void. Whether the asker wanted a result is its affair: a reply that it did not ask
// for is not sent.
//
// Threads: any thread may use and destroy it, one at a time. Nothing is thrown.
class SO_EXPORT Convey::Reply {
public:
    // Void, and that of another, which is void then.
    Reply() noexcept;
    Reply(Reply&& other) noexcept;
    Reply& operator=(Reply&& other) noexcept;
    ~Reply();

    // The reply to the message with which the calling thread's innermost handler was called: from
    // now on what that returns answers only when it is an error. Void outside of handlers, for a
    // message that is itself a reply, when it was taken before, and without memory.
    static Reply take() noexcept;

    // Answer with a result, or with an error: a code and a text for people (0 as a code is sent as
    // CV_CODE_NOT_ANSWERED). True for the first answer while the instance exists.
    bool result(const SoString& text) noexcept;
    bool error(int32_t code, const SoString& text) noexcept;

    // Whether it waits for an answer: false for one that is void, was given, or has ended with its
    // instance.
    [[nodiscard]] bool isOpen() const noexcept;

private:
    bool give(int32_t code, const SoString& text) noexcept;

    std::shared_ptr<ConveyData::OwedReply> owed_;
};

} // namespace ScObjects
