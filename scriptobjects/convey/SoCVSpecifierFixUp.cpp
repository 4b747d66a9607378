// Which registered application a specifier stands for.
#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoNumber.h"

namespace ScObjects {
namespace {

constexpr double kHighestVersion = 9999.0; // above every version that is given out

// Of the thread, and not handed down: on the way is the registry, whose functions ask for it and
// have their arguments given.
thread_local int fixUpDepth = 0;

double versionNumber(const SoString& specifier) {
    return parseNumber(CVSpecifierParts::of(specifier.view()).version);
}

// The shared context, when it has a registry to ask.
ConveyContext* contextWithConnector() {
    ConveyContext* context = Convey::getSharedContext();
    return context != nullptr && context->getConnector() != nullptr ? context : nullptr;
}

// The registrations of one application, in registry order.
std::vector<SoString> registrationsOf(const SoString& appName) {
    std::vector<SoString> specifiers;
    if (const ConveyConnector* connector = ConveyConnector::get()) {
        // Copies: whether they run is asked later, with no lock held.
        connector->appendSpecifiersOf(appName, specifiers);
    }
    return specifiers;
}

// The registrations among which a specifier without a locale of its own is chosen: one for the
// user's locale (or for all), one for another.
struct LocaleChoice {
    SoString same;
    SoString other;
};

// The user's locale, found out when it first matters: most registrations have none of their own.
class UserLocale {
public:
    const SoString& get() {
        if (locale_.isEmpty()) {
            locale_ = ConveyUtils::getCurrentLocale();
        }
        return locale_;
    }

private:
    SoString locale_;
};

bool servesLocale(const SoString& registration, UserLocale& locale) {
    const std::string_view own = CVSpecifierParts::of(registration.view()).locale;
    return own.empty() || own == locale.get().view();
}

bool servesLocale(const SoString& registration, const SoString& locale) {
    const std::string_view own = CVSpecifierParts::of(registration.view()).locale;
    return own.empty() || own == locale.view();
}

// The last of the highest versions in [lowest, highest), for each of the two candidates as the
// bound rises: a later registration of the same version replaces an earlier one.
LocaleChoice chooseByRange(const std::vector<SoString>& registrations, double lowest,
                           double highest) {
    LocaleChoice choice;
    UserLocale locale;
    for (const SoString& registration : registrations) {
        const double version = versionNumber(registration);
        if (version >= lowest && version < highest) {
            (servesLocale(registration, locale) ? choice.same : choice.other) = registration;
            lowest = version;
        }
    }
    return choice;
}

// The first registration of exactly this version for the locale, else the last for another one.
LocaleChoice chooseExact(const std::vector<SoString>& registrations, double version) {
    LocaleChoice choice;
    UserLocale locale;
    for (const SoString& registration : registrations) {
        if (versionNumber(registration) != version) {
            continue;
        }
        if (servesLocale(registration, locale)) {
            choice.same = registration;
            break;
        }
        choice.other = registration;
    }
    return choice;
}

// Where the fix-up that is under way on this thread is explained, null for nowhere.
constinit thread_local SoVector<SoString>* gExplanation = nullptr;

class ExplanationScope {
public:
    explicit ExplanationScope(SoVector<SoString>& steps) { gExplanation = &steps; }
    ~ExplanationScope() { gExplanation = nullptr; }
    ExplanationScope(const ExplanationScope&) = delete;
    ExplanationScope& operator=(const ExplanationScope&) = delete;
};

SoString orNone(const SoString& text) {
    return text.isEmpty() ? SoString("none") : text;
}

// Notes a step of the fix-up that was asked for, not of those that it needs for other texts.
template <class... Parts>
void note(const Parts&... parts) {
    if (gExplanation != nullptr && fixUpDepth == 1) {
        // Only for who wants an explanation: as a rule no text is put together here.
        auto line = std::make_unique<SoString>();
        (void)(*line << ... << parts);
        gExplanation->append(line.get());
        (void)line.release(); // the list's now
    }
}

// The first registration that runs, with the instance and suffix that were asked for.
SoString runningOf(const std::vector<SoString>& registrations, const CVSpecifierParts& asked) {
    for (const SoString& text : registrations) {
        Convey::Specifier registration(text.c_str(), false);
        if (!asked.instance.empty()) {
            registration.setInstance(SoString(asked.instance));
        }
        if (!asked.suffix.empty()) {
            registration.setSuffix(SoString(asked.suffix));
        }
        // One after the other: a look at one that runs costs it a message.
        if (registration.isRunning()) {
            return registration;
        }
    }
    return SoString();
}

// The registration of the highest version that `asked` allows. One for another locale than the
// user's counts only when its version is higher: a newer application is worth a foreign language.
SoString chooseVersion(const std::vector<SoString>& registrations, std::string_view asked) {
    const double version = parseNumber(asked);
    LocaleChoice choice;
    if (asked.find('.') != std::string_view::npos) {
        note("exactly version ", asked, " is asked for");
        choice = chooseExact(registrations, version);
    } else if (asked.empty()) {
        note("the highest version counts");
        choice = chooseByRange(registrations, 0.0, kHighestVersion);
    } else {
        note("the highest version of ", asked, " counts");
        choice = chooseByRange(registrations, version, version + 1.0);
    }
    note("in the user's locale or without one: ", orNone(choice.same),
         "; in another: ", orNone(choice.other));
    const bool otherIsHigher =
        !choice.other.isEmpty() && versionNumber(choice.other) > versionNumber(choice.same);
    return choice.same.isEmpty() || otherIsHigher ? choice.other : choice.same;
}

// Whether every step of a fix-up leads to the text that is there already: it has a version, so
// nobody is asked who runs, and no other is registered for its application. Most are so, and to
// find it out takes a tenth of the steps. (A suffix is put behind what was chosen once more.)
bool isComplete(std::string_view specifier) {
    const CVSpecifierParts parts = CVSpecifierParts::of(specifier);
    const ConveyConnector* const connector = ConveyConnector::get();
    return gExplanation == nullptr && !parts.appName.empty() && !parts.version.empty() &&
           parts.suffix.empty() &&
           (connector == nullptr || connector->hasNoOther(parts.appName, specifier));
}

// No zero byte, and nothing that any locale has another lower case of.
bool isPlainLower(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
    });
}

} // namespace

bool CVResolution::isWhole(const SoString& name) {
    const std::string_view text = name.view();
    return text.size() <= Convey::Specifier::kMaximumBytes && isPlainLower(text) &&
           isComplete(text);
}

class Convey::Specifier::FixUpScope {
public:
    FixUpScope() { ++fixUpDepth; }
    ~FixUpScope() { --fixUpDepth; }
    FixUpScope(const FixUpScope&) = delete;
    FixUpScope& operator=(const FixUpScope&) = delete;

private:
    const CVFindings findings_; // its steps may ask for one application more than once
};

Convey::Specifier Convey::Specifier::explain(const char* text, SoVector<SoString>& steps) {
    const ExplanationScope scope(steps);
    return Specifier(text, true);
}

bool Convey::Specifier::isFixUpUnderWay() {
    return fixUpDepth > 0;
}

bool Convey::Specifier::setGroup(const SoString& group) {
    SoString text = appName();
    text << '-' << group;
    assign(text.view());
    fixUp(true);
    return !isEmpty();
}

// Step for specifiers without a version: the one that goes with the calling application. True
// when that changed the text.
bool Convey::Specifier::completeFromContext(const CVSpecifierParts& parts) {
    ConveyContext* context = contextWithConnector();
    if (context == nullptr) {
        return false;
    }
    // Not completed: that is what is being worked out.
    const Specifier own(context->getAppSpecifier().c_str(), false);
    if (own.isEmpty()) {
        return false;
    }
    ConveyConnector* connector = context->getConnector();
    // A version is looked for among the numbers of the groups, so a caller that has one needs no
    // group of its own.
    SoString group = own.version();
    if (group.isEmpty()) {
        group = connector->findGroupForSpecifier(own, nullptr);
    }
    if (group.isEmpty()) {
        return false;
    }
    const SoString appName(parts.appName);
    const SoString preferredApp = connector->findPreferredApp(own, appName, group);
    // What changes nothing has decided nothing: the steps behind this one have their turn.
    if (preferredApp.isEmpty() || preferredApp == *this) {
        note("the caller, ", own, ", prefers no version of it by its group or version \"", group,
             "\"");
        return false;
    }
    note("the caller, ", own, ", goes with ", preferredApp, " by its group or version \"", group,
         "\"");
    replaceBy(preferredApp, SoString(parts.instance), SoString(parts.suffix));
    return true;
}

void Convey::Specifier::fixUp(bool useContext) {
    makeLowercase();
    if (isComplete(view())) {
        return;
    }
    // Before this one is counted.
    const bool outermost = fixUpDepth == 0;
    const FixUpScope scope;
    const SoString before = *this; // what the parts below are views into
    const CVSpecifierParts parts = CVSpecifierParts::of(before.view());
    const SoString app(parts.appName);
    const SoString ownInstance(parts.instance);
    const SoString ownSuffix(parts.suffix);
    const std::vector<SoString> registrations = registrationsOf(app);
    note("registrations of \"", app, "\": ", static_cast<uint32_t>(registrations.size()));

    if (!app.isEmpty() && parts.version.empty()) {
        // Asking the context may complete other texts; those do without it, so that this ends.
        if (useContext && outermost && completeFromContext(parts)) {
            return;
        }
        if (const SoString running = runningOf(registrations, parts); !running.isEmpty()) {
            note("no version is asked for, and ", running, " runs");
            assign(running.view());
            return;
        }
        note("no version is asked for, and none of them runs");
    }
    if (!parts.locale.empty() || registrations.empty()) {
        note(registrations.empty() ? "nothing to complete it to: it stays as it is"
                                   : "a locale is asked for: it stays as it is");
        return; // an explicit locale is what it is
    }
    const SoString chosen = chooseVersion(registrations, parts.version);
    if (chosen.isEmpty()) {
        note("none fits: it stays as it is");
        return;
    }
    note("chosen: ", chosen);
    assign(chosen.view());
    if (!ownInstance.isEmpty() && instance() != ownInstance) {
        setInstance(ownInstance);
    }
    if (!ownSuffix.isEmpty()) {
        *this << '#' << ownSuffix;
    }
}

bool Convey::Specifier::setVersion(const SoString& newVersion) {
    const double wanted = newVersion.isEmpty() ? 0.0 : parseNumber(newVersion.c_str());
    const double highest = std::fabs(wanted); // the bound of a negative version
    const SoString app = appName();
    const SoString ownLocale = locale();
    const SoString matching = ownLocale.isEmpty() ? ConveyUtils::getCurrentLocale() : ownLocale;

    bool found = false;
    double best = 0.0;
    SoString chosenVersion;
    SoString chosenLocale;
    for (const SoString& text : registrationsOf(app)) {
        // A registration may itself be incomplete, and then stands for what it is completed to.
        const Specifier registration(text.c_str(), true);
        if (registration.appName() != app || !servesLocale(registration, matching)) {
            continue;
        }
        const double number = versionNumber(registration);
        const bool exact = number == wanted;
        if (exact || (wanted < 0.0 && number <= highest && number > best)) {
            found = true;
            best = number;
            chosenVersion = registration.version();
            chosenLocale = registration.locale();
        }
        if (exact) {
            break;
        }
    }
    if (!found) {
        return false;
    }
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.version = chosenVersion.view();
    parts.locale = chosenLocale.view();
    assignParts(parts);
    return locale() == chosenLocale || setLocale(chosenLocale);
}

bool Convey::Specifier::setLocale(const SoString& newLocale) {
    SoString wanted = newLocale.isEmpty() ? ConveyUtils::getCurrentLocale() : newLocale;
    const SoString app = appName();
    const SoString ownVersion = version();
    for (const SoString& text : registrationsOf(app)) {
        const Specifier registration(text.c_str(), true);
        if (registration.appName() != app || registration.version() != ownVersion ||
            !servesLocale(registration, wanted)) {
            continue;
        }
        wanted = registration.locale(); // empty for an application without locales
        CVSpecifierParts parts = CVSpecifierParts::of(view());
        parts.locale = wanted.view();
        assignParts(parts);
        return true;
    }
    return false;
}

} // namespace ScObjects
