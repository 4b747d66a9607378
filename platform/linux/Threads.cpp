#include "platform/Threads.h"

#include <csignal>
#include <new>
#include <pthread.h>
#include <string>
#include <system_error>

#include "platform/Log.h"

namespace platform {
namespace {

// What a thread is started under, it keeps. Faults of the thread itself stay its own, and so does
// what a profiler measures by.
class HostsSignals {
public:
    HostsSignals() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF}) {
            sigdelset(&blocked, own);
        }
        (void)pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~HostsSignals() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    HostsSignals(const HostsSignals&) = delete;
    HostsSignals& operator=(const HostsSignals&) = delete;

private:
    sigset_t before_{};
};

class LinuxThreads final : public Threads {
public:
    bool start(std::thread& out, void (*entry)(void*), void* argument) override {
        // Handlers of the host, and what ends it by default, are for the host's own threads: a
        // signal that a thread of the layer took would end the process behind a main loop that
        // waits for it by a descriptor.
        const HostsSignals blocked;
        try {
            out = std::thread(entry, argument);
            return true;
        } catch (const std::system_error& error) {
            Log::system().problem(std::string("cannot start a thread: ") + error.code().message());
            return false;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
};

} // namespace

Threads& Threads::own() {
    static auto* const threads = new LinuxThreads;
    return *threads;
}

} // namespace platform
