// The ends between which a link's costs are measured: an application that answers and one that
// asks, and the same two as bare clients of the servers. Driven by machines.py.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nats/nats.h>
#include <string>
#include <vector>

#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;
using Clock = std::chrono::steady_clock;

constexpr auto kTime = std::chrono::seconds(60);
constexpr const char* kEnd = "end"; // is answered, and so is every request; the rest only comes

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "ends: %s\n", what);
    std::exit(1);
}

void print(const char* name, double value) {
    std::printf("%s %.9f\n", name, value);
    std::fflush(stdout);
}

// What both kinds of askers do. `ask` waits for the answer, `send` does not, and `settle` waits
// until all that was sent is there.
template <class Ask, class Send, class Settle>
void measure(Ask ask, Send send, Settle settle, int rounds, int messages, int largeMessages) {
    const std::string small(300, 'x');
    const std::string large(16 << 20, 'x');
    for (int i = 0; i < rounds / 10; ++i) {
        ask(small);
    }
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const auto start = Clock::now();
        ask(small);
        times.push_back(secondsSince(start));
    }
    std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
    print("request", times[static_cast<size_t>(rounds) / 2]);
    auto start = Clock::now();
    for (int i = 0; i < messages; ++i) {
        send(small);
    }
    settle();
    print("message", secondsSince(start) / messages);
    if (largeMessages == 0) {
        return;
    }
    start = Clock::now();
    for (int i = 0; i < largeMessages; ++i) {
        send(large);
    }
    settle();
    print("large", secondsSince(start) / largeMessages);
}

int answerAsApplication(const char* name) {
    Convey::Messenger own(name);
    own.on(ScObjects::ConveyData::CV_TYPE_PLAIN, [](const Convey::Message&) { return ""; });
    own.on("one way", [](const Convey::Message&, Convey::Reply reply) { (void)reply.result(""); });
    if (!own.isReachable()) {
        fail("no port");
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return Convey::run() < 0 ? 1 : 0;
}

int askAsApplication(const char* name, const char* target, int rounds, int messages,
                     int largeMessages) {
    const Convey::Messenger own(name);
    const auto ask = [&](const std::string& body) {
        const Convey::Outcome outcome = own.request(target, body.c_str()).within(kTime).wait();
        if (!outcome) {
            fail(outcome.text().c_str());
        }
    };
    measure(
        ask,
        [&](const std::string& body) {
            if (!own.request(target, body.c_str()).within(kTime).type("one way").post()) {
                fail("not sent");
            }
        },
        [&] { ask(kEnd); }, rounds, messages, largeMessages);
    return 0;
}

void must(natsStatus status) {
    if (status != NATS_OK) {
        fail(natsStatus_GetText(status));
    }
}

// `atOnce`: sends each message when it is said, and not what a millisecond has gathered.
natsConnection* connect(const char* url, const std::string& certificate, bool atOnce,
                        int64_t pingMilliseconds = 120'000) {
    natsOptions* options = nullptr;
    natsConnection* connection = nullptr;
    must(natsOptions_Create(&options));
    must(natsOptions_SetURL(options, url));
    must(natsOptions_SetSecure(options, true));
    must(natsOptions_LoadCATrustedCertificates(options, "ca.pem"));
    must(natsOptions_LoadCertificatesChain(options, (certificate + ".pem").c_str(),
                                           (certificate + ".key").c_str()));
    must(natsOptions_SetSendAsap(options, atOnce));
    must(natsOptions_SetPingInterval(options, pingMilliseconds));
    must(natsConnection_Connect(&connection, options));
    natsOptions_Destroy(options);
    return connection;
}

int answerAsClient(const char* url, const char* certificate, const char* heard) {
    natsConnection* const connection = connect(url, certificate, true);
    natsSubscription* subscription = nullptr;
    must(natsConnection_SubscribeSync(&subscription, connection, heard));
    must(natsSubscription_SetPendingLimits(subscription, -1, -1));
    must(natsConnection_Flush(connection));
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) {
        natsMsg* message = nullptr;
        must(natsSubscription_NextMsg(&message, subscription, 600'000));
        if (const char* reply = natsMsg_GetReply(message)) {
            must(natsConnection_PublishString(connection, reply, ""));
        }
        natsMsg_Destroy(message);
    }
}

// Is connected, and asks its server as often as a link does whether that is there.
int idleAsClient(const char* url, const char* certificate, const char* heard) {
    natsConnection* const connection = connect(url, certificate, true, 2000);
    natsSubscription* subscription = nullptr;
    must(natsConnection_SubscribeSync(&subscription, connection, heard));
    must(natsConnection_Flush(connection));
    std::printf("ready\n");
    std::fflush(stdout);
    natsMsg* message = nullptr;
    must(natsSubscription_NextMsg(&message, subscription, 600'000)); // nobody says anything
    return 1;
}

// In parts as large as the servers take.
int askAsClient(const char* url, const char* certificate, const char* said, const char* heard,
                int rounds, int messages, int largeMessages) {
    natsConnection* const connection = connect(url, certificate, true);
    natsConnection* const gathering = connect(url, certificate, false);
    natsSubscription* subscription = nullptr;
    must(natsConnection_SubscribeSync(&subscription, connection, heard));
    const size_t most = static_cast<size_t>(natsConnection_GetMaxPayload(connection));
    const auto ask = [&](natsConnection* by, const std::string& body) {
        natsMsg* answer = nullptr;
        must(natsConnection_PublishRequestString(by, said, heard, body.c_str()));
        must(natsSubscription_NextMsg(&answer, subscription, 60'000));
        natsMsg_Destroy(answer);
    };
    measure(
        [&](const std::string& body) { ask(connection, body); },
        [&](const std::string& body) {
            for (size_t from = 0; from < body.size(); from += most) {
                must(natsConnection_Publish(gathering, said, body.data() + from,
                                            static_cast<int>(std::min(most, body.size() - from))));
            }
        },
        [&] { ask(gathering, kEnd); }, rounds, messages, largeMessages);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "answer" && argc == 3) {
        return answerAsApplication(argv[2]);
    }
    if (what == "ask" && argc == 7) {
        return askAsApplication(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]),
                                std::atoi(argv[6]));
    }
    if (what == "client-answer" && argc == 5) {
        return answerAsClient(argv[2], argv[3], argv[4]);
    }
    if (what == "client-idle" && argc == 5) {
        return idleAsClient(argv[2], argv[3], argv[4]);
    }
    if (what == "client-ask" && argc == 9) {
        return askAsClient(argv[2], argv[3], argv[4], argv[5], std::atoi(argv[6]),
                           std::atoi(argv[7]), std::atoi(argv[8]));
    }
    fail("usage: see machines.py");
}
