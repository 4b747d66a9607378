#include "scriptobjects/core/SoThread.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include "platform/Threads.h"

namespace ScObjects {
namespace {

// Locks come and go on every thread, so both are atomic. What lives for ever has no lock of this
// kind: the count would never be 0 again.
constinit std::atomic<uint32_t> gUsers{0};
constinit std::atomic<Thread::ID> gMainThread{0};

// The address of a variable of the thread's own: no two living threads have the same.
Thread::ID ownID() {
    static thread_local char mark = 0;
    return reinterpret_cast<Thread::ID>(&mark);
}

bool addUser() {
    if (gUsers.fetch_add(1) != 0) {
        return false;
    }
    // Whoever comes first after the count was 0: when the layer is started again on another thread,
    // that one is the main thread.
    gMainThread = ownID();
    return true;
}

bool removeUser() {
    return gUsers.fetch_sub(1) == 1;
}

} // namespace

SoLock::SoLock() {
    addUser();
}

SoLock::~SoLock() {
    removeUser();
}

// The analysis sees the capability, not the mutex that implements it.
void SoLock::acquire() SO_NO_THREAD_SAFETY_ANALYSIS {
    data_.mutex.lock();
}

void SoLock::release() SO_NO_THREAD_SAFETY_ANALYSIS {
    data_.mutex.unlock();
}

SoLockable::SoLockable() = default;

SoLockable::~SoLockable() = default;

ObjectLock::ObjectLock(const SoLockable& object) SO_NO_THREAD_SAFETY_ANALYSIS
    : lock_(object.lock_) {
    lock_.acquire();
}

ObjectLock::~ObjectLock() SO_NO_THREAD_SAFETY_ANALYSIS {
    lock_.release();
}

bool Thread::InitTerm::init() {
    return addUser();
}

bool Thread::InitTerm::exit() {
    return removeUser();
}

struct Thread::ThreadData : SoHeap {
    enum class Gate { closed, open, abandoned };

    // Not the lock of the object, which is recursive: waiting gives back one level of it only.
    std::mutex gateMutex;
    std::condition_variable gateChanged;
    Gate gate = Gate::closed;

    std::mutex joinMutex; // held while joining: a second waiter waits for the first
    std::thread thread;
    // 0 is nobody's: until the body begins, every thread that waits may join.
    std::atomic<ID> id{0};
    bool created = false;

    void set(Gate state) {
        {
            const std::lock_guard<std::mutex> lock(gateMutex);
            // Decided once: a thread that runs is not abandoned, and one that is abandoned never
            // runs.
            if (gate != Gate::closed) {
                return;
            }
            gate = state;
        }
        gateChanged.notify_all();
    }

    bool waitUntilOpen() {
        std::unique_lock<std::mutex> lock(gateMutex);
        gateChanged.wait(lock, [this] { return gate != Gate::closed; });
        return gate == Gate::open;
    }

    void join() {
        const std::lock_guard<std::mutex> lock(joinMutex);
        // Whoever comes second finds it joined: joining a thread twice is not allowed.
        if (thread.joinable()) {
            thread.join();
        }
    }
};

Thread::Thread() : data_(std::make_unique<ThreadData>()) {
    addUser();
    // It waits at the gate: a body that ran now would find an object whose derived part, and with
    // it `run`, is not there yet.
    data_->created = platform::Threads::system().start(data_->thread, enter, this);
    if (!data_->created) {
        error_ = kCreationFailed;
    }
}

Thread::~Thread() {
    data_->set(ThreadData::Gate::abandoned); // for a thread that was never released
    // A std::thread that nobody has joined ends the process when it is destroyed; the gate is open
    // for it one way or the other, so this does not wait for ever.
    data_->join();
    removeUser();
}

void Thread::start() {
    if (data_->created) {
        data_->set(ThreadData::Gate::open);
    }
}

void Thread::enter(void* thread) {
    static_cast<Thread*>(thread)->body();
}

void Thread::body() {
    if (!data_->waitUntilOpen()) {
        return;
    }
    // From here on a wait on the thread itself returns at once, instead of waiting for its own end.
    data_->id = ownID();
    running_ = true;
    const auto leave = [this] {
        // First: the body has ended, whatever runExit takes.
        running_ = false;
        // Nothing may leave a thread's first function: an exception that does ends the process.
        try {
            runExit();
        } catch (...) {
            error_ = kException;
        }
    };
    try {
        runInit();
        run();
    } catch (const std::bad_alloc&) {
        error_ = kOutOfMemory;
    } catch (...) {
        error_ = kException;
        // No exception: the body has ended its thread, or another has cancelled it. What unwinds
        // the thread then may not be kept from it, or the system ends the process.
        if (std::current_exception() == nullptr) {
            leave();
            throw;
        }
    }
    leave();
}

bool Thread::waitForRunExit() {
    if (data_->id != ownID()) {
        data_->join();
    }
    return true;
}

void Thread::runInit() {}

void Thread::runExit() {}

void Thread::wait(unsigned int milliseconds) {
    sleep(milliseconds);
}

bool Thread::stop() {
    return true;
}

void Thread::sleep(unsigned int milliseconds) {
    // It sleeps on when a signal has interrupted it.
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

Thread::ID Thread::getCurrentID() {
    const ID id = ownID();
    return id == gMainThread ? 0 : id;
}

} // namespace ScObjects
