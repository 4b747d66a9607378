#include "scriptobjects/convey/SoCVSpecifier.h"

#include <cmath>
#include <vector>

#include "limits/Limits.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVLauncher.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVPing.h"
#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/core/SoNumber.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {
namespace {

constexpr double kHighestVersion = 9999.0; // above every version that is given out

thread_local int fixUpDepth = 0;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

double versionNumber(const SoString& specifier) {
    return parseNumber(CVSpecifierParts::of(specifier.view()).version);
}

// The shared context, when it has a registry to ask.
ConveyContext* contextWithConnector() {
    ConveyContext* context = Convey::getSharedContext();
    return context != nullptr && context->getConnector() != nullptr ? context : nullptr;
}

ConveyConnector* sharedConnector() {
    ConveyContext* context = Convey::getSharedContext();
    return context != nullptr ? context->getConnector() : nullptr;
}

// The registrations of one application, in registry order.
std::vector<SoString> registrationsOf(const SoString& appName) {
    std::vector<SoString> specifiers;
    if (const ConveyConnector* connector = ConveyConnector::get()) {
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

constexpr int32_t kStatusSeconds = limits::of("ping.status");
constexpr int kSenderNames = limits::of("ping.names");

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
        auto line = std::make_unique<SoString>();
        (void)(*line << ... << parts);
        gExplanation->append(line.get());
        (void)line.release(); // the list's now
    }
}

// Whether the process that was launched for the application still runs.
bool isProcessOf(const Convey::Specifier& specifier) {
    const ConveyConnector* const connector = ConveyConnector::get();
    return connector != nullptr &&
           ConveyUtils::Launcher::isProcessRunning(connector->getProcessID(specifier));
}

// Sends a message that nobody answers to see whether somebody owns the name.
bool probe(const SoString& own, const SoString& target, const char* type, uint32_t serial) {
    if (own == target) {
        return true;
    }
    const InterAppStream* const stream = InterAppStream::get();
    if (stream == nullptr || stream->canOpen(target, false)) {
        return false;
    }
    // An answer, if there is one all the same, must not reach anybody.
    SoString sender;
    for (int attempt = 0; attempt <= kSenderNames; ++attempt) {
        sender = own;
        if (attempt > 0) {
            sender << "_" << newPingNumber();
        }
        sender << "#" << type;
        if (stream->canOpen(sender, false)) {
            break;
        }
    }
    Convey::Message message;
    message.setTarget(target);
    message.setSender(sender);
    message.setType(type);
    message.setSerialNumber(serial);
    SoString text;
    if (!stream->isGood() || !message.writeToString(text)) {
        return false;
    }
    // An owner whose queue is full is there all the same, and not worth waiting for.
    return stream->send(target, text, 0) || !stream->canOpen(target, false);
}

} // namespace

CVSpecifierParts CVSpecifierParts::of(std::string_view text) {
    CVSpecifierParts parts;
    const size_t hash = text.find('#');
    if (hash != std::string_view::npos) {
        parts.suffix = text.substr(hash + 1);
        text = text.substr(0, hash);
    }
    const size_t dash = text.find('-');
    std::string_view name = text.substr(0, dash);
    const size_t underscore = name.find('_');
    if (underscore != std::string_view::npos) {
        parts.instance = name.substr(underscore + 1);
        name = name.substr(0, underscore);
    }
    parts.appName = name;
    if (dash == std::string_view::npos) {
        return parts;
    }
    std::string_view fields = text.substr(dash + 1);
    if (!fields.empty() && isDigit(fields.front())) {
        const size_t second = fields.find('-');
        parts.version = fields.substr(0, second);
        fields = second == std::string_view::npos ? std::string_view() : fields.substr(second + 1);
    }
    parts.locale = fields;
    return parts;
}

class Convey::Specifier::FixUpScope {
public:
    FixUpScope() { ++fixUpDepth; }
    ~FixUpScope() { --fixUpDepth; }
    FixUpScope(const FixUpScope&) = delete;
    FixUpScope& operator=(const FixUpScope&) = delete;
};

Convey::Specifier::Specifier(const char* text, bool fixUpToo) {
    if (text == nullptr) {
        return;
    }
    const size_t bytes = std::string_view(text).size();
    if (bytes > kMaximumBytes) {
        return;
    }
    assign(text, static_cast<int32_t>(bytes));
    if (fixUpToo) {
        fixUp(true);
    } else {
        makeLowercase();
    }
}

SoString Convey::Specifier::appName() const {
    return SoString(CVSpecifierParts::of(view()).appName);
}

SoString Convey::Specifier::instance() const {
    return SoString(CVSpecifierParts::of(view()).instance);
}

SoString Convey::Specifier::version() const {
    return SoString(CVSpecifierParts::of(view()).version);
}

SoString Convey::Specifier::locale() const {
    return SoString(CVSpecifierParts::of(view()).locale);
}

SoString Convey::Specifier::suffix() const {
    return SoString(CVSpecifierParts::of(view()).suffix);
}

// `parts` may be views into this text, so the new one is built beside it.
void Convey::Specifier::assignParts(const CVSpecifierParts& parts) {
    SoString text(parts.appName);
    const auto add = [&text](char mark, std::string_view part) {
        if (!part.empty()) {
            text << mark;
            text.append(part.data(), static_cast<int32_t>(part.size()));
        }
    };
    add('_', parts.instance);
    add('-', parts.version);
    add('-', parts.locale);
    add('#', parts.suffix);
    assign(text.c_str(), text.length());
}

bool Convey::Specifier::setSuffix(const SoString& suffix) {
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.suffix = suffix.view();
    assignParts(parts);
    return true;
}

bool Convey::Specifier::setInstance(const SoString& instance) {
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.instance = instance.view();
    assignParts(parts);
    return true;
}

bool Convey::Specifier::setAppName(const SoString& appName) {
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.appName = appName.view();
    assignParts(parts);
    return true;
}

bool Convey::Specifier::setGroup(const SoString& group) {
    SoString text = appName();
    text << '-' << group;
    assign(text.c_str(), text.length());
    fixUp(true);
    return !isEmpty();
}

Convey::Specifier Convey::Specifier::explain(const char* text, SoVector<SoString>& steps) {
    const ExplanationScope scope(steps);
    return Specifier(text, true);
}

bool Convey::Specifier::isFixUpUnderWay() {
    return fixUpDepth > 0;
}

void Convey::Specifier::replaceBy(const SoString& text, const SoString& instance,
                                  const SoString& suffix) {
    assign(text.c_str(), text.length());
    if (!suffix.isEmpty()) {
        setSuffix(suffix);
    }
    if (!instance.isEmpty()) {
        setInstance(instance);
    }
}

// Step for specifiers without a version: the one that goes with the calling application. True
// when that changed the text.
bool Convey::Specifier::completeFromContext(const CVSpecifierParts& parts) {
    ConveyContext* context = contextWithConnector();
    if (context == nullptr) {
        return false;
    }
    const Specifier own(context->getAppSpecifier().c_str(), false);
    if (own.isEmpty()) {
        return false;
    }
    ConveyConnector* connector = context->getConnector();
    SoString group = own.version();
    if (group.isEmpty()) {
        group = connector->findGroupForSpecifier(own, nullptr);
    }
    if (group.isEmpty()) {
        return false;
    }
    const SoString appName(parts.appName);
    const SoString preferredApp = connector->findPreferredApp(own, appName, group);
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
        if (useContext && outermost && completeFromContext(parts)) {
            return;
        }
        for (const SoString& text : registrations) {
            Specifier registration(text.c_str(), false);
            if (!ownInstance.isEmpty()) {
                registration.setInstance(ownInstance);
            }
            if (!ownSuffix.isEmpty()) {
                registration.setSuffix(ownSuffix);
            }
            if (registration.isRunning()) {
                note("no version is asked for, and ", registration, " runs");
                assign(registration.c_str(), registration.length());
                return;
            }
        }
        note("no version is asked for, and none of them runs");
    }
    if (!parts.locale.empty() || registrations.empty()) {
        note(registrations.empty() ? "nothing to complete it to: it stays as it is"
                                   : "a locale is asked for: it stays as it is");
        return; // an explicit locale is what it is
    }
    const double version = parseNumber(parts.version);
    LocaleChoice choice;
    if (parts.version.find('.') != std::string_view::npos) {
        note("exactly version ", parts.version, " is asked for");
        choice = chooseExact(registrations, version);
    } else if (parts.version.empty()) {
        note("the highest version counts");
        choice = chooseByRange(registrations, 0.0, kHighestVersion);
    } else {
        note("the highest version of ", parts.version, " counts");
        choice = chooseByRange(registrations, version, version + 1.0);
    }
    note("in the user's locale or without one: ", orNone(choice.same),
         "; in another: ", orNone(choice.other));
    if (!choice.same.isEmpty() && !choice.other.isEmpty() &&
        versionNumber(choice.other) > versionNumber(choice.same)) {
        choice.same = SoString();
    }
    const SoString& chosen = choice.same.isEmpty() ? choice.other : choice.same;
    if (chosen.isEmpty()) {
        note("none fits: it stays as it is");
        return;
    }
    note("chosen: ", chosen);
    assign(chosen.c_str(), chosen.length());
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

SoString Convey::Specifier::group(SoString* detail) const {
    if (detail != nullptr) {
        detail->shrink(0);
    }
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr ? connector->findGroupForSpecifier(*this, detail) : SoString();
}

SoString Convey::Specifier::preferred(const SoString& appName,
                                      const SoString& versionOrGroup) const {
    ConveyConnector* connector = sharedConnector();
    if (connector == nullptr) {
        return *this;
    }
    const SoString group = versionOrGroup.isEmpty()
                               ? connector->findGroupForSpecifier(*this, nullptr)
                               : versionOrGroup;
    SoString result;
    if (!group.isEmpty()) {
        result = connector->findPreferredApp(*this, appName, group);
    }
    return result.isEmpty() ? appName : result;
}

SoString Convey::Specifier::getApplicationPath(const char* key) const {
    const ConveyConnector* connector = ConveyConnector::get();
    return connector != nullptr ? connector->getApplicationPath(*this, key) : SoString();
}

bool Convey::Specifier::isInstalled() const {
    return !isEmpty() && !getApplicationPath(c_str()).isEmpty();
}

bool Convey::Specifier::isRunning() const {
    if (isEmpty()) {
        return false;
    }
    SoString own;
    uint32_t serial = 0;
    ConveyContext* const context =
        ConveySetupThread::isSetupThreadRunning() ? nullptr : ConveyContext::getCurrentContext();
    if (context != nullptr) {
        own = context->getAppSpecifier();
        serial = context->getNextSerialNumber();
    } else {
        own = "Unknown";
        own << ConveyUtils::getUTCTimeMilliSeconds();
    }
    if (own == *this) {
        return true;
    }
    return (suffix().isEmpty() &&
            (isProcessOf(*this) || probe(own, ConveyThread::createThreadSpecifier(*this),
                                         ConveyThread::CV_PING, serial))) ||
           probe(own, *this, "Tessaly", serial);
}

bool Convey::Specifier::isBusy() const {
    const InterAppStream* const stream = InterAppStream::get();
    return !isEmpty() && stream != nullptr && stream->isGood() &&
           ConveyUtils::ping(*this, true, ConveyThread::CV_STATUS, newPingNumber(), kStatusSeconds,
                             nullptr, nullptr) == ConveyThread::CV_BUSY;
}

SoString Convey::Specifier::status() const {
    return Thread::ping(c_str(), ConveyThread::CV_STATUS, kStatusSeconds, nullptr);
}

bool Convey::Specifier::registerApplication(const SoString& path, const SoString* detail,
                                            bool flag) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->registerApplication(*this, path, detail, flag);
}

bool Convey::Specifier::unregisterApplication(const SoString* detail) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->unregisterApplication(*this, detail);
}

bool Convey::Specifier::addToGroup(const SoString& group, const SoString* detail) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->addToGroup(*this, group, detail);
}

bool Convey::Specifier::removeFromGroup(const SoString& group, const SoString* detail) const {
    ConveyConnector* connector = sharedConnector();
    return connector != nullptr && connector->removeFromGroup(*this, group, detail);
}

} // namespace ScObjects
