#include "scriptobjects/convey/SoCVArrivals.h"

#include <algorithm>
#include <new>
#include <utility>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

constexpr int32_t kMaximumMessages = limits::of("queue.incoming.messages");
constexpr int64_t kMaximumBytes = limits::of("queue.incoming.bytes");
constexpr int32_t kMaximumShareMessages = limits::of("queue.incoming.share.messages");
constexpr int64_t kMaximumShareBytes = limits::of("queue.incoming.share.bytes");
static_assert(kMaximumShareMessages <= kMaximumMessages && kMaximumShareBytes <= kMaximumBytes);
constexpr int64_t kMaximumUnreadBytes = limits::of("receive.unread");
// What is read without a look at the clock: a fraction of a millisecond.
constexpr size_t kReadBytes = limits::of("receive.step");

// Processes with nothing here that are not forgotten at once: a conversation comes back.
constexpr size_t kRemembered = 8;

// Of a text after which its sender waits until it is read.
constexpr int64_t kLargeTextBytes = limits::of("receive.large");

// Between looks for what others have sent.
constexpr int kStepsAtOnce = 16;

int64_t costOf(const Message::Reader& text) {
    return text.costBytes() + 1;
}

} // namespace

bool IncomingAccounts::hasRoom(int32_t process) const {
    // As a rule all of them together have less than one may have.
    if (keptMessages_.load(std::memory_order_acquire) < kMaximumShareMessages &&
        keptBytes_.load(std::memory_order_acquire) < kMaximumShareBytes) {
        return true;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto own = processes_.find(process);
    return own == processes_.end() || hasRoomLocked(own->second);
}

bool IncomingAccounts::hasRoomLocked(const Load& own) const {
    return own.messages == 0 ||
           (own.messages < kMaximumShareMessages && own.bytes < kMaximumShareBytes &&
            all_.messages < kMaximumMessages && all_.bytes < kMaximumBytes);
}

int32_t IncomingAccounts::withoutRoom() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int32_t>(
        std::count_if(processes_.begin(), processes_.end(),
                      [this](const auto& one) { return !hasRoomLocked(one.second); }));
}

IncomingAccounts::Load IncomingAccounts::load() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return all_;
}

void IncomingAccounts::charge(int32_t process, int64_t bytes) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (Load* const load : {&processes_[process], &all_}) {
        ++load->messages;
        load->bytes += bytes;
    }
    noteKeptLocked();
}

void IncomingAccounts::giveBack(int32_t process, int64_t bytes) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto own = processes_.find(process);
    for (Load* const load : {&own->second, &all_}) {
        --load->messages;
        load->bytes -= bytes;
    }
    noteKeptLocked();
    if (own->second.messages == 0 && processes_.size() > kRemembered) {
        processes_.erase(own);
    }
}

void IncomingAccounts::noteKeptLocked() {
    keptMessages_.store(all_.messages, std::memory_order_release);
    keptBytes_.store(all_.bytes, std::memory_order_release);
}

// A message with its charge.
class Arrivals::Received : public Message {
public:
    Received(std::shared_ptr<IncomingAccounts> accounts, int32_t process)
        : accounts_(std::move(accounts)), process_(process) {}
    ~Received() override {
        if (charged_ != 0) {
            accounts_->giveBack(process_, charged_);
        }
    }
    Received(const Received&) = delete;
    Received& operator=(const Received&) = delete;

    void charge() {
        const int64_t bytes = costBytes();
        accounts_->charge(process_, bytes);
        charged_ = bytes;
    }

private:
    const std::shared_ptr<IncomingAccounts> accounts_;
    const int32_t process_;
    int64_t charged_ = 0;
};

Arrivals::Arrivals() = default;
Arrivals::~Arrivals() = default;

bool Arrivals::hasTextOf(int32_t process) const {
    const auto sender = senders_.find(process);
    return process == 0 ? bytes_.load() != 0
                        : sender != senders_.end() && !sender->second.texts.empty();
}

// Texts that were drawn belong to somebody whether there is room for them or not; of who has no
// room for more, no more is drawn. `look` is whether to ask the stream for what has arrived since
// it was asked last, which costs a system call: once at first and again behind what may have been
// all that it draws at once.
void Arrivals::draw(InterAppStream& stream, Look& look) {
    while (bytes_.load() < kMaximumUnreadBytes) {
        const auto text = stream.take(look.isDue);
        if (text == nullptr) {
            return;
        }
        if (text->text.isEmpty()) {
            continue;
        }
        const int32_t process = text->process;
        const auto sender = senders_.try_emplace(process).first;
        sender->second.texts.push_back(std::make_unique<Message::Reader>(
            std::move(text->text), std::move(text->rest), text->mayHaveZero, text->sealBytes));
        const int64_t bytes = costOf(*sender->second.texts.back());
        bytes_.fetch_add(bytes);
        look.bytes += bytes;
        look.isDue =
            look.isDue || ++look.texts % kStepsAtOnce == 0 || look.bytes >= kLargeTextBytes;
        const bool hasRoom = accounts_->hasRoom(process);
        // One that takes long is enough: further ones of its sender would use up what there is for
        // the unread texts of all.
        if (process != 0 && (!hasRoom || bytes >= kLargeTextBytes)) {
            hold(stream, sender, true);
        }
        if (hasRoom) {
            return; // read at once, as a rule
        }
    }
}

void Arrivals::hold(InterAppStream& stream, Senders::iterator sender, bool on) {
    if (sender->second.held != on) {
        sender->second.held = on;
        held_.fetch_add(on ? 1 : -1);
        stream.hold(sender->first, on);
    }
}

// The next sender whose message there is room for; with `needed` any.
Arrivals::Senders::iterator Arrivals::next(bool needed) {
    auto sender = senders_.upper_bound(last_);
    for (size_t i = 0; i < senders_.size(); ++i, ++sender) {
        if (sender == senders_.end()) {
            sender = senders_.begin();
        }
        if (!sender->second.texts.empty() && (needed || accounts_->hasRoom(sender->first))) {
            last_ = sender->first;
            return sender;
        }
    }
    return senders_.end();
}

// A step of reading; the message when it is whole. A text for which memory does not suffice is
// dropped: who sent it must not end everybody's reading.
std::unique_ptr<Message> Arrivals::readSome(InterAppStream& stream, Senders::iterator sender) {
    try {
        return readStep(stream, sender);
    } catch (const std::bad_alloc&) {
        sender->second.message = nullptr;
        drop(stream, sender);
    }
    dropped_.fetch_add(1);
    platform::Log::system().problem("out of memory: a text that had arrived was dropped");
    return nullptr;
}

std::unique_ptr<Message> Arrivals::readStep(InterAppStream& stream, Senders::iterator sender) {
    Sender& from = sender->second;
    Message::Reader& text = *from.texts.front();
    const int64_t before = costOf(text);
    if (from.message == nullptr) {
        from.message = std::make_unique<Received>(accounts_, sender->first);
    }
    const bool isWhole = text.read(*from.message, kReadBytes);
    bytes_.fetch_sub(before - costOf(text)); // its body may have taken the text over
    if (!isWhole) {
        return nullptr;
    }
    from.message->charge();
    if (text.isAtEnd()) {
        drop(stream, sender);
    }
    return std::move(from.message);
}

void Arrivals::drop(InterAppStream& stream, Senders::iterator sender) {
    Sender& from = sender->second;
    bytes_.fetch_sub(costOf(*from.texts.front()));
    from.texts.erase(from.texts.begin());
    // At once: what it has sent meanwhile announces itself to nobody.
    if (from.held && from.texts.empty() && accounts_->hasRoom(sender->first)) {
        hold(stream, sender, false);
    }
}

// Draws again from who has room, and forgets who has nothing here.
void Arrivals::letGoOn(InterAppStream& stream, bool needed) {
    for (auto sender = senders_.begin(); sender != senders_.end();) {
        Sender& from = sender->second;
        if (from.held && from.texts.empty() && (needed || accounts_->hasRoom(sender->first))) {
            hold(stream, sender, false);
        }
        const bool stays = from.held || !from.texts.empty() || senders_.size() <= kRemembered;
        sender = stays ? std::next(sender) : senders_.erase(sender);
    }
}

Arrivals::Stop Arrivals::read(InterAppStream& stream, int64_t milliseconds, int messages,
                              bool needed, const Take& take) {
    letGoOn(stream, needed);
    // At first, too: what takes this long may end before its sixteenth step each time, and others
    // would not be seen until all of it is read.
    Look look;
    int64_t end = 0;
    for (int steps = 0;; ++steps) {
        look.isDue = look.isDue || steps % kStepsAtOnce == 0;
        auto sender = steps == 0 ? senders_.end() : next(false);
        if (sender == senders_.end() || look.isDue) {
            draw(stream, look);
            sender = next(false);
        }
        if (sender == senders_.end() && needed) {
            sender = next(true);
            needed = false;
        }
        if (sender == senders_.end()) {
            return isEmpty() ? Stop::nothing : Stop::full;
        }
        // Not before there is something to be read, as a look finds nothing half of the time.
        end = steps == 0 ? platform::monotonicNow() + milliseconds : end;
        if (auto message = readSome(stream, sender)) {
            --messages;
            take(std::move(message));
        }
        if (messages <= 0 || platform::monotonicNow() >= end) {
            return Stop::time;
        }
    }
}

} // namespace ScObjects::ConveyData
