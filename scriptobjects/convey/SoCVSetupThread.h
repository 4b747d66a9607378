#pragma once

#include <atomic>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

// Starts the layer: loads the registry, takes the parameters that this process was launched with
// and makes the shared context, on a thread of its own or in the caller's. What needs the context
// waits for it, except on the setup thread itself.
//
// The setup runs once between `InitTerm::init` and `InitTerm::exit` of the layer. Threads: `start`
// and `runSetup` from one thread at a time, the rest from any.
class SO_EXPORT ConveySetupThread : public Thread {
public:
    // Starts the setup in the background; false when it has been done, or no thread can be had.
    static bool startSetupThread(const SoString& appSpecifier);
    // Runs it in the caller; true when there is a context afterwards.
    static bool runSetup(const SoString& appSpecifier);
    // True from the start of the setup thread to the end of the setup.
    static bool isSetupThreadRunning();
    // True from the end of a setup, whether it gave a context or not, to the end of the layer.
    static bool hasRun();
    // Waits for the end of a setup that is under way. Always true.
    static bool syncWithSetupThread();
    // The end of the layer: the next start begins anew.
    static void reset();

    explicit ConveySetupThread(const SoString& appSpecifier);
    ~ConveySetupThread() override;

    // Why there is no context: "INVALIDSPEC", or empty.
    SoString errorText() const;

protected:
    void run() override;
    void runExit() override;

private:
    const SoString appSpecifier_;
    SoString errorText_ SO_GUARDED_BY(this);
};

} // namespace ScObjects
