#include "tests/support/Process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr unsigned kLongestSeconds = 60;
constexpr unsigned kLongestBesideSeconds = 240; // a test of an instrumented build has more

[[noreturn]] void runChild(std::vector<char*>& arguments, std::vector<char*>& environment, int out,
                           int err, unsigned longestSeconds) {
    const int nothing = open("/dev/null", O_RDONLY);
    const rlimit noCore = {0, 0}; // some programs are to end abnormally
    (void)setrlimit(RLIMIT_CORE, &noCore);
    dup2(nothing, 0);
    dup2(out, 1);
    dup2(err, 2);
    alarm(longestSeconds); // survives exec and ends what hangs
    execve(arguments[0], arguments.data(), environment.data());
    _exit(127);
}

// A program's arguments and environment as exec wants them.
class ExecTexts {
public:
    ExecTexts(const std::vector<std::string>& arguments,
              const std::map<std::string, std::string>& environment)
        : arguments_(arguments) {
        for (char** variable = environ; *variable != nullptr; ++variable) {
            const std::string text = *variable;
            if (environment.count(text.substr(0, text.find('='))) == 0) {
                variables_.push_back(text);
            }
        }
        for (const auto& [name, value] : environment) {
            if (!value.empty()) {
                variables_.push_back(name + "=" + value);
            }
        }
        collect(arguments_, argv);
        collect(variables_, envp);
    }

    std::vector<char*> argv;
    std::vector<char*> envp;

private:
    static void collect(std::vector<std::string>& texts, std::vector<char*>& pointers) {
        for (std::string& text : texts) {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
    }

    std::vector<std::string> arguments_;
    std::vector<std::string> variables_;
};

} // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment) {
    ExecTexts exec(arguments, environment);

    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
    const pid_t pid = fork();
    if (pid == 0) {
        runChild(exec.argv, exec.envp, out[1], err[1], kLongestSeconds);
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

RunningProcess::RunningProcess(const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& environment, int errors) {
    ExecTexts exec(arguments, environment);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
    pid_ = fork();
    if (pid_ == 0) {
        runChild(exec.argv, exec.envp, out[1], errors, kLongestBesideSeconds);
    }
    close(out[1]);
    out_ = out[0];
    if (pid_ < 0) {
        close(out_);
        throw std::runtime_error("cannot be started: " + arguments[0]);
    }
}

RunningProcess::~RunningProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(out_);
}

std::string RunningProcess::readLine() {
    size_t end = 0;
    while ((end = rest_.find('\n')) == std::string::npos) {
        char block[4096];
        const ssize_t bytes = read(out_, block, sizeof block);
        if (bytes <= 0) {
            return std::exchange(rest_, std::string());
        }
        rest_.append(block, static_cast<size_t>(bytes));
    }
    std::string line = rest_.substr(0, end);
    rest_.erase(0, end + 1);
    return line;
}

void RunningProcess::signal(int number) const {
    if (pid_ > 0) { // a number below that is of many
        kill(pid_, number);
    }
    if (number == SIGSTOP) {
        siginfo_t state;
        (void)waitid(P_PID, static_cast<id_t>(pid_), &state, WSTOPPED | WEXITED | WNOWAIT);
    }
}

int RunningProcess::finish(int number) {
    signal(number);
    char block[4096];
    ssize_t bytes = 0;
    while ((bytes = read(out_, block, sizeof block)) > 0) {
        rest_.append(block, static_cast<size_t>(bytes));
    }
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) {
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double millisecondsBehindMain(int process) {
    double nanoseconds = 0;
    const std::string number = std::to_string(process);
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + number + "/task")) {
        double one = 0;
        if (task.path().filename() != number && std::ifstream(task.path() / "schedstat") >> one) {
            nanoseconds += one;
        }
    }
    return nanoseconds / 1e6;
}
