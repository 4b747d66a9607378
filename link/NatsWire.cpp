// The wire over the NATS client.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <nats/nats.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

#include "link/Bounds.h"
#include "link/Frame.h"
#include "link/NatsClient.h"
#include "link/Silence.h"
#include "link/Text.h"
#include "link/Wire.h"
#include "platform/Clock.h"

namespace convey_link {
namespace {

// What is received and not yet taken; windows keep it far below, garbage may not.
constexpr size_t kQueuedBytes = 256 * bounds::kMiB;
// Of what the client itself keeps while it is connecting: nothing that it forgets with the process
// is of use, since all that matters is sent again.
constexpr int kReconnectBytes = 1;
constexpr int64_t kPingMilliseconds = 2000;
constexpr int64_t kReconnectMilliseconds = 500;
constexpr int64_t kJitterMilliseconds = 200;
// A server that ends the talk before it answers does not take the certificate, or has no time: the
// former when it does so again and again.
constexpr int kEndedTalks = 5;
// A server that is stopped holds the link up for so long at most.
constexpr int64_t kWriteMilliseconds = 2000;
// Gathered before it is sent without waiting for more.
constexpr size_t kGatheredBytes = 256 * bounds::kKiB;
// Of messages that have been taken, until they are given back to the client.
constexpr size_t kDoneBytes = 64 * bounds::kKiB;
// Of the client's own fields around a frame, to count with.
constexpr size_t kAroundBytes = 256;
// Read in a turn, each at most what one record of TLS holds; then what they brought has its turn.
constexpr int kReadsAtOnce = 64;
// Of the client, for a read; more than such a record.
constexpr int kBufferBytes = 128 * static_cast<int>(bounds::kKiB);
// At the end, for what was published last, and each for the client's threads and the one here.
constexpr int64_t kFlushMilliseconds = 300;
constexpr int64_t kCloseMilliseconds = 300;
constexpr int kFlushLookMilliseconds = 10;

// All that the client's threads use; its owner leaves it to them when they do not end in time.
//
// The client has no thread here that reads: each text would go from that one to a second, which
// hands it to a handler, and from there to the one that looks after ports. Instead that one reads
// and writes itself, where all of it comes together, and what it says in a turn goes in one piece.
//
// The client must close the socket in this thread only, which may be in the middle of using it: so
// nothing else may find that the server has gone (its pings never count as too many), and whoever
// does here shuts the socket down, which is read as its end.
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
        if (connection_ != nullptr) {
            sayLast();
            endSubscriptions();
            natsConnection_Close(connection_.get());
        }
        done_.clear();
        connection_.reset();
        return nats_CloseAndWait(kCloseMilliseconds) == NATS_OK;
    }

    bool connect(const Configuration& configuration, std::string& error) {
        natsStatus status = makeNatsOptions(configuration, options_);
        natsOptions* const made = options_.get();
        const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
        set(natsOptions_SetNoEcho(made, false));
        set(natsOptions_SetSendAsap(made, true));
        set(natsOptions_SetEventLoop(made, this, onAttach, onRead, onWrite, onDetach));
        set(natsOptions_SetIOBufSize(made, kBufferBytes));
        set(natsOptions_SetPingInterval(made, kPingMilliseconds));
        set(natsOptions_SetMaxPingsOut(made, INT_MAX));
        set(natsOptions_SetMaxReconnect(made, -1));
        set(natsOptions_SetReconnectWait(made, kReconnectMilliseconds));
        set(natsOptions_SetReconnectJitter(made, kJitterMilliseconds, kJitterMilliseconds));
        set(natsOptions_SetReconnectBufSize(made, kReconnectBytes));
        set(natsOptions_SetDisconnectedCB(made, onDisconnected, this));
        set(natsOptions_SetReconnectedCB(made, onConnected, this));
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

    bool publish(const std::string& link, std::string_view frame) {
        const Turn turn(*this);
        return makeRoom(frame.size()) &&
               natsConnection_PublishRequest(
                   connection_.get(), (prefix_ + link + "." + own_).c_str(),
                   (prefix_ + own_ + ".absent." + link).c_str(), frame.data(),
                   static_cast<int>(frame.size())) == NATS_OK;
    }

    bool keep(const std::string& link, uint64_t life, uint64_t serial, std::string_view frame) {
        const Turn turn(*this);
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
               natsConnection_PublishMsg(connection_.get(), made) == NATS_OK;
    }

    bool acknowledge(const std::string& reply) {
        const Turn turn(*this);
        return makeRoom(reply.size()) &&
               natsConnection_PublishString(connection_.get(), reply.c_str(), "+ACK") == NATS_OK;
    }

    bool askClock(const std::string& link) {
        const Turn turn(*this);
        return makeRoom(link.size()) &&
               natsConnection_PublishRequestString(
                   connection_.get(),
                   ("$JS.API.CONSUMER.INFO." + streamOf(realm_, link) + "." + own_).c_str(),
                   (prefix_ + own_ + ".kept.clock." + link).c_str(), "") == NATS_OK;
    }

    void flush() {
        {
            const std::lock_guard<std::mutex> guard(
                inUse_); // no turn: who wants to write now wakes
            writeOut();
        }
        giveBack();
    }

    std::vector<Event> take() {
        std::vector<Event> taken;
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            queuedBytes_ = 0;
            taken.swap(events_);
        }
        const Turn turn(*this);
        if (connection_ == nullptr) {
            return taken;
        }
        read();
        if (silence_.isSilent(platform::monotonicNow())) {
            drop();
        }
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

    size_t maximumFrame() const {
        const std::lock_guard<std::mutex> guard(inUse_);
        const int64_t most =
            connection_ == nullptr ? 0 : natsConnection_GetMaxPayload(connection_.get());
        return most > 0 ? static_cast<size_t>(most) : bounds::kPartBytes;
    }

private:
    // While the thread that takes uses the connection: it writes itself before it waits.
    class Turn {
    public:
        explicit Turn(NatsConnection& wire) : wire_(wire), guard_(wire.inUse_) {
            wire_.writesSoon_ = true;
        }
        ~Turn() { wire_.writesSoon_ = false; }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        NatsConnection& wire_;
        const std::lock_guard<std::mutex> guard_;
    };

    // The client's calls for who waits for its socket. Threads: any.
    static natsStatus onAttach(void** user, void* self, natsConnection*, natsSock socket) {
        auto& wire = *static_cast<NatsConnection*>(self);
        *user = self;
        (void)fcntl(socket, F_SETFD, FD_CLOEXEC); // else what is launched keeps it open
        wire.silence_.heard(platform::monotonicNow());
        wire.socket_ = socket;
        wire.loop_.watch(socket, true);
        return NATS_OK;
    }
    static natsStatus onRead(void* self, bool on) {
        auto& wire = *static_cast<NatsConnection*>(self);
        if (!on && wire.socket_ >= 0) {
            wire.loop_.watch(wire.socket_.exchange(-1), false);
        }
        return NATS_OK;
    }
    static natsStatus onWrite(void* self, bool on) {
        auto& wire = *static_cast<NatsConnection*>(self);
        wire.wantsToWrite_ = on;
        if (on && !wire.writesSoon_) {
            wire.loop_.wake();
        }
        return NATS_OK;
    }
    static natsStatus onDetach(void* self) { return onRead(self, false); }

    // All of these while `inUse_` is held.

    bool isReady(short events, int64_t milliseconds) const {
        pollfd ready{socket_, events, 0};
        return poll(&ready, 1, static_cast<int>(milliseconds)) > 0 &&
               (ready.revents & ~POLLOUT) != 0;
    }
    void read() {
        for (int i = 0; i < kReadsAtOnce && isReady(POLLIN, 0); ++i) {
            natsConnection_ProcessReadEvent(connection_.get());
            silence_.heard(platform::monotonicNow());
        }
    }
    // The client must find the same bytes at the same place when it goes on, so nothing is said
    // until all is sent.
    void writeOut() {
        unsentBytes_ = 0;
        const int64_t end = platform::monotonicNow() + kWriteMilliseconds;
        while (wantsToWrite_ && isConnected()) {
            natsConnection_ProcessWriteEvent(connection_.get());
            if (!wantsToWrite_) {
                return;
            }
            const int64_t left = end - platform::monotonicNow();
            if (left <= 0) {
                drop();
                return;
            }
            if (isReady(POLLIN | POLLOUT, left)) { // else both sides might wait for each other
                natsConnection_ProcessReadEvent(connection_.get());
            }
        }
    }
    // Whether something may be said.
    bool makeRoom(size_t bytes) {
        unsentBytes_ += bytes + kAroundBytes;
        if (unsentBytes_ > kGatheredBytes) {
            writeOut();
        }
        return isConnected();
    }
    // Behind what was said, and many together: the client wakes a thread for them.
    void giveBack() {
        if (doneBytes_ > kDoneBytes) {
            done_.clear();
            doneBytes_ = 0;
        }
    }
    // The client reads the end, and looks for another server.
    void drop() const { (void)shutdown(socket_, SHUT_RDWR); }
    // What was published last, such as that this link ends, when its server goes on.
    void sayLast() {
        if (!isConnected()) {
            return;
        }
        std::atomic<bool> isSaid{false};
        std::thread flushing([&] {
            (void)natsConnection_FlushTimeout(connection_.get(), kFlushMilliseconds);
            isSaid = true;
        });
        while (!isSaid) {
            writeOut();
            if (isReady(POLLIN, kFlushLookMilliseconds)) {
                natsConnection_ProcessReadEvent(connection_.get());
            }
        }
        flushing.join();
    }
    bool isConnected() const {
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
            std::string why = lastNatsError(status);
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
            changed_.wait_for(lock,
                              std::chrono::milliseconds(kReconnectMilliseconds +
                                                        nats_Now() % kJitterMilliseconds),
                              [this] { return closing_.load(); });
            lock.unlock();
            if (isClosed_.exchange(false) && !closing_ && connection_ != nullptr &&
                natsConnection_IsClosed(connection_.get())) {
                const std::lock_guard<std::mutex> guard(inUse_);
                endSubscriptions();
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
        return subscribe(own + ".*", 0) &&
               subscribeByThread(own + ".absent.*", absences_, onAbsent) &&
               (!keeps_ || subscribeByThread(own + ".kept.told.*", kept_, onKept)) &&
               (!offers_ ||
                (subscribe(own + ".kept.clock.*", 1) && subscribe(own + kStoredSubject, 2)));
    }

    bool subscribe(const std::string& subject, size_t place) {
        natsSubscription* subscription = nullptr;
        const natsStatus status =
            natsConnection_SubscribeSync(&subscription, connection_.get(), subject.c_str());
        subscriptions_[place].reset(subscription);
        return status == NATS_OK && bound(subscription);
    }

    void endSubscriptions() {
        absences_.reset();
        kept_.reset();
        for (auto& subscription : subscriptions_) {
            subscription.reset();
        }
    }

    // Handed over by a thread of the client's, where nobody may be there: it says whose absence
    // that is to a handler, and to who takes messages himself only that there is one.
    bool subscribeByThread(const std::string& subject, Owned<natsSubscription>& made,
                           natsMsgHandler handler) {
        natsSubscription* subscription = nullptr;
        const natsStatus status = natsConnection_Subscribe(&subscription, connection_.get(),
                                                           subject.c_str(), handler, this);
        made.reset(subscription);
        return status == NATS_OK && bound(subscription);
    }

    static bool bound(natsSubscription* subscription) {
        return natsSubscription_SetPendingLimits(subscription, -1,
                                                 static_cast<int>(kQueuedBytes)) == NATS_OK;
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
            out.push_back({EventKind::frame, std::move(from), textOf(message)});
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
    mutable std::mutex
        inUse_; // guards the connection, which only `joining_` makes and ends; before `mutex_`
    Owned<natsConnection> connection_;
    Owned<natsSubscription> absences_;
    Owned<natsSubscription> kept_;
    Owned<natsSubscription> subscriptions_[std::size(kTakers)];
    std::vector<Owned<natsMsg>> done_; // of the thread that takes, as the next
    size_t doneBytes_ = 0;
    size_t unsentBytes_ = 0; // guarded by `inUse_`
    std::atomic<int> socket_{-1};
    Silence silence_{kPingMilliseconds};
    std::atomic<bool> wantsToWrite_{false};
    std::atomic<bool> writesSoon_{false};
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
    void flush() override { connection_->flush(); }
    std::vector<Event> take() override { return connection_->take(); }
    size_t maximumFrame() const override { return connection_->maximumFrame(); }

private:
    std::unique_ptr<NatsConnection> connection_;
};

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

std::unique_ptr<Wire> connectToNats(const Configuration& configuration, WireLoop loop,
                                    std::string& error) {
    auto connection = std::make_unique<NatsConnection>(configuration, std::move(loop));
    if (!connection->connect(configuration, error)) {
        return nullptr;
    }
    return std::make_unique<NatsWire>(std::move(connection));
}

} // namespace convey_link
