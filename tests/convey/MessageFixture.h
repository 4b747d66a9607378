#pragma once

#include <cstdlib>

#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "tests/support/Peers.h"

// A second, a process and a home folder of the test's own.
class MessageTest : public testing::Test {
protected:
    MessageTest() {
        setenv("HOME", "/home/user", 1);
        clock.utc = 1'700'000'000'000;
        files.files["/home/user/.ovrel/md5"] = "SALT";
        ScObjects::ConveyUtils::exit(); // what another test had is forgotten
        Message::setCreateDigest(false);
    }

    static Message message(const char* body = "") {
        Message message;
        message.setTarget("kivra-7.0");
        message.setSender("lumen-2.0");
        message.setBody(SoString(body));
        return message;
    }
    static std::string written(const Message& message) {
        SoString text;
        EXPECT_TRUE(message.writeToString(text));
        return text.c_str();
    }
    static Strings headersOf(const Message& message) {
        Strings headers;
        for (auto* header = message.getHeaders(); header != nullptr; header = header->next) {
            headers.push_back(std::string(header->name.view()) + "=" + header->value.c_str());
        }
        return headers;
    }

    platform::InForce<platform::Clock, platform::FakeClock> clock;
    platform::InForce<platform::Processes, platform::FakeProcesses> processes;
    platform::InForce<platform::Files, platform::FakeFiles> files;
};
