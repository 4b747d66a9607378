#pragma once

#include <string_view>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

class ConveyContext;
class ConveyThread;

// What answers pings on the background thread. Each gives its answer in the result, and 0; an
// answer "SEE BODY" stands for the message's body, which it then has replaced.
class ThreadMsgHandler : public Convey::MsgHandler {
public:
    ThreadMsgHandler() = default;
    ThreadMsgHandler(const ThreadMsgHandler&) = delete;
    ThreadMsgHandler& operator=(const ThreadMsgHandler&) = delete;
};

// Answers every ping: sets a key for "key=value", else asks the key's handler or reads its value.
// Setting "FWDMESSAGES", "FWDERRORS" or "FWDLOGS" to the specifier of an observer has the main
// instance forward such messages to it; the empty value ends that.
class ThreadMainMsgHandler : public ThreadMsgHandler {
public:
    ThreadMainMsgHandler(ConveyContext* context, ConveyThread* thread)
        : context_(context), thread_(thread) {}
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;

private:
    SoString setKey(const SoString& key, std::string_view text) const;
    SoString answerKey(const SoString& key, Convey::Message& message) const;

    ConveyContext* const context_;
    ConveyThread* const thread_;
};

// "LAUNCHED", once the layer is set up.
class ThreadLaunchedMsgHandler : public ThreadMsgHandler {
public:
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;
};

// The diagnostics text, for people when the request's body is "formatted".
class ThreadDiagnosticsMsgHandler : public ThreadMsgHandler {
public:
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;
};

// Specifier, process id, version of the layer, time of its start and signature, a line each.
class ThreadInfoMsgHandler : public ThreadMsgHandler {
public:
    ThreadInfoMsgHandler(ConveyContext* context, ConveyThread* thread)
        : context_(context), thread_(thread) {}
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;

private:
    ConveyContext* const context_;
    ConveyThread* const thread_;
};

// Registered with the main instance under one of the forwarding keys: sends what it is given to the
// observer, which must keep up: nobody waits for it, and what it does not take is dropped. Goes
// when the observer has gone.
class ThreadForwardMsgHandler : public ThreadMsgHandler {
public:
    ThreadForwardMsgHandler(const SoString& observer, const SoString& key)
        : observer_(observer), key_(key) {}
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override;
    SoString getMsgType() const override { return key_; }

private:
    const SoString observer_;
    const SoString key_;
    // Events so far. One thread at a time hands them over.
    uint32_t events_ = 0;
};

} // namespace ScObjects
