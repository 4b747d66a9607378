
#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVOccupations.h"
#include "tests/support/TableConnector.h"
#include "tests/support/TemporaryFolder.h"

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

    std::string expected = TemporaryFolder::read(WHOLE_STATE);
    expected.replace(expected.find("PORTS"), 5, platform::MessagePorts::system().place());
    SoString text;
    Convey::getDiagnostics(text, false);
    EXPECT_EQ(std::string(text.c_str()), expected);

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
