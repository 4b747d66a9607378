#include "scriptobjects/convey/SoCVSetupThread.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVLaunchParameters.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/core/SoVector.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

// The one setup of the process. Its mutex is held for looks only, never while the setup runs.
struct Setup {
    std::mutex mutex;
    std::condition_variable ended;
    std::unique_ptr<ConveySetupThread> thread;
    std::thread::id runner;           // who runs the setup now
    std::atomic<bool> running{false}; // on the setup thread
    bool done = false;
    double start = 0;
    double finish = 0;
    double sync = 0;
};

Setup& setup() {
    // Never deleted: a setup may still run while the process exits.
    static auto* const instance = new Setup;
    return *instance;
}

void appendMilliseconds(SoString& text, const char* name, double value) {
    text << name << value << "ms";
}

// Where a ping can read how long the start took, and how long the host had to wait for it.
void saveSetupTime() {
    SoString text;
    {
        Setup& s = setup();
        const std::lock_guard<std::mutex> guard(s.mutex);
        if (s.finish == 0) {
            return;
        }
        appendMilliseconds(text, "thread=", s.finish - s.start);
        text << ", ";
        // `left` is how long it had been done when the host came for it, `lost` how long the host
        // waited.
        if (s.sync == 0) {
            text << "(synchronous setup)";
        } else if (s.sync >= s.finish) {
            appendMilliseconds(text, "left=", s.sync - s.finish);
        } else {
            appendMilliseconds(text, "lost=", s.finish - s.sync);
        }
    }
    if (const ConveyContext* context = ConveyContext::currentContextNow()) {
        (void)context->getThread()->setKeyValuePair(ConveyThread::CV_SETUPTIME, text);
    }
}

// The first of "-specifier" and "-instance" among the options decides.
void applyOptions(const SoString& parameters, Convey::Specifier& specifier) {
    SoVector<SoString> words;
    const int32_t count = ConveyUtils::parseOptions(parameters, words);
    bool applied = false;
    // The last word has no value behind it, whatever it says.
    for (int32_t i = 0; i + 1 < count && !applied; ++i) {
        if (*words[i] == "-specifier") {
            specifier = Convey::Specifier(words[i + 1]->c_str(), false);
            applied = true;
        } else if (*words[i] == "-instance") {
            (void)specifier.setInstance(*words[i + 1]);
            applied = true;
        }
    }
    while (words.count() > 0) {
        delete words.removeAt(words.count() - 1);
    }
}

// The setup itself; the error text.
SoString setUp(const SoString& appSpecifier) {
    (void)Convey::getNumberOfRegisteredApplications(); // before anybody needs it
    Convey::Specifier specifier(appSpecifier.c_str(), true);
    SoString parameters;
    if (specifier.isEmpty() || !ConveyUtils::getLaunchParameters(appSpecifier, parameters)) {
        return SoString(ConveyThread::CV_INVALIDSPEC);
    }
    // Before there is a context: its thread, and so its port, has the name that these give.
    applyOptions(parameters, specifier);
    if (!(specifier == ConveyUtils::getLaunchMsgQueueName(appSpecifier))) {
        ConveyUtils::keepStreamFor(nullptr); // no instance here will have the launch queue's name
    }
    // Before the first message: an incomplete start name has no registration of its own.
    ConveyData::MessageGlobals::get()->readRegistry(specifier);
    auto made = std::make_unique<ConveyContext>(specifier);
    // Without its thread a process would have a port and answer nobody.
    if (made->getThread()->error() != Thread::kNoError) {
        return SoString(ConveyThread::CV_NOTHREAD);
    }
    ConveyContext* const context = made.release();
    ConveyContext::setCurrentContext(context);
    (void)context->getThread()->setKeyValuePair(ConveyThread::CV_LAUNCHPARAMS, parameters);
    return SoString();
}

SoString runAndNote(const SoString& appSpecifier) {
    Setup& s = setup();
    {
        const std::lock_guard<std::mutex> guard(s.mutex);
        s.start = ConveyUtils::getUTCTimeMilliSeconds();
        s.runner = std::this_thread::get_id();
    }
    SoString error = setUp(appSpecifier);
    const std::lock_guard<std::mutex> guard(s.mutex);
    s.finish = ConveyUtils::getUTCTimeMilliSeconds();
    // Also after a failure: what it has left is cleared by the end of the layer, and only then can
    // there be another start.
    s.done = true;
    s.runner = std::thread::id();
    return error;
}

} // namespace

ConveySetupThread::ConveySetupThread(const SoString& appSpecifier) : appSpecifier_(appSpecifier) {}

ConveySetupThread::~ConveySetupThread() = default;

bool ConveySetupThread::startSetupThread(const SoString& appSpecifier) {
    Setup& s = setup();
    const std::lock_guard<std::mutex> guard(s.mutex);
    if (s.done || s.thread != nullptr) {
        return false;
    }
    auto thread = std::make_unique<ConveySetupThread>(appSpecifier);
    // One that the system did not make would leave everybody waiting who asks for the context.
    if (thread->error() != kNoError) {
        return false;
    }
    // Before it is started: who asks at once has to wait for it.
    s.running = true;
    s.thread = std::move(thread);
    // With the mutex held, which its end takes: that comes behind all of this.
    s.thread->start();
    return true;
}

bool ConveySetupThread::runSetup(const SoString& appSpecifier) {
    {
        Setup& s = setup();
        const std::lock_guard<std::mutex> guard(s.mutex);
        if (s.done) {
            return false;
        }
    }
    // What it says is in the result: without a context it has failed.
    (void)runAndNote(appSpecifier);
    saveSetupTime();
    return ConveyContext::currentContextNow() != nullptr;
}

void ConveySetupThread::run() {
    const SoString error = runAndNote(appSpecifier_);
    const ObjectLock guard(*this);
    errorText_ = error;
}

// Also when the setup ended by an exception: nobody must wait for it.
void ConveySetupThread::runExit() {
    Setup& s = setup();
    {
        const std::lock_guard<std::mutex> guard(s.mutex);
        s.running = false;
        s.runner = std::thread::id();
    }
    s.ended.notify_all();
}

SoString ConveySetupThread::errorText() const {
    const ObjectLock guard(*this);
    return errorText_;
}

bool ConveySetupThread::isSetupThreadRunning() {
    return setup().running.load();
}

bool ConveySetupThread::hasRun() {
    Setup& s = setup();
    const std::lock_guard<std::mutex> guard(s.mutex);
    return s.done;
}

bool ConveySetupThread::syncWithSetupThread() {
    Setup& s = setup();
    std::unique_ptr<ConveySetupThread> ended;
    {
        std::unique_lock<std::mutex> lock(s.mutex);
        if (s.thread == nullptr || s.runner == std::this_thread::get_id()) {
            return true; // nothing to wait for, or the setup itself, which would wait for itself
        }
        // Of several that wait the first counts: it was the host's first need of the setup.
        if (s.sync == 0) {
            s.sync = ConveyUtils::getUTCTimeMilliSeconds();
        }
        s.ended.wait(lock, [&] { return !s.running; });
        ended = std::move(s.thread); // of several that wait, the first takes it away
    }
    if (ended != nullptr) {
        // The setup is over, and yet its thread may be on its way out of the object that goes here.
        (void)ended->waitForRunExit();
        saveSetupTime();
    }
    return true;
}

void ConveySetupThread::reset() {
    (void)syncWithSetupThread();
    Setup& s = setup();
    const std::lock_guard<std::mutex> guard(s.mutex);
    // The wait above has seen to the rest.
    s.done = false;
    s.start = s.finish = s.sync = 0;
}

} // namespace ScObjects
