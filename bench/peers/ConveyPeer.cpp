// What an application pays: the message with its headers is built, signed with the digest, sent
// over the port with the check of who is at the other end, read and checked.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>

#include "bench/BareSocket.h"
#include "bench/peers/Peer.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace bench {
namespace {

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;

class ConveyPeer : public Peer {
public:
    ConveyPeer(bool digest, bool soon)
        : soon_(soon),
          here_(("here" + std::to_string(getpid())).c_str()),
          there_(("there" + std::to_string(getpid())).c_str()) {
        Convey::Message::setCreateDigest(digest);
        Convey::Message::setAuthentication(digest);
        if (pipe(ready_) != 0) {
            fail("pipe");
        }
    }

    void serve() override {
        stream_ = std::make_unique<InterAppStream>(there_);
        (void)!write(ready_[1], "", 1);
        Convey::Message request;
        for (;;) {
            take(request);
            if (request.getBody().view()[0] == kAnswer) {
                (void)give(here_, there_, request.takeBody());
            }
        }
    }
    void connect() override {
        stream_ = std::make_unique<InterAppStream>(here_);
        char go = 0;
        (void)!read(ready_[0], &go, 1);
    }
    void roundTrip(const std::string& text) override {
        sendOnly(text);
        Convey::Message answer;
        take(answer);
    }
    void sendOnly(const std::string& text) override {
        if (!give(there_, here_, bodyOf(text))) {
            fail("stream send");
        }
    }
    bool offer(const std::string& text) override { return give(there_, here_, bodyOf(text), 0); }

private:
    // Each text is sent many times, by the others from where it is; here from the message before.
    SoString bodyOf(const std::string& text) {
        if (text.data() != lastText_ || text.size() != lastSize_) {
            lastText_ = text.data();
            lastSize_ = text.size();
            return SoString(text);
        }
        return sent_->takeBody();
    }
    bool give(const SoString& target, const SoString& sender, SoString body,
              int32_t patienceMilliseconds = InterAppStream::kSendTimeoutMilliseconds) {
        Convey::Message& message = sent_.emplace();
        message.setTarget(target);
        message.setSender(sender);
        message.setResponseRequest("Received Result");
        message.setSerialNumber(++lastNumber_);
        message.setBody(std::move(body));
        Convey::Message::Text text;
        return text.write(message) && stream_->send(target, text.pieces(), patienceMilliseconds,
                                                    nullptr) == platform::SendResult::delivered;
    }
    void take(Convey::Message& message) {
        while (reader_ == nullptr) {
            if (const auto text = stream_->take()) {
                reader_ = std::make_unique<Convey::Message::Reader>(
                    std::move(text->text), std::move(text->rest), text->mayHaveZero,
                    text->sealBytes);
            } else if (!stream_->waitForMessage(5000, soon_)) {
                _exit(0);
            }
        }
        while (!reader_->read(message, SIZE_MAX)) {
        }
        if (reader_->isAtEnd()) {
            reader_.reset();
        }
        if (message.isRejected()) {
            fail("a digest that does not fit");
        }
    }

    const bool soon_;
    const SoString here_;
    const SoString there_;
    int ready_[2];
    std::unique_ptr<InterAppStream> stream_;
    std::unique_ptr<Convey::Message::Reader> reader_; // of a text with messages left
    std::optional<Convey::Message> sent_;
    const char* lastText_ = nullptr;
    size_t lastSize_ = 0;
    uint32_t lastNumber_ = 0;
};

// What the digests alone cost: both ends make and check one of each text, one after the other in a
// round trip, side by side when texts go one way.
class DigestPeer : public Peer {
public:
    void serve() override { pause(); }
    void connect() override {}
    void roundTrip(const std::string& text) override {
        for (int i = 0; i < 4; ++i) {
            sendOnly(text);
        }
    }
    void sendOnly(const std::string& text) override {
        if (ScObjects::ConveyUtils::getMD5({std::string_view(text)}).isEmpty()) {
            fail("no digest");
        }
    }
    bool offer(const std::string&) override { return false; }
};

} // namespace

std::unique_ptr<Peer> digestPeer() {
    return std::make_unique<DigestPeer>();
}

std::unique_ptr<Peer> conveyPeer(bool digest, bool soon) {
    return std::make_unique<ConveyPeer>(digest, soon);
}

} // namespace bench
