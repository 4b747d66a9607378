#include "tests/support/Process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned kLongestSeconds = 60;

[[noreturn]] void runChild(std::vector<char*>& arguments, std::vector<char*>& environment, int out,
                           int err) {
    const int nothing = open("/dev/null", O_RDONLY);
    const rlimit noCore = {0, 0}; // some programs are to end abnormally
    (void)setrlimit(RLIMIT_CORE, &noCore);
    dup2(nothing, 0);
    dup2(out, 1);
    dup2(err, 2);
    alarm(kLongestSeconds); // survives exec and ends what hangs
    execve(arguments[0], arguments.data(), environment.data());
    _exit(127);
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (environment.count(text.substr(0, text.find('='))) == 0) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : environment) {
        if (!value.empty()) {
            variables.push_back(name + "=" + value);
        }
    }
    std::vector<char*> envp;
    for (std::string& variable : variables) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);

    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
    const pid_t pid = fork();
    if (pid == 0) {
        runChild(argv, envp, out[1], err[1]);
    }
    close(out[1]);
    close(err[1]);
    ProcessResult result;
    pollfd ends[] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* const texts[] = {&result.out, &result.err};
    for (int open = 2; open > 0 && pid > 0;) {
        if (poll(ends, 2, -1) < 0) {
            continue; // interrupted
        }
        for (int i = 0; i < 2; ++i) {
            char block[65536];
            if (ends[i].revents == 0) {
                continue;
            }
            const ssize_t bytes = read(ends[i].fd, block, sizeof block);
            if (bytes > 0) {
                texts[i]->append(block, static_cast<size_t>(bytes));
            } else {
                ends[i].fd = -1; // left out from now on
                --open;
            }
        }
    }
    close(out[0]);
    close(err[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        throw std::runtime_error("cannot be started: " + arguments[0]);
    }
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}
