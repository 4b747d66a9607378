#include "scriptobjects/core/SoThread.h"

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <thread>

#include "platform/fake/Fakes.h"

using ScObjects::ObjectLock;
using ScObjects::SoLock;
using ScObjects::SoLockable;
using ScObjects::Thread;

namespace {

enum class End { normal, outOfMemory, exception, exitThrows, threadExit, cancelled };

class Worker : public Thread {
public:
    explicit Worker(End end = End::normal) : end_(end) {}
    ~Worker() override { (void)waitForRunExitIfStarted(); }

    void begin() {
        started_ = true;
        start();
    }

    std::atomic<bool> initialised{false};
    std::atomic<bool> ran{false};
    std::atomic<bool> exited{false};
    std::atomic<ID> id{0};

protected:
    void run() override {
        ran = true;
        id = getCurrentID();
        EXPECT_TRUE(isRunning());
        EXPECT_TRUE(initialised);
        EXPECT_TRUE(waitForRunExit()) << "the body does not wait for itself";
        if (end_ == End::outOfMemory) {
            throw std::bad_alloc();
        }
        if (end_ == End::exception) {
            throw std::runtime_error("body");
        }
        if (end_ == End::threadExit) {
            pthread_exit(nullptr);
        }
        if (end_ == End::cancelled) {
            (void)pthread_cancel(pthread_self());
            pthread_testcancel();
        }
    }
    void runInit() override { initialised = true; }
    void runExit() override {
        EXPECT_FALSE(isRunning());
        exited = true;
        if (end_ == End::exitThrows) {
            throw std::runtime_error("exit");
        }
    }

private:
    bool waitForRunExitIfStarted() { return !started_ || waitForRunExit(); }

    const End end_;
    bool started_ = false;
};

TEST(Thread, keepsHowItsBodyEnded) {
    const std::pair<End, int32_t> cases[] = {{End::normal, 0},       {End::outOfMemory, -28},
                                             {End::exception, -29},  {End::exitThrows, -29},
                                             {End::threadExit, -29}, {End::cancelled, -29}};
    for (const auto& [end, error] : cases) {
        SCOPED_TRACE(error);
        Worker worker(end);
        EXPECT_FALSE(worker.ran);
        worker.begin();
        EXPECT_TRUE(worker.waitForRunExit());
        EXPECT_TRUE(worker.waitForRunExit()) << "a second wait is at an end at once";
        EXPECT_TRUE(worker.ran);
        EXPECT_TRUE(worker.exited) << "runExit is called however the body ended";
        EXPECT_FALSE(worker.isRunning());
        EXPECT_EQ(worker.error(), error);
    }
}

TEST(Thread, letsEveryWaiterWaitForStartAndEnd) {
    Worker worker;
    const auto wait = [&worker] { return worker.waitForRunExit() && worker.exited; };
    std::future<bool> waiters[] = {std::async(std::launch::async, wait),
                                   std::async(std::launch::async, wait)};
    for (auto& waiter : waiters) {
        EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    }
    EXPECT_FALSE(worker.initialised);
    EXPECT_FALSE(worker.ran);
    worker.begin();
    for (auto& waiter : waiters) {
        ASSERT_EQ(waiter.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        EXPECT_TRUE(waiter.get()) << "back before the end of the body";
    }
}

TEST(Thread, endsUnstartedWithItsObject) {
    static std::atomic<int> bodies{0};
    class Suspended : public Thread {
        void run() override { ++bodies; }
    };
    { const Suspended suspended; } // joins the suspended thread, or hangs here
    EXPECT_EQ(bodies, 0);
}

TEST(Thread, reportsThatItCouldNotBeCreated) {
    platform::InForce<platform::Threads, platform::FakeThreads> threads;
    threads.fails = true;
    Worker worker;
    EXPECT_EQ(worker.error(), 32);
    worker.begin();
    EXPECT_TRUE(worker.waitForRunExit());
    EXPECT_FALSE(worker.ran);
}

TEST(Thread, tellsTheMainThreadFromOthers) {
    EXPECT_TRUE(Thread::InitTerm::init());
    EXPECT_FALSE(Thread::InitTerm::init());
    EXPECT_EQ(Thread::getCurrentID(), 0U);
    {
        Worker first;
        Worker second;
        first.begin();
        second.begin();
        first.waitForRunExit();
        second.waitForRunExit();
        EXPECT_NE(first.id, 0U);
        EXPECT_NE(second.id, 0U);
        EXPECT_NE(first.id, second.id);
    }
    EXPECT_FALSE(Thread::InitTerm::exit());
    EXPECT_TRUE(Thread::InitTerm::exit());
    std::thread([] {
        EXPECT_TRUE(Thread::InitTerm::init());
        EXPECT_EQ(Thread::getCurrentID(), 0U) << "the main thread of a later life";
        EXPECT_TRUE(Thread::InitTerm::exit());
    }).join();
}

TEST(SoLock, isHeldUntilItIsReleasedAsOftenAsAcquired) {
    SoLockable object;
    int guarded = 0;
    std::promise<void> held;
    std::promise<void> go;
    // The analysis knows no recursive locks.
    std::thread holder([&]() SO_NO_THREAD_SAFETY_ANALYSIS {
        const ObjectLock outer(object);
        {
            const ObjectLock inner(object);
            ++guarded;
        }
        held.set_value();
        go.get_future().wait();
        ++guarded; // still held: the inner guard gave back only its own
    });
    held.get_future().wait();
    std::future<int> other = std::async(std::launch::async, [&] {
        const ObjectLock lock(object);
        return ++guarded;
    });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    go.set_value();
    ASSERT_EQ(other.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(other.get(), 3);
    holder.join();
}

} // namespace
