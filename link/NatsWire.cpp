// The wire over the NATS client.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <nats/nats.h>
#include <thread>
#include <utility>

#include "link/Bounds.h"
#include "link/Frame.h"
#include "link/Text.h"
#include "link/Wire.h"

namespace convey_link {
namespace {

// What is received and not yet taken; windows keep it far below, garbage may not.
constexpr size_t kQueuedBytes = 256 * bounds::kMiB;
// Of what the client itself keeps while it is connecting: nothing that it forgets with the process
// is of use, since all that matters is sent again.
constexpr int kReconnectBytes = 1;
constexpr int64_t kPingMilliseconds = 2000;
constexpr int kPingsOut = 2;
constexpr int64_t kConnectMilliseconds = 2000;
constexpr int64_t kReconnectMilliseconds = 500;
constexpr int64_t kJitterMilliseconds = 200;
// A server that ends the talk before it answers does not take the certificate, or has no time: the
// former when it does so again and again.
constexpr int kEndedTalks = 5;
// A server that is stopped holds the link up for so long at most.
constexpr int64_t kWriteMilliseconds = 2000;
// At the end, for what was published last, and each for the client's threads and the one here.
constexpr int64_t kFlushMilliseconds = 300;
constexpr int64_t kCloseMilliseconds = 300;
// Behind a link's own subject. One for all senders, since the servers look for exactly this one
// before they hand anything to it.
constexpr const char* kStoredSubject = ".kept.from";
constexpr size_t kReplicas = 3;

struct Free {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsSubscription* subscription) const {
        natsSubscription_Destroy(subscription);
    }
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
    void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
};
template <class Handle>
using Owned = std::unique_ptr<Handle, Free>;

std::string lastError(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* const text = nats_GetLastError(&last);
    const std::string name = natsStatus_GetText(status);
    return text == nullptr || *text == '\0' || last != status ? name : name + ": " + text;
}

template <class Set>
void secure(const Configuration& configuration, natsOptions* options, Set& set) {
    set(natsOptions_SetSecure(options, true));
    if (!configuration.ca.empty()) {
        set(natsOptions_LoadCATrustedCertificates(options, configuration.ca.c_str()));
    }
    if (!configuration.certificate.empty()) {
        set(natsOptions_LoadCertificatesChain(options, configuration.certificate.c_str(),
                                              configuration.key.c_str()));
    }
    if (!configuration.host.empty()) {
        set(natsOptions_SetExpectedHostname(options, configuration.host.c_str()));
    }
}

// Whom to reach, and as whom.
natsStatus makeOptions(const Configuration& configuration, Owned<natsOptions>& options) {
    natsOptions* made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    options.reset(made);
    const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
    std::vector<const char*> servers;
    for (const std::string& server : configuration.servers) {
        servers.push_back(server.c_str());
    }
    set(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    set(natsOptions_SetName(made, ("convey-link " + configuration.name).c_str()));
    set(natsOptions_SetCustomInboxPrefix(made, ("_INBOX_" + configuration.name).c_str()));
    set(natsOptions_SetTimeout(made, kConnectMilliseconds));
    if (!configuration.user.empty()) {
        set(natsOptions_SetUserInfo(made, configuration.user.c_str(),
                                    configuration.password.c_str()));
    }
    if (!configuration.credentials.empty()) {
        set(natsOptions_SetUserCredentialsFromFiles(made, configuration.credentials.c_str(),
                                                    nullptr));
    }
    if (configuration.tls) {
        secure(configuration, made, set);
    }
    return status;
}

// All that the client's threads use; its owner leaves it to them when they do not end in time.
class NatsConnection {
public:
    using Event = Wire::Event;
    using EventKind = Wire::EventKind;

    NatsConnection(const Configuration& configuration, WireLoop loop)
        : loop_(std::move(loop)),
          prefix_("convey." + configuration.realm + "."),
          own_(configuration.name),
          realm_(configuration.realm),
          keeps_(std::any_of(configuration.uses.begin(), configuration.uses.end(),
                             [](const Use& use) { return use.durable; })),
          offers_(!configuration.offers.empty()) {}

    // Ends it; whether no thread uses it any more. One that looks for a server, or writes to one
    // that has stopped, takes seconds, which whoever ends the link need not wait.
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
        for (auto& subscription : subscriptions_) {
            subscription.reset();
        }
        if (connection_ != nullptr) {
            // What was published last, such as that this link ends.
            if (natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED) {
                (void)natsConnection_FlushTimeout(connection_.get(), kFlushMilliseconds);
            }
            natsConnection_Close(connection_.get());
        }
        connection_.reset();
        return nats_CloseAndWait(kCloseMilliseconds) == NATS_OK;
    }

    bool connect(const Configuration& configuration, std::string& error) {
        natsStatus status = makeOptions(configuration, options_);
        natsOptions* const made = options_.get();
        const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
        set(natsOptions_SetNoEcho(made, false));
        set(natsOptions_SetSendAsap(made, true));
        set(natsOptions_SetWriteDeadline(made, kWriteMilliseconds));
        set(natsOptions_SetPingInterval(made, kPingMilliseconds));
        set(natsOptions_SetMaxPingsOut(made, kPingsOut));
        set(natsOptions_SetMaxReconnect(made, -1));
        set(natsOptions_SetReconnectWait(made, kReconnectMilliseconds));
        set(natsOptions_SetReconnectJitter(made, kJitterMilliseconds, kJitterMilliseconds));
        set(natsOptions_SetReconnectBufSize(made, kReconnectBytes));
        set(natsOptions_SetDisconnectedCB(made, onDisconnected, this));
        set(natsOptions_SetReconnectedCB(made, onConnected, this));
        set(natsOptions_SetClosedCB(made, onClosed, this));
        set(natsOptions_SetErrorHandler(made, onError, this));
        if (status != NATS_OK) {
            error = lastError(status);
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

    bool publish(const std::string& link, std::string_view frame) {
        const std::lock_guard<std::mutex> guard(inUse_);
        if (!isConnected()) {
            return false;
        }
        return natsConnection_PublishRequest(connection_.get(),
                                             (prefix_ + link + "." + own_).c_str(),
                                             (prefix_ + own_ + ".absent." + link).c_str(),
                                             frame.data(),
                                             static_cast<int>(frame.size())) == NATS_OK;
    }

    bool keep(const std::string& link, uint64_t life, uint64_t serial, std::string_view frame) {
        const std::lock_guard<std::mutex> guard(inUse_);
        if (!isConnected()) {
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
               natsConnection_PublishMsg(connection_.get(), made) == NATS_OK;
    }

    bool acknowledge(const std::string& reply) {
        const std::lock_guard<std::mutex> guard(inUse_);
        return isConnected() &&
               natsConnection_PublishString(connection_.get(), reply.c_str(), "+ACK") == NATS_OK;
    }

    bool askClock(const std::string& link) {
        const std::lock_guard<std::mutex> guard(inUse_);
        return isConnected() &&
               natsConnection_PublishRequestString(
                   connection_.get(),
                   ("$JS.API.CONSUMER.INFO." + streamOf(realm_, link) + "." + own_).c_str(),
                   (prefix_ + own_ + ".kept.clock." + link).c_str(), "") == NATS_OK;
    }

    std::vector<Event> take() {
        const std::lock_guard<std::mutex> guard(mutex_);
        queuedBytes_ = 0;
        return std::exchange(events_, {});
    }

    size_t maximumFrame() const {
        const std::lock_guard<std::mutex> guard(inUse_);
        const int64_t most =
            connection_ == nullptr ? 0 : natsConnection_GetMaxPayload(connection_.get());
        return most > 0 ? static_cast<size_t>(most) : bounds::kPartBytes;
    }

private:
    bool isConnected() const { // while `inUse_` is held
        return connection_ != nullptr &&
               natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED;
    }

    // Joins the servers, and again when the client has given up: it goes on trying where nobody
    // listens, but not where somebody listens and has no time, as when all links come at once.
    void keepJoined() {
        int endedTalks = 0;
        bool isTold = false;
        while (!closing_) {
            natsConnection* made = nullptr;
            natsStatus status = natsConnection_Connect(&made, options_.get());
            std::string why = lastError(status);
            if (status == NATS_OK) {
                const std::lock_guard<std::mutex> guard(inUse_);
                connection_.reset(made);
                if (subscribeAll()) {
                    onConnected(made, this);
                    isTold = false;
                } else {
                    why = "the connection ended";
                    isClosed_ = true;
                }
            }
            endedTalks = status == NATS_PROTOCOL_ERROR ? endedTalks + 1 : 0;
            if (isFinal(status, why) || endedTalks == kEndedTalks) {
                push({EventKind::refused, {}, why});
                return;
            }
            if (connection_ == nullptr && !isTold) {
                push({EventKind::disconnected, {}, why});
                isTold = true;
            }
            std::unique_lock<std::mutex> lock(mutex_);
            if (connection_ != nullptr) {
                changed_.wait(lock, [this] { return isClosed_ || closing_; });
            }
            changed_.wait_for(lock, std::chrono::milliseconds(kReconnectMilliseconds +
                                                          nats_Now() % kJitterMilliseconds),
                              [this] { return closing_.load(); });
            lock.unlock();
            if (isClosed_.exchange(false) && !closing_ && connection_ != nullptr &&
                natsConnection_IsClosed(connection_.get())) {
                const std::lock_guard<std::mutex> guard(inUse_);
                for (auto& subscription : subscriptions_) {
                    subscription.reset();
                }
                connection_.reset();
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
        return subscribe(own + ".*", 0, onFrame) && subscribe(own + ".absent.*", 1, onAbsent) &&
               (!keeps_ || subscribe(own + ".kept.told.*", 2, onKept)) &&
               (!offers_ || (subscribe(own + ".kept.clock.*", 3, onClock) &&
                             subscribe(own + kStoredSubject, 4, onStored)));
    }

    bool subscribe(const std::string& subject, size_t place, natsMsgHandler handler) {
        natsSubscription* subscription = nullptr;
        const natsStatus status = natsConnection_Subscribe(&subscription, connection_.get(),
                                                           subject.c_str(), handler, this);
        subscriptions_[place].reset(subscription);
        return status == NATS_OK &&
               natsSubscription_SetPendingLimits(subscription, -1,
                                                 static_cast<int>(kQueuedBytes)) == NATS_OK;
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

    static void onFrame(natsConnection*, natsSubscription*, natsMsg* taken, void* self) {
        const Owned<natsMsg> message(taken);
        std::string from = lastToken(taken);
        if (isName(from)) {
            static_cast<NatsConnection*>(self)->push(
                {EventKind::frame, std::move(from),
                 std::string(natsMsg_GetData(taken),
                             static_cast<size_t>(natsMsg_GetDataLength(taken)))});
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
            static_cast<NatsConnection*>(self)->push({EventKind::kept, {}, std::move(answer),
                                                      static_cast<uint64_t>(number)});
        }
    }

    static void onClock(natsConnection*, natsSubscription*, natsMsg* taken, void* self) {
        const Owned<natsMsg> message(taken);
        static_cast<NatsConnection*>(self)->push(
            {EventKind::clock, lastToken(taken), textOf(taken)});
    }

    // The subject is the one that it was published to, which only its sender may, and the servers
    // say in which stream it has lain.
    static void onStored(natsConnection*, natsSubscription*, natsMsg* taken, void* self) {
        const Owned<natsMsg> message(taken);
        auto& wire = *static_cast<NatsConnection*>(self);
        std::string from = lastToken(taken);
        const std::string reply = natsMsg_GetReply(taken) == nullptr ? "" : natsMsg_GetReply(taken);
        if (isName(from) && natsMsg_GetSubject(taken) == wire.prefix_ + wire.own_ + ".keep." + from &&
            reply.starts_with("$JS.ACK.") &&
            reply.find("." + streamOf(wire.realm_, from) + "." + wire.own_ + ".") !=
                std::string::npos) {
            wire.push({EventKind::stored, std::move(from), textOf(taken), 0, reply});
        }
    }

    static std::string textOf(natsMsg* message) {
        return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
    }

    static void onConnected(natsConnection* connection, void* self) {
        char url[256] = "";
        (void)natsConnection_GetConnectedUrl(connection, url, sizeof url); // for people only
        // An address may hold a password.
        std::string text = url;
        const size_t scheme = text.find("://");
        const size_t at = text.find('@');
        if (scheme != std::string::npos && at != std::string::npos) {
            text.erase(scheme + 3, at - scheme - 2);
        }
        static_cast<NatsConnection*>(self)->push({EventKind::connected, {}, text});
    }

    static std::string reason(natsConnection* connection) {
        const char* text = nullptr;
        const natsStatus status = natsConnection_GetLastError(connection, &text);
        return text != nullptr && *text != '\0' ? text
               : status == NATS_OK              ? "the connection ended"
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
        std::string what = natsStatus_GetText(status);
        if (text != nullptr && *text != '\0') {
            what.append(": ").append(text);
        }
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
    mutable std::mutex inUse_; // guards the connection, which only `joining_` makes and ends; before `mutex_`
    Owned<natsConnection> connection_;
    Owned<natsSubscription> subscriptions_[5];
    std::atomic<bool> closing_{false};
    std::atomic<bool> isClosed_{false}; // by the client, which has given up
    std::condition_variable changed_;   // one of the two, or the next
    std::mutex mutex_;                  // guards what follows
    bool joiningEnded_ = false;
    std::vector<Event> events_;
    size_t queuedBytes_ = 0;
};

class NatsWire : public Wire {
public:
    explicit NatsWire(std::unique_ptr<NatsConnection> connection)
        : connection_(std::move(connection)) {}
    ~NatsWire() override {
        if (!connection_->close()) {
            (void)connection_.release(); // its threads have it
        }
    }
    bool publish(const std::string& link, std::string_view frame) override {
        return connection_->publish(link, frame);
    }
    bool keep(const std::string& link, uint64_t life, uint64_t serial,
              std::string_view frame) override {
        return connection_->keep(link, life, serial, frame);
    }
    bool acknowledge(const std::string& reply) override { return connection_->acknowledge(reply); }
    bool askClock(const std::string& link) override { return connection_->askClock(link); }
    std::vector<Event> take() override { return connection_->take(); }
    size_t maximumFrame() const override { return connection_->maximumFrame(); }

private:
    std::unique_ptr<NatsConnection> connection_;
};

// Everything that is not said is as a new stream has it; one that is there is changed to it.
jsErrCode storeOf(jsCtx* js, const Configuration& configuration, const std::string& from,
                  natsStatus& status) {
    const std::string name = streamOf(configuration.realm, from);
    const std::string subject = "convey." + configuration.realm + ".*.keep." + from;
    const char* const subjects[] = {subject.c_str()};
    jsStreamConfig stream;
    jsStreamConfig_Init(&stream);
    stream.Name = name.c_str();
    stream.Subjects = const_cast<const char**>(subjects); // NOLINT(cppcoreguidelines-pro-type-const-cast): it only reads
    stream.SubjectsLen = 1;
    stream.Retention = js_WorkQueuePolicy;
    stream.Discard = js_DiscardNew;
    stream.MaxBytes = static_cast<int64_t>(bounds::kStreamBytes);
    stream.MaxMsgs = static_cast<int64_t>(bounds::kPending);
    stream.MaxAge = bounds::kStreamMilliseconds * 1'000'000;
    stream.Duplicates = bounds::kStreamRepeatMilliseconds * 1'000'000;
    stream.Replicas = static_cast<int64_t>(std::min(configuration.servers.size(), kReplicas));
    jsErrCode code{};
    status = js_AddStream(nullptr, js, &stream, nullptr, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr) {
        status = js_UpdateStream(nullptr, js, &stream, nullptr, &code);
    }
    return code;
}

} // namespace

bool Wire::keep(const std::string&, uint64_t, uint64_t, std::string_view) {
    return false;
}
bool Wire::acknowledge(const std::string&) {
    return false;
}
bool Wire::askClock(const std::string&) {
    return false;
}

std::string streamOf(const std::string& realm, const std::string& link) {
    return "convey=" + realm + "=" + link; // no name has that sign
}

bool makeStream(const Configuration& configuration, const std::string& from,
                const std::vector<std::string>& to, std::string& error) {
    Owned<natsOptions> options;
    natsStatus status = makeOptions(configuration, options);
    natsConnection* made = nullptr;
    status = status == NATS_OK ? natsConnection_Connect(&made, options.get()) : status;
    const Owned<natsConnection> connection(made);
    jsCtx* context = nullptr;
    status = status == NATS_OK ? natsConnection_JetStream(&context, made, nullptr) : status;
    const Owned<jsCtx> js(context);
    if (status == NATS_OK) {
        (void)storeOf(context, configuration, from, status); // the client's text says it
    }
    for (const std::string& link : to) {
        const std::string own = "convey." + configuration.realm + "." + link;
        std::string filter = own;
        filter.append(".keep.").append(from);
        const std::string subject = own + kStoredSubject;
        jsConsumerConfig consumer;
        jsConsumerConfig_Init(&consumer);
        consumer.Durable = link.c_str();
        consumer.DeliverSubject = subject.c_str();
        consumer.FilterSubject = filter.c_str();
        consumer.AckPolicy = js_AckExplicit;
        consumer.AckWait = bounds::kKeptAgainMilliseconds * 1'000'000;
        consumer.MaxAckPending = 1; // the next one only when this one is done: so they keep their order
        const std::string stream = streamOf(configuration.realm, from);
        status = status == NATS_OK
                     ? js_AddConsumer(nullptr, context, stream.c_str(), &consumer, nullptr, nullptr)
                     : status;
    }
    error = status == NATS_OK ? std::string() : lastError(status);
    return status == NATS_OK;
}

std::unique_ptr<Wire> connectToNats(const Configuration& configuration, WireLoop loop,
                                    std::string& error) {
    auto connection = std::make_unique<NatsConnection>(configuration, std::move(loop));
    if (!connection->connect(configuration, error)) {
        return nullptr;
    }
    return std::make_unique<NatsWire>(std::move(connection));
}

} // namespace convey_link
