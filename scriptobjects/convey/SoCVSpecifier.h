#pragma once

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVSpecifierParts.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoVector.h"

namespace ScObjects {

// The name of one messaging endpoint: `appname[_instance][-version][-locale][#suffix]`, for example
// "lumen_2-7.0-en_us#ping". The application name ends at the first of '-', '_' and '#'; an '_'
// behind the first '-' belongs to the locale; the first '-' field is the version when it begins
// with a digit, else the locale; the suffix is all behind the first '#'. `appname-group` names an
// application by a group, and the group is then what `locale()` gives.
//
// A value: it is its text and nothing else. Comparison is by bytes. Any text of at most 255 bytes
// is a specifier; a longer one, or null, gives the empty specifier, of which everything is empty or
// false. Operations that ask the registry give false or the empty text without a started layer.
// Threads: one object in one thread at a time. Nothing is thrown but std::bad_alloc.
class SO_EXPORT Convey::Specifier : public SoString {
public:
    // A longer text is no specifier.
    static constexpr size_t kMaximumBytes = limits::of("specifier.length");

    // `fixUp` true: the text is lower-cased and completed to a registered application (see
    // `fixUp`); false: it is lower-cased only.
    Specifier(const char* text, bool fixUp);

    // Its parts, without the marks between them; empty for what it does not have.
    SoString appName() const;
    SoString instance() const;
    SoString version() const;
    SoString locale() const;
    SoString suffix() const;

    // Completes the specifier to that of a registered application, preferring one that runs, and
    // keeps instance and suffix; what cannot be completed stays as it is, in lower case.
    // `useContext`: without a version, ask first which version goes with the calling application.
    // While one fix-up is under way, those that it needs for other texts do without the context,
    // so that it cannot call itself for ever. May ask other processes whether they run.
    void fixUp(bool useContext);

    // What `Specifier(text, true)` becomes, and why: appends a line for each step that was decided
    // to `steps`, whose owner deletes them. For people: the wording is not fixed.
    static Specifier explain(const char* text, SoVector<SoString>& steps);

    // True while the calling thread is inside `fixUp`. The caller's own specifier and its group
    // are then only lower-cased: completing them needs the answer that is being worked out.
    static bool isFixUpUnderWay();

    // Each replaces one part and re-assembles the text in canonical order; an empty argument
    // removes the part. Always true.
    bool setSuffix(const SoString& suffix);
    bool setInstance(const SoString& instance);
    bool setAppName(const SoString& appName);

    // Chooses the registered version that equals `version` as a number; for a negative number the
    // highest one that is not above its absolute value ("-7.99": the last 7.x), for the empty text
    // the one without version. Only registrations in the specifier's locale count (the user's
    // without one), or without locale. False, and nothing changed, when none matches.
    bool setVersion(const SoString& version);

    // Chooses a registered locale for the application and version: `locale` (the user's for the
    // empty text), or none when the application is registered without. False, and nothing changed,
    // when it is not registered so.
    bool setLocale(const SoString& locale);

    // The application's name and `group`, fixed up. True when something came of it.
    bool setGroup(const SoString& group);

    // The group that the application belongs to, empty for none. `detail`, when given, receives
    // the number that the group entry carries, empty for none.
    SoString group(SoString* detail) const;

    // The specifier of `appName` that goes with this application in the group or version
    // `versionOrGroup` (empty: in this application's group); `appName` itself when there is none.
    SoString preferred(const SoString& appName, const SoString& versionOrGroup) const;

    // The path of the application, empty when it is not registered. `key` is for registries that
    // keep several paths an application; ours does not look at it.
    SoString getApplicationPath(const char* key) const;

    // True when the application is registered with a path.
    [[nodiscard]] bool isInstalled() const;

    // True when somebody owns the endpoint, or, without a suffix, the application's background
    // thread; and for the calling application itself. Sends the target a message that asks for
    // nothing, and does not wait for it.
    [[nodiscard]] bool isRunning() const;
    // True when the target says that it is busy. Waits for two seconds at most.
    [[nodiscard]] bool isBusy() const;
    // What the target says of its status, or why it says nothing; see Convey::Thread::ping.
    SoString status() const;

    // Change the registry, if it can be changed through this program: see the connector.
    bool registerApplication(const SoString& path, const SoString* detail, bool flag) const;
    bool unregisterApplication(const SoString* detail) const;
    bool addToGroup(const SoString& group, const SoString* detail) const;
    bool removeFromGroup(const SoString& group, const SoString* detail) const;

private:
    class FixUpScope;

    void assignParts(const CVSpecifierParts& parts);
    void replaceBy(const SoString& text, const SoString& instance, const SoString& suffix);
    bool completeFromContext(const CVSpecifierParts& parts);
};

} // namespace ScObjects
