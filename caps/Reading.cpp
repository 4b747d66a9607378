#include "caps/Reading.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "caps/RegistryLayout.h"
#include "limits/Limits.h"

namespace caps {
namespace {

constexpr size_t kMaximumSpecifierBytes = limits::of("specifier.length");
constexpr uint32_t kMaximumCodes = limits::of("registry.codes");
constexpr size_t kLaunchPathBytes = limits::of("registry.launch-path");
constexpr int kConfigPathDepth = limits::of("registry.config-depth");
constexpr double kHighestVersion = 9999.0; // above every version that is given out
constexpr std::string_view kAnyMinorVersion = ".*";
constexpr const char* kLister = "kivra-7.0"; // the listing tool is an application itself
constexpr std::string_view kListersApp = "kivra";
constexpr const char* kConfigPathKey = "PYLConfigPath";

// The number that the text begins with, 0 for none; the tool never leaves the C locale.
double number(std::string_view text) {
    return std::strtod(std::string(text).c_str(), nullptr);
}

struct Parts {
    std::string_view appName;
    std::string_view instance;
    std::string_view version;
    std::string_view locale;
    std::string_view suffix;

    static Parts of(std::string_view text) {
        Parts parts;
        if (const size_t hash = text.find('#'); hash != std::string_view::npos) {
            parts.suffix = text.substr(hash + 1);
            text = text.substr(0, hash);
        }
        const size_t dash = text.find('-');
        parts.appName = text.substr(0, dash);
        if (const size_t mark = parts.appName.find('_'); mark != std::string_view::npos) {
            parts.instance = parts.appName.substr(mark + 1);
            parts.appName = parts.appName.substr(0, mark);
        }
        if (dash == std::string_view::npos) {
            return parts;
        }
        std::string_view rest = text.substr(dash + 1);
        if (!rest.empty() && rest.front() >= '0' && rest.front() <= '9') {
            const size_t second = rest.find('-');
            parts.version = rest.substr(0, second);
            rest = second == std::string_view::npos ? std::string_view() : rest.substr(second + 1);
        }
        parts.locale = rest;
        return parts;
    }

    std::string text() const {
        std::string result(appName);
        const auto add = [&result](char mark, std::string_view part) {
            if (!part.empty()) {
                result += mark;
                result += part;
            }
        };
        add('_', instance);
        add('-', version);
        add('-', locale);
        add('#', suffix);
        return result;
    }
};

// As the layer takes a text for a specifier: in lower case, none when it is too long.
std::string specifierOf(std::string_view text) {
    return text.size() > kMaximumSpecifierBytes ? std::string() : lowerCase(text);
}

double versionNumber(std::string_view specifier) {
    return number(Parts::of(specifier).version);
}

bool isMakersAddress(std::string_view text) {
    constexpr std::string_view kScheme = "https://";
    if (!text.starts_with(kScheme)) {
        return false;
    }
    text.remove_prefix(kScheme.size());
    const std::string_view host = text.substr(0, text.find('/'));
    // What passes is opened by a browser: with '@' or ':' before it the end of the text would be no
    // end of a host's name.
    return host.ends_with(".ovrel.example") &&
           host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                  "0123456789.-") == std::string_view::npos;
}

// The application bundle that a launch path leads into, else the launch path.
std::string bundleOf(const std::string& launchPath) {
    const size_t found = lowerCase(launchPath).find(".app/contents/macos");
    return found == std::string::npos
               ? launchPath
               : launchPath.substr(0, found + std::string_view(".app").size());
}

// Where the application of a configuration file lies.
std::string_view applicationFolder(std::string_view configPath) {
    if (configPath.find('.') == std::string_view::npos) {
        return configPath; // a folder already
    }
    for (int i = 0; i < kConfigPathDepth; ++i) {
        const size_t separator = configPath.rfind('/');
        if (separator == std::string_view::npos) {
            return i == 0 ? std::string_view() : configPath;
        }
        configPath = configPath.substr(0, separator);
    }
    return configPath;
}

const std::string* valueOf(const Payload& payload, int32_t domain, std::string_view key) {
    const auto found =
        std::find_if(payload.data.begin(), payload.data.end(), [&](const PayloadValue& one) {
            return one.domain == domain && one.key == key;
        });
    return found == payload.data.end() ? nullptr : &found->value;
}

} // namespace

// What the keys of a registration say, each the last of its kind.
struct Reading::Fields {
    std::string specifier;
    std::string path;
    std::string redirect;
    std::string basename;
    std::string extension = "app";
    double version = 2.0;
    bool flags[5] = {false, false, true, true, false};
    std::string others[6];

    void take(const KeyValue& entry) {
        static constexpr std::string_view kFlags[] = {"AllowMultipleInstances", "IsShellTool",
                                                      "MessageAuthentication", "MessageDigest",
                                                      "SupportsDBGK"};
        static constexpr std::string_view kOthers[] = {"WindowClassName", "DisplayName",
                                                       "BundleIdentifier", "OMVDictionary",
                                                       "DeveloperInstallPath"};
        if (entry.key == kSpecifierKey || entry.key == "ProductCode") {
            specifier = lowerCase(entry.value);
        } else if (entry.key == kPathKey) {
            path = entry.value;
        } else if (entry.key == kRedirectKey) {
            redirect = entry.value;
        } else if (entry.key == "ExecutableExtensionMac") {
            extension = entry.value;
        } else if (entry.key == kVersionKey) {
            version = number(entry.value);
        } else if (entry.key == kBasenameKey) {
            basename = entry.value;
            if (path.empty() && isMakersAddress(entry.value)) {
                path = entry.value;
            }
        } else if (const auto* flag = std::find(std::begin(kFlags), std::end(kFlags), entry.key);
                   flag != std::end(kFlags)) {
            flags[flag - std::begin(kFlags)] = entry.value == "true";
        } else if (const auto* other = std::find(std::begin(kOthers), std::end(kOthers), entry.key);
                   other != std::end(kOthers)) {
            others[other - std::begin(kOthers)] = entry.value;
        }
    }
    bool isShellTool() const { return flags[1]; }

    // The same for two registrations that are the same record.
    std::string identity() const {
        std::string text;
        // Each behind its length, so that no two rows of texts make the same whole.
        const auto add = [&text](std::string_view part) {
            text += std::to_string(part.size()) + ":";
            text += part;
        };
        add(specifier);
        add(path);
        add(redirect);
        add(basename);
        add(extension);
        for (const std::string& other : others) {
            add(other);
        }
        for (const bool flag : flags) {
            text += flag ? '1' : '0';
        }
        // Zero and negative zero are equal and have other bytes.
        const double unsignedZero = version + 0.0;
        text.append(reinterpret_cast<const char*>(&unsignedZero), sizeof unsignedZero);
        return text;
    }
};

Reading::Reading(const Contents& contents, std::string locale)
    : contents_(contents), locale_(std::move(locale)) {
    // In this order: an application without a path takes it from a payload, a redirect may lead to
    // one that is registered later, and what the listing tool runs as depends on all that are
    // registered.
    readJoins();
    for (const Subdomain& subdomain : contents.subdomains) {
        if (isApplicationSubdomain(subdomain) ||
            (subdomain.domain == kRegistryDomain && subdomain.name == kAppPrefix)) {
            readApplication(subdomain);
        }
    }
    resolveRedirects();
    for (const Record& record : records_) {
        const std::string text = specifierOf(record.specifier);
        byApp_[std::string(Parts::of(text).appName)].push_back(text);
    }
    const std::string lister = completed(kLister, true);
    Parts own = Parts::of(lister);
    own.suffix = {}; // an application runs without one
    lister_ = own.text();
    readGroups();
}

// Those that the listing tool's application belongs to: nobody asks for others here.
void Reading::readGroups() {
    const std::string_view version = Parts::of(lister_).version;
    for (const Subdomain& subdomain : contents_.subdomains) {
        if (subdomain.domain != kRegistryDomain || subdomain.name != kGroupsSubdomain) {
            continue;
        }
        for (const KeyValue& entry : subdomain.data) {
            if (!entry.key.starts_with(kGroupKeyPrefix) ||
                entry.value.size() <= kGroupPrefix.size()) {
                continue;
            }
            const std::string text = lowerCase(entry.value.substr(kGroupPrefix.size()));
            const size_t first = text.find('/');
            const size_t last = text.rfind('/');
            if (first != last &&
                (text.substr(0, first) == version ||
                 number(text.substr(first + 1, last - first - 1)) == number(version))) {
                const std::string pattern = text.substr(last + 1);
                inGroup_[std::string(Parts::of(pattern).appName)].push_back(pattern);
            }
        }
    }
}

Reading::~Reading() = default;

void Reading::readJoins() {
    std::unordered_map<std::string_view, const Payload*> payloads;
    for (const Product& product : contents_.products) {
        for (const Payload& payload : product.payloads) {
            payloads.try_emplace(payload.code, &payload);
        }
    }
    for (const Subdomain& subdomain : contents_.subdomains) {
        if (subdomain.domain != kRegistryDomain || !subdomain.name.starts_with('{')) {
            continue;
        }
        Join join;
        const auto found = payloads.find(subdomain.name);
        const Payload* const payload = found == payloads.end() ? nullptr : found->second;
        const auto take = [&join](const std::string* path) {
            if (join.configPath.empty() && path != nullptr) {
                join.configPath = *path;
            }
        };
        if (payload != nullptr) {
            if (payload->launchPath.size() < kLaunchPathBytes) {
                join.launchPath = payload->launchPath;
            }
            take(valueOf(*payload, 4, kConfigPathKey));
        }
        take(caps::find(subdomain.data, kConfigPathKey));
        if (payload != nullptr) {
            take(valueOf(*payload, 0, kConfigPathKey));
        }
        if (join.launchPath.empty() && join.configPath.empty()) {
            continue;
        }
        std::unordered_map<std::string_view, const std::string*> codes;
        for (const KeyValue& entry : subdomain.data) {
            if (entry.key.starts_with(kConveyCodeKey)) {
                codes.emplace(entry.key, &entry.value);
            }
        }
        std::string key(kConveyCodeKey);
        // The layer asks for one number after the other, so what stands behind a gap is never
        // found.
        for (uint32_t n = 1; n <= kMaximumCodes; ++n) {
            const auto code = codes.find(key);
            if (code == codes.end() || code->second->empty()) {
                break;
            }
            joins_[*code->second].push_back(join);
            key = std::string(kConveyCodeKey) + std::to_string(n);
        }
    }
}

void Reading::readApplication(const Subdomain& subdomain) {
    Fields fields;
    for (const KeyValue& entry : subdomain.data) {
        fields.take(entry);
    }
    const std::string_view name = std::string_view(subdomain.name).substr(kAppPrefix.size());
    if (fields.specifier.empty() && name.size() > 1) {
        fields.specifier = name;
    }
    if (fields.specifier.empty()) {
        ignored_.push_back({&subdomain, name.empty() ? "has no specifier"
                                                     : "has one letter and no \"Specifier\""});
        return;
    }
    if (fields.others[0].empty()) { // the window class
        fields.others[0] = Parts::of(specifierOf(fields.specifier)).appName;
    }
    if (fields.path.empty()) {
        fields.path = pathFromPayloads(fields);
    }
    if (fields.path.empty() && fields.redirect.empty()) {
        ignored_.push_back(
            {&subdomain, "has no path and no redirect, and no payload gives it one"});
        return;
    }
    // One whose version is no number is like no other, itself included.
    if (!std::isnan(fields.version) && !identities_.insert(fields.identity()).second) {
        ignored_.push_back({&subdomain, "says what another registration says already"});
        return;
    }
    bySpecifier_.try_emplace(fields.specifier, records_.size());
    records_.push_back({&subdomain, fields.specifier, fields.path, fields.redirect});
    fields_.push_back(std::move(fields));
}

std::string Reading::pathFromPayloads(const Fields& fields) const {
    const auto found = joins_.find(subdomainOf(fields.specifier));
    if (found == joins_.end()) {
        return {};
    }
    for (const Join& join : found->second) {
        if (!join.launchPath.empty()) {
            return bundleOf(join.launchPath);
        }
        if (!fields.basename.empty()) {
            std::string path(applicationFolder(join.configPath));
            path += "/" + fields.basename;
            return path + (!fields.extension.empty() ? "." + fields.extension
                           : fields.isShellTool()    ? ".term"
                                                     : ".app");
        }
    }
    return {};
}

// The end of each chain keeps its own path, so each record is looked at once.
void Reading::resolveRedirects() {
    constexpr size_t kNone = std::numeric_limits<size_t>::max();
    constexpr size_t kCircle = kNone - 1;
    constexpr size_t kUnknown = kNone - 2;
    std::vector<size_t> ends(records_.size(), kUnknown); // kNone: there is no target
    std::vector<size_t> chain;
    std::vector<bool> inChain(records_.size(), false);
    for (size_t i = 0; i < records_.size(); ++i) {
        // Without recursion: a chain may have as many members as there are registrations.
        size_t current = i;
        size_t end = kUnknown;
        chain.clear();
        while (end == kUnknown) {
            if (inChain[current]) {
                end = kCircle;
                break;
            }
            if (ends[current] != kUnknown) {
                end = ends[current] == kNone ? current : ends[current];
                break;
            }
            const Record& record = records_[current];
            const Record* target = record.redirect.empty() ? nullptr : find(record.redirect);
            if (target == nullptr) {
                ends[current] = kNone;
                end = current;
                break;
            }
            inChain[current] = true;
            chain.push_back(current);
            current = static_cast<size_t>(target - records_.data());
        }
        for (const size_t member : chain) {
            ends[member] = end;
            inChain[member] = false;
        }
    }
    for (size_t i = 0; i < records_.size(); ++i) {
        if (ends[i] == kCircle) {
            records_[i].loops = true;
        } else if (ends[i] != kNone) {
            records_[i].path = fields_[ends[i]].path;
        }
    }
}

const Reading::Record* Reading::exact(std::string_view specifier) const {
    const auto found = bySpecifier_.find(std::string(specifier));
    return found == bySpecifier_.end() ? nullptr : &records_[found->second];
}

const Reading::Record* Reading::find(std::string_view specifier) const {
    if (const Record* found = exact(specifier)) {
        return found;
    }
    const std::string text = specifierOf(specifier);
    Parts parts = Parts::of(text);
    parts.instance = parts.suffix = {};
    const std::string bare = parts.text();
    return bare.empty() || bare == specifier ? nullptr : exact(bare);
}

const Reading::Record* Reading::shown(const Record& record) const {
    const std::string full = specifierOf(completed(specifierOf(record.specifier), true));
    if (full.empty()) {
        return nullptr;
    }
    Parts parts = Parts::of(full);
    if (parts.suffix.empty()) {
        return find(full);
    }
    parts.suffix = {};
    const std::string bare = parts.text();
    return bare.empty() ? nullptr : find(bare);
}

// The highest version not above `limit` of an application, as a specifier.
std::optional<std::string> Reading::highest(std::string_view appName, double limit,
                                            std::string_view locale) const {
    const Parts* best = nullptr;
    Parts bestParts;
    double bestNumber = 0.0;
    std::string bestText;
    for (const std::string& registration : registrationsOf(appName)) {
        const std::string text = completed(registration, false);
        const Parts parts = Parts::of(text);
        if (parts.appName != appName) {
            continue;
        }
        const double version = number(parts.version);
        if ((parts.locale.empty() || parts.locale == locale) && version <= limit &&
            version > bestNumber) {
            bestText = text;
            bestParts = Parts::of(bestText);
            bestNumber = version;
            best = &bestParts;
        }
    }
    if (best == nullptr) {
        return std::nullopt;
    }
    Parts result;
    result.appName = appName;
    result.version = bestParts.version;
    result.locale = bestParts.locale;
    return result.text();
}

// What goes with the listing tool when an application is named without a version.
std::optional<std::string> Reading::preferred(std::string_view appName) const {
    std::string candidate(appName);
    const double listers = versionNumber(lister_);
    if (const auto patterns = inGroup_.find(candidate); patterns != inGroup_.end()) {
        const bool own = appName == kListersApp;
        for (auto pattern = patterns->second.rbegin(); pattern != patterns->second.rend();
             ++pattern) {
            const double version = versionNumber(*pattern);
            if (!own || (version >= listers && version < listers + 1.0)) {
                candidate = *pattern;
                break;
            }
        }
    }
    const std::string text = specifierOf(candidate);
    Parts parts = Parts::of(text);
    Parts bare = parts;
    bare.suffix = {};
    const Record* const found = find(parts.suffix.empty() ? text : bare.text());
    if (!text.empty() && found != nullptr && !found->path.empty()) {
        return text;
    }
    std::string_view major = parts.version;
    if (major.size() <= kAnyMinorVersion.size() || !major.ends_with(kAnyMinorVersion)) {
        return std::nullopt;
    }
    major.remove_suffix(kAnyMinorVersion.size());
    const double limit = number(std::string(major) + ".99");
    std::optional<std::string> result =
        highest(parts.appName, limit, parts.locale.empty() ? locale_ : parts.locale);
    if (!result) {
        return std::nullopt;
    }
    // One of the same major version that runs is preferred.
    const std::string_view version = Parts::of(*result).version;
    for (const std::string& registration : registrationsOf(parts.appName)) {
        const std::string_view its = Parts::of(registration).version;
        if (registration != *result && isLister(registration) &&
            its.substr(0, its.find('.')) == version.substr(0, version.find('.'))) {
            return registration;
        }
    }
    return result;
}

// The only application that runs is the one who asks.
bool Reading::isLister(std::string_view specifier) const {
    const Parts parts = Parts::of(specifier);
    return parts.suffix.empty() && parts.text() == lister_;
}

const std::vector<std::string>& Reading::registrationsOf(std::string_view appName) const {
    static const std::vector<std::string> kNobody;
    const auto found = byApp_.find(std::string(appName));
    return found == byApp_.end() ? kNobody : found->second;
}

// The registration of the highest version that `asked` allows, null for none. One in another locale
// counts when its version is higher: a newer application is worth a foreign language.
const std::string* Reading::chooseVersion(const std::vector<std::string>& registrations,
                                          std::string_view asked) const {
    const double version = number(asked);
    const bool exactly = asked.find('.') != std::string_view::npos;
    double lowest = asked.empty() ? 0.0 : version;
    const double limit = asked.empty() ? kHighestVersion : version + 1.0;
    const std::string* same = nullptr;
    const std::string* other = nullptr;
    for (const std::string& registration : registrations) {
        const Parts its = Parts::of(registration);
        const double itsVersion = number(its.version);
        const bool serves = its.locale.empty() || its.locale == locale_;
        if (exactly ? itsVersion == version : itsVersion >= lowest && itsVersion < limit) {
            (serves ? same : other) = &registration;
            lowest = itsVersion;
            if (exactly && serves) {
                break;
            }
        }
    }
    if (same != nullptr && other != nullptr && versionNumber(*other) > versionNumber(*same)) {
        same = nullptr;
    }
    return same != nullptr ? same : other;
}

// The specifier that the layer takes an incomplete one for.
std::string Reading::completed(const std::string& text, bool withCaller) const {
    const Parts parts = Parts::of(text);
    const std::vector<std::string>& registrations = registrationsOf(parts.appName);
    const auto withOwn = [&parts](const std::string& registration) {
        if (parts.instance.empty() && parts.suffix.empty()) {
            return registration; // as it stands, an empty suffix too
        }
        Parts own = Parts::of(registration);
        own.instance = parts.instance.empty() ? own.instance : parts.instance;
        own.suffix = parts.suffix.empty() ? own.suffix : parts.suffix;
        return own.text();
    };
    if (!parts.appName.empty() && parts.version.empty()) {
        const std::optional<std::string> goesWithUs =
            withCaller ? preferred(parts.appName) : std::nullopt;
        if (goesWithUs && !goesWithUs->empty() && *goesWithUs != text) {
            return withOwn(*goesWithUs);
        }
        for (const std::string& registration : registrations) {
            std::string own = withOwn(registration);
            if (isLister(own)) {
                return own;
            }
        }
    }
    if (!parts.locale.empty() || registrations.empty()) {
        return text;
    }
    const std::string* const chosen = chooseVersion(registrations, parts.version);
    if (chosen == nullptr) {
        return text;
    }
    Parts result = Parts::of(*chosen);
    std::string completedText = *chosen;
    if (!parts.instance.empty() && result.instance != parts.instance) {
        result.instance = parts.instance;
        completedText = result.text();
    }
    if (!parts.suffix.empty()) {
        completedText += "#" + std::string(parts.suffix);
    }
    return completedText;
}

} // namespace caps
