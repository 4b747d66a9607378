// Two machines of one realm: a runtime folder, a home and a database each, joined by a server.
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "tests/e2e/Scene.h"

namespace {

using Environment = std::map<std::string, std::string>;

class LinkTest : public Scene {
protected:
    struct Machine {
        std::string name;
        Environment environment;
        std::unique_ptr<RunningProcess> link;
    };

    LinkTest() {
        startServer();
        for (Machine* machine : {&desk, &workshop}) {
            const std::string own = folder.file(machine->name);
            std::filesystem::create_directories(own);
            chmod(own.c_str(), 0700);
            machine->environment = {{"XDG_RUNTIME_DIR", own},
                                    {"HOME", own},
                                    {"OVREL_CAPS_DB", own + "/caps.db"},
                                    {"DISPLAY", ""}};
            EXPECT_EQ(run(*machine, {OVREL_CAPS_TOOL, "init"}).exitStatus, 0);
        }
        write(desk, "[[use]]\napp = \"lumen-2.5-en_us\"\nat = \"workshop\"\n");
        write(workshop, "[[offer]]\napp = \"lumen-*\"\nto = [\"desk\"]\nlaunch = true\n");
    }

    void startServer() {
        const std::string ports = folder.file("ports");
        std::filesystem::create_directories(ports);
        server = std::make_unique<RunningProcess>(std::vector<std::string>{
            NATS_SERVER, "-a", "127.0.0.1", "-p", port, "--ports_file_dir", ports, "-l",
            folder.file("server.log"), "-js", "-sd", folder.file("disk")});
        EXPECT_TRUE(eventually([&] {
            for (const auto& file : std::filesystem::directory_iterator(ports)) {
                const auto json = nlohmann::json::parse(TemporaryFolder::read(file.path().string()),
                                                        nullptr, false);
                if (json.is_object() && json.contains("nats") &&
                    file.path().string().find(std::to_string(server->pid())) != std::string::npos) {
                    const std::string url = json["nats"][0];
                    port = url.substr(url.rfind(':') + 1); // the same after a restart
                    return true;
                }
            }
            return false;
        })) << "the server has not said where it listens";
    }

    void write(const Machine& machine, const std::string& more) const {
        (void)folder.write(machine.name + ".toml", "realm = \"studio\"\nname = \"" + machine.name +
                                                       "\"\nservers = [\"nats://127.0.0.1:" + port +
                                                       "\"]\n" + more);
    }

    static ProcessResult run(const Machine& machine, const std::vector<std::string>& arguments) {
        return runProcess(arguments, machine.environment);
    }

    static nlohmann::json statusOf(const Machine& machine) {
        return nlohmann::json::parse(run(machine, {LINK, "status", "--json"}).out, nullptr, false);
    }

    void join(Machine& machine) {
        machine.link = std::make_unique<RunningProcess>(
            std::vector<std::string>{LINK, folder.file(machine.name + ".toml")},
            machine.environment);
    }

    std::unique_ptr<RunningProcess> lumen() const {
        return host("lumen-2.5-en_us", {"--quiet"}, workshop.environment);
    }

    // What the desk is told of lumen when it asks for it.
    std::string answer() const {
        const std::string said =
            run(desk, {KIVRA_CONVEY_CMD, "check_running", "lumen-2.5-en_us"}).out;
        const size_t begin = said.find("running_response='");
        return begin == std::string::npos
                   ? said
                   : said.substr(begin + 18, said.find('\'', begin + 18) - begin - 18);
    }
    bool comesToAnswer(const std::string& wanted) const {
        return eventually([&] { return answer() == wanted; });
    }

    std::vector<std::string> ask(const std::string& body) const {
        return {CONVEY_PROGRAM, "send", "lumen-2.5-en_us", "--body", body, "--wait", "25"};
    }

    std::string port = "-1";
    std::unique_ptr<RunningProcess> server;
    Machine desk{"desk", {}, nullptr};
    Machine workshop{"workshop", {}, nullptr};
};

TEST_F(LinkTest, tellsAskersOfEachEndThatComesInBetween) {
    join(desk);
    join(workshop);
    auto target = lumen();
    ASSERT_TRUE(comesToAnswer("ECHO_RESPONSE"));
    // A request that lies with the target, which has stopped.
    const auto asked = [&](const std::string& body) {
        target->signal(SIGSTOP);
        auto asker = std::make_unique<RunningProcess>(ask(body), desk.environment);
        EXPECT_EQ(asker->readLine(), "sent");
        EXPECT_TRUE(eventually([&] {
            const auto status = statusOf(workshop);
            return status.is_object() && status.value("requests_here", 0) == 1;
        })) << body;
        return asker;
    };
    auto asker = asked("the target dies");
    target->signal(SIGKILL);
    EXPECT_EQ(asker->readLine(), "error: ERROR: TARGET HAS ENDED");
    target = lumen();
    ASSERT_TRUE(comesToAnswer("ECHO_RESPONSE"));

    asker = asked("the link there dies");
    (void)workshop.link->finish(SIGKILL);
    join(workshop);
    EXPECT_EQ(asker->readLine(), "error: ERROR: TARGET HAS ENDED");
    target->signal(SIGCONT);
    ASSERT_TRUE(comesToAnswer("ECHO_RESPONSE"));

    asker = asked("the server dies");
    (void)server->finish(SIGKILL);
    target->signal(SIGCONT);
    EXPECT_EQ(answer(), "Timeout");
    startServer();
    EXPECT_EQ(asker->readLine(), "received");
    EXPECT_EQ(asker->readLine(), "result: echo: the server dies");
    ASSERT_TRUE(comesToAnswer("ECHO_RESPONSE"));

    asker = asked("the link here dies");
    (void)desk.link->finish(SIGKILL);
    EXPECT_EQ(asker->readLine(), "error: ERROR: TARGET HAS ENDED");
    EXPECT_EQ(answer(), "ISNOTRUNNING");
    join(desk);
    target->signal(SIGCONT);
    ASSERT_TRUE(comesToAnswer("ECHO_RESPONSE"));
    EXPECT_EQ(run(desk, ask("again")).out, "sent\nreceived\nresult: echo: again\nprocessed\n");
}

// What is on the servers' disks outlives the sender's link and the server, and comes to the target
// when its link does.
TEST_F(LinkTest, keepsRequestsOnDiskForALinkThatIsAway) {
    write(desk, "[[use]]\napp = \"lumen-2.5-en_us\"\nat = \"workshop\"\ndurable = true\n");
    ASSERT_EQ(run(desk, {LINK, "store", folder.file("desk.toml"), "desk", "workshop"}).exitStatus,
              0);
    const auto keeps = [&](long wanted) {
        return eventually([&] {
            const auto status = statusOf(desk);
            return status.is_object() && status.value("connected", false) &&
                   status.value("requests_kept", -1L) == wanted;
        });
    };
    long sent = 0;
    const auto send = [&](long count) {
        for (const long end = sent + count; sent < end;) {
            const ProcessResult one = run(desk, {CONVEY_PROGRAM, "send", "lumen-2.5-en_us",
                                                 "--body", std::to_string(++sent), "--wait", "0"});
            ASSERT_EQ(one.out, "sent\n") << one.err;
        }
    };
    const long count = scaled(50);
    join(desk);
    ASSERT_TRUE(keeps(0));
    send(count);
    ASSERT_TRUE(keeps(count));
    (void)server->finish(SIGKILL);
    send(1); // lies with the link until there is a disk
    startServer();
    ASSERT_TRUE(keeps(count + 1));
    (void)desk.link->finish(SIGKILL);
    join(desk);
    ASSERT_TRUE(keeps(0));
    // This one is told what became of its request.
    RunningProcess asker(ask("asked"), desk.environment);
    EXPECT_EQ(asker.readLine(), "sent");
    ASSERT_TRUE(keeps(1));

    const auto target = host("lumen-2.5-en_us", {}, workshop.environment);
    join(workshop);
    const auto handles = [&](const std::string& body) {
        const std::string line = target->readLine();
        EXPECT_EQ(line.substr(line.rfind(' ') + 1), body);
        return line.ends_with(" " + body);
    };
    for (long i = 1; i <= sent; ++i) {
        ASSERT_TRUE(handles(std::to_string(i)));
    }
    EXPECT_TRUE(handles("asked"));
    EXPECT_EQ(asker.readLine(), "received");
    EXPECT_EQ(asker.readLine(), "result: echo: asked");
}

} // namespace
