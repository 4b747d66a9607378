// What the layer costs over the bare socket: every figure beside the same bytes through sequenced
// packets without any of our code, in turn, two processes each.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace {

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;
using namespace bench;

// A message whose text has this many bytes.
Convey::Message messageOf(size_t textBytes, const char* target, const char* sender) {
    Convey::Message message;
    message.setTarget(target);
    message.setSender(sender);
    message.setResponseRequest("Received Result");
    SoString text;
    (void)message.writeToString(text);
    std::string body(textBytes - std::min(textBytes, static_cast<size_t>(text.length())), 'b');
    message.setBody(SoString(body));
    return message;
}

// The next text of a stream; the process ends when none comes.
SoString nextText(InterAppStream& stream, bool spinning) {
    while (!stream.receive()) {
        if (!stream.waitForMessage(5000, spinning)) {
            _exit(0);
        }
    }
    return stream.getMessages();
}

std::string names() {
    static int run = 0;
    return std::to_string(getpid()) + "x" + std::to_string(++run);
}

// With `parsed` the text is built and read at both ends, as applications do; without, it is only
// carried.
double roundTripOurs(size_t bytes, int count, bool spinning, bool parsed) {
    const std::string run = names();
    const SoString here(("here" + run).c_str());
    const SoString there(("there" + run).c_str());
    int ready[2];
    if (pipe(ready) != 0) {
        fail("pipe");
    }
    const double result = besides(
        [&] {
            InterAppStream stream(there);
            (void)!write(ready[1], "", 1);
            const Convey::Message answer = messageOf(bytes, here.c_str(), there.c_str());
            for (;;) {
                SoString text = nextText(stream, spinning);
                if (parsed) {
                    Convey::Message request;
                    request.readFromString(text.c_str());
                    text = SoString();
                    (void)answer.writeToString(text);
                }
                (void)stream.send(here, text);
            }
        },
        [&] {
            InterAppStream stream(here);
            char go;
            (void)!read(ready[0], &go, 1);
            const Convey::Message message = messageOf(bytes, there.c_str(), here.c_str());
            SoString fixed;
            (void)message.writeToString(fixed);
            const auto start = Time::now();
            for (int i = 0; i < count; ++i) {
                SoString text;
                if (parsed) {
                    (void)message.writeToString(text);
                }
                if (!stream.send(there, parsed ? text : fixed)) {
                    fail("stream send");
                }
                const SoString answer = nextText(stream, spinning);
                if (parsed) {
                    Convey::Message reply;
                    reply.readFromString(answer.c_str());
                }
            }
            return secondsSince(start) / count;
        });
    close(ready[0]);
    close(ready[1]);
    return result;
}

// Texts of `bytes` bytes, sent in packets of `packet` bytes, that a receiver has taken a second.
double throughputBare(size_t bytes, size_t packet, int count) {
    const Pair pair;
    const std::vector<char> text(bytes, 'x');
    return besides(
        [&] {
            for (;;) {
                for (size_t at = 0; at < bytes; at += packet) {
                    sendBare(pair.ends[1], text.data() + at, std::min(packet, bytes - at));
                }
            }
        },
        [&] {
            std::vector<char> buffer(bytes + 1);
            const auto takeText = [&] {
                for (size_t got = 0; got < bytes;) {
                    got +=
                        receiveBare(pair.ends[0], buffer.data() + got, buffer.size() - got, false);
                }
            };
            takeText();
            const auto start = Time::now();
            for (int i = 0; i < count; ++i) {
                takeText();
            }
            return count / secondsSince(start);
        });
}

double throughputOurs(size_t bytes, int count, bool parsed) {
    const std::string run = names();
    const SoString here(("here" + run).c_str());
    const SoString there(("there" + run).c_str());
    InterAppStream stream(here);
    return besides(
        [&] {
            const InterAppStream sender(there);
            const Convey::Message message = messageOf(bytes, here.c_str(), there.c_str());
            SoString text;
            (void)message.writeToString(text);
            for (;;) {
                if (parsed) {
                    text.shrink(0);
                    (void)message.writeToString(text);
                }
                (void)sender.send(here, text);
            }
        },
        [&] {
            const auto takeText = [&] {
                const SoString text = nextText(stream, false);
                if (parsed) {
                    Convey::Message message;
                    message.readFromString(text.c_str());
                }
            };
            takeText();
            const auto start = Time::now();
            for (int i = 0; i < count; ++i) {
                takeText();
            }
            return count / secondsSince(start);
        });
}

// What the processors of a pair that wakes each other do while they wait is the host's affair, and
// may take ten times what is measured; on one there is nothing but the work and the change.
double onOneProcessor(const std::function<double()>& measure) {
    cpu_set_t all;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    if (sched_getaffinity(0, sizeof all, &all) != 0 ||
        sched_setaffinity(0, sizeof one, &one) != 0) {
        fail("affinity");
    }
    const double result = measure();
    (void)sched_setaffinity(0, sizeof all, &all);
    return result;
}

struct Row {
    const char* name;
    const char* unit;
    double factor;
    std::function<double()> ours;
    std::function<double()> bare;
    const char* goal;
};

// The most memory that this process had, in bytes.
double peakMemory() {
    rusage usage{};
    (void)getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) * 1024;
}

// What receiving and reading texts of 16 MiB adds to the memory of a process of its own.
double memoryOfReceiver() {
    int result[2];
    if (pipe(result) != 0) {
        fail("pipe");
    }
    const std::string run = names();
    const SoString here(("here" + run).c_str());
    const pid_t receiver = fork();
    if (receiver == 0) {
        InterAppStream stream(here);
        const double before = peakMemory();
        (void)!write(result[1], &before, sizeof before);
        for (int i = 0; i < 5; ++i) {
            SoString text = nextText(stream, false);
            Convey::Message message;
            (void)message.readFromString(text, 0);
        }
        const double added = peakMemory() - before;
        (void)!write(result[1], &added, sizeof added);
        _exit(0);
    }
    double added = 0;
    (void)!read(result[0], &added, sizeof added);
    {
        const SoString there(("there" + run).c_str());
        const InterAppStream sender(there);
        const Convey::Message message = messageOf(size_t{16} << 20, here.c_str(), there.c_str());
        SoString text;
        (void)message.writeToString(text);
        for (int i = 0; i < 5; ++i) {
            (void)sender.send(here, text);
        }
    }
    (void)!read(result[0], &added, sizeof added);
    waitpid(receiver, nullptr, 0);
    return added;
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const bench::BenchFolder folder;
    std::printf("| measure | Convey | bare socket | ratio | goal |\n|---|---|---|---|---|\n");
    std::fflush(stdout);
    // Processes are born before the memory of the other measures is there to be counted.
    const double memory = memoryOfReceiver();

    const size_t small = 300;
    const size_t page = 4096;
    const size_t large = size_t{1} << 20;
    const size_t huge = size_t{16} << 20;
    const auto best = [](size_t bytes, int count) {
        double value = 0;
        for (const size_t packet : {size_t{131072}, size_t{524288}, size_t{1} << 20}) {
            value = std::max(value, throughputBare(bytes, std::min(packet, bytes), count));
        }
        return value;
    };
    const auto withDigest = [](bool on, auto&& measure) {
        Convey::Message::setCreateDigest(on);
        Convey::Message::setAuthentication(on);
        return measure();
    };
    // A round trip with a message built and read at both ends.
    const auto read = [&](bool digest, bool spinning) {
        return std::function<double()>([=] {
            return withDigest(digest, [=] {
                return roundTripOurs(small, spinning ? 30000 : 3000, spinning, true);
            });
        });
    };
    const double mb = 1e-6;
    const Row rows[] = {
        {"round trip 300 B, blocking, digest off", "us", 1e6, read(false, false),
         [&] { return roundTripBare(small, 3000, false); }, "<= 1.15"},
        {"round trip 300 B, blocking, digest on", "us", 1e6, read(true, false),
         [&] { return roundTripBare(small, 3000, false); }, "<= 1.3"},
        {"the same on one processor, digest off", "us", 1e6,
         [&] { return onOneProcessor(read(false, false)); },
         [&] { return onOneProcessor([&] { return roundTripBare(small, 3000, false); }); }, ""},
        {"the same on one processor, digest on", "us", 1e6,
         [&] { return onOneProcessor(read(true, false)); },
         [&] { return onOneProcessor([&] { return roundTripBare(small, 3000, false); }); }, ""},
        {"round trip 300 B, spinning, texts only carried", "us", 1e6,
         [&] { return roundTripOurs(small, 30000, true, false); },
         [&] { return roundTripBare(small, 30000, true); }, ""},
        {"round trip 300 B, spinning, digest off", "us", 1e6, read(false, true),
         [&] { return roundTripBare(small, 30000, true); }, "<= 1.4"},
        {"round trip 300 B, spinning, digest on", "us", 1e6, read(true, true),
         [&] { return roundTripBare(small, 30000, true); }, "<= 2"},
        {"one way 300 B", "1000/s", 1e-3, [&] { return throughputOurs(small, 200000, false); },
         [&] { return throughputBare(small, small, 200000); }, ">= 0.6"},
        {"one way 300 B, built and read, digest off", "1000/s", 1e-3,
         [&] { return withDigest(false, [&] { return throughputOurs(small, 200000, true); }); },
         [&] { return throughputBare(small, small, 200000); }, ""},
        {"one way 4 KiB", "1000/s", 1e-3, [&] { return throughputOurs(page, 100000, false); },
         [&] { return throughputBare(page, page, 100000); }, ">= 0.7"},
        {"one way 1 MiB", "MB/s", mb * static_cast<double>(large),
         [&] { return throughputOurs(large, 1000, false); }, [&] { return best(large, 1000); },
         ">= 0.7"},
        {"one way 16 MiB", "MB/s", mb * static_cast<double>(huge),
         [&] { return throughputOurs(huge, 50, false); }, [&] { return best(huge, 50); }, ">= 0.7"},
    };
    for (const Row& row : rows) {
        std::vector<double> ours;
        std::vector<double> bare;
        for (int round = 0; round < rounds; ++round) {
            ours.push_back(row.ours());
            bare.push_back(row.bare());
        }
        std::printf("| %s | %.2f %s | %.2f %s | %.2f | %s |\n", row.name, median(ours) * row.factor,
                    row.unit, median(bare) * row.factor, row.unit, median(ours) / median(bare),
                    row.goal);
        std::fflush(stdout);
    }
    std::printf("| memory of a receiver of 16 MiB texts | %.1f MiB | 16 MiB a text | %.2f | <= 2 "
                "|\n",
                memory / (1 << 20), memory / static_cast<double>(huge));
    return 0;
}
