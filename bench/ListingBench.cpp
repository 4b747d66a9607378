// Times whole listings by the tool against a bare program that reads the same rows and prints the
// same lines, in turn, and prints a Markdown table of medians and ratios. The same for the commands
// of the database's tool that work on the whole registry, beside a shell that reads its rows.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "caps/Store.h"
#include "tests/support/TemporaryFolder.h"

extern char** environ;

namespace {

using caps::Status;
using caps::Store;

constexpr const char* kShell = "/usr/bin/sqlite3";
constexpr const char* kSameRows =
    "SELECT name, key, value FROM subdomain JOIN domain_data ON subdomain = id WHERE domain = 1 "
    "ORDER BY id, position; SELECT p.code, q.code, launch_path, d.domain, d.key, d.value FROM "
    "product p JOIN payload q ON q.product = p.id LEFT JOIN payload_data d ON d.payload = q.id "
    "ORDER BY p.id, q.id, d.position";

void require(Status status) {
    if (status != Status::ok) {
        throw std::runtime_error(caps::statusText(status));
    }
}

// A database of `count` applications with eight keys each, and, when asked for, a product with
// languages for each.
void makeDatabase(const std::string& path, int count, bool withProducts) {
    std::unique_ptr<Store> store;
    require(Store::open(path, Store::Access::create, store));
    Store::Transaction transaction(*store);
    require(transaction.begin());
    for (int i = 0; i < count; ++i) {
        const std::string name = "application" + std::to_string(i);
        const std::string specifier = name + "-1." + std::to_string(i % 10);
        const std::string folder = "/opt/" + name;
        const caps::KeyValue keys[] = {{"Specifier", specifier},
                                       {"Path", folder + "/" + name + ".app"},
                                       {"DisplayName", "Application " + std::to_string(i)},
                                       {"BundleIdentifier", "example.ovrel." + name},
                                       {"WindowClassName", name},
                                       {"ConveyVersion", "2.0"},
                                       {"AllowMultipleInstances", "true"},
                                       {"MessageDigest", "true"}};
        for (const caps::KeyValue& entry : keys) {
            require(store->setDomainData(1, "/ovrel/convey/" + specifier, entry.key, entry.value));
        }
        if (withProducts) {
            require(store->addProduct({"{" + name + "}",
                                       {{"{" + name + "-core}",
                                         "normal",
                                         "",
                                         4,
                                         {{0, "installedLanguages", "en_US,de_DE"},
                                          {0, "PYLConfigPath", folder + "/PYL/application.xml"},
                                          {0, "INSTALLDIR", "/opt"}}}}}));
        }
    }
    require(transaction.commit());
}

struct Times {
    double wallMilliseconds;
    double cpuMilliseconds;
};

double milliseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

// Runs a program to its end, its output in a file, as a whole process.
Times timeProgram(std::vector<std::string> arguments, const std::string& output) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    if (error != 0 || wait4(pid, &status, 0, &usage) != pid || status != 0) {
        throw std::runtime_error("failed: " + arguments[0]);
    }
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
    return {wall.count(), milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime)};
}

template <class Figure>
double median(std::vector<Times> runs, Figure Times::*figure) {
    std::sort(runs.begin(), runs.end(),
              [figure](const Times& a, const Times& b) { return a.*figure < b.*figure; });
    return runs[runs.size() / 2].*figure;
}

// The median of the tool's time in milliseconds, for the cost of each application.
double compare(const TemporaryFolder& folder, int count, bool withProducts, int rounds) {
    const std::string database =
        folder.file(std::to_string(count) + (withProducts ? "p.db" : ".db"));
    makeDatabase(database, count, withProducts);
    setenv("OVREL_CAPS_DB", database.c_str(), 1);
    std::vector<Times> tool;
    std::vector<Times> bare;
    std::vector<Times> unflushed;
    std::vector<Times> shell;
    const bool hasShell = access(kShell, X_OK) == 0;
    for (int i = -2; i < rounds; ++i) { // the first two fill the caches
        const Times toolTime = timeProgram({KIVRA_CONVEY_CMD}, folder.file("tool"));
        const Times bareTime = timeProgram({BARE_LISTING, database}, folder.file("bare"));
        const Times unflushedTime =
            timeProgram({BARE_LISTING, database, "unflushed"}, folder.file("unflushed"));
        const Times shellTime =
            hasShell ? timeProgram({kShell, "-readonly", database, kSameRows}, folder.file("shell"))
                     : Times{};
        if (i >= 0) {
            shell.push_back(shellTime);
            tool.push_back(toolTime);
            bare.push_back(bareTime);
            unflushed.push_back(unflushedTime);
        }
    }
    if (TemporaryFolder::read(folder.file("tool")) != TemporaryFolder::read(folder.file("bare"))) {
        throw std::runtime_error("the two listings differ");
    }
    const double toolWall = median(tool, &Times::wallMilliseconds);
    const double bareWall = median(bare, &Times::wallMilliseconds);
    const double unflushedWall = median(unflushed, &Times::wallMilliseconds);
    const double shellWall = median(shell, &Times::wallMilliseconds);
    // Of a few it is the start of the process that counts, of many each application.
    const char* const goal = count <= 10 ? "<= 1.3" : count >= 10'000 ? "<= 1.8" : "";
    std::printf(
        "| %d%s | %.2f ms | %.2f ms | %.2f | %s | %.2f ms | %.2f | %.2f ms | %.2f | %.2f ms "
        "|\n",
        count, withProducts ? " with products" : "", toolWall, bareWall, toolWall / bareWall, goal,
        unflushedWall, toolWall / unflushedWall, shellWall, hasShell ? toolWall / shellWall : 0,
        median(tool, &Times::cpuMilliseconds));
    std::fflush(stdout);
    return toolWall;
}

// Processor time of a command on 1,000 and 10,000 applications, beside the shell's in the same
// rounds: it stays what it is on a machine that does other work as well.
void timeCommands(const TemporaryFolder& folder, int rounds) {
    const auto file = [&folder](int count, const char* extension) {
        return folder.file(std::to_string(count) + extension);
    };
    constexpr int kCounts[] = {1'000, 10'000};
    for (const int count : kCounts) {
        (void)timeProgram({OVREL_CAPS, "--database", file(count, ".db"), "export", "--xml"},
                          file(count, ".xml"));
        (void)timeProgram(
            {OVREL_CAPS, "--database", file(count, "copy.db"), "import", file(count, ".xml")},
            folder.file("out"));
    }
    const struct {
        const char* name;
        std::vector<std::string> words; // "DB", "COPY", "XML" and "NEW" stand for files
    } commands[] = {{"check", {"--database", "DB", "check"}},
                    {"diff", {"diff", "DB", "COPY"}},
                    {"export --xml", {"--database", "DB", "export", "--xml"}},
                    {"import of XML", {"--database", "NEW", "import", "XML"}}};
    std::printf(
        "\n| ovrel-caps | cpu of 1,000 | cpu of 10,000 (goal 1000 ms) | of one, ratio "
        "(goal 1.5) | sqlite3 shell, the rows of 10,000 | ratio |\n|---|---|---|---|---|---|\n");
    for (const auto& command : commands) {
        double cpu[2] = {};
        double shellCpu = 0;
        for (size_t i = 0; i < 2; ++i) {
            std::vector<Times> tool;
            std::vector<Times> shell;
            for (int round = 0; round < rounds; ++round) {
                const std::string made = folder.file("new" + std::to_string(round) + ".db");
                std::vector<std::string> words = {OVREL_CAPS};
                for (const std::string& word : command.words) {
                    words.push_back(word == "DB"     ? file(kCounts[i], ".db")
                                    : word == "COPY" ? file(kCounts[i], "copy.db")
                                    : word == "XML"  ? file(kCounts[i], ".xml")
                                    : word == "NEW"  ? made
                                                     : word);
                }
                tool.push_back(timeProgram(words, folder.file("out")));
                shell.push_back(
                    timeProgram({kShell, "-readonly", file(kCounts[i], ".db"), kSameRows},
                                folder.file("shell")));
                for (const char* suffix : {"", "-wal", "-shm"}) {
                    (void)unlink((made + suffix).c_str());
                }
            }
            cpu[i] = median(tool, &Times::cpuMilliseconds);
            shellCpu = median(shell, &Times::cpuMilliseconds);
        }
        std::printf("| %s | %.0f ms | %.0f ms | %.2f | %.0f ms | %.2f |\n", command.name, cpu[0],
                    cpu[1], cpu[1] / 10 / cpu[0], shellCpu, cpu[1] / shellCpu);
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        const int rounds = argc > 1 ? std::atoi(argv[1]) : 41;
        if (rounds < 1) {
            std::fprintf(stderr, "usage: %s [ROUNDS]\n", argv[0]);
            return 2;
        }
        setenv("LC_ALL", "en_US.UTF-8", 1);
        const TemporaryFolder folder;
        std::printf("Medians of %d whole processes each, in turn.\n\n", rounds);
        std::printf("| applications | tool | bare | ratio | goal | bare, unflushed | ratio | "
                    "sqlite3 shell, "
                    "the same rows | ratio (goal < 1) | tool cpu |\n"
                    "|---|---|---|---|---|---|---|---|---|---|\n");
        compare(folder, 10, false, rounds);
        const double thousand = compare(folder, 1'000, false, rounds);
        const double tenThousand = compare(folder, 10'000, false, rounds);
        compare(folder, 10, true, rounds);
        compare(folder, 1'000, true, rounds);
        compare(folder, 10'000, true, rounds);
        std::printf("\nOne of 10,000 applications costs %.2f us, one of 1,000 %.2f us: ratio %.2f "
                    "(goal 1.5).\n",
                    tenThousand / 10, thousand, tenThousand / 10 / thousand);
        if (access(kShell, X_OK) == 0) {
            timeCommands(folder, std::min(rounds, 5));
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
