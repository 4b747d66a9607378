#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoHeap.h"
#include "scriptobjects/core/SoThreadAnnotations.h"

namespace ScObjects {

// A recursive mutex: the thread that holds it may acquire it again and must release it as often.
// Owned by the object that it guards. Threads: any.
class SO_EXPORT SO_CAPABILITY("mutex") SoLock : public SoHeap {
public:
    SoLock();
    ~SoLock() override;
    SoLock(const SoLock&) = delete;
    SoLock& operator=(const SoLock&) = delete;

    // Blocks until the calling thread holds the lock.
    void acquire() SO_ACQUIRE();
    // Only by the thread that holds it.
    void release() SO_RELEASE();

private:
    // In place: an object that has a lock is made without memory of the lock's own.
    struct LockData {
        std::recursive_mutex mutex;
    };
    LockData data_;
};

// An object with a lock of its own, which guards the object's state. Its operations take the lock
// through an ObjectLock, so they may be called with the lock held.
class SO_EXPORT SO_CAPABILITY("object") SoLockable : public SoHeap {
public:
    SoLockable();
    ~SoLockable() override;
    SoLockable(const SoLockable&) = delete;
    SoLockable& operator=(const SoLockable&) = delete;

private:
    friend class ObjectLock;
    mutable SoLock lock_;
};

// Holds the lock of an object for the life of a block. One guard per object and function.
class SO_EXPORT SO_SCOPED_CAPABILITY ObjectLock : public SoHeap {
public:
    explicit ObjectLock(const SoLockable& object) SO_ACQUIRE(object);
    ~ObjectLock() override SO_RELEASE();
    ObjectLock(const ObjectLock&) = delete;
    ObjectLock& operator=(const ObjectLock&) = delete;

private:
    SoLock& lock_;
};

// A worker thread whose body is `run`. It is created suspended and released by `start`, so that the
// derived object is complete before its body runs.
//
// Owned by whoever made it, who waits with `waitForRunExit` before destroying it; an object that
// was never started may be destroyed at once. `stop` does not end the body: `run` must notice by
// its own means that it is to end. Exceptions end the body, not the process, and are kept as
// `error`. Threads: `start`, `stop`, `wait` and the getters any.
class SO_EXPORT Thread : public SoLockable {
public:
    using ID = uintptr_t;

    static constexpr int32_t kNoError = 0;
    static constexpr int32_t kCreationFailed = 32;
    static constexpr int32_t kOutOfMemory = -28; // the body ended by std::bad_alloc
    static constexpr int32_t kException = -29;   // by any other, by pthread_exit or cancelled

    // Raises and lowers the count of users of the threads: the one that raises it from 0 is the
    // main thread. Every lock and thread counts as a user.
    class SO_EXPORT InitTerm {
    public:
        // True for the call that raised the count from 0.
        static bool init();
        // True for the call that brought it back to 0.
        static bool exit();
    };

    Thread();
    ~Thread() override;

    // Releases the body; nothing when the thread could not be created or was released before.
    void start();

    // Waits until the body has ended; true. At once when the thread could not be created, and on
    // the thread itself. Before `start` it waits for that too.
    virtual bool waitForRunExit();
    // Called on the new thread before and after `run`.
    virtual void runInit();
    virtual void runExit();
    // Sleeps like `sleep`; it is not woken early.
    virtual void wait(unsigned int milliseconds);
    // Asks the body to end, as far as a derived class can; true when the owner may wait for that.
    // The base has nobody to ask and answers true.
    virtual bool stop();

    int32_t error() const { return error_.load(); }
    // True while the body runs, from `start` on.
    bool isRunning() const { return running_.load(); }

    // Sleeps for the whole time, signals or not. Any thread.
    static void sleep(unsigned int milliseconds);

    // The calling thread's identity among those that live now; 0 on the main thread.
    static ID getCurrentID();

protected:
    // The thread's body.
    virtual void run() = 0;

private:
    struct ThreadData;
    static void enter(void* thread);
    void body();

    std::unique_ptr<ThreadData> data_;
    std::atomic<int32_t> error_{kNoError};
    std::atomic<bool> running_{false};
};

} // namespace ScObjects
