#pragma once

#include <map>
#include <string>
#include <vector>

// What a program did.
struct ProcessResult {
    int exitStatus = -1; // -1 when a signal ended it
    int signal = 0;
    std::string out;
    std::string err;
};

// What the threads of a process but its first have used of processors, in milliseconds: it does not
// depend on what else the machine does.
double millisecondsBehindMain(int process);

// Runs a program to its end, without standard input, with this process's environment and, over it,
// `environment` (an empty value removes the variable). It is killed, and the result says so by its
// signal, when it takes longer than a minute. Throws std::runtime_error when it cannot be started.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment = {});

// A program that runs beside the test, without standard input; killed with the object. Ended after
// four minutes if it is still there. Throws std::runtime_error when it cannot be started.
class RunningProcess {
public:
    // Its errors go to this process's, or to the descriptor that is given.
    explicit RunningProcess(const std::vector<std::string>& arguments,
                            const std::map<std::string, std::string>& environment = {},
                            int errors = 2);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    // The next line of its output, without the line feed; what there is of one when it ends.
    std::string readLine();
    // Returns after SIGSTOP when all of its threads have stopped: one may be answering just now.
    void signal(int number) const;
    // Waits for its end, after sending it a signal unless that is 0: the exit status, or -1 when a
    // signal ended it. Its output and errors, as far as they were not read, are in `rest` and on
    // this process's standard error.
    int finish(int number = 0);

    int pid() const { return pid_; }
    const std::string& rest() const { return rest_; }

private:
    int pid_ = -1;
    int out_ = -1;
    std::string rest_;
};
