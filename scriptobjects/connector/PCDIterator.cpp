#include "scriptobjects/connector/PCDIterator.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include "limits/Limits.h"
#include "scriptobjects/connector/PCDWrapper.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/connector/SoCVConnectorAppInfo.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoNumber.h"

namespace ScObjects {
namespace {

constexpr std::string_view kTrue = "true"; // any other spelling is false
constexpr std::string_view kWebScheme = "https://";
constexpr std::string_view kMakerDomainSuffix = ".ovrel.example";
constexpr std::string_view kProgramFolderInBundle = ".app/contents/macos"; // in lower case
constexpr std::string_view kBundleExtension = ".app";
constexpr std::string_view kShellToolExtension = ".term";
constexpr const char* kConfigPathKey = "PYLConfigPath";
constexpr int32_t kRegistryDomain = 1;
constexpr int32_t kConfigPathDomain = 4;
constexpr int32_t kGeneralDomain = 0;
// The configuration file lies this many folders below the folder of its application.
constexpr int kConfigPathDepth = limits::of("registry.config-depth");
// A product with more names for itself is a damaged or hostile database.
constexpr uint32_t kMaximumConveyCodes = limits::of("registry.codes");

constexpr std::string_view kAppPrefix = ConveyConnector::kAppSubdomainPrefix;
constexpr std::string_view kGroupPrefix = ConveyConnector::kGroupSubdomainPrefix;

// The subdomain of the groups itself.
bool isGroupSubdomain(std::string_view subdomain) {
    return subdomain == kGroupPrefix.substr(0, kGroupPrefix.size() - 1);
}

// The subdomain of the groups or one beneath it.
bool isUnderGroups(std::string_view subdomain) {
    return subdomain.starts_with(kGroupPrefix) || isGroupSubdomain(subdomain);
}

enum class Kind { text, lowerCaseText, decimal, boolean, basename };

// How a key of the registry fills a record.
struct KeyRule {
    std::string_view key;
    Kind kind;
    SoString CVConnectorAppInfo::*text;
    bool CVConnectorAppInfo::*flag;
};

constexpr KeyRule textRule(std::string_view key, SoString CVConnectorAppInfo::*field) {
    return {key, Kind::text, field, nullptr};
}

constexpr KeyRule flagRule(std::string_view key, bool CVConnectorAppInfo::*field) {
    return {key, Kind::boolean, nullptr, field};
}

const KeyRule* findRule(std::string_view key) {
    using Info = CVConnectorAppInfo;
    using Keys = ConveyConnector;
    static constexpr KeyRule rules[] = {
        {Keys::kGuidKey, Kind::lowerCaseText, &Info::specifier, nullptr},
        {Keys::kProductCodeKey, Kind::lowerCaseText, &Info::specifier, nullptr},
        textRule(Keys::kLocationKey, &Info::path),
        textRule(Keys::kWinClassNameKey, &Info::windowClassName),
        textRule(Keys::kDisplayNameKey, &Info::displayName),
        textRule(Keys::kBundleIdentifierKey, &Info::bundleIdentifier),
        {Keys::kConveyVersionKey, Kind::decimal, nullptr, nullptr},
        flagRule(Keys::kAllowMultipleInstancesKey, &Info::allowMultipleInstances),
        flagRule(Keys::kIsShellToolKey, &Info::isShellTool),
        flagRule(Keys::kMessageAuthenticationKey, &Info::messageAuthentication),
        flagRule(Keys::kMessageDigestKey, &Info::messageDigest),
        flagRule(Keys::kSupportsDbgkKey, &Info::supportsDBGK),
        {Keys::kExecutableBasenameKey, Kind::basename, &Info::executableBasename, nullptr},
        textRule(Keys::kExecutableExtensionKey, &Info::executableExtension),
        textRule(Keys::kOMVDictionaryKey, &Info::omvDictionary),
        textRule(Keys::kDeveloperInstallPathKey, &Info::developerInstallPath),
        textRule(Keys::kRedirectToKey, &Info::redirectTo),
    };
    const auto* rule = std::find_if(std::begin(rules), std::end(rules),
                                    [key](const KeyRule& r) { return r.key == key; });
    return rule == std::end(rules) ? nullptr : rule;
}

// An address of the maker's own: anything but the characters of a host name would end the host
// earlier for whoever opens it than the next '/' does for us.
bool isMakersAddress(std::string_view text) {
    if (!text.starts_with(kWebScheme)) {
        return false;
    }
    text.remove_prefix(kWebScheme.size());
    const std::string_view host = text.substr(0, text.find('/'));
    return host.ends_with(kMakerDomainSuffix) && std::all_of(host.begin(), host.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '-';
           });
}

// The application bundle that a launch path leads into, else the launch path.
SoString bundleOf(const SoString& launchPath) {
    // Changing case changes no lengths: a place in it is the same place in the path as it is
    // written.
    const SoString lower = launchPath.lowercase();
    const size_t found = lower.view().find(kProgramFolderInBundle);
    if (found == std::string_view::npos) {
        return launchPath;
    }
    return SoString(launchPath.c_str(), static_cast<int32_t>(found + kBundleExtension.size()));
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

SoString readConfigPath(const PCDWrapper& wrapper, const char* payload) {
    const char* value = nullptr;
    // An empty value is none: the next place may have one.
    if (wrapper.capsGetPayloadData(payload, kConfigPathDomain, kConfigPathKey, value) ==
            PCDWrapper::kSuccess &&
        value != nullptr && *value != '\0') {
        return SoString(value);
    }
    value = nullptr;
    if (wrapper.pcdGetDomainData(kRegistryDomain, payload, kConfigPathKey, value) ==
            PCDWrapper::kSuccess &&
        value != nullptr && *value != '\0') {
        return SoString(value);
    }
    value = nullptr;
    if (wrapper.capsGetPayloadData(payload, kGeneralDomain, kConfigPathKey, value) ==
        PCDWrapper::kSuccess) {
        return SoString(value);
    }
    return SoString();
}

} // namespace

// The keys of the subdomain that a walk is in, the one that is called back for above all.
class PCDIterator::Keys {
public:
    // The next subdomain's, as the library gives them; `values` is null when it does not.
    void start(const SoString& subdomain, const char* const* keys, const char* const* values) {
        subdomain_ = &subdomain;
        keys_ = keys;
        values_ = values;
        next_ = 0;
    }
    // The next key, null behind the last.
    const SoString* next() {
        const char* const source = keys_ == nullptr ? nullptr : keys_[next_];
        if (source == nullptr) {
            return nullptr;
        }
        value_ = values_ == nullptr ? nullptr : values_[next_];
        const bool isKept = next_ < kKept && values_ != nullptr;
        current_ = isKept ? &kept_[next_] : &other_;
        ++next_;
        if (!isKept || current_->source != source) {
            current_->source = source;
            current_->text.assign(source);
            current_->rule = findRule(current_->text.view());
        }
        return &current_->text;
    }

    // Whether a callback asks for this key, of which more is known here; it may for another.
    bool has(const SoString& subdomain, const SoString& key) const {
        return current_ != nullptr && &subdomain == subdomain_ && &key == &current_->text;
    }
    const KeyRule* rule() const { return current_->rule; }
    // Null when it must be asked for.
    const char* value() const { return value_; }

private:
    struct Key {
        const char* source = nullptr;
        SoString text;
        const KeyRule* rule = nullptr;
    };
    // Applications have the same keys at the same places as a rule. A library that gives keys with
    // their values keeps both as long as the walk lasts, so that the same place is the same text.
    static constexpr size_t kKept = 32;

    const SoString* subdomain_ = nullptr;
    const char* const* keys_ = nullptr;
    const char* const* values_ = nullptr;
    size_t next_ = 0;
    Key kept_[kKept];
    Key other_;
    Key* current_ = nullptr;
    const char* value_ = nullptr;
};

// Whatever ends a walk, what is at hand in it goes.
class PCDIterator::AtHand {
public:
    AtHand(PCDIterator& walk, const Keys& keys) : walk_(walk) { walk_.atHand_ = &keys; }
    ~AtHand() { walk_.atHand_ = nullptr; }
    AtHand(const AtHand&) = delete;
    AtHand& operator=(const AtHand&) = delete;

private:
    PCDIterator& walk_;
};

bool PCDIterator::run(PCDWrapper& wrapper) {
    // What could not be read at the last walk may be readable by now.
    wrapper.startWalk();
    // Before anything is read: what changes during the walk makes the times differ at the next
    // look.
    const PCDWrapper::ModTimes times = wrapper.getLastModTimes();
    productModTime_ = times.products.value_or(0);
    domainModTime_ = times.domains.value_or(0);
    listed_ = nullptr;
    // Before anything can fail, as it empties what an earlier walk has filled; and before the list
    // below, which stays good only until the next list of subdomains or payloads.
    (void)onStart(wrapper);
    if (!wrapper.isGood()) {
        return false;
    }

    const char* const* subdomains = listed_;
    const int32_t status = subdomains != nullptr
                               ? PCDWrapper::kSuccess
                               : wrapper.pcdGetDomainDataSubdomains(wrapper.domain(), subdomains);
    if (status != PCDWrapper::kSuccess) {
        // An empty registry has been read, one that cannot be listed has not.
        return status == PCDWrapper::kNothingThere;
    }
    // One text serves all subdomains, as those of the keys do: their buffers are taken once.
    SoString subdomainText;
    Keys known;
    const AtHand scope(*this, known);
    for (; subdomains != nullptr && *subdomains != nullptr; ++subdomains) {
        const char* const* keys = nullptr;
        const char* const* values = nullptr;
        const int32_t keysStatus =
            wrapper.pcdGetDomainDataPairs(wrapper.domain(), *subdomains, keys, values);
        // Not taken for an application without keys: the caller must know that something is
        // missing.
        if (keysStatus != PCDWrapper::kSuccess && keysStatus != PCDWrapper::kNothingThere) {
            return false;
        }
        // The products' payloads have their subdomains in the same domain.
        if (!std::string_view(*subdomains).starts_with(kAppPrefix)) {
            continue;
        }
        subdomainText.assign(*subdomains);
        // A new one for each, since a callback may have moved from the one before.
        CVConnectorAppInfo info;
        // What the callbacks answer stops nothing: one bad entry must not hide the others.
        (void)onStartSubDomain(wrapper, subdomainText, info);
        known.start(subdomainText, keys, values);
        while (const SoString* key = known.next()) {
            (void)onKey(wrapper, subdomainText, *key, info);
        }
        (void)onEndSubDomain(wrapper, subdomainText, info);
    }
    (void)onEnd(wrapper);
    return true;
}

bool PCDIterator::onStart(PCDWrapper&) {
    return true;
}

bool PCDIterator::onEnd(PCDWrapper&) {
    return true;
}

bool PCDIterator::onStartSubDomain(PCDWrapper&, const SoString&, CVConnectorAppInfo&) {
    return true;
}

bool PCDIterator::onEndSubDomain(PCDWrapper& wrapper, const SoString& subdomain,
                                 CVConnectorAppInfo& info) {
    // The groups lie below the prefix of the applications and are none.
    if (isUnderGroups(subdomain.view())) {
        return true;
    }
    // A single byte is too short to be a name by itself.
    if (info.specifier.isEmpty() && subdomain.view().size() > kAppPrefix.size() + 1) {
        info.specifier.assign(subdomain.c_str() + kAppPrefix.size());
    }
    return info.specifier.isEmpty() || onAppInfo(wrapper, info);
}

const char* PCDIterator::valueOf(const PCDWrapper& wrapper, const SoString& subdomain,
                                 const SoString& key) const {
    const char* value = nullptr;
    if (atHand_ != nullptr && atHand_->has(subdomain, key)) {
        value = atHand_->value();
    }
    if (value == nullptr && wrapper.pcdGetDomainData(wrapper.domain(), subdomain.c_str(),
                                                     key.c_str(), value) != PCDWrapper::kSuccess) {
        return nullptr;
    }
    return value;
}

bool PCDIterator::onKey(PCDWrapper& wrapper, const SoString& subdomain, const SoString& key,
                        CVConnectorAppInfo& info) {
    const bool inGroups = isGroupSubdomain(subdomain.view());
    if (inGroups && !key.view().starts_with(ConveyConnector::kGroupKeyPrefix)) {
        return true;
    }
    // Keys that nobody takes cost no question for their values.
    const KeyRule* rule = nullptr;
    if (!inGroups) {
        rule = atHand_ != nullptr && atHand_->has(subdomain, key) ? atHand_->rule()
                                                                  : findRule(key.view());
        if (rule == nullptr) {
            return true;
        }
    }
    const char* const value = valueOf(wrapper, subdomain, key);
    if (value == nullptr) {
        return true; // the field keeps its default
    }
    if (inGroups) {
        if (std::string_view(value).size() <= kGroupPrefix.size()) {
            return true;
        }
        // The specifiers that it is compared with are in lower case.
        return onGroupInfo(wrapper, key, SoString(value + kGroupPrefix.size()).lowercase());
    }
    switch (rule->kind) {
    case Kind::text:
        (info.*rule->text).assign(value);
        break;
    case Kind::lowerCaseText:
        (info.*rule->text).assign(value);
        (info.*rule->text).makeLowercase();
        break;
    case Kind::decimal:
        info.conveyVersion = parseNumber(value);
        break;
    case Kind::boolean:
        info.*rule->flag = value == kTrue;
        break;
    case Kind::basename:
        info.executableBasename.assign(value);
        // A web-hosted target stands in the registry with its address as its path.
        if (info.path.isEmpty() && isMakersAddress(value)) {
            info.path.assign(value);
        }
        break;
    }
    return true;
}

bool PCDIterator::onError(PCDWrapper&, const char*, const char*) {
    return false;
}

bool PCDIterator::onAppInfo(PCDWrapper&, CVConnectorAppInfo&) {
    return true;
}

bool PCDIterator::onGroupInfo(PCDWrapper&, const SoString&, const SoString&) {
    return true;
}

PCDInitLists::PCDInitLists(CVConnectorAppInfoList& list, SoVector<SoString>& groups)
    : list_(list), groups_(groups) {}

bool PCDInitLists::onStart(PCDWrapper& wrapper) {
    list_.clear();
    while (groups_.count() > 0) {
        delete groups_.removeAt(groups_.count() - 1);
    }
    joins_.clear();
    readPayloadJoins(wrapper);
    return true;
}

void PCDInitLists::readPayloadJoins(const PCDWrapper& wrapper) {
    const char* const* payloads = nullptr;
    const int32_t status =
        wrapper.isOpened() ? wrapper.pcdGetDomainDataSubdomains(kRegistryDomain, payloads)
                           : wrapper.capsGetCollectionPayloads(PCDWrapper::kDomainCollection,
                                                               PCDWrapper::kInstalled, payloads);
    // The wrapper has noted it, and who registers with a path needs no payload.
    if (status != PCDWrapper::kSuccess) {
        return;
    }
    // The applications are in the same list: of one state, and asked for once. No other list is
    // asked for until then.
    if (wrapper.isOpened() && wrapper.domain() == kRegistryDomain) {
        useList(payloads);
    }
    for (; payloads != nullptr && *payloads != nullptr; ++payloads) {
        // The identifiers of payloads begin with a brace; applications are listed with them.
        const char* payload = *payloads;
        if (*payload != '{') {
            continue;
        }
        PayloadJoin join;
        (void)wrapper.pdbGetAppLaunchPath(payload, join.launchPath); // empty when there is none
        join.configPath = readConfigPath(wrapper, payload);
        // It gives nobody a path, so its codes need not be asked for.
        if (join.launchPath.isEmpty() && join.configPath.isEmpty()) {
            continue;
        }
        SoString key(ConveyConnector::kConveyCodeKey);
        // The numbers have no gaps: the first code that is missing ends them.
        for (uint32_t n = 1; n <= kMaximumConveyCodes; ++n) {
            const char* code = nullptr;
            if (wrapper.pcdGetDomainData(kRegistryDomain, payload, key.c_str(), code) !=
                    PCDWrapper::kSuccess ||
                code == nullptr || *code == '\0') {
                break;
            }
            joins_[code].push_back(join);
            key.assign(ConveyConnector::kConveyCodeKey);
            key << n;
        }
    }
}

SoString PCDInitLists::pathFromPayloads(const CVConnectorAppInfo& info) const {
    // A payload names the whole subdomain, in lower case.
    SoString code(ConveyConnector::kAppSubdomainPrefix);
    code << info.specifier.lowercase();
    const auto found = joins_.find(code.c_str());
    if (found == joins_.end()) {
        return SoString();
    }
    // Several products may bring the same application: the first that leads to a path wins.
    for (const PayloadJoin& join : found->second) {
        if (!join.launchPath.isEmpty()) {
            return bundleOf(join.launchPath);
        }
        // A folder alone is no program; the next payload may have a launch path.
        if (info.executableBasename.isEmpty()) {
            continue;
        }
        const std::string_view folder = applicationFolder(join.configPath.view());
        SoString path(folder.data(), static_cast<int32_t>(folder.size()));
        path << ConveyUtils::getFolderSeparator() << info.executableBasename;
        if (!info.executableExtension.isEmpty()) {
            path << '.' << info.executableExtension;
        } else {
            const std::string_view extension =
                info.isShellTool ? kShellToolExtension : kBundleExtension;
            path.append(extension.data(), static_cast<int32_t>(extension.size()));
        }
        return path;
    }
    return SoString();
}

bool PCDInitLists::onAppInfo(PCDWrapper&, CVConnectorAppInfo& info) {
    if (info.specifier.isEmpty()) {
        return true;
    }
    if (info.windowClassName.isEmpty()) {
        info.windowClassName = Convey::Specifier(info.specifier.c_str(), false).appName();
    }
    if (info.path.isEmpty() && !joins_.empty()) {
        info.path = pathFromPayloads(info);
    }
    // Without either nobody could start it. What a redirect leads to is known at the end of the
    // walk.
    if (!info.path.isEmpty() || !info.redirectTo.isEmpty()) {
        // The walk is done with the record. False when an equal one is there already.
        (void)list_.append(new CVConnectorAppInfo(std::move(info)));
    }
    return true;
}

bool PCDInitLists::onGroupInfo(PCDWrapper&, const SoString&, const SoString& entry) {
    auto text = std::make_unique<SoString>(entry);
    groups_.append(text.get());
    (void)text.release(); // the owner of the vector deletes it
    return true;
}

bool PCDInitLists::onEnd(PCDWrapper&) {
    // Only now, since a redirect may lead to what was registered later.
    (void)list_.resolveRedirectTo(); // whether there was any does not matter here
    return true;
}

bool PCDInitLists::onError(PCDWrapper&, const char*, const char*) {
    list_.clear();
    return false;
}

} // namespace ScObjects
