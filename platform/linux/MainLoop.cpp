#include "platform/MainLoop.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PortDescriptor.h"

namespace platform {
namespace {

constexpr std::chrono::milliseconds kPauseAfterFailure{100};

void reportFailure(const char* call) {
    const int error = errno; // building the line may change it
    Log::system().problem(std::string("Convey: ") + call + ": " +
                          std::system_category().message(error));
}

class EventSignal final : public PollSignal {
public:
    EventSignal(PortDescriptor all, PortDescriptor event)
        : all_(std::move(all)), event_(std::move(event)) {}

    int descriptor() const override { return all_.get(); }

    // The mark and the descriptor change together: of a raise and a lower at the same moment the
    // later would otherwise be lost on one of the two.
    void raise() override {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!raised_) {
            // Cannot be full: it is 0 or 1. What fails all the same is tried once more, since
            // nobody else wakes the loop for what has come, and by the next raise.
            raised_ = tell() || tell();
        }
    }

    bool lower() override {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!std::exchange(raised_, false)) {
            return false;
        }
        eventfd_t count = 0;
        (void)eventfd_read(event_.get(), &count);
        return true;
    }

    bool join(int descriptor, bool on) override {
        epoll_event event{};
        event.events = EPOLLIN; // for as long as it is: nobody asks which of them it was
        return epoll_ctl(all_.get(), on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, descriptor, &event) == 0;
    }

private:
    bool tell() const { return eventfd_write(event_.get(), 1) == 0; }

    // A child after fork must not take the parent's messages away by reading them as seen.
    const PortDescriptor all_; // the event, and what was joined
    const PortDescriptor event_;
    std::mutex mutex_;
    bool raised_ = false; // under mutex_
};

// What asks a process to end, blocked for the thread so that only the descriptor tells of it.
class SignalRequests final : public EndRequests {
public:
    SignalRequests(const sigset_t& requests, Descriptor descriptor)
        : requests_(std::move(descriptor)) {
        (void)pthread_sigmask(SIG_BLOCK, &requests, &before_);
    }
    ~SignalRequests() override { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalRequests(const SignalRequests&) = delete;
    SignalRequests& operator=(const SignalRequests&) = delete;

    int wait(const PollSignal& signal) override {
        for (;;) {
            // The request to end is looked at first: work that never ceases must not keep a person
            // from ending the program.
            pollfd watched[] = {{requests_.get(), POLLIN, 0}, {signal.descriptor(), POLLIN, 0}};
            if (uninterrupted([&] { return poll(watched, std::size(watched), -1); }) < 0) {
                // Memory can be short for a moment. The application goes on, as if it had been
                // woken, and so often only that others get something done meanwhile.
                reportFailure("poll");
                std::this_thread::sleep_for(kPauseAfterFailure);
                watched[0].revents = watched[1].revents = POLLIN; // reading does not wait
            }
            signalfd_siginfo request{};
            if (watched[0].revents != 0 &&
                read(requests_.get(), &request, sizeof request) == sizeof request) {
                return static_cast<int>(request.ssi_signo);
            }
            if (watched[1].revents != 0) {
                return 0;
            }
        }
    }

private:
    const Descriptor requests_;
    sigset_t before_{};
};

class LinuxMainLoops final : public MainLoops {
public:
    std::unique_ptr<PollSignal> newSignal() override {
        // Not blocking: a loop that reads it itself, or two of them, must not get stuck here.
        PortDescriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!event) {
            reportFailure("eventfd");
            return nullptr;
        }
        PortDescriptor all(epoll_create1(EPOLL_CLOEXEC));
        const int number = event.get();
        auto signal = std::make_unique<EventSignal>(std::move(all), std::move(event));
        if (!signal->join(number, true)) {
            reportFailure("epoll");
            return nullptr;
        }
        return signal;
    }

    std::unique_ptr<EndRequests> takeEndRequests() override {
        sigset_t requests;
        sigemptyset(&requests);
        sigaddset(&requests, SIGINT);
        sigaddset(&requests, SIGTERM);
        // Made before the signals are blocked: without it they must go on ending the process.
        Descriptor descriptor(signalfd(-1, &requests, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!descriptor) {
            reportFailure("signalfd");
            return nullptr;
        }
        return std::make_unique<SignalRequests>(requests, std::move(descriptor));
    }
};

} // namespace

MainLoops& MainLoops::own() {
    static auto* const loops = new LinuxMainLoops;
    return *loops;
}

} // namespace platform
