
#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVOccupations.h"
#include "tests/support/TableConnector.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

// By their ages readers tell what a thread began last, however long the rows take to write.
TEST(Diagnostics, agesAreOfOneMoment) {
    class Ticking : public platform::FakeClock {
    public:
        int64_t monotonicMilliseconds() const override { return now_++; }

    private:
        mutable std::atomic<int64_t> now_{5'000};
    };
    platform::InForce<platform::Clock, Ticking> clock;
    using ScObjects::ConveyData::Occupations;
    Occupations occupations;
    const Convey::Message message;
    const Occupations::Entry handling(occupations, Occupations::Kind::handling, message);
    const Occupations::Entry waiting(occupations, Occupations::Kind::waiting, message);
    SoString text;
    ScObjects::CVDiagnosticsRows rows(text, "");
    occupations.appendDiagnostics(rows);
    EXPECT_NE(text.view().find("/handling/0/for;0;For;2ms;"), std::string_view::npos)
        << text.c_str();
    EXPECT_NE(text.view().find("/waiting/0/for;0;For;1ms;"), std::string_view::npos);
}

// The whole text for a state that a test writes down, on a clock that stands still.
TEST(Diagnostics, describeAWholeState) {
    static platform::FakeClock clock; // the background thread may be in them at the end
    static platform::FakeProcesses processes;
    const platform::ScopedReplacement<platform::Clock> clockInForce(clock);
    const platform::ScopedReplacement<platform::Processes> processesInForce(processes);
    StartedLayer layer("own-1.0", {"own-1.0", "other-2.0"}, {"suite/7.0/own-1.*"});
    ASSERT_TRUE(layer.started);
    Convey own("own-1.0", nullptr, true, nullptr);
    const Convey other("other-2.0", nullptr, false, nullptr);
    layer.connector->setProcessID("other-2.0", 815);
    Convey::Message message;
    message.setTarget("other-2.0");
    message.setSerialNumber(42);
    message.setTimeout(30);
    message.setResponseRequest("Result");
    message.setHeader("Colour", "red");
    message.setBody(SoString("one\ntwo"));
    ASSERT_TRUE(own.send(message, false, 0, nullptr));

    std::string expected = R"(/own-1.0/context;1;Info;;
/own-1.0/name;0;Name;own-1.0;
/own-1.0/status;0;Status;UNDEFINED;
/own-1.0/group;0;Group;suite;
/own-1.0/path;0;Path;/apps/own-1.0;
/own-1.0/version;0;Version;2.0;
/own-1.0/build;0;Build;ES 4.5.6;
/own-1.0/nextsnr;0;Next serial number;2;
/own-1.0/logging;0;Logging:;OFF;
/own-1.0/now;0;Now;00:16:40;
/own-1.0/messages;1;Messages;;
/own-1.0/messages/version;0;Message Version;2.05;
/own-1.0/messages/authentication;0;Authentication;ON;
/own-1.0/messages/digest;0;Digest;ON;
/own-1.0/process;0;Process;4711;
/own-1.0/started;0;Started;00:16:40;
/own-1.0/program;0;Program;/apps/program;
/own-1.0/ports;0;Port folder;PORTS;
/own-1.0/thread;1;Thread;own-1.0#thread;
/own-1.0/thread/avgpump;0;Avg. pump interval;0ms;
/own-1.0/thread/outofmemory;0;Given up for want of memory;0;
/own-1.0/thread/lastpump;0;Last pump;0ms ago;
/own-1.0/thread/ping;1;Ping;8;
)";
    expected.replace(expected.find("PORTS"), 5, platform::MessagePorts::system().place());
    using Texts = std::vector<std::string>;
    const auto instance = [](const std::string& name, const std::string& incoming,
                             const std::string& oldest, const std::string& in,
                             const std::string& out) {
        const std::string root = "\n/own-1.0/instances/" + name;
        std::string rows = root + ";1;Instance;" + name + ";" + root + "/stream;0;Stream;" + name +
                           ";" + root + "/in;" + incoming;
        for (const std::string& row : Texts{"/out;0;Outgoing;0",
                                            "/handlers;0;Handlers;0",
                                            "/outofmemory;0;Texts dropped for want of memory;0",
                                            "/predecessor;0;Answers to a predecessor;0",
                                            "/rejected;0;REJECTED;0",
                                            "/handling;0;Handling;0",
                                            "/waiting;0;Waiting for replies;0",
                                            "/sending;0;Sending;0",
                                            "/pumped;0;Last pumped;undefined",
                                            "/oldestin;0;Oldest incoming;" + oldest,
                                            "/oldestout;0;Oldest outgoing;undefined",
                                            "/inbytes;0;Incoming bytes;0",
                                            "/full;0;Senders without room;0",
                                            "/counts;1;Messages so far;",
                                            "/counts/in;0;Messages in;" + in,
                                            "/counts/out;0;Messages out;" + out,
                                            "/counts/replies;0;Replies that came in;0",
                                            "/counts/errors;0;Errors among them;0",
                                            "/counts/timeouts;0;Time-outs among them;0",
                                            "/counts/told;0;Errors told;0",
                                            "/counts/dropped;0;Dropped;0",
                                            "/blocked;0;Targets that take nothing;0",
                                            "/types;0;Types with a handler;0"}) {
            rows += root + row + ";";
        }
        return rows;
    };
    const std::string incoming = R"(1;Incoming;1;
/own-1.0/instances/other-2.0/in/msg42;1;msg[00:16:40];00000042;
/own-1.0/instances/other-2.0/in/msg42/version;0;@CV>Version;2.05;
/own-1.0/instances/other-2.0/in/msg42/target;0;Target;other-2.0;
/own-1.0/instances/other-2.0/in/msg42/sender;0;Sender;own-1.0;
/own-1.0/instances/other-2.0/in/msg42/senderid;0;Sender-ID;localhost:mac4711;
/own-1.0/instances/other-2.0/in/msg42/timeout;0;Timeout;30;
/own-1.0/instances/other-2.0/in/msg42/type;0;Type;Tessaly;
/own-1.0/instances/other-2.0/in/msg42/request;0;Response-Request;Result Processed
/own-1.0/instances/other-2.0/in/msg42/headers;1;Headers;;
/own-1.0/instances/other-2.0/in/msg42/headers/Colour;0;Colour;red;
/own-1.0/instances/other-2.0/in/msg42/timestamp;0;Timestamp;00:16:40;
/own-1.0/instances/other-2.0/in/msg42/serialnumber;0;Serial-Number;42;
/own-1.0/instances/other-2.0/in/msg42/received;0;Received;undefined;
/own-1.0/instances/other-2.0/in/msg42/result;0;Result;undefined;
/own-1.0/instances/other-2.0/in/msg42/error;0;Error;undefined;
/own-1.0/instances/other-2.0/in/msg42/body;1;Body;7 bytes;
/own-1.0/instances/other-2.0/in/msg42/body/text;0;Text;one)";
    const std::string restExpected = "/own-1.0/instances;1;Instances;2;" +
                                     instance("own-1.0", "0;Incoming;0;", "undefined", "0", "1") +
                                     instance("other-2.0", incoming, "0s", "1", "0") + R"(
/own-1.0/connector;1;Connector;table;
/own-1.0/connector/name;0;Name;test;
/own-1.0/connector/good;0;Readable;yes;
/own-1.0/connector/changed;0;Changed;undefined;
/own-1.0/connector/apps;1;Applications;2;
/own-1.0/connector/apps/own-1.0;1;own-1.0;/apps/own-1.0;
/own-1.0/connector/apps/own-1.0/name;0;Display name;;
/own-1.0/connector/apps/own-1.0/process;0;Process;undefined;
/own-1.0/connector/apps/other-2.0;1;other-2.0;/apps/other-2.0;
/own-1.0/connector/apps/other-2.0/name;0;Display name;;
/own-1.0/connector/apps/other-2.0/process;0;Process;815;
/own-1.0/connector/groups;1;Groups;1;
/own-1.0/connector/groups/0;0;Entry;suite/7.0/own-1.*;
)";
    for (const auto& [key, value, handler] :
         {std::tuple("ECHO_REQUEST", "ECHO_RESPONSE", "undefined"),
          {"STATUS", "IDLE", "undefined"},
          {"MAIN", "", "installed"},
          {"LAUNCHED", "", "installed"},
          {"DIAGNOSTICS", "", "installed"},
          {"INFO", "", "installed"},
          {"LAUNCHPARAMS", "", "undefined"},
          {"SETUPTIME", "thread=0ms, (synchronous setup)", "undefined"}}) {
        const std::string row = std::string("/own-1.0/thread/ping/") + key;
        expected += row + ";1;" + key + ";" + value + ";\n" + row +
                    "/timeout;0;Timeout;undefined;\n" + row + "/msghandler;0;Handler;" + handler +
                    ";\n";
    }
    SoString text;
    Convey::getDiagnostics(text, false);
    EXPECT_EQ(std::string(text.c_str()), expected + restExpected);

    Convey::getDiagnostics(text, true);
    EXPECT_EQ(text.view().find("Convey Diagnostics\n----------------------\n\n"
                               "\tInfo: \n\tName = own-1.0\n"),
              0U);

    // Other processes choose keys and values, by a ping.
    EXPECT_TRUE(Convey::Thread::setPingValue("k;1\n/k", "v;\n/own-1.0/name;0;Name;false;"));
    Convey::getDiagnostics(text, false);
    const std::string rows = text.c_str();
    EXPECT_NE(rows.find("\n/own-1.0/thread/ping/k\\3b1\\n/k;1;k\\3b1\\n/k;"
                        "v\\3b\\n/own-1.0/name\\3b0\\3bName\\3bfalse\\3b;\n"),
              std::string::npos)
        << rows;
    EXPECT_EQ(rows.find("\n/own-1.0/name;0;Name;false"), std::string::npos) << "passes for a row";
}

} // namespace
