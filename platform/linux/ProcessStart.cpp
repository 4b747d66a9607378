#include "platform/linux/ProcessStart.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <limits>
#include <sys/wait.h>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/linux/Descriptor.h"

namespace platform {
namespace {

constexpr int kFirstInherited = 3; // behind the standard ones
constexpr int kExecFailed = 127;
constexpr int kMaximumDescriptors = limits::of("process.descriptors");

// What the children tell, on a pipe whose other end exec closes.
struct Report {
    int32_t number; // of the new process, 0 in a report of a failure
    int32_t error;
};

void report(int pipe, int32_t number, int32_t error) {
    const Report line{number, error};
    // A parent that died does not want to know.
    (void)!write(pipe, &line, sizeof line);
}

void closeOthersAtExec() {
    // At exec, not now: the pipe must tell whether exec failed. Other libraries of the host open
    // files without the mark, and these are none of the new program's business.
    if (close_range(kFirstInherited, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
        return;
    }
    // Kernels before 5.11 do not know the call with this flag, and some sandboxes refuse it.
    long count = sysconf(_SC_OPEN_MAX);
    count = count < 0 || count > kMaximumDescriptors ? kMaximumDescriptors : count;
    for (int fd = kFirstInherited; fd < count; ++fd) {
        (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// All that is prepared before the fork: the child must not allocate.
struct Plan {
    const char* path;
    char* const* arguments;
    char* const* environment;
    char* number; // in the environment, where the child writes its own
    const char* folder;
    int null; // a descriptor of /dev/null
    int pipe;
};

// Decimal, with a zero byte behind it, where there is room for any number.
void writeNumber(char* out, uint32_t number) {
    char* end = out + 1;
    for (uint32_t rest = number / 10; rest != 0; rest /= 10) {
        ++end;
    }
    *end = '\0';
    for (; end != out; number /= 10) {
        *--end = static_cast<char>('0' + number % 10);
    }
}

[[noreturn]] void runProgram(const Plan& plan) {
    writeNumber(plan.number, static_cast<uint32_t>(getpid()));
    becomeSession();
    for (int fd = 0; fd < kFirstInherited; ++fd) {
        if (dup2(plan.null, fd) < 0) {
            report(plan.pipe, 0, errno);
            _exit(kExecFailed);
        }
    }
    closeOthersAtExec();
    // A home that is not there, as of a system's user, does not keep a program from running.
    if (chdir(plan.folder) != 0 && chdir("/") != 0) {
        report(plan.pipe, 0, errno);
        _exit(kExecFailed);
    }
    execve(plan.path, plan.arguments, plan.environment);
    report(plan.pipe, 0, errno);
    _exit(kExecFailed);
}

// The child in between: its end gives the grandchild to init, so that nobody has to wait for it.
[[noreturn]] void runBetween(const Plan& plan) {
    const pid_t child = fork();
    if (child == 0) {
        runProgram(plan);
    }
    report(plan.pipe, child < 0 ? 0 : child, child < 0 ? errno : 0);
    // Without the exit functions: what the parent has registered is not for its copy to do.
    _exit(0);
}

// Signals stay blocked from before the fork until the child has put them back to what they do by
// default: a handler of this process must not run there.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

} // namespace

void becomeSession() {
    (void)setsid(); // fails only for one that is a session already
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        (void)sigaction(number, &byDefault, nullptr); // two of them cannot be changed
    }
    sigset_t none;
    sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

uint32_t startProcess(const std::string& path, const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment, const std::string& folder,
                      int& error) {
    int ends[2];
    const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC)); // no standard stream, as the pipe
    if (!null || pipe2(ends, O_CLOEXEC) != 0) {
        error = errno;
        return 0;
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    if (!reading || !writing) {
        error = errno;
        return 0;
    }
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<char*> argv = pointersTo(words);
    std::string number = std::string(kStartedNumber) + "=";
    const size_t numberStart = number.size();
    number.append(std::numeric_limits<uint32_t>::digits10 + 1, ' ');
    std::vector<char*> envp = pointersTo(environment);
    envp.insert(envp.end() - 1, number.data());
    const Plan plan{path.c_str(),   argv.data(), envp.data(),  number.data() + numberStart,
                    folder.c_str(), null.get(),  writing.get()};
    pid_t between = -1;
    {
        const BlockedSignals blocked;
        between = fork();
        if (between == 0) {
            runBetween(plan);
        }
        error = between < 0 ? errno : 0;
    }
    if (between < 0) {
        return 0;
    }
    // Else the reading below would never come to an end.
    writing.reset();
    // A host that waits for all of its children, or ignores them, may have taken it already.
    (void)uninterrupted([&] { return waitpid(between, nullptr, 0); });
    uint32_t started = 0;
    // Both children tell, in either order; an exec that worked tells nothing and closes the pipe,
    // so the end of it is the news that the program runs.
    Report line{};
    while (uninterrupted([&] { return read(reading.get(), &line, sizeof line); }) ==
           static_cast<ssize_t>(sizeof line)) {
        if (line.number == 0) {
            error = line.error;
        } else {
            started = static_cast<uint32_t>(line.number);
        }
    }
    if (error == 0 && started == 0) {
        error = ECHILD; // killed before it could say why
    }
    return error == 0 ? started : 0;
}

} // namespace platform
