#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "limits/Limits.h"
#include "tests/platform/PortFixture.h"

namespace {

// What a message port promises, kept by the real ones and by the fake.
void keepsTheContract(MessagePorts& ports) {
    EXPECT_TRUE(ports.isFree(kName));
    EXPECT_EQ(ports.send(kName, "x", 0), SendResult::noReceiver);
    std::unique_ptr<LocalPort> port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_FALSE(ports.isFree(kName));
    EXPECT_EQ(ports.open(kName), nullptr) << "this process has it already";
    PortText text;
    EXPECT_FALSE(port->take(text));
    EXPECT_FALSE(port->wait(1, false));
    EXPECT_FALSE(port->wait(0, true));

    std::vector<std::string> sent = {"one", "", std::string("two\0two", 7), std::string(9000, 'x')};
    for (const std::string& each : sent) {
        EXPECT_EQ(ports.send(kName, each, kGenerous), SendResult::delivered);
    }
    EXPECT_TRUE(port->wait(kGenerous, true));
    EXPECT_EQ(takeAll(*port), sent) << "whole and in order";
    EXPECT_EQ(port->statistics().texts, sent.size());
    EXPECT_EQ(port->statistics().bytes, 9010U);
    const std::string tooLong(MessagePorts::kMaximumTextBytes + 1, 'x');
    EXPECT_EQ(ports.send(kName, tooLong, kGenerous), SendResult::tooLarge);

    // Names that differ where a short file name would not.
    const std::string names[] = {"a",
                                 "A",
                                 "a ",
                                 "%41",
                                 "a/b",
                                 "..",
                                 std::string(300, 'n'),
                                 std::string(299, 'n') + 'm',
                                 std::string("\x01\xFF\n'", 4)};
    std::vector<std::unique_ptr<LocalPort>> others;
    for (const std::string& name : names) {
        others.push_back(ports.open(name));
        ASSERT_NE(others.back(), nullptr) << name;
    }
    for (const std::string& name : names) {
        EXPECT_EQ(ports.send(name, name, kGenerous), SendResult::delivered) << name;
    }
    for (size_t i = 0; i < others.size(); ++i) {
        EXPECT_EQ(takeOne(*others[i]), names[i]);
    }
    EXPECT_EQ(ports.open(""), nullptr);

    std::shared_ptr<platform::TargetWatch> first;
    EXPECT_EQ(ports.send(kName, "watched", kGenerous, &first), SendResult::delivered);
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(first->ended());
    port.reset();
    EXPECT_TRUE(first->ended());
    EXPECT_TRUE(ports.isFree(kName));
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver) << "and at once";
    port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    std::shared_ptr<platform::TargetWatch> next;
    EXPECT_EQ(ports.send(kName, "to the next owner", kGenerous, &next), SendResult::delivered);
    EXPECT_TRUE(first->ended());
    EXPECT_FALSE(next->ended()) << "a watch is over one owner";
    EXPECT_EQ(takeOne(*port), "to the next owner");

    // A full queue holds its senders; what was delivered arrives, what was not does not.
    const std::string filler(60'000, 'f');
    int delivered = 0;
    SendResult result = SendResult::delivered;
    while (result == SendResult::delivered && delivered < 100'000) {
        result = ports.send(kName, filler, 30);
        delivered += result == SendResult::delivered ? 1 : 0;
    }
    EXPECT_EQ(result, SendResult::timedOut);
    EXPECT_EQ(takeAll(*port).size(), static_cast<size_t>(delivered));
    EXPECT_EQ(ports.send(kName, "room again", 0), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "room again");
}

TEST(FakeMessagePorts, keepTheContract) {
    platform::FakeMessagePorts ports;
    keepsTheContract(ports);
    ports.unusable = true;
    EXPECT_EQ(ports.open("x"), nullptr);
    EXPECT_FALSE(ports.isFree("x"));
}

TEST_F(MessagePortTest, keepsTheContract) {
    keepsTheContract(ports);
    EXPECT_EQ(files(), 0U) << "every port has removed its files";
    EXPECT_EQ(log.lines, std::vector<std::string>());
}

TEST_F(MessagePortTest, carriesTextsOfEverySize) {
    const auto port = opened();
    for (const size_t size :
         {size_t{0}, size_t{1}, size_t{1023}, size_t{1025}, size_t{65535}, size_t{65536},
          size_t{65537}, (size_t{1} << 20) - 1, (size_t{1} << 20) + 1, size_t{16} << 20,
          MessagePorts::kMaximumTextBytes}) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; i += 509) {
            text[i] = static_cast<char>(i / 509 + 1);
        }
        std::thread sender(
            [&] { EXPECT_EQ(ports.send(kName, text, kGenerous), SendResult::delivered) << size; });
        const std::string received = takeOne(*port);
        sender.join();
        EXPECT_TRUE(received == text) << size << " bytes sent, " << received.size() << " received";
    }
}

// The first packet of a large text stays a piece of its own, however its sender has cut it, and
// both together are the text.
TEST_F(MessagePortTest, aTextComesInThePiecesOfItsSender) {
    const auto port = opened();
    std::string text;
    for (int i = 0; text.size() < 200'000; ++i) {
        text += std::to_string(i) + " ";
    }
    const int fd = rawConnection();
    const std::initializer_list<size_t> cuts = {1, 300, 65'536, 65'537, 199'000};
    for (const bool raw : {false, true}) {
        for (const size_t cut : cuts) {
            SCOPED_TRACE(cut);
            text.back() = raw ? '\0' : 'x';
            const std::string head = text.substr(0, cut);
            const std::string body = text.substr(cut);
            if (raw) {
                EXPECT_TRUE(sendRaw(fd, header(2, text.size())) && sendRaw(fd, head) &&
                            sendRaw(fd, body));
            } else {
                EXPECT_EQ(ports.send(kName, platform::PortPieces{head, body}, kGenerous, nullptr),
                          SendResult::delivered);
            }
            PortText received;
            ASSERT_TRUE(port->wait(kGenerous, false) && port->take(received));
            EXPECT_EQ(received.headSize(), cut <= 65'536 ? cut : 0);
            EXPECT_EQ(received.mayHaveZero(), raw);
            EXPECT_EQ(received.size(), text.size());
            EXPECT_TRUE(received.view() == text);
        }
    }
    close(fd);
}

// Several packets of a sender that has promised small ones come at once, and large texts among
// them. One that has not may send a packet of any size behind small texts.
TEST_F(MessagePortTest, whatComesInOneBatchIsWhole) {
    const auto port = opened();
    EXPECT_EQ(ports.send(kName, "a", kGenerous), SendResult::delivered);
    EXPECT_EQ(ports.send(kName, "row", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeAll(*port).size(), 2U);
    const std::vector<std::string> texts = {"1",
                                            std::string(1'100'000, '2'),
                                            "3",
                                            std::string(65'536, '4'),
                                            std::string(65'537, '5'),
                                            "6",
                                            "7",
                                            "8"};
    for (const std::string& text : texts) {
        EXPECT_EQ(ports.send(kName, text, 0), SendResult::delivered) << text.size();
    }
    EXPECT_TRUE(takeAll(*port) == texts);

    const int fd = rawConnection();
    int room = 8 << 20; // as much as is granted
    socklen_t length = sizeof room;
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, length), 0);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, &length), 0);
    const std::string large(static_cast<size_t>(room) / 2, 'l');
    sendRow(fd, *port);
    EXPECT_TRUE(sendRaw(fd, packet("before")) && sendRaw(fd, header(2, large.size())) &&
                sendRaw(fd, large));
    EXPECT_TRUE(takeAll(*port) == (std::vector<std::string>{"before", large}));
    close(fd);
}

TEST_F(MessagePortTest, whatIsDrawnBehindATextThatHasNoRoomWaitsWithIt) {
    const auto port = opened();
    const std::string part(50'000, 'p');
    for (const bool dies : {false, true}) {
        SCOPED_TRACE(dies);
        const Pipe told;
        const Pipe goesOn;
        const pid_t child = startChild([&] {
            const int fd = rawConnection(true);
            bool sent = sendRaw(fd, packet("a")) && sendRaw(fd, packet("row"));
            const int halves[] = {rawConnection(), rawConnection()}; // all that it may announce
            const int last = rawConnection(); // there is room for it as soon as for what is drawn
            for (const int half : halves) {
                sent = sent && sendRaw(half, header(2, MessagePorts::kMaximumTextBytes));
            }
            told.tell('1');
            (void)goesOn.hear();
            for (const std::string& bytes :
                 {packet("before"), header(2, 2 * part.size()), part, part, packet("behind")}) {
                sent = sent && sendRaw(fd, bytes);
            }
            for (const std::string& bytes : {header(2, 2 * part.size()), part, part}) {
                sent = sent && sendRaw(last, bytes);
            }
            told.tell('2');
            (void)goesOn.hear();
            if (!dies) {
                close(halves[0]);
                told.tell('3');
                (void)goesOn.hear();
            }
            return sent ? 0 : 1;
        });
        EXPECT_EQ(told.hear(), '1');
        EXPECT_EQ(takeAll(*port), (std::vector<std::string>{"a", "row"}));
        goesOn.tell('1');
        EXPECT_EQ(told.hear(), '2');
        const platform::PortPlace place = port->placeBehind(child);
        EXPECT_EQ(takeAll(*port), std::vector<std::string>{"before"});
        goesOn.tell('2');
        EXPECT_EQ(dies ? endOf(child) : told.hear(), dies ? 0 : '3');
        EXPECT_FALSE(port->isPast(place)) << "it was delivered for its sender";
        EXPECT_EQ(takeAll(*port), (std::vector<std::string>{part + part, "behind", part + part}));
        goesOn.tell('3');
        EXPECT_EQ(dies ? 0 : endOf(child), 0);
        EXPECT_TRUE(takeAll(*port).empty());
        EXPECT_TRUE(port->isPast(place));
    }
}

TEST_F(MessagePortTest, aSenderThatDiesAnywhereLeavesNoPart) {
    const auto port = opened();
    // A whole text, then a large one in packets, cut off behind each of them.
    const std::string part(30'000, 'p');
    const std::vector<std::string> announced = {packet("whole"), header(2, 3 * part.size()), part,
                                                part, part};
    const std::vector<std::string> sealed = {
        packet("whole"), header(3, 3 * part.size()), part, part, part, "seal"};
    for (size_t run = 0; run <= announced.size() + sealed.size() + 1; ++run) {
        const bool isSealed = run > announced.size();
        const std::vector<std::string>& packets = isSealed ? sealed : announced;
        const size_t sent = isSealed ? run - announced.size() - 1 : run;
        SCOPED_TRACE((isSealed ? "sealed, dies behind packet " : "dies behind packet ") +
                     std::to_string(sent));
        const int status = inChild([&] {
            const int fd = rawConnection();
            for (size_t i = 0; i < sent; ++i) {
                if (!sendRaw(fd, packets[i])) {
                    return 1;
                }
            }
            return raise(SIGKILL);
        });
        EXPECT_EQ(status, 255);
        std::vector<std::string> expected;
        if (sent >= 1) {
            expected.emplace_back("whole");
        }
        if (sent == packets.size()) {
            expected.push_back((isSealed ? "seal" : "") + part + part + part);
        }
        // Twice: what ends a visit may be the end of a text.
        std::vector<std::string> received = takeAll(*port);
        for (std::string& text : takeAll(*port)) {
            received.push_back(std::move(text));
        }
        EXPECT_EQ(received, expected);
        EXPECT_EQ(port->statistics().connections, 0U);
    }
}

TEST_F(MessagePortTest, readsAClosedConnectionBeforeItsSuccessor) {
    const auto port = opened();
    std::vector<std::string> sent;
    // More than one visit reads, before the receiver has seen any of the connections.
    for (int connection = 0; connection < 3; ++connection) {
        const int fd = rawConnection();
        for (int i = 0; i < 100; ++i) {
            sent.push_back(std::to_string(connection) + "." + std::to_string(i));
            EXPECT_TRUE(sendRaw(fd, packet(sent.back())));
        }
        close(fd);
    }
    EXPECT_EQ(takeAll(*port), sent);
}

TEST_F(MessagePortTest, whatIsHeldBackWaitsAndOthersAreServed) {
    const auto port = opened();
    const auto send = [&](const std::string& text) {
        return ports.send(kName, text, kGenerous) == SendResult::delivered ? 0 : 1;
    };
    EXPECT_EQ(send("one"), 0);
    PortText text;
    EXPECT_TRUE(port->wait(kGenerous, false) && port->take(text));
    EXPECT_EQ(text.process(), getpid());
    port->hold(getpid(), true);
    for (const std::string& held : {std::string("two"), std::string(100'000, '3')}) {
        EXPECT_EQ(send(held), 0);
    }
    EXPECT_FALSE(port->wait(50, false));
    EXPECT_FALSE(port->take(text));
    const pid_t other = startChild([&] { return send("other"); });
    EXPECT_EQ(endOf(other), 0);
    EXPECT_TRUE(port->wait(kGenerous, false) && port->take(text));
    EXPECT_EQ(text.view(), "other");
    EXPECT_EQ(text.process(), other);
    EXPECT_FALSE(port->take(text)) << "its end has been read, and nothing of the one that is held";
    port->hold(getpid(), false);
    EXPECT_EQ(takeOne(*port), "two");
    EXPECT_EQ(takeOne(*port), std::string(100'000, '3'));
}

// Whoever waits for the last words of a process that has ended must neither miss them nor wait for
// what others send.
TEST_F(MessagePortTest, knowsWhenAllThatAProcessHadSentWasTaken) {
    const auto port = opened();
    const auto send = [&](const char* text) {
        EXPECT_EQ(ports.send(kName, text, kGenerous), SendResult::delivered);
    };
    send("of another");
    const pid_t child = startChild([] {
        return MessagePorts::own().send(kName, "last words", kGenerous) == SendResult::delivered
                   ? 0
                   : 1;
    });
    EXPECT_EQ(endOf(child), 0);
    const pid_t broken =
        startChild([&] { return sendRaw(rawConnection(), header(2, 10)) ? 0 : 1; });
    EXPECT_EQ(endOf(broken), 0);
    for (const pid_t process : {child, broken}) {
        const platform::PortPlace place = port->placeBehind(process);
        int lastWords = 0;
        int taken = 0;
        for (; !port->isPast(place) && taken < 100; ++taken) {
            PortText text;
            if (port->take(text)) {
                lastWords += text.view() == "last words" ? 1 : 0;
                EXPECT_EQ(text.view() == "last words", text.process() == child);
            }
            send("of another that goes on");
        }
        EXPECT_LT(taken, 100);
        EXPECT_EQ(lastWords, process == child ? 1 : 0);
    }
    const platform::PortPlace all = port->placeBehind(0);
    EXPECT_FALSE(port->isPast(all)) << "of whom nobody knows is everybody";
    (void)takeAll(*port);
    EXPECT_TRUE(port->isPast(all));
    const int half = rawConnection();
    EXPECT_TRUE(sendRaw(half, header(2, 10)) && sendRaw(half, "12345"));
    EXPECT_TRUE(takeAll(*port).empty());
    EXPECT_FALSE(port->isPast(all)) << "its sender may go on";
    close(half);
    EXPECT_TRUE(port->isPast(all));
}

TEST_F(MessagePortTest, sendersToOneNameTakeTurnsAndDoNotHoldOthers) {
    const auto full = ports.open("full");
    const auto other = ports.open("other");
    const std::string filler(60'000, 'f');
    while (ports.send("full", filler, 0) == SendResult::delivered) {
    }
    std::thread waiting([&] { EXPECT_EQ(ports.send("full", "a", 300), SendResult::timedOut); });
    std::thread queued([&] { EXPECT_EQ(ports.send("full", "b", 100), SendResult::timedOut); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ports.send("other", "c", kGenerous), SendResult::delivered);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    waiting.join();
    queued.join();
    EXPECT_EQ(takeOne(*other), "c");
    // More than are kept connected: the one that reads nothing takes no more on a new connection.
    for (size_t i = 0; i < 2 * limits::of("port.kept"); ++i) {
        const std::string name = "many" + std::to_string(i);
        const auto one = ports.open(name);
        EXPECT_EQ(ports.send(name, "d", kGenerous), SendResult::delivered);
        EXPECT_EQ(takeOne(*one), "d");
    }
    EXPECT_EQ(ports.send("full", filler, 0), SendResult::timedOut);
}

TEST_F(MessagePortTest, largeTextsThatAreBrokenOffDoNotPileUp) {
    const auto port = opened();
    EXPECT_EQ(ports.send(kName, "whole", kGenerous), SendResult::delivered);
    const std::string large(size_t{30} << 20, 'x'); // more than any queue holds
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(ports.send(kName, large, 5), SendResult::timedOut);
    }
    EXPECT_EQ(ports.send(kName, "small", 5), SendResult::timedOut) << "behind what is not read";
    EXPECT_EQ(takeAll(*port), std::vector<std::string>{"whole"});
    EXPECT_EQ(port->statistics().connections, 1U);
    std::thread sender([&] {
        EXPECT_EQ(ports.send(kName, large, kGenerous), SendResult::delivered);
        EXPECT_EQ(ports.send(kName, "last", kGenerous), SendResult::delivered);
    });
    EXPECT_EQ(takeOne(*port).size(), large.size());
    EXPECT_EQ(takeOne(*port), "last");
    sender.join();
}

TEST_F(MessagePortTest, aWaitEndsAsLongAsSomethingElseIsToBeRead) {
    const Pipe other;
    const auto wait = ports.newWait();
    EXPECT_TRUE(wait->watch(other.readEnd(), true));
    EXPECT_FALSE(wait->wait(0));
    other.tell('a');
    other.tell('b');
    EXPECT_TRUE(wait->wait(kGenerous));
    EXPECT_EQ(other.hear(), 'a');
    EXPECT_TRUE(wait->wait(kGenerous)) << "for what was left";
    EXPECT_FALSE(wait->wasOfPorts());
    EXPECT_TRUE(wait->watch(other.readEnd(), false));
    EXPECT_FALSE(wait->wait(0)) << "nobody waits for it any more";
    EXPECT_FALSE(wait->watch(-1, true));
    const auto port = ports.open(kName);
    const auto silent = ports.open("silent");
    wait->add(*port, 7);
    wait->add(*silent, 8);
    wait->wake();
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::delivered);
    for (const uint64_t number : {7U, 9U}) { // anew: what was there ends a wait once more
        EXPECT_TRUE(wait->wait(kGenerous) && wait->wasOfPorts());
        ASSERT_EQ(wait->reported().size(), 1U);
        EXPECT_EQ(wait->reported()[0], number);
        wait->add(*port, 9);
    }
}

// Else what a host prints that has closed its streams would be written over the owner's number.
TEST_F(MessagePortTest, noFileTakesThePlaceOfAStreamThatIsClosed) {
    EXPECT_EQ(inChild([&] {
                  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
                      close(fd);
                  }
                  const auto port = ports.open(kName);
                  if (port == nullptr ||
                      ports.send(kName, "x", kGenerous) != SendResult::delivered ||
                      takeOne(*port) != "x") {
                      return 10;
                  }
                  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
                      if (fcntl(fd, F_GETFD) >= 0) {
                          return 20 + fd;
                      }
                  }
                  return 0;
              }),
              0);
}

TEST_F(MessagePortTest, aDeletedFolderIsMadeAgain) {
    const auto old = opened();
    EXPECT_EQ(ports.send(kName, "before", kGenerous), SendResult::delivered);
    std::filesystem::remove_all(folder());
    EXPECT_EQ(ports.send(kName, "over the old connection", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeAll(*old).size(), 2U);
    const auto fresh = ports.open(kName);
    ASSERT_NE(fresh, nullptr) << "nothing is left that says who owned it";
    EXPECT_EQ(files(), 2U);
}

// Who decides about launching must not take ignorance for absence.
TEST_F(MessagePortTest, anOwnerThatDoesNotListenYetIsWaitedFor) {
    const auto port = opened();
    const std::string socket = fileOf(".socket");
    std::filesystem::rename(socket, socket + ".later"); // as before it has made it
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver);
    EXPECT_GE(std::chrono::steady_clock::now() - start,
              std::chrono::milliseconds(limits::of("port.opening")));
    EXPECT_EQ(ports.send(kName, "x", 0), SendResult::noReceiver) << "who may not wait";
    std::filesystem::rename(socket + ".later", socket);
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "x");
}

TEST_F(MessagePortTest, waitsWithoutBusyLoopWhileThereAreNoDescriptors) {
    const auto port = opened();
    // A sanitizer needs descriptors to check the first call of each.
    EXPECT_FALSE(port->wait(0, false));
    platform::Log::system().problem("first");
    const int fd = rawConnection();
    EXPECT_TRUE(sendRaw(fd, packet("late")));
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {static_cast<rlim_t>(fd), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    rusage before{};
    rusage after{};
    (void)getrusage(RUSAGE_SELF, &before);
    EXPECT_FALSE(port->wait(500, false));
    (void)getrusage(RUSAGE_SELF, &after);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const auto cpu = [](const rusage& usage) {
        return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1'000'000 +
               usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
    };
    EXPECT_LT(cpu(after) - cpu(before), 250'000) << "microseconds of a processor in half a second";
    EXPECT_EQ(takeOne(*port), "late");
    EXPECT_EQ(log.lines.size(), 2U);
    close(fd);
}

} // namespace
