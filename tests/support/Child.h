#pragma once

#include <csignal>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

// A process that does `body` and ends, without what this one does at its end; killed with the
// object. To be made before this process has threads.
class Child {
public:
    explicit Child(const std::function<void()>& body) : pid_(fork()) {
        if (pid_ == 0) {
            alarm(240);
            body();
            _exit(0);
        }
    }
    ~Child() {
        kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // True once it has stopped itself.
    bool hasStopped() {
        int status = 0;
        stopped_ =
            stopped_ || (waitpid(pid_, &status, WNOHANG | WUNTRACED) == pid_ && WIFSTOPPED(status));
        return stopped_;
    }
    void goOn() const { kill(pid_, SIGCONT); }

private:
    const pid_t pid_;
    bool stopped_ = false;
};
