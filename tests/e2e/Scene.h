#pragma once

#include <chrono>
#include <csignal>
#include <thread>

#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

// What every test of real processes stands on: a home, a port folder and a registry of its own.
class Scene : public testing::Test {
protected:
    Scene() {
        setenv("XDG_RUNTIME_DIR", folder.file("").c_str(), 1);
        setenv("HOME", folder.file("").c_str(), 1);
        setenv("OVREL_CAPS_DB", database.c_str(), 1);
    }

    // Registers an application, in the scene's database or another.
    static void add(const std::string& specifier, const std::string& path = "/opt/apps/App.app",
                    const std::map<std::string, std::string>& environment = {}) {
        const ProcessResult added =
            runProcess({OVREL_CAPS_TOOL, "add-app", specifier, "--path", path}, environment);
        EXPECT_EQ(added.exitStatus, 0) << added.err;
    }

    // A program that runs, and has said so by its first line.
    static std::unique_ptr<RunningProcess>
    started(const std::vector<std::string>& command, const std::string& firstLine = "running",
            const std::map<std::string, std::string>& environment = {}) {
        auto process = std::make_unique<RunningProcess>(command, environment);
        EXPECT_EQ(process->readLine(), firstLine);
        return process;
    }
    // An example application.
    static std::unique_ptr<RunningProcess>
    host(const std::string& specifier, const std::vector<std::string>& options = {},
         const std::map<std::string, std::string>& environment = {}) {
        std::vector<std::string> arguments = {HOST, specifier};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return started(arguments, "running as " + specifier, environment);
    }

    // Whether the condition comes to hold within half a minute, looked at every ten milliseconds
    // and at least a few times, however long a look takes. Once is enough: what holds at one moment
    // need not at the next.
    template <class Condition>
    static bool eventually(Condition&& holds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (int looks = 0; looks < 5 || std::chrono::steady_clock::now() < end; ++looks) {
            if (holds()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    // Instrumented builds are slower by an order of magnitude; they do a part of the work.
    static long scaled(long count) {
        const char* divisor = std::getenv("CONVEY_TEST_DIVISOR");
        return divisor == nullptr ? count : count / std::max(1L, std::atol(divisor));
    }

    TemporaryFolder folder;
    const std::string database = folder.file("caps.db");
};
