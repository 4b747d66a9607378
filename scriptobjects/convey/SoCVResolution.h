#pragma once

#include <string>
#include <unordered_map>

#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

// Where an application was when it was last looked for. All but `unknown` and `absent` mean that
// it runs.
enum class CVPresence {
    unknown,
    absent,
    own,     // it is the calling application
    process, // the process that was launched for it is alive
    thread,  // its background thread has its port
    endpoint // only the endpoint itself has one
};

// A target that has been completed, with what that has found out of it: completing asks which
// registrations run, and whoever pings, launches or sends would ask the same again. Lives as long
// as the one operation that it is made for, since what it knows grows old. Of its owner's thread.
class CVResolution {
public:
    // Completes `text` as Specifier(text, true) does.
    explicit CVResolution(const char* text);

    // A name that has been completed before, of which nothing is known any more.
    static CVResolution ofCompleted(const SoString& name);

    // Whether completing `name` is sure to leave it as it is: not each such name is seen, but most,
    // and sooner than by completing it. Any thread.
    static bool isWhole(const SoString& name);

    const Convey::Specifier& specifier() const { return specifier_; }
    CVPresence presence() const { return presence_; }

    // As Specifier::isRunning, and asks only what is not known; from then on it is.
    [[nodiscard]] bool isRunning();

    // The same application without the suffix. What is known of an endpoint says nothing of it.
    CVResolution withoutSuffix() const;

private:
    explicit CVResolution(const Convey::Specifier& specifier) : specifier_(specifier) {}

    Convey::Specifier specifier_;
    CVPresence presence_ = CVPresence::unknown;
};

// Who was found to run while one decision of this thread is worked out, so that each name is looked
// for once however many steps ask. Only the outermost scope of a thread keeps anything.
class CVFindings {
public:
    CVFindings();
    ~CVFindings();
    CVFindings(const CVFindings&) = delete;
    CVFindings& operator=(const CVFindings&) = delete;

    // What was found of `name`; `unknown` when it has not been looked for, or outside a decision.
    static CVPresence of(const SoString& name);
    static void note(const SoString& name, CVPresence presence);

private:
    std::unordered_map<std::string, CVPresence> found_;
};

} // namespace ScObjects
