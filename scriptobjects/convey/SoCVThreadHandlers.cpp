#include "scriptobjects/convey/SoCVThreadHandlers.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>

#include "limits/Limits.h"
#include "platform/Processes.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

constexpr size_t kMaximumKeyBytes = limits::of("thread.key");
constexpr uint32_t kForwardedSeconds = limits::of("forward.age");

// Counts the events that an observer was to have, so that it sees where it has missed some: what it
// did not take within a bound and a time is not told to it.
constexpr const char* kEventNumber = "Event-Number";

constexpr const char* kForwardingKeys[] = {
    ConveyData::CV_FORWARD_MESSAGES, ConveyData::CV_FORWARD_ERRORS, ConveyData::CV_FORWARD_LOGS};

constexpr const char* kOwnKeys[] = {ConveyThread::CV_ECHO_REQUEST, ConveyThread::CV_STATUS,
                                    ConveyThread::CV_MAIN,         ConveyThread::CV_LAUNCHED,
                                    ConveyThread::CV_DIAGNOSTICS,  ConveyThread::CV_INFO,
                                    ConveyThread::CV_LAUNCHPARAMS, ConveyThread::CV_SETUPTIME};

bool isForwardingKey(const SoString& key) {
    return std::any_of(std::begin(kForwardingKeys), std::end(kForwardingKeys),
                       [&key](const char* forwarding) { return key == forwarding; });
}

// Not copied: any process may send one of any length.
std::string_view echoRequest(const Convey::Message& message) {
    const Convey::Header* header = message.getHeaders();
    while (header != nullptr && header->name.view() != ConveyThread::CV_ECHO_REQUEST) {
        header = header->next;
    }
    return header == nullptr ? std::string_view() : header->value.view();
}

void observe(ConveyData::PrivateData& main, const SoString& key, const SoString& observer) {
    // An observer of this key that was there before is gone with what is replaced.
    const std::unique_ptr<Convey::MsgHandler> replaced(
        observer.isEmpty() ? main.removeHandler(key, ConveyData::CV_INVALID_MESSAGE_NUMBER)
                           : main.changeHandler(new ThreadForwardMsgHandler(observer, key)));
}

} // namespace

// What pings have asked for stays in the table, so that a main instance that comes later, or in the
// place of another, is observed as well.
void ConveyThread::installForwarding() {
    const ConveyContext* const context = context_.load();
    const auto main = context == nullptr ? nullptr : context->pinMain();
    for (const char* key : kForwardingKeys) {
        const SoString observer = main == nullptr ? SoString() : getValueForKey(key);
        if (!observer.isEmpty()) {
            observe(*main, key, observer);
        }
    }
}

int32_t ThreadMainMsgHandler::handleMessage(int /*event*/, Convey::Message& message,
                                            SoString* result) {
    SoString answer;
    if (message.getType() == ConveyThread::CV_PING) {
        const std::string_view text = echoRequest(message);
        // The first one parts key and value: values such as launch options hold further ones.
        const size_t mark = std::min(text.find('='), text.size());
        // Not copied before its length is known: the table would not take what is longer.
        if (mark <= kMaximumKeyBytes) {
            const SoString key(text.substr(0, mark));
            answer =
                mark == text.size() ? answerKey(key, message) : setKey(key, text.substr(mark + 1));
        }
    }
    if (result != nullptr) {
        *result = answer;
    }
    return 0;
}

// The layer's own keys are not for others to set: a peer could make a running application say that
// it does not run. Answered is what holds then.
SoString ThreadMainMsgHandler::setKey(const SoString& key, std::string_view text) const {
    if (std::any_of(std::begin(kOwnKeys), std::end(kOwnKeys),
                    [&key](const char* own) { return key == own; })) {
        return thread_->getValueForKey(key);
    }
    if (text.size() > kMaximumKeyBytes) {
        return thread_->getValueForKey(key);
    }
    SoString value(text);
    if (!thread_->setKeyValuePair(key, value)) {
        return thread_->getValueForKey(key);
    }
    // Without a main instance the key is only kept, until there is one to be observed.
    if (isForwardingKey(key)) {
        if (const auto main = context_->pinMain()) {
            observe(*main, key, value);
        }
    }
    return value;
}

SoString ThreadMainMsgHandler::answerKey(const SoString& key, Convey::Message& message) const {
    if (key == ConveyThread::CV_MAIN) { // would be this handler again
        return thread_->getValueForKey(message.getBody());
    }
    SoString answer;
    if (thread_->callHandler(key, message, answer)) {
        return answer;
    }
    return thread_->getValueForKey(key);
}

int32_t ThreadLaunchedMsgHandler::handleMessage(int /*event*/, Convey::Message& /*message*/,
                                                SoString* result) {
    // Nothing as long as the setup runs: launchers take the answer for the end of the start.
    if (result != nullptr && !ConveySetupThread::isSetupThreadRunning()) {
        *result = ConveyThread::CV_LAUNCHED;
    }
    return 0;
}

int32_t ThreadDiagnosticsMsgHandler::handleMessage(int /*event*/, Convey::Message& message,
                                                   SoString* result) {
    // In the body: the answer to a ping is a header, which is one line.
    const bool formatted = message.getBody() == "formatted";
    const CVDiagnosticsRows::Whole whole(message.getBody() == ConveyData::CV_WHOLE);
    SoString text;
    Convey::getDiagnostics(text, formatted);
    message.setBody(std::move(text));
    if (result != nullptr) {
        *result = ConveyThread::CV_SEE_BODY;
    }
    return 0;
}

int32_t ThreadInfoMsgHandler::handleMessage(int /*event*/, Convey::Message& message,
                                            SoString* result) {
    const auto started = static_cast<uint32_t>(thread_->startTime() / 1000);
    SoString text = context_->getAppSpecifier();
    text << "\n"
         << platform::Processes::system().ownNumber() << "\n"
         << Convey::kVersion << "\n"
         << ConveyUtils::getTimeString(&started) << "\n"
         << context_->getSignature() << "\n";
    message.setBody(std::move(text));
    if (result != nullptr) {
        *result = ConveyThread::CV_SEE_BODY;
    }
    return 0;
}

int32_t ThreadForwardMsgHandler::handleMessage(int /*event*/, Convey::Message& message,
                                               SoString* /*result*/) {
    // From the observer itself, which is observed in turn: they would send it to and fro for ever.
    if (message.getType().view().starts_with(ConveyData::CV_FORWARD_PREFIX)) {
        return 0;
    }
    const ConveyContext* const context = ConveyContext::currentContextNow();
    const auto main = context == nullptr ? nullptr : context->pinMain();
    if (main == nullptr) {
        return 1;
    }
    ++events_;
    auto forwarded = std::make_unique<Convey::Message>(message);
    forwarded->setHeader(kEventNumber, static_cast<unsigned long>(events_));
    forwarded->setTarget(observer_);
    forwarded->setSender(main->appName());
    forwarded->setType(key_);
    forwarded->setTimeout(kForwardedSeconds);
    forwarded->setSerialNumber(message.getNextSerialNumber(nullptr));
    // By the thread's outbox: what an observer does not take counts among the answers to pings, and
    // never keeps the observed instance from sending.
    ConveyThread* const thread = context->getThread();
    if (thread->post(std::move(forwarded)) != ConveyData::Delivery::refused) {
        return 0;
    }
    // Only when nobody owns the name: one that takes nothing for a while may go on, and would have
    // to ask again without knowing that it must.
    const InterAppStream* const stream = InterAppStream::get();
    if (stream != nullptr && stream->canOpen(observer_, false)) { // nobody is there any more
        (void)thread->setKeyValuePair(key_, SoString());
        // Within its own call: its slot deletes it when that has returned.
        (void)main->deleteHandler(this);
    }
    return 1;
}

} // namespace ScObjects
