#include "scriptobjects/connector/SoCVConnector.h"

#include <atomic>
#include <limits>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "platform/Log.h"
#include "scriptobjects/connector/SoCVConnectorAppInfo.h"
#include "scriptobjects/connector/SoCVGroups.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoNumber.h"

namespace ScObjects {
namespace {

constexpr const char* kHighestMinorVersion = ".99"; // minor versions have two digits at most

// Read by every query without a lock; what was read stays good, since nobody deletes a connector
// before the end of the layer.
constinit std::atomic<ConveyConnector*> gConnector{nullptr};
constinit std::atomic<bool> gUnreadable{false}; // why there is no connector

// Connectors that were replaced while the layer runs. Never destroyed as an object: threads may
// outlive main.
struct Retired {
    std::mutex mutex;
    std::vector<ConveyConnector*> connectors;
};

Retired& retired() {
    static auto* const list = new Retired;
    return *list;
}

std::string_view majorVersion(std::string_view version) {
    return version.substr(0, version.find('.'));
}

// The registration of the application and major version of `specifier` that runs, else `specifier`
// itself.
SoString runningOfSameMajorVersion(const ConveyConnector& connector,
                                   const Convey::Specifier& specifier) {
    const SoString version = specifier.version();
    const std::string_view major = majorVersion(version.view());
    if (major.empty()) {
        return specifier;
    }
    std::vector<SoString> registrations;
    connector.appendSpecifiersOf(specifier.appName(), registrations);
    for (const SoString& text : registrations) {
        Convey::Specifier candidate(text.c_str(), false);
        const SoString candidateVersion = candidate.version();
        // In this order: looking whether a candidate runs costs it a message.
        if (candidate != specifier && majorVersion(candidateVersion.view()) == major &&
            candidate.isRunning()) {
            return candidate;
        }
    }
    return specifier;
}

// The installed application that `text` names exactly, or by a version pattern such as 7.*; empty
// for none. Must be called without the connector's lock: it may ask other processes.
SoString resolveSpecifier(const ConveyConnector& connector, const SoString& text) {
    Convey::Specifier result(text.c_str(), false);
    if (result.isInstalled()) {
        return result;
    }
    const SoString version = result.version();
    std::string_view major = version.view();
    if (major.size() <= CVGroups::kAnyMinorVersion.size() ||
        !major.ends_with(CVGroups::kAnyMinorVersion)) {
        return SoString();
    }
    major.remove_suffix(CVGroups::kAnyMinorVersion.size());
    SoString notAbove("-"); // the highest version that is not above
    notAbove.append(major.data(), static_cast<int32_t>(major.size()));
    notAbove << kHighestMinorVersion;
    // The highest that is registered is the answer only when none of them runs.
    return result.setVersion(notAbove) ? runningOfSameMajorVersion(connector, result) : SoString();
}

} // namespace

void ConveyConnector::InitTerm::init(const SoString& appName) {
    if (get() == nullptr) {
        // Kept, as there is no connector to ask then: who decides about launching must not take
        // every application for one that is not installed.
        bool isUnreadable = false;
        set(ConveyUtils::createConnector(appName, SoString(), &isUnreadable));
        gUnreadable.store(isUnreadable);
    }
}

void ConveyConnector::InitTerm::exit() {
    set(nullptr);
    std::vector<ConveyConnector*> connectors;
    {
        const std::lock_guard<std::mutex> lock(retired().mutex);
        // Taken out and deleted without the lock, under which no other is taken: the end of a
        // connector takes some.
        connectors.swap(retired().connectors);
    }
    for (ConveyConnector* connector : connectors) {
        delete connector;
    }
}

ConveyConnector* ConveyConnector::get() {
    return gConnector.load(std::memory_order_acquire);
}

void ConveyConnector::set(ConveyConnector* connector) {
    ConveyConnector* old = gConnector.exchange(connector, std::memory_order_acq_rel);
    // One that is installed a second time must not be deleted twice.
    if (old != nullptr && old != connector) {
        const std::lock_guard<std::mutex> lock(retired().mutex);
        retired().connectors.push_back(old);
    }
}

ConveyConnector::ConveyConnector(const SoString& name) : name_(name) {}

ConveyConnector::~ConveyConnector() = default;

CVConnectorAppInfoList* ConveyConnector::getAppInfoListLocked() const {
    if (appInfoList_ == nullptr) {
        // Built aside: a reading that throws leaves no half of a registry that passes for all of
        // it.
        auto list = std::make_unique<CVConnectorAppInfoList>();
        auto groups = std::make_unique<CVGroups>();
        // A registry that breaks off gives what was read so far: better some targets than none.
        try {
            if (!const_cast<ConveyConnector*>(this)->initLists(*list, groups->texts())) {
                complete_ = false;
            }
            groups->split();
        } catch (const std::bad_alloc&) { // the next query tries again; this one got no answer
            complete_ = false;
            platform::Log::system().problem("the registry cannot be read: no memory");
            throw;
        }
        appInfoList_ = std::move(list);
        groups_ = std::move(groups);
    }
    return appInfoList_.get();
}

bool ConveyConnector::isComplete() const {
    ObjectLock lock(*this);
    (void)getAppInfoListLocked();
    return complete_;
}

bool ConveyConnector::isRegistryKnown() {
    const ConveyConnector* const connector = get();
    // Without a connector the start has found out whether there was something to read.
    return connector == nullptr ? !gUnreadable.load() : connector->isComplete();
}

bool ConveyConnector::hasVersionless() {
    const ConveyConnector* const connector = get();
    if (connector == nullptr) {
        return false;
    }
    ObjectLock lock(*connector);
    const CVConnectorAppInfoList& list = *connector->getAppInfoListLocked();
    for (int32_t i = 0; i < list.count(); ++i) {
        if (CVSpecifierParts::of(list.get(i)->specifier.view()).version.empty()) {
            return true;
        }
    }
    return false;
}

bool ConveyConnector::findRecord(const SoString& specifier, CVConnectorAppInfo& out) const {
    if (specifier.isEmpty()) {
        return false;
    }
    ObjectLock lock(*this);
    // Copied under the lock: the record goes with the list when the registry has changed.
    return getAppInfoListLocked()->find(specifier, out, nullptr);
}

template <class Field>
Field ConveyConnector::field(const SoString& specifier, Field CVConnectorAppInfo::*member,
                             Field unknown) const {
    if (specifier.isEmpty()) {
        return unknown;
    }
    ObjectLock lock(*this);
    const CVConnectorAppInfo* found = getAppInfoListLocked()->find(specifier, nullptr);
    return found != nullptr ? found->*member : unknown;
}

SoString ConveyConnector::findPreferredApp(const SoString& specifier, const SoString& appName,
                                           const SoString& group) {
    const Convey::Specifier caller(specifier.c_str(), false);
    const Convey::Specifier wanted(appName.c_str(), false);
    SoString candidate = appName;
    if (!caller.isEmpty() && !wanted.isEmpty()) {
        double lowest = -std::numeric_limits<double>::infinity();
        double highest = std::numeric_limits<double>::infinity();
        if (caller.appName() == wanted.appName()) {
            lowest = parseNumber(CVSpecifierParts::of(caller.view()).version);
            highest = lowest + 1.0;
        }
        ObjectLock lock(*this);
        (void)getAppInfoListLocked();
        if (const CVGroupEntry* entry =
                groups_->findMember(group, wanted.appName(), lowest, highest)) {
            candidate = entry->pattern;
        }
    }
    // The lock has been given up: this may ask other processes whether they run.
    return resolveSpecifier(*this, candidate);
}

SoString ConveyConnector::findGroupForSpecifier(const SoString& specifier, SoString* detail) {
    if (detail != nullptr) {
        detail->shrink(0);
    }
    {
        ObjectLock lock(*this);
        (void)getAppInfoListLocked();
        // Completing the specifier may ask other processes, which is not worth it without groups.
        if (groups_->isEmpty()) {
            return SoString();
        }
    }
    // A fix-up asks this for its caller: to complete that here would need the answer that it is
    // working out.
    const Convey::Specifier full(specifier.c_str(), !Convey::Specifier::isFixUpUnderWay());
    if (full.isEmpty()) {
        return SoString();
    }
    const SoString version = full.version();
    SoString key = full.appName();
    key << '-' << (version.isEmpty() ? SoString("1.0") : version);

    ObjectLock lock(*this);
    (void)getAppInfoListLocked();
    // The lists may have been dropped while the lock was not held, so they were asked for once
    // more.
    const CVGroupEntry* entry = groups_->findGroupOf(key);
    if (entry == nullptr) {
        return SoString();
    }
    if (detail != nullptr) {
        *detail = entry->numberText;
    }
    return entry->name;
}

SoString ConveyConnector::findSpecifierInGroup(const SoString& appName, const SoString& group) {
    SoString candidate;
    {
        ObjectLock lock(*this);
        (void)getAppInfoListLocked();
        // Entries were put into lower case when they were read.
        const CVGroupEntry* entry = groups_->findMember(group, appName.lowercase(),
                                                        -std::numeric_limits<double>::infinity(),
                                                        std::numeric_limits<double>::infinity());
        if (entry != nullptr) {
            candidate = entry->pattern;
        }
    }
    return candidate.isEmpty() ? candidate : resolveSpecifier(*this, candidate);
}

SoString ConveyConnector::getConnectorConfig(const SoString&) const {
    return SoString();
}

bool ConveyConnector::importFrom(const SoString&) {
    return false;
}

bool ConveyConnector::removeAll() {
    return false;
}

bool ConveyConnector::isGood() const {
    return true;
}

int32_t ConveyConnector::getNumberOfRegisteredApplications() const {
    ObjectLock lock(*this);
    return getAppInfoListLocked()->count();
}

SoString ConveyConnector::getApplicationSpecifier(int32_t i) const {
    if (i == -1) {
        return name_;
    }
    ObjectLock lock(*this);
    const CVConnectorAppInfo* info = getAppInfoListLocked()->get(i);
    return info != nullptr ? info->specifier : SoString();
}

SoString ConveyConnector::getDisplayName(const SoString& appName, const SoString& version,
                                         const SoString& locale) const {
    SoString text = appName;
    if (!version.isEmpty()) {
        text << '-' << version;
    }
    if (!locale.isEmpty()) {
        text << '-' << locale.lowercase();
    }
    CVConnectorAppInfo info;
    // Completed before the lock is taken, as that may ask other processes.
    if (!findRecord(Convey::Specifier(text.c_str(), true), info)) {
        return SoString();
    }
    if (!info.displayName.isEmpty()) {
        return info.displayName;
    }
    std::string_view name = info.path.view();
    const size_t separator = name.rfind(*ConveyUtils::getFolderSeparator().c_str());
    if (separator != std::string_view::npos) {
        name.remove_prefix(separator + 1);
    }
    name = name.substr(0, name.rfind('.'));
    return SoString(name.data(), static_cast<int32_t>(name.size()));
}

SoString ConveyConnector::getApplicationPath(const SoString& specifier, const char* key) const {
    (void)key; // one path an application
    if (specifier.isEmpty()) {
        return SoString();
    }
    Convey::Specifier bare(specifier.c_str(), false);
    // A suffix names an endpoint, which lies where its application does.
    if (!CVSpecifierParts::of(bare.view()).suffix.empty()) {
        bare.setSuffix(SoString());
    }
    return field(bare, &CVConnectorAppInfo::path, SoString());
}

bool ConveyConnector::supportsDBGK(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::supportsDBGK, false);
}

bool ConveyConnector::isShellTool(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::isShellTool, false);
}

bool ConveyConnector::getMessageAuthentication(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::messageAuthentication, true);
}

bool ConveyConnector::getMessageDigest(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::messageDigest, true);
}

SoString ConveyConnector::getBundleIdentifier(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::bundleIdentifier, SoString());
}

SoString ConveyConnector::getExecutableBasename(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::executableBasename, SoString());
}

SoString ConveyConnector::getExecutableExtension(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::executableExtension, SoString());
}

SoString ConveyConnector::getOMVDictionary(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::omvDictionary, SoString());
}

SoString ConveyConnector::getDeveloperInstallPath(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::developerInstallPath, SoString());
}

SoString ConveyConnector::getRedirectTo(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::redirectTo, SoString());
}

void ConveyConnector::noteLaunched(const SoString& specifier, uint32_t pid) {
    ObjectLock lock(*this);
    // One lock over all steps, or the list could be dropped between them.
    CVConnectorAppInfoList& list = *getAppInfoListLocked();
    CVConnectorAppInfo info;
    if (!list.setProcessID(specifier, pid) && list.find(specifier, info, nullptr)) {
        info.specifier = specifier;
        info.processID = pid;
        (void)list.append(new CVConnectorAppInfo(info)); // false only when it is there already
    }
}

void ConveyConnector::appendDiagnostics(SoString& out, const SoString& path) const {
    SoString root = path;
    root << "/connector";
    CVDiagnosticsRows rows(out, root);
    const uint32_t changed = getTimestamp();
    rows.node("", "Connector", getName());
    rows.leaf("/name", "Name", name_);
    rows.leaf("/good", "Readable", isGood() ? "yes" : "no");
    rows.leaf("/changed", "Changed",
              changed != 0 ? ConveyUtils::getTimeString(&changed) : SoString("undefined"));
    ObjectLock lock(*this);
    // Held to the end: the records are read where they are, and `clearCache` deletes them.
    const CVConnectorAppInfoList& list = *getAppInfoListLocked();
    // A node announces rows below it, so what is empty must be a leaf.
    const auto heading = [&rows](int32_t entries, const char* name, const char* label) {
        if (entries != 0) {
            rows.node(name, label, entries);
        } else {
            rows.leaf(name, label, entries);
        }
    };
    heading(list.count(), "/apps", "Applications");
    for (int32_t i = 0; const CVConnectorAppInfo* info = list.get(i); ++i) {
        SoString app("/apps/");
        app << info->specifier;
        rows.node(app.view(), info->specifier.view(), info->path);
        SoString shownName(app);
        shownName << "/name";
        rows.leaf(shownName.view(), "Display name", info->displayName);
        app << "/process";
        if (info->processID != 0) {
            rows.leaf(app.view(), "Process", info->processID);
        } else {
            rows.undefined(app.view(), "Process");
        }
    }
    const SoVector<SoString>& groups = groups_->texts();
    heading(groups.count(), "/groups", "Groups");
    for (int32_t i = 0; i < groups.count(); ++i) {
        SoString entry("/groups/");
        entry << i;
        rows.leaf(entry.view(), "Entry", *groups[i]);
    }
}

void ConveyConnector::setProcessID(const SoString& specifier, uint32_t pid) {
    ObjectLock lock(*this);
    // Noted in what was read: it goes with the list, as nothing of it is stored.
    (void)getAppInfoListLocked()->setProcessID(specifier, pid); // unknown targets have no record
}

uint32_t ConveyConnector::getProcessID(const SoString& specifier) const {
    return field(specifier, &CVConnectorAppInfo::processID, 0U);
}

void ConveyConnector::clearCache() {
    ObjectLock lock(*this);
    appInfoList_.reset();
    groups_.reset();
    // Nothing has been read yet, so nothing is missing.
    complete_ = true;
}

bool ConveyConnector::registerApplication(const SoString&, const SoString&, const SoString*, bool) {
    return false;
}

bool ConveyConnector::unregisterApplication(const SoString&, const SoString*) {
    return false;
}

bool ConveyConnector::updateCache(bool force) {
    if (!force) {
        return false;
    }
    ObjectLock lock(*this);
    return getAppInfoListLocked() != nullptr;
}

void ConveyConnector::appendSpecifiersOf(const SoString& appName,
                                         std::vector<SoString>& out) const {
    ObjectLock lock(*this);
    getAppInfoListLocked()->appendSpecifiersOf(appName, out);
}

bool ConveyConnector::hasNoOther(std::string_view appName, std::string_view specifier) const {
    ObjectLock lock(*this);
    return getAppInfoListLocked()->hasNoOther(appName, specifier);
}

bool ConveyConnector::hasRecordOrNoList(const SoString& specifier) const {
    ObjectLock lock(*this);
    // Not through `getAppInfoListLocked`: the question must not make the connector read.
    return appInfoList_ == nullptr || appInfoList_->find(specifier, nullptr) != nullptr;
}

// Every record without what runs, and every group entry, one after the other: taken under one lock
// at a time, so that two threads may compare the same two connectors in either direction.
void ConveyConnector::copyContents(std::vector<CVConnectorAppInfo>& records,
                                   std::vector<SoString>& groups) const {
    ObjectLock lock(*this);
    const CVConnectorAppInfoList& list = *getAppInfoListLocked();
    for (int32_t i = 0; const CVConnectorAppInfo* info = list.get(i); ++i) {
        records.push_back(*info);
    }
    for (int32_t i = 0; i < groups_->texts().count(); ++i) {
        groups.push_back(*groups_->texts()[i]);
    }
}

bool ConveyConnector::isEqual(const ConveyConnector& other) const {
    std::vector<CVConnectorAppInfo> records[2];
    std::vector<SoString> groups[2];
    copyContents(records[0], groups[0]);
    other.copyContents(records[1], groups[1]);
    return records[0] == records[1] && groups[0] == groups[1];
}

bool parseEntry(const SoString& entry, SoString& name, SoString& number, SoString& pattern) {
    const std::string_view text = entry.view();
    const size_t first = text.find('/');
    const size_t last = text.rfind('/');
    if (first == last) {
        return false; // none, or only one
    }
    const auto part = [&text](size_t from, size_t to) {
        return SoString(text.data() + from, static_cast<int32_t>(to - from));
    };
    name = part(0, first);
    number = part(first + 1, last);
    pattern = part(last + 1, text.size());
    return true;
}

} // namespace ScObjects
