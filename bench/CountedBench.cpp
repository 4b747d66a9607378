// One operation so many times, for who counts what it costs: `scripts/check-cost` takes the
// difference between two counts, which leaves out what is done once. Arguments: operation, times.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "bench/Handlers.h"
#include "bench/HeavyTexts.h"
#include "bench/Requests.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace {

using bench::fail;
using bench::kHeavyTexts;
using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;

// A message through a queue that holds so many, as an instance does it that looks for expired ones
// each time.
void queue(int times, int held) {
    ScObjects::ConveyData::MessageQueue queue;
    std::vector<std::unique_ptr<Convey::Message>> messages;
    for (int i = 0; i < held; ++i) {
        messages.push_back(std::make_unique<Convey::Message>());
        messages.back()->setTarget("target");
        messages.back()->setSender("sender");
        messages.back()->setSerialNumber(static_cast<uint32_t>(i));
    }
    for (int i = 0; i < times; i += held) {
        for (auto& message : messages) {
            if (!queue.append(message.release())) {
                fail("append");
            }
            queue.removeExpiredMessages();
        }
        for (auto& message : messages) {
            message.reset(queue.getNextMessage(Convey::kAnySerialNumber));
            queue.removeExpiredMessages();
        }
    }
}

// The rows of so many messages that wait in a queue.
void rows(int times) {
    ScObjects::ConveyData::MessageQueue queue;
    for (int i = 0; i < times; ++i) {
        auto message = std::make_unique<Convey::Message>();
        message->setTarget("target");
        message->setSender("sender");
        message->setBody(SoString(std::string(200, 'b').c_str()));
        if (!queue.append(message.release())) {
            fail("append");
        }
    }
    SoString text;
    if (queue.appendDiagnostics(text, "/in") != times) {
        fail("rows");
    }
}

// A text of 300 bytes to another port and one back; `built`: and each built and read.
void roundTrip(int times, bool built) {
    InterAppStream here("here-1.0");
    InterAppStream there("there-1.0");
    Convey::Message message;
    message.setSender("here-1.0");
    message.setResponseRequest("Received Result");
    message.setBody(SoString(std::string(200, 'b').c_str()));
    for (int i = 0; i < 2 * times; ++i) {
        const bool forth = i % 2 == 0;
        message.setTarget(forth ? "there-1.0" : "here-1.0");
        static SoString text;
        if (built || i < 1) {
            text.shrink(0);
            (void)message.writeToString(text);
        }
        InterAppStream& to = forth ? there : here;
        if (!(forth ? here : there).send(message.getTarget(), text) ||
            !to.waitForMessage(5000, false) || !to.receive()) {
            fail("round trip");
        }
        const SoString received = to.getMessages();
        if (built) {
            Convey::Message read;
            (void)read.readFromString(received.c_str());
        }
    }
}

// A text to another process and one back, for each of which the other end waits in the system.
void waited(int times) {
    int ready[2];
    if (pipe(ready) != 0) {
        fail("pipe");
    }
    const pid_t process = fork();
    if (process == -1) {
        fail("fork");
    }
    const char* const name = process == 0 ? "there-1.0" : "here-1.0";
    const char* const other = process == 0 ? "here-1.0" : "there-1.0";
    InterAppStream stream(name);
    char go = 0;
    (void)!(process == 0 ? write(ready[1], &go, 1) : read(ready[0], &go, 1));
    for (int i = 0; i < times; ++i) {
        if (process != 0 && !stream.send(other, "question")) {
            fail("send");
        }
        if (!stream.waitForMessage(5000, false) || stream.take() == nullptr) {
            fail("wait");
        }
        if (process == 0 && !stream.send(other, "answer")) {
            fail("send");
        }
    }
    if (process == 0) {
        _exit(0);
    }
    int status = -1;
    if (waitpid(process, &status, 0) != process || status != 0) {
        fail("the other end");
    }
}

// The text of a request is built, into a string of its own as for each that is sent.
void write(int times) {
    const Convey::Message message = bench::request(64);
    for (int i = 0; i < times; ++i) {
        SoString text;
        if (!message.writeToString(text)) {
            fail("write");
        }
    }
}

// Its text is read into a new message, which ends.
void read(int times) {
    SoString text;
    (void)bench::request(64).writeToString(text);
    for (int i = 0; i < times; ++i) {
        Convey::Message message;
        if (*message.readFromString(text.c_str()) != '\0') {
            fail("read");
        }
    }
}

// One of the worst texts, read in the steps between which pings have their turn. So many steps that
// a reader shows which begins anew with each.
constexpr size_t kHeavySteps = 4;
void readHeavy(const bench::HeavyText& kind, int times) {
    const std::string text = kind.make(kHeavySteps * limits::of("receive.step"));
    for (int i = 0; i < times; ++i) {
        Convey::Message::Reader reader(SoString(text.data(), static_cast<int32_t>(text.size())));
        while (!reader.isAtEnd()) {
            Convey::Message message;
            while (!reader.read(message, limits::of("receive.step"))) {
            }
        }
    }
}

class Counting : public Convey::MsgHandler {
public:
    int32_t handleMessage(int, Convey::Message&, SoString*) override {
        ++calls_;
        return 0;
    }
    SoString getMsgType() const override { return "Tessaly"; }
    uint32_t getSerialNumber() const override { return Convey::kAnySerialNumber; }
    int calls() const { return calls_; }

private:
    int calls_ = 0;
};

// A request within the process and its result.
void request(int times) {
    if (!Convey::InitTerm::init("viewer-1.0", true)) {
        fail("init");
    }
    Convey own("viewer-1.0", nullptr, true, nullptr);
    Convey other("kivra-7.0", nullptr, false, nullptr);
    delete other.changeHandler(new bench::Answering("Tessaly", Convey::kAnySerialNumber));
    for (int i = 0; i < times; ++i) {
        Convey::Message message;
        message.setTarget("kivra-7.0");
        message.setBody("question");
        message.setResponseRequest("Result");
        message.setSerialNumber(message.getNextSerialNumber(nullptr));
        delete own.changeHandler(new bench::Answering("Result", message.getSerialNumber()));
        if (!own.send(message, false, 20, nullptr)) {
            fail("no result");
        }
    }
}

Convey::Message question() {
    Convey::Message message;
    message.setTarget("kivra-7.0");
    message.setSender("asker-1.0");
    message.setType("Tessaly");
    message.setBody("question");
    return message;
}

// A message of another process, as it seems, that an instance receives and handles. Without the
// background thread, which would receive some of them.
void receive(int times) {
    if (!Convey::InitTerm::init("kivra-7.0", true) ||
        !ScObjects::ConveyThread::getMainThread()->stop()) {
        fail("init");
    }
    Convey own("kivra-7.0", nullptr, true, nullptr);
    auto* const handler = new Counting;
    delete own.changeHandler(handler);
    const InterAppStream asker("asker-1.0");
    SoString text;
    (void)question().writeToString(text);
    for (int i = 0; i < times; ++i) {
        if (!asker.send("kivra-7.0", text)) {
            fail("send");
        }
        while (handler->calls() == i) {
            (void)Convey::pump(ScObjects::kProcessBoth);
        }
    }
}

// The same that the background thread receives, in a process with many instances to which nothing
// comes.
void receiveAmongIdle(int times) {
    constexpr int kIdle = 100;
    if (!Convey::InitTerm::init("kivra-7.0", true)) {
        fail("init");
    }
    std::vector<std::unique_ptr<Convey>> idle;
    for (int i = 0; i < kIdle; ++i) {
        const std::string name = "idle" + std::to_string(i) + "-1.0";
        idle.push_back(std::make_unique<Convey>(name.c_str(), nullptr, false, nullptr));
    }
    const Convey own("kivra-7.0", nullptr, true, nullptr);
    ScObjects::ConveyContext* const context = own.getContext();
    const InterAppStream asker("asker-1.0");
    SoString text;
    (void)question().writeToString(text);
    for (int i = 0; i < times; ++i) {
        uint64_t seen = context->activity();
        if (!asker.send("kivra-7.0", text)) {
            fail("send");
        }
        auto& incoming = own.data()->incoming();
        for (; incoming.isEmpty(); seen = context->activity()) {
            context->waitForActivity(seen, 5000);
        }
        delete incoming.getNextMessage(Convey::kAnySerialNumber);
    }
}

} // namespace

int main(int argc, char** argv) {
    const bench::BenchFolder folder;
    const std::string operation = argc > 2 ? argv[1] : "";
    const int times = argc > 2 ? std::atoi(argv[2]) : 0;
    const bool digest = operation == "built-with-digest" || operation == "digest";
    Convey::Message::setCreateDigest(digest);
    Convey::Message::setAuthentication(digest);
    if (operation == "queue") {
        queue(times, 1000);
    } else if (operation == "long-queue") {
        queue(times, 100'000);
    } else if (operation == "rows") {
        rows(times);
    } else if (operation == "write") {
        write(times);
    } else if (operation == "read") {
        read(times);
    } else if (operation == "carried") {
        roundTrip(times, false);
    } else if (operation == "waited") {
        waited(times);
    } else if (operation == "built" || operation == "built-with-digest") {
        roundTrip(times, true);
    } else if (operation == "request") {
        request(times);
    } else if (operation == "received") {
        receive(times);
    } else if (operation == "received-among-idle") {
        receiveAmongIdle(times);
    } else if (const auto* const kind =
                   std::find_if(std::begin(kHeavyTexts), std::end(kHeavyTexts),
                                [&](const auto& text) { return operation == text.name; });
               kind != std::end(kHeavyTexts)) {
        readHeavy(*kind, times);
    } else {
        fail("usage: counted_bench "
             "queue|long-queue|rows|write|read|carried|waited|built|built-with-digest|request|"
             "received|received-among-idle|NAME-OF-HEAVY-TEXT TIMES");
    }
    (void)Convey::InitTerm::exit();
    return 0;
}
