#include "scriptobjects/convey/SoCVPing.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/MessagePort.h"
#include "platform/Random.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoNumber.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

using Message = Convey::Message;

// A target that owns its name and does not listen yet is asked again after this.
constexpr auto kRetryPause = std::chrono::milliseconds(5);

int32_t leftOf(int64_t end) {
    return static_cast<int32_t>(std::clamp<int64_t>(end - platform::monotonicNow(), 0, INT32_MAX));
}

int64_t endOf(int32_t timeoutSeconds) {
    return platform::monotonicNow() + int64_t{1000} * std::max(timeoutSeconds, 0);
}

// The answers that arrive at the process's stream, shared out among the threads that wait for them.
// One of these reads the stream for all.
class PingExchange {
public:
    // A question that is under way, for the life of the object.
    class Question {
    public:
        Question(PingExchange& exchange, InterAppStream& stream, const SoString& destination,
                 uint32_t number)
            : exchange_(exchange), stream_(stream), destination_(destination), number_(number) {
            exchange_.dropOld(stream_);
            const std::lock_guard<std::mutex> guard(exchange_.mutex_);
            exchange_.questions_.push_back(this);
        }
        ~Question() {
            // The question is on its asker's stack: under the mutex nobody is in it, and from now
            // on nobody finds it.
            const std::lock_guard<std::mutex> guard(exchange_.mutex_);
            auto& questions = exchange_.questions_;
            questions.erase(std::find(questions.begin(), questions.end(), this));
        }
        Question(const Question&) = delete;
        Question& operator=(const Question&) = delete;

        // Waits for the answer; false when the time is up. Then `isDeaf` tells whether the answer
        // may have come and waited in vain to be let in.
        bool await(int64_t end, SoString& answer) {
            if (!exchange_.await(*this, end)) {
                return false;
            }
            answer = answer_;
            return true;
        }
        bool isDeaf() const { return stream_.statistics().notAccepted != notAccepted_; }

    private:
        friend class PingExchange;

        bool isAnsweredBy(const Message& message) const {
            const SoString number = message.getUserHeaderValue(ConveyData::CV_PING_NUMBER);
            // A peer that knows no numbers of questions sends none: its answer goes to the oldest
            // question to it.
            return !answered_ && message.getSender() == destination_ &&
                   (number.isEmpty() || parseUnsigned32(number.c_str()) == number_);
        }

        PingExchange& exchange_;
        InterAppStream& stream_;
        const SoString destination_;
        const uint32_t number_;
        const uint64_t notAccepted_ = stream_.statistics().notAccepted;
        bool answered_ = false; // this and the answer under the exchange's mutex
        SoString answer_;
    };

    static PingExchange& instance() {
        static auto* const exchange = new PingExchange;
        return *exchange;
    }

private:
    bool await(Question& question, int64_t end) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!question.answered_) {
            const int32_t left = leftOf(end);
            if (left <= 0) {
                return false;
            }
            // Who reads wakes all others behind each text: one of them may have its answer, or has
            // to read on.
            if (reading_) {
                changed_.wait_for(lock, std::chrono::milliseconds(left));
                continue;
            }
            // One reads for all: an answer that a thread took from the stream for itself would be
            // lost to the thread that it is for.
            reading_ = true;
            lock.unlock();
            if (question.stream_.waitForMessage(left, true)) {
                readOne(question.stream_);
            }
            lock.lock();
            reading_ = false;
            changed_.notify_all(); // somebody else reads on, or has its answer
        }
        return true;
    }

    // What arrived before a question went out is no answer to it.
    void dropOld(InterAppStream& stream) {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            if (reading_) {
                return; // who reads drops what nobody waits for
            }
            reading_ = true;
        }
        if (stream.messagePending()) {
            while (readOne(stream)) {
            }
        }
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            reading_ = false;
        }
        changed_.notify_all();
    }

    bool readOne(InterAppStream& stream) {
        if (!stream.receive()) {
            return false;
        }
        const SoString text = stream.getMessages();
        for (const char* next = text.c_str(); *next != '\0';) {
            Message message;
            next = message.readFromString(next);
            // Pings are all that this stream is for: whatever else comes is nobody's.
            if (message.getType() == ConveyThread::CV_PING) {
                handOver(message);
            }
        }
        return true;
    }

    void handOver(const Message& message) {
        const std::lock_guard<std::mutex> guard(mutex_);
        for (Question* question : questions_) {
            if (question->isAnsweredBy(message)) {
                question->answer_ = message.getUserHeaderValue(ConveyThread::CV_ECHO_REQUEST);
                // Answers of several lines do not fit into a header, which is one.
                if (question->answer_ == ConveyThread::CV_SEE_BODY) {
                    question->answer_ = message.getBody();
                }
                // And no other: the next question to the same target has its own answer on the way.
                question->answered_ = true;
                return;
            }
        }
    }

    std::mutex mutex_; // never held while the stream is waited for
    std::condition_variable changed_;
    bool reading_ = false;
    std::vector<Question*> questions_; // the oldest first
};

SoString withoutSuffix(const SoString& name) {
    const std::string_view text = name.view();
    return SoString(text.data(), static_cast<int32_t>(std::min(text.find('#'), text.size())));
}

// Whether nobody owns the port of the target's background thread.
bool isThreadAbsent(const InterAppStream& stream, const CVResolution& target,
                    const SoString& destination) {
    switch (target.specifier().suffix().isEmpty() ? target.presence() : CVPresence::unknown) {
    case CVPresence::absent:
        return true;
    case CVPresence::thread:
        return false;
    default: // of the other ways to run, none says that it answers pings
        return stream.canOpen(destination, false);
    }
}

// A name that nobody has completed, or one that is registered without a path, may stand for another
// registration that has one.
bool isInstalled(const Convey::Specifier& target) {
    return target.isInstalled() || Convey::Specifier(target.c_str(), true).isInstalled();
}

// Asks one target; the answer, or why there is none.
SoString askOne(InterAppStream& stream, Message& message, const CVResolution& target,
                int32_t timeoutSeconds, int64_t end) {
    const SoString destination = ConveyThread::createThreadSpecifier(target.specifier());
    if (destination.isEmpty()) {
        return SoString(ConveyThread::CV_INVALIDSPEC);
    }
    // The endpoints of one process differ in their suffixes. A process that asked itself could wait
    // on the thread that has to answer.
    if (withoutSuffix(destination) == withoutSuffix(stream.getName())) {
        return SoString(ConveyThread::CV_UNDEFINED);
    }
    message.setTarget(destination);
    SoString text;
    if (!message.writeToString(text)) {
        return SoString(ConveyThread::CV_MSGTOSTRINGERROR);
    }
    if (isThreadAbsent(stream, target, destination)) {
        // Completing may have missed the registration that runs.
        if (!ConveyConnector::isRegistryKnown()) {
            return SoString(ConveyThread::CV_UNDEFINED);
        }
        return SoString(isInstalled(target.specifier()) ? ConveyThread::CV_ISNOTRUNNING
                                                        : ConveyThread::CV_ISNOTINSTALLED);
    }
    // Before it is sent: another thread may read the answer at once, and must find who waits.
    PingExchange::Question question(PingExchange::instance(), stream, destination,
                                    message.getSerialNumber());
    bool sent = stream.send(destination, text, leftOf(end));
    // Who gives no time wants no answer. What comes all the same is dropped before the next
    // question.
    if (timeoutSeconds < 1) {
        return SoString(sent ? ConveyThread::CV_NOERROR : ConveyThread::CV_UNDEFINED);
    }
    while (!sent && leftOf(end) > 0) {
        std::this_thread::sleep_for(kRetryPause);
        sent = stream.send(destination, text, leftOf(end));
    }
    if (!sent) {
        return SoString(ConveyThread::CV_UNDEFINED);
    }
    SoString answer;
    if (question.await(end, answer)) {
        return answer;
    }
    return SoString(question.isDeaf() ? ConveyThread::CV_UNDEFINED : ConveyData::CV_PING_TIMEOUT);
}

bool isAnswer(const SoString& result) {
    for (const char* word : {ConveyThread::CV_UNDEFINED, ConveyThread::CV_ISNOTINSTALLED,
                             ConveyThread::CV_ISNOTRUNNING, ConveyThread::CV_MSGTOSTRINGERROR}) {
        if (result == word) {
            return false;
        }
    }
    return true;
}

// The question, but for its target.
Message newQuestion(const InterAppStream& stream, bool request, const SoString& key,
                    uint32_t serialNumber, int32_t timeoutSeconds, const SoString* parameters) {
    Message message;
    message.setSender(stream.getName());
    message.setType(ConveyThread::CV_PING);
    message.setSerialNumber(serialNumber);
    message.setTimeout(static_cast<uint32_t>(timeoutSeconds));
    message.setHeader(request ? ConveyThread::CV_ECHO_REQUEST : ConveyThread::CV_ECHO_RESPONSE,
                      key.isEmpty() ? ConveyThread::CV_ECHO_REQUEST : key.c_str());
    if (parameters != nullptr && !parameters->isEmpty()) {
        message.setBody(*parameters);
    }
    return message;
}

} // namespace

uint32_t newPingNumber() {
    static std::atomic<uint32_t> next([] {
        // Any number to begin with: a process that had this name before may have left an answer on
        // its way, with one of its own.
        uint32_t first = 0;
        (void)platform::Random::system().fill(&first, sizeof first); // else all begin with 0
        return first;
    }());
    return next.fetch_add(1) & 0x7FFFFFFF; // never the number that stands for none
}

SoString ConveyUtils::pingResolved(const CVResolution& target, const SoString& key,
                                   int32_t timeoutSeconds, const SoString* parameters) {
    // Before the stream: while all names for it are taken one is waited for, in the ping's own
    // time.
    const int64_t end = endOf(timeoutSeconds);
    InterAppStream* const stream = InterAppStream::get(leftOf(end));
    if (stream == nullptr || !stream->isGood()) {
        return SoString(ConveyThread::CV_NOINTERAPPSTREAM);
    }
    Message message = newQuestion(*stream, true, key, newPingNumber(), timeoutSeconds, parameters);
    return askOne(*stream, message, target, timeoutSeconds, end);
}

SoString ConveyUtils::ping(const SoString& target, bool request, const SoString& key,
                           uint32_t serialNumber, int32_t timeoutSeconds,
                           const SoString* parameters, int32_t* answered) {
    if (answered != nullptr) {
        *answered = 0;
    }
    SoString result;
    InterAppStream* const stream = InterAppStream::get();
    if (stream == nullptr || !stream->isGood()) {
        return result;
    }
    Message message = newQuestion(*stream, request, key, serialNumber, timeoutSeconds, parameters);
    const bool all = target == kPingAll;
    const int32_t targets = all ? Convey::getNumberOfRegisteredApplications() : 1;
    for (int32_t i = 0; i < targets; ++i) {
        const SoString name = all ? Convey::getApplicationSpecifier(i) : target;
        // Each has the whole time: a target that does not answer takes none from the others.
        result = askOne(*stream, message, CVResolution::ofCompleted(name), timeoutSeconds,
                        endOf(timeoutSeconds));
        if (answered != nullptr && isAnswer(result)) {
            ++*answered;
        }
    }
    return result;
}

} // namespace ScObjects
