#include "scriptobjects/convey/SoCVConversation.h"

#include <algorithm>
#include <new>
#include <utility>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Random.h"
#include "scriptobjects/convey/SoCVGuard.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;
using MsgHandler = Convey::MsgHandler;

constinit std::atomic<int> gForwarding{0}; // handlers that forward, of all instances
constinit thread_local int32_t gHandlerDepth = 0;

// Whether it may be the word of a reply: by its first byte.
bool mayBeOfReply(std::string_view type) {
    static_assert(CV_TYPE_RECEIVED[0] == 'R' && CV_TYPE_RESULT[0] == 'R' &&
                  CV_TYPE_ERROR[0] == 'E' && CV_TYPE_PROCESSED[0] == 'P' &&
                  CV_TYPE_TIMEOUT[0] == 'T');
    constexpr std::string_view beginnings = "REPT";
    return !type.empty() && beginnings.find(type.front()) != std::string_view::npos &&
           type != CV_TYPE_PLAIN;
}

class Depth {
public:
    Depth() { ++gHandlerDepth; }
    ~Depth() { --gHandlerDepth; }
    Depth(const Depth&) = delete;
    Depth& operator=(const Depth&) = delete;
};

} // namespace

int32_t callHandler(MsgHandler& handler, int event, Message& message, SoString* result) {
    // The handlers of pings count as well: the end of the layer is refused in any.
    const Depth depth;
    int32_t code = 0;
    // Kept from before the call: the handler may change the message, and its type is what a person
    // who reads the log looks for.
    const SoString type = message.getType();
    const auto what = [&type] {
        return "a handler for messages of type \"" + std::string(type.view()) + '"';
    };
    // Nothing leaves from here on, or who called would not know whether the handler has run.
    try {
        if (runForeign(what, [&] { code = handler.handleMessage(event, message, result); })) {
            return code;
        }
        if (result != nullptr) {
            *result = CV_ERROR_HANDLER_FAILED;
        }
    } catch (const std::bad_alloc&) { // by saying so; the code says it, too
        if (result != nullptr) {
            result->shrink(0);
        }
    }
    return CV_CODE_HANDLER_FAILED;
}

int32_t handlerDepth() {
    return gHandlerDepth;
}

uint64_t ownLife() {
    // Neither the process's number, which the system gives out again, nor its start, which two
    // lives may share where clocks are coarse or are set back.
    static const uint64_t life = [] {
        uint64_t number = 0;
        if (!platform::Random::system().fill(&number, sizeof number)) {
            number = static_cast<uint64_t>(platform::Clock::system().monotonicMilliseconds());
        }
        return number == 0 ? 1 : number;
    }();
    return life;
}

SoString Reply::type() const {
    SoString text = SoString(word);
    text << SoString(userType);
    return text;
}

Reply replyOf(const Message& message) {
    const std::string_view type = message.getType().view();
    // As nearly all that are asked about: what no number and no word makes a reply.
    if (!message.isReply() && message.getReceived() == CV_INVALID_MESSAGE_NUMBER &&
        message.getResult() == CV_INVALID_MESSAGE_NUMBER &&
        message.getError() == CV_INVALID_MESSAGE_NUMBER && !mayBeOfReply(type)) {
        return {};
    }
    const struct {
        Reply::Kind kind;
        std::string_view word;
        uint32_t number;
    } numbered[] = {{Reply::kReceived, CV_TYPE_RECEIVED, message.getReceived()},
                    {Reply::kResult, CV_TYPE_RESULT, message.getResult()},
                    {Reply::kError, CV_TYPE_ERROR, message.getError()}};
    for (const auto& reply : numbered) {
        // A number of a request makes a reply, whatever its type says: peers that came before
        // replies had types send them under the type of the request.
        if (type == reply.word || reply.number != CV_INVALID_MESSAGE_NUMBER ||
            (message.isReply() && type.starts_with(reply.word))) {
            const bool begins = type.starts_with(reply.word);
            std::string_view rest = type;
            while (rest.starts_with(reply.word)) { // there are peers that say it twice
                rest.remove_prefix(reply.word.size());
            }
            return {reply.kind, reply.word,
                    begins || message.isUserType() ? rest : std::string_view()};
        }
    }
    if (type == CV_TYPE_PROCESSED) {
        return {Reply::kProcessed, CV_TYPE_PROCESSED, {}};
    }
    if (type == CV_TYPE_TIMEOUT) {
        return {Reply::kTimeout, CV_TYPE_TIMEOUT, {}};
    }
    return {};
}

Reply replyOf(const Message& message, std::string_view requestType) {
    const Reply reply = replyOf(message);
    if (reply.kind != Reply::kNone || requestType.empty()) {
        return reply;
    }
    const std::string_view type = message.getType().view();
    // Only these two: the other kinds have a number of their own, by which the first look knows
    // them whatever their type says.
    for (const auto& [kind, word] :
         {std::pair(Reply::kProcessed, std::string_view(CV_TYPE_PROCESSED)),
          std::pair(Reply::kTimeout, std::string_view(CV_TYPE_TIMEOUT))}) {
        std::string_view rest = type;
        while (rest.starts_with(word)) {
            rest.remove_prefix(word.size());
        }
        if (rest.size() != type.size() && rest == requestType) {
            return {kind, word, rest};
        }
    }
    return reply;
}

// A handler's visitor, counted in and, whatever happens, out. Without a lock, since there is one
// for each message: who releases the handler takes it away first and then looks at the count, and a
// visitor does both the other way round, so that one of the two sees the other.
class HandlerSlot::Visit {
public:
    explicit Visit(HandlerSlot& slot) : slot_(slot), outer_(gInnermost) {
        slot_.inside_.fetch_add(1);
        handler_ = slot_.handler_.load();
        gInnermost = this;
    }
    ~Visit() {
        gInnermost = outer_;
        slot_.inside_.fetch_sub(1);
        if (slot_.handler_.load() == nullptr) {
            // With the mutex: who has just looked and is about to wait would not hear of it.
            const std::lock_guard<std::mutex> guard(slot_.mutex_);
            slot_.left_.notify_all();
        }
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    MsgHandler* handler() const { return handler_; }

    // Those of the calling thread: who takes a handler out from within it must not wait for itself.
    static int32_t own(const HandlerSlot& slot) {
        int32_t count = 0;
        for (const Visit* visit = gInnermost; visit != nullptr; visit = visit->outer_) {
            count += &visit->slot_ == &slot ? 1 : 0;
        }
        return count;
    }

private:
    static constinit thread_local Visit* gInnermost;

    HandlerSlot& slot_; // who is in it has a share in it
    Visit* const outer_;
    MsgHandler* handler_ = nullptr;
};

constinit thread_local HandlerSlot::Visit* HandlerSlot::Visit::gInnermost = nullptr;

HandlerSlot::HandlerSlot(MsgHandler* handler)
    : handler_(handler),
      type_(handler->getMsgType().view()),
      number_(handler->getSerialNumber()),
      forwards_(type_.starts_with(CV_FORWARD_PREFIX)) {
    gForwarding.fetch_add(forwards_ ? 1 : 0, std::memory_order_relaxed);
}

HandlerSlot::~HandlerSlot() {
    gForwarding.fetch_sub(forwards_ ? 1 : 0, std::memory_order_relaxed);
    // Nobody is in it: who is has a share in the slot.
    delete handler_.load();
}

bool HandlerSlot::anyForwards() {
    // Without an order: it says whether looking is worth while, and who looks takes the lock.
    return gForwarding.load(std::memory_order_relaxed) != 0;
}

int32_t HandlerSlot::call(int event, Message& message, SoString* result) {
    const Visit visit(*this);
    return visit.handler() == nullptr ? 0 : callHandler(*visit.handler(), event, message, result);
}

MsgHandler* HandlerSlot::release() {
    // First nobody comes in any more, then those who are in leave: in the other order a busy
    // handler might never be free.
    MsgHandler* const handler = handler_.exchange(nullptr);
    const int32_t own = Visit::own(*this);
    std::unique_lock<std::mutex> lock(mutex_);
    left_.wait(lock, [&] { return inside_.load() == own; });
    return handler;
}

Conversations::Conversations() = default;
Conversations::~Conversations() = default;

// The table.

Conversation* Conversations::findLocked(uint32_t number) const {
    const auto found = table_.find(number);
    return found == table_.end() ? nullptr : found->second.get();
}

std::shared_ptr<Conversation> Conversations::openLocked(uint32_t number) {
    std::shared_ptr<Conversation>& conversation = table_[number];
    if (conversation == nullptr) {
        try {
            conversation = std::make_shared<Conversation>(number);
        } catch (...) {
            // An empty place would be found as a conversation that is none.
            table_.erase(number);
            throw;
        }
    }
    return conversation;
}

void Conversations::closeIfDoneLocked(Conversation& conversation) {
    // Compared by its address: when it has ended with somebody in it, the number may have been
    // given to another one meanwhile.
    if (!conversation.isNeeded() && findLocked(conversation.number()) == &conversation) {
        table_.erase(conversation.number());
    }
}

HandlerSlots Conversations::endLocked(Conversation& conversation, Conversation::End end) {
    // The first end counts: a late "Processed" must not make an answer of a time-out.
    if (conversation.end_ == Conversation::End::none) {
        conversation.end_ = end;
    }
    unwatchLocked(conversation);
    HandlerSlots left;
    left.swap(conversation.slots_);
    for (const auto& slot : left) {
        numbers_.erase(slot->handler());
    }
    if (findLocked(conversation.number()) == &conversation) {
        table_.erase(conversation.number()); // who is in it, or waits for it, keeps it
    }
    return left;
}

HandlerSlots Conversations::end(uint32_t number, Reply::Kind how) {
    if (number == CV_INVALID_MESSAGE_NUMBER) { // would be all that wait for no message
        return {};
    }
    const ObjectLock guard(*this);
    Conversation* const conversation = findLocked(number);
    return conversation == nullptr
               ? HandlerSlots()
               : endLocked(*conversation, how == Reply::kTimeout ? Conversation::End::timedOut
                                                                 : Conversation::End::answered);
}

// Needs no memory: it is what destructors call.
void Conversations::close() {
    HandlerSlots forAny; // deleted without the lock, as those of each conversation
    Table ended;
    {
        const ObjectLock guard(*this);
        forAny.swap(forAny_);
        ended.swap(table_);
        for (const auto& slot : forAny) {
            numbers_.erase(slot->handler());
        }
    }
    for (const auto& [number, conversation] : ended) {
        // Declared before the guard: the handlers of each are deleted when the lock has been given
        // up, since their destructors are the host's.
        HandlerSlots left;
        const ObjectLock guard(*this);
        left = endLocked(*conversation, Conversation::End::abandoned);
    }
}

// Handlers.

const std::shared_ptr<HandlerSlot>* Conversations::findSlotLocked(std::string_view type,
                                                                  uint32_t number) const {
    // The place of a slot, good under the lock only: who merely looks pays for no share in it.
    const HandlerSlots* slots = &forAny_;
    if (number != CV_INVALID_MESSAGE_NUMBER) {
        const Conversation* const conversation = findLocked(number);
        if (conversation == nullptr) {
            return nullptr;
        }
        slots = &conversation->slots_;
    }
    const auto found = std::find_if(slots->begin(), slots->end(),
                                    [type](const auto& slot) { return slot->type() == type; });
    return found == slots->end() ? nullptr : &*found;
}

const std::shared_ptr<HandlerSlot>* Conversations::findForLocked(std::string_view type,
                                                                 uint32_t number) const {
    if (const auto* const exact = findSlotLocked(type, number)) {
        return exact;
    }
    if (type.empty() && number != CV_INVALID_MESSAGE_NUMBER) {
        const Conversation* const conversation = findLocked(number);
        if (conversation != nullptr && !conversation->slots_.empty()) {
            return &conversation->slots_.back();
        }
    } else if (type.empty() && !forAny_.empty()) {
        return &forAny_.back();
    }
    return findSlotLocked(type, CV_INVALID_MESSAGE_NUMBER);
}

std::shared_ptr<HandlerSlot> Conversations::find(std::string_view type, uint32_t number) const {
    const ObjectLock guard(*this);
    const auto* const slot = findForLocked(type, number);
    return slot == nullptr ? nullptr : *slot;
}

std::shared_ptr<HandlerSlot> Conversations::handlerFor(const Message& message,
                                                       const Reply& reply) const {
    std::string both;
    if (!reply.userType.empty()) {
        both = reply.word;
        both += reply.userType;
    }
    const ObjectLock guard(*this);
    // Those of the number before those of the type: who waits for one message knows more of it than
    // who takes all of a kind.
    for (const uint32_t number : {message.getSerialNumber(), CV_INVALID_MESSAGE_NUMBER}) {
        if (reply.kind == Reply::kNone) {
            if (const auto* const slot = findSlotLocked(message.getType().view(), number)) {
                return *slot;
            }
            continue;
        }
        for (const std::string_view type : {reply.word, std::string_view(both)}) {
            const auto* const slot = type.empty() ? nullptr : findSlotLocked(type, number);
            if (slot != nullptr) {
                return *slot;
            }
        }
        if (const auto* const slot = findSlotLocked({}, number)) {
            return *slot;
        }
    }
    for (const std::string_view type : {std::string_view(CV_TYPE_PLAIN), std::string_view()}) {
        if (const auto* const slot = findSlotLocked(type, CV_INVALID_MESSAGE_NUMBER)) {
            return *slot;
        }
    }
    return nullptr;
}

std::shared_ptr<HandlerSlot> Conversations::add(MsgHandler* handler) {
    std::unique_ptr<MsgHandler> owned(handler);
    {
        // Before there is a slot, which would delete it: a host may register a handler twice.
        const ObjectLock guard(*this);
        if (numbers_.count(handler) != 0) {
            (void)owned.release(); // it is registered already
            return nullptr;
        }
    }
    // With no lock held: the slot asks the handler for its type and number, which is the host's
    // code.
    const auto slot = std::make_shared<HandlerSlot>(handler);
    (void)owned.release(); // the slot's now
    const uint32_t number = slot->number();
    const ObjectLock guard(*this);
    const std::shared_ptr<Conversation> conversation =
        number == CV_INVALID_MESSAGE_NUMBER ? nullptr : openLocked(number);
    HandlerSlots& slots = conversation == nullptr ? forAny_ : conversation->slots_;
    const auto* const same = findSlotLocked(slot->type(), number);
    std::shared_ptr<HandlerSlot> replaced = same == nullptr ? nullptr : *same;
    // The new one is in before the old one is out: without memory for it the old one stays.
    try {
        numbers_.emplace(handler, number);
        slots.push_back(slot);
    } catch (...) {
        (void)numbers_.erase(handler);
        if (conversation != nullptr) {
            closeIfDoneLocked(*conversation);
        }
        throw;
    }
    if (replaced != nullptr) {
        (void)numbers_.erase(replaced->handler());
        slots.erase(std::find(slots.begin(), slots.end(), replaced));
    }
    if (conversation != nullptr) {
        conversation->hadHandler_ = true;
    }
    return replaced;
}

std::shared_ptr<HandlerSlot> Conversations::takeLocked(const std::shared_ptr<HandlerSlot>& slot) {
    std::shared_ptr<HandlerSlot> taken;
    Conversation* const conversation =
        slot->number() == CV_INVALID_MESSAGE_NUMBER ? nullptr : findLocked(slot->number());
    if (conversation == nullptr && slot->number() != CV_INVALID_MESSAGE_NUMBER) {
        // It has ended since the slot was found, and its handlers went with it.
        return taken;
    }
    HandlerSlots& slots = conversation == nullptr ? forAny_ : conversation->slots_;
    const auto found = std::find(slots.begin(), slots.end(), slot);
    if (found != slots.end()) {
        taken = std::move(*found);
        slots.erase(found);
        (void)numbers_.erase(taken->handler());
        if (conversation != nullptr) {
            closeIfDoneLocked(*conversation);
        }
    }
    return taken;
}

std::shared_ptr<HandlerSlot> Conversations::take(std::string_view type, uint32_t number) {
    // Held from the look to the taking, or another thread might take the same one between.
    const ObjectLock guard(*this);
    const auto slot = find(type, number);
    return slot == nullptr ? nullptr : takeLocked(slot);
}

std::shared_ptr<HandlerSlot> Conversations::take(const MsgHandler* handler) {
    const ObjectLock guard(*this);
    const auto found = numbers_.find(handler);
    if (found == numbers_.end()) {
        return nullptr;
    }
    const Conversation* const conversation =
        found->second == CV_INVALID_MESSAGE_NUMBER ? nullptr : findLocked(found->second);
    const HandlerSlots& slots = conversation == nullptr ? forAny_ : conversation->slots_;
    const auto slot = std::find_if(slots.begin(), slots.end(), [handler](const auto& candidate) {
        return candidate->handler() == handler;
    });
    // A share of its own: the place in which it was found goes when it is taken.
    const std::shared_ptr<HandlerSlot> kept = slot == slots.end() ? nullptr : *slot;
    return kept == nullptr ? nullptr : takeLocked(kept);
}

HandlerSlots Conversations::takeAll(uint32_t number) {
    const ObjectLock guard(*this);
    HandlerSlots taken;
    Conversation* const conversation =
        number == CV_INVALID_MESSAGE_NUMBER ? nullptr : findLocked(number);
    if (number == CV_INVALID_MESSAGE_NUMBER) {
        taken.swap(forAny_);
    } else if (conversation != nullptr) {
        taken.swap(conversation->slots_);
        closeIfDoneLocked(*conversation);
    }
    for (const auto& slot : taken) {
        (void)numbers_.erase(slot->handler());
    }
    return taken;
}

size_t Conversations::handlerCount() const {
    const ObjectLock guard(*this);
    return numbers_.size();
}

std::vector<std::string> Conversations::handledTypes() const {
    const ObjectLock guard(*this);
    std::vector<std::string> types;
    for (const auto& slot : forAny_) {
        if (!slot->forwards()) {
            types.push_back(slot->type());
        }
    }
    return types;
}

// Turns.

bool Conversations::Turn::leave() {
    // Out of the turn first: the destructor comes here again.
    const std::shared_ptr<Conversation> conversation = std::move(conversation_);
    if (conversation != nullptr) {
        table_->leave(*conversation);
    }
    return conversation != nullptr;
}

bool Conversations::enter(const Message& message, bool awaitedOnly, Turn& turn) {
    turn.reply = replyOf(message);
    const bool awaitedHere = awaitedOnly && Wait::isAwaitedHere(message);
    const uint32_t number = message.getSerialNumber();
    const ObjectLock guard(*this);
    const auto found = number == CV_INVALID_MESSAGE_NUMBER ? table_.end() : table_.find(number);
    if (found == table_.end()) {
        return !awaitedOnly || awaitedHere;
    }
    Conversation& conversation = *found->second;
    const std::string_view type = message.getType().view();
    if (turn.reply.kind == Reply::kNone) {
        // Old peers answer with the word before the type of the request, and only who knows that
        // can part them.
        turn.reply = replyOf(message, conversation.requestType_);
    }
    // A request of a peer may have a number of ours: it is none of this conversation's.
    if (turn.reply.kind == Reply::kNone && findSlotLocked(type, number) == nullptr) {
        return !awaitedOnly || awaitedHere;
    }
    if (awaitedOnly && !awaitedHere && conversation.waiting_ == 0) {
        return false;
    }
    // Its own thread comes again only from within a wait for this number, which would never end
    // otherwise; in any other pump of the handler's a later message would be handled before the
    // first is done.
    const std::thread::id self = std::this_thread::get_id();
    if (conversation.insideDepth_ != 0 &&
        (conversation.inside_ != self || conversation.waitingInside_ == 0)) {
        return false;
    }
    conversation.inside_ = self;
    ++conversation.insideDepth_;
    turn.table_ = this;
    turn.conversation_ = found->second;
    return true;
}

void Conversations::leave(Conversation& conversation) {
    const ObjectLock guard(*this);
    // Who it was is left standing: that counts only while somebody is inside.
    --conversation.insideDepth_;
    closeIfDoneLocked(conversation);
}

std::shared_ptr<HandlerSlot> Conversations::handled(const Turn& turn, const Message& message,
                                                    const std::shared_ptr<HandlerSlot>& slot) {
    // One for any number is there for the next message as well.
    if (slot->number() == CV_INVALID_MESSAGE_NUMBER ||
        slot->number() != message.getSerialNumber()) {
        return nullptr;
    }
    const ObjectLock guard(*this);
    // A time-out is not the answer that is waited for, although a handler has run: the wait fails.
    if (turn.conversation_ != nullptr && turn.reply.kind != Reply::kTimeout) {
        turn.conversation_->handlerRan_ = true;
    }
    return takeLocked(slot);
}

} // namespace ScObjects::ConveyData
