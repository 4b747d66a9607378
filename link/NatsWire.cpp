// The wire over the NATS client.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <nats/nats.h>
#include <thread>
#include <utility>

#include "link/Bounds.h"
#include "link/Frame.h"
#include "link/NatsClient.h"
#include "link/NatsSocket.h"
#include "link/Text.h"
#include "link/Wire.h"
#include "platform/Clock.h"

namespace convey_link {
namespace {

// What is received and not yet taken; windows keep it far below, garbage may not.
constexpr size_t kQueuedBytes = 256 * bounds::kMiB;
constexpr int64_t kPingMilliseconds = 2000;
constexpr int64_t kReconnectMilliseconds = 500;
constexpr int64_t kJitterMilliseconds = 200;
// A server that ends the talk before it answers does not take the certificate, or has no time: the
// former when it does so again and again.
constexpr int kEndedTalks = 5;
// Of messages that have been taken, until they are given back to the client.
constexpr size_t kDoneBytes = 64 * bounds::kKiB;
// Of the client's own fields around a frame, to count with.
constexpr size_t kAroundBytes = 256;
// Of the client, for a read; more than what one record of TLS holds.
constexpr int kBufferBytes = 128 * static_cast<int>(bounds::kKiB);
// At the end, for the client's threads and the one here each.
constexpr int64_t kCloseMilliseconds = 300;

// All that the client's threads use; its owner leaves it to them when they do not end in time.
class NatsConnection : public Wire {
public:
    NatsConnection(const Configuration& configuration, WireLoop loop)
        : loop_(std::move(loop)),
          prefix_("convey." + configuration.realm + "."),
          own_(configuration.name),
          realm_(configuration.realm),
          keeps_(std::any_of(configuration.uses.begin(), configuration.uses.end(),
                             [](const Use& use) { return use.durable; })),
          offers_(!configuration.offers.empty()) {}

    // Ends it; whether no thread uses it any more. One that looks for a server takes seconds, which
    // whoever ends the link need not wait.
    bool close() {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            closing_ = true;
            changed_.notify_all();
            const auto time = std::chrono::milliseconds(kCloseMilliseconds);
            if (joining_.joinable() &&
                !changed_.wait_for(lock, time, [this] { return joiningEnded_; })) {
                joining_.detach();
                return false;
            }
        }
        if (joining_.joinable()) {
            joining_.join();
        }
        if (socket_.connection() != nullptr) {
            socket_.sayLast();
            endSubscriptions();
            natsConnection_Close(socket_.connection());
        }
        done_.clear();
        socket_.own(nullptr);
        return nats_CloseAndWait(kCloseMilliseconds) == NATS_OK;
    }

    bool connect(const Configuration& configuration, std::string& error) {
        natsStatus status = makeNatsOptions(configuration, options_);
        natsOptions* const made = options_.get();
        const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
        set(natsOptions_SetNoEcho(made, false));
        set(natsOptions_SetSendAsap(made, true));
        set(socket_.useIn(made));
        set(natsOptions_SetIOBufSize(made, kBufferBytes));
        set(natsOptions_SetPingInterval(made, kPingMilliseconds));
        set(natsOptions_SetMaxPingsOut(made, INT_MAX));
        // It would take what the next server says for the rest of what the last one was saying.
        set(natsOptions_SetAllowReconnect(made, false));
        set(natsOptions_SetDisconnectedCB(made, onDisconnected, this));
        set(natsOptions_SetClosedCB(made, onClosed, this));
        set(natsOptions_SetErrorHandler(made, onError, this));
        if (status != NATS_OK) {
            error = lastNatsError(status);
            return false;
        }
        joining_ = std::thread([this] {
            keepJoined();
            const std::lock_guard<std::mutex> guard(mutex_);
            joiningEnded_ = true;
            changed_.notify_all();
        });
        return true;
    }

    bool publish(const std::string& link, std::string_view frame) override {
        return ask(prefix_ + link + "." + own_, ".absent." + link, frame);
    }

    bool keep(const std::string& link, uint64_t life, uint64_t serial,
              std::string_view frame) override {
        const NatsSocket::Turn turn(socket_);
        if (!makeRoom(frame.size())) {
            return false;
        }
        natsMsg* made = nullptr;
        const std::string number = std::to_string(serial);
        if (natsMsg_Create(&made, (prefix_ + link + ".keep." + own_).c_str(),
                           (prefix_ + own_ + ".kept.told." + number).c_str(), frame.data(),
                           static_cast<int>(frame.size())) != NATS_OK) {
            return false;
        }
        const Owned<natsMsg> owned(made);
        return natsMsgHeader_Set(made, "Nats-Msg-Id",
                                 (std::to_string(life) + "." + number).c_str()) == NATS_OK &&
               natsConnection_PublishMsg(socket_.connection(), made) == NATS_OK;
    }

    bool acknowledge(const std::string& reply) override {
        const NatsSocket::Turn turn(socket_);
        return makeRoom(reply.size()) &&
               natsConnection_PublishString(socket_.connection(), reply.c_str(), "+ACK") == NATS_OK;
    }

    bool askClock(const std::string& link) override {
        return ask("$JS.API.CONSUMER.INFO." + streamOf(realm_, link) + "." + own_,
                   ".kept.clock." + link, {});
    }

    void flush() override {
        {
            // No turn: who wants to write now wakes.
            const std::lock_guard<std::mutex> guard(socket_.mutex);
            socket_.writeOut();
        }
        // Behind what was said, and many together: the client wakes a thread for them.
        if (doneBytes_ > kDoneBytes) {
            done_.clear();
            doneBytes_ = 0;
        }
    }

    std::vector<Event> take() override {
        std::vector<Event> taken;
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            queuedBytes_ = 0;
            taken.swap(events_);
        }
        const NatsSocket::Turn turn(socket_);
        if (socket_.connection() == nullptr) {
            return taken;
        }
        socket_.read();
        for (size_t place = 0; place < std::size(kTakers); ++place) {
            natsStatus status = subscriptions_[place] == nullptr ? NATS_TIMEOUT : NATS_OK;
            while (status == NATS_OK ||
                   status == NATS_NO_RESPONDERS) { // nobody here asked for those
                natsMsg* message = nullptr;
                status = natsSubscription_NextMsg(&message, subscriptions_[place].get(), 0);
                if (status == NATS_OK) {
                    doneBytes_ +=
                        static_cast<size_t>(natsMsg_GetDataLength(message)) + kAroundBytes;
                    done_.emplace_back(message);
                    (this->*kTakers[place])(message, taken);
                }
            }
        }
        return taken;
    }

    size_t maximumFrame() const override {
        const std::lock_guard<std::mutex> guard(socket_.mutex);
        const int64_t most = socket_.connection() == nullptr
                                 ? 0
                                 : natsConnection_GetMaxPayload(socket_.connection());
        return most > 0 ? static_cast<size_t>(most) : bounds::kPartBytes;
    }

private:
    // Whether a frame of so many bytes may be said.
    bool makeRoom(size_t bytes) { return socket_.makeRoom(bytes + kAroundBytes); }
    // Publishes what is answered at a subject of this link's own.
    bool ask(const std::string& subject, const std::string& answers, std::string_view text) {
        const NatsSocket::Turn turn(socket_);
        return makeRoom(text.size()) &&
               natsConnection_PublishRequest(socket_.connection(), subject.c_str(),
                                             (prefix_ + own_ + answers).c_str(), text.data(),
                                             static_cast<int>(text.size())) == NATS_OK;
    }

    // Joins the servers, and again, with a connection of its own, when that has ended. Whoever has
    // joined before is refused for good only when that is said twice: a server may be starting.
    void keepJoined() {
        int endedTalks = 0;
        bool hasJoined = false;
        bool isRefused = false;
        bool isTold = false;
        while (!closing_) {
            const int64_t begin = platform::monotonicNow();
            natsConnection* made = nullptr;
            natsStatus status = natsConnection_Connect(&made, options_.get());
            std::string why = lastNatsError(status);
            if (status == NATS_OK) {
                const std::lock_guard<std::mutex> guard(socket_.mutex);
                socket_.own(made);
                if (subscribeAll()) {
                    onConnected(made);
                    hasJoined = true;
                    isTold = false;
                } else {
                    why = "the connection ended";
                    isClosed_ = true;
                }
            }
            endedTalks = status == NATS_PROTOCOL_ERROR && !hasJoined ? endedTalks + 1 : 0;
            const bool wasRefused = std::exchange(isRefused, isFinal(status, why));
            if ((isRefused && (wasRefused || !hasJoined)) || endedTalks == kEndedTalks) {
                push({EventKind::refused, {}, why});
                return;
            }
            if (socket_.connection() == nullptr && !isTold) {
                push({EventKind::disconnected, {}, why});
                isTold = true;
            }
            std::unique_lock<std::mutex> lock(mutex_);
            int64_t pause = kReconnectMilliseconds + nats_Now() % kJitterMilliseconds;
            if (socket_.connection() != nullptr) {
                changed_.wait(lock, [this] { return isClosed_ || closing_; });
                pause -= platform::monotonicNow() - begin; // another server may be there at once
            }
            changed_.wait_for(lock, std::chrono::milliseconds(pause),
                              [this] { return closing_.load(); });
            lock.unlock();
            if (isClosed_.exchange(false) && !closing_ && socket_.connection() != nullptr &&
                natsConnection_IsClosed(socket_.connection())) {
                const std::lock_guard<std::mutex> guard(socket_.mutex);
                endSubscriptions();
                socket_.own(nullptr);
            }
        }
    }

    // Whether trying again is of no use.
    static bool isFinal(natsStatus status, const std::string& why) {
        return status == NATS_CONNECTION_AUTH_FAILED || status == NATS_NOT_PERMITTED ||
               (status == NATS_SSL_ERROR && why.find("cert") != std::string::npos);
    }

    bool subscribeAll() {
        const std::string own = prefix_ + own_;
        return subscribe(own + ".*", 0) && subscribe(own + ".absent.*", 3, onAbsent) &&
               (!keeps_ || subscribe(own + ".kept.told.*", 4, onKept)) &&
               (!offers_ ||
                (subscribe(own + ".kept.clock.*", 1) && subscribe(own + kStoredSubject, 2)));
    }

    // With a handler it is handed over by a thread of the client's, where nobody may be there: it
    // says whose absence that is to a handler, and to who takes messages himself only that there
    // is one.
    bool subscribe(const std::string& subject, size_t place, natsMsgHandler handler = nullptr) {
        natsConnection* const connection = socket_.connection();
        natsSubscription* made = nullptr;
        const natsStatus status =
            handler == nullptr
                ? natsConnection_SubscribeSync(&made, connection, subject.c_str())
                : natsConnection_Subscribe(&made, connection, subject.c_str(), handler, this);
        subscriptions_[place].reset(made);
        return status == NATS_OK && natsSubscription_SetPendingLimits(
                                        made, -1, static_cast<int>(kQueuedBytes)) == NATS_OK;
    }

    void endSubscriptions() {
        for (auto& subscription : subscriptions_) {
            subscription.reset();
        }
    }

    static void onAbsent(natsConnection*, natsSubscription*, natsMsg* taken, void* self) {
        const Owned<natsMsg> message(taken);
        // Only the server says so: anybody may publish an empty message.
        if (natsMsg_IsNoResponders(taken)) {
            static_cast<NatsConnection*>(self)->push({EventKind::absent, lastToken(taken), {}});
        }
    }

    static void onKept(natsConnection*, natsSubscription*, natsMsg* taken, void* self) {
        const Owned<natsMsg> message(taken);
        const int64_t number = numberOf(lastToken(taken));
        std::string answer = textOf(taken);
        // Only the server says that nobody is there, as above.
        if (number > 0 && (!answer.empty() || natsMsg_IsNoResponders(taken))) {
            static_cast<NatsConnection*>(self)->push(
                {EventKind::kept, {}, std::move(answer), static_cast<uint64_t>(number)});
        }
    }

    void push(Event event) {
        if (closing_) {
            return;
        }
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            if (queuedBytes_ + event.text.size() > kQueuedBytes) {
                return; // as if the network had lost it
            }
            queuedBytes_ += event.text.size();
            events_.push_back(std::move(event));
        }
        loop_.wake();
    }

    // The last token of a subject, which is the name of a link.
    static std::string lastToken(const natsMsg* message) {
        const std::string_view subject = natsMsg_GetSubject(message);
        return std::string(subject.substr(subject.rfind('.') + 1));
    }

    // What comes of each subscription.

    void takeFrame(natsMsg* message, std::vector<Event>& out) {
        std::string from = lastToken(message);
        if (isName(from)) {
            out.push_back({EventKind::frame, std::move(from), {}, 0, {}, bytesOf(message)});
        }
    }
    void takeClock(natsMsg* message, std::vector<Event>& out) {
        out.push_back({EventKind::clock, lastToken(message), textOf(message)});
    }
    // The subject is the one that it was published to, which only its sender may, and the servers
    // say in which stream it has lain.
    void takeStored(natsMsg* message, std::vector<Event>& out) {
        std::string from = lastToken(message);
        const std::string reply =
            natsMsg_GetReply(message) == nullptr ? "" : natsMsg_GetReply(message);
        if (isName(from) && natsMsg_GetSubject(message) == prefix_ + own_ + ".keep." + from &&
            reply.starts_with("$JS.ACK.") &&
            reply.find("." + streamOf(realm_, from) + "." + own_ + ".") != std::string::npos) {
            out.push_back({EventKind::stored, std::move(from), textOf(message), 0, reply});
        }
    }
    static constexpr void (NatsConnection::*kTakers[])(natsMsg*, std::vector<Event>&) = {
        &NatsConnection::takeFrame, &NatsConnection::takeClock, &NatsConnection::takeStored};

    // Kept by `done_` until what was taken has been answered.
    static std::string_view bytesOf(natsMsg* message) {
        return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
    }
    static std::string textOf(natsMsg* message) { return std::string(bytesOf(message)); }

    void onConnected(natsConnection* connection) {
        char url[256] = "";
        (void)natsConnection_GetConnectedUrl(connection, url, sizeof url); // for people only
        // An address may hold a password.
        std::string text = url;
        const size_t scheme = text.find("://");
        const size_t at = text.find('@');
        if (scheme != std::string::npos && at != std::string::npos) {
            text.erase(scheme + 3, at - scheme - 2);
        }
        push({EventKind::connected, {}, text});
    }

    static std::string reason(natsConnection* connection) {
        const char* text = nullptr;
        const natsStatus status = natsConnection_GetLastError(connection, &text);
        return text != nullptr && *text != '\0'                        ? text
               : status == NATS_OK || status == NATS_CONNECTION_CLOSED ? "the connection ended"
                                                                       : natsStatus_GetText(status);
    }

    static void onDisconnected(natsConnection* connection, void* self) {
        static_cast<NatsConnection*>(self)->push({EventKind::disconnected, {}, reason(connection)});
    }

    static void onClosed(natsConnection* connection, void* self) {
        auto& wire = *static_cast<NatsConnection*>(self);
        const char* text = nullptr;
        if (isFinal(natsConnection_GetLastError(connection, &text), reason(connection))) {
            wire.push({EventKind::refused, {}, reason(connection)});
            return;
        }
        const std::lock_guard<std::mutex> guard(wire.mutex_);
        wire.isClosed_ = true;
        wire.changed_.notify_all();
    }

    static void onError(natsConnection* connection, natsSubscription*, natsStatus status,
                        void* self) {
        const char* text = nullptr;
        (void)natsConnection_GetLastError(connection, &text);
        const std::string what = natsErrorText(status, text);
        // The link listens and speaks as itself only: who may not is somebody else to the servers.
        // Who may not have requests kept is told of each that they are not.
        const bool isOfDisks = what.find(".kept.") != std::string::npos ||
                               what.find(".keep.") != std::string::npos ||
                               what.find("$JS.") != std::string::npos;
        const bool isRefused =
            !isOfDisks && (status == NATS_NOT_PERMITTED ||
                           what.find("ermissions Violation") != std::string::npos);
        static_cast<NatsConnection*>(self)->push(
            {isRefused ? EventKind::refused : EventKind::noted, {}, what});
    }

    const WireLoop loop_;
    const std::string prefix_;
    const std::string own_;
    const std::string realm_;
    const bool keeps_;  // has requests kept
    const bool offers_; // and takes kept ones
    Owned<natsOptions> options_;
    std::thread joining_;
    // Its mutex guards the connection, which only `joining_` makes and ends; before `mutex_`.
    NatsSocket socket_{loop_, kPingMilliseconds};
    Owned<natsSubscription> subscriptions_[5]; // those of kTakers, and two with handlers
    std::vector<Owned<natsMsg>> done_;         // of the thread that takes, as the next
    size_t doneBytes_ = 0;
    std::atomic<bool> closing_{false};
    std::atomic<bool> isClosed_{false}; // by the client, which has given up
    std::condition_variable changed_;   // one of the two, or the next
    std::mutex mutex_;                  // guards what follows
    bool joiningEnded_ = false;
    std::vector<Event> events_;
    size_t queuedBytes_ = 0;
};

} // namespace

std::shared_ptr<Wire> connectToNats(const Configuration& configuration, WireLoop loop,
                                    std::string& error) {
    std::shared_ptr<NatsConnection> connection(new NatsConnection(configuration, std::move(loop)),
                                               [](NatsConnection* ended) {
                                                   std::unique_ptr<NatsConnection> owned(ended);
                                                   if (!owned->close()) {
                                                       (void)owned.release(); // its threads have it
                                                   }
                                               });
    return connection->connect(configuration, error) ? connection : nullptr;
}

} // namespace convey_link
