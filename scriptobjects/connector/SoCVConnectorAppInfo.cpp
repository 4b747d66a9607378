#include "scriptobjects/connector/SoCVConnectorAppInfo.h"

#include <algorithm>
#include <memory>

#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/core/SoNumber.h"

namespace ScObjects {
namespace {

constexpr size_t kFirstPositions = 64;

// The application name as a specifier in lower case has it, without building one.
uint32_t appNameHash(std::string_view specifier) {
    // Not `find_first_of`, which calls the system's library for each byte.
    const auto end = std::find_if(specifier.begin(), specifier.end(),
                                  [](char c) { return c == '-' || c == '#' || c == '_'; });
    return CVPositionIndex::hash({specifier.data(), static_cast<size_t>(end - specifier.begin())});
}

} // namespace

CVConnectorAppInfo::CVConnectorAppInfo()
    : conveyVersion(parseNumber(Convey::kVersion)), executableExtension("app") {}

bool CVConnectorAppInfo::operator==(const CVConnectorAppInfo& other) const {
    return specifier == other.specifier && path == other.path &&
           windowClassName == other.windowClassName && bundleIdentifier == other.bundleIdentifier &&
           conveyVersion == other.conveyVersion &&
           allowMultipleInstances == other.allowMultipleInstances &&
           displayName == other.displayName &&
           messageAuthentication == other.messageAuthentication &&
           messageDigest == other.messageDigest && supportsDBGK == other.supportsDBGK &&
           executableBasename == other.executableBasename &&
           executableExtension == other.executableExtension &&
           omvDictionary == other.omvDictionary &&
           developerInstallPath == other.developerInstallPath && redirectTo == other.redirectTo &&
           isShellTool == other.isShellTool;
}

// FNV-1a over lower-cased bytes: one hash serves the exact search and the one in lower case.
uint32_t CVPositionIndex::hash(std::string_view text) {
    uint32_t value = 2166136261U;
    for (const char c : text) {
        const bool upper = c >= 'A' && c <= 'Z';
        value = (value ^ static_cast<uint8_t>(upper ? c + ('a' - 'A') : c)) * 16777619U;
    }
    return value;
}

void CVPositionIndex::prepare(uint32_t textHash) {
    // `reserve` gives what it is told: one more at a time would move all positions each time.
    if (next_.size() == next_.capacity()) {
        next_.reserve(std::max(kFirstPositions, next_.size() * 2));
    }
    chains_.try_emplace(textHash); // an empty chain is none for who asks
}

void CVPositionIndex::add(uint32_t textHash) noexcept {
    const auto position = static_cast<int32_t>(next_.size());
    next_.push_back(-1);
    // Neither this nor the line before needs memory: `prepare` has made the room and the chain.
    Chain& chain = chains_.find(textHash)->second;
    if (chain.first < 0) {
        chain.first = position;
    } else {
        next_[static_cast<size_t>(chain.last)] = position;
    }
    chain.last = position;
}

void CVPositionIndex::clear() noexcept {
    next_.clear();
    chains_.clear();
}

int32_t CVPositionIndex::first(uint32_t textHash) const {
    const auto chain = chains_.find(textHash);
    return chain == chains_.end() ? -1 : chain->second.first;
}

int32_t CVPositionIndex::after(int32_t position) const {
    return next_[static_cast<size_t>(position)];
}

CVConnectorAppInfoList::Indexes::Hashes
CVConnectorAppInfoList::Indexes::prepare(std::string_view specifier) {
    const Hashes hashes{CVPositionIndex::hash(specifier), appNameHash(specifier)};
    bySpecifier.prepare(hashes.specifier);
    byAppName.prepare(hashes.appName);
    return hashes;
}

void CVConnectorAppInfoList::Indexes::add(Hashes hashes) noexcept {
    bySpecifier.add(hashes.specifier);
    byAppName.add(hashes.appName);
}

CVConnectorAppInfoList::CVConnectorAppInfoList() = default;

CVConnectorAppInfoList::~CVConnectorAppInfoList() {
    clear();
}

CVConnectorAppInfoList::Indexes
CVConnectorAppInfoList::indexesWithLocked(int32_t changed, const SoString* specifier) const {
    // Made anew and aside: behind a record that goes all positions change, and as long as this can
    // fail the index that is in use must be the right one.
    Indexes indexes;
    for (int32_t i = 0; i < items_.count(); ++i) {
        const SoString* text = i == changed ? specifier : &items_[i]->specifier;
        if (text != nullptr) {
            indexes.add(indexes.prepare(text->view()));
        }
    }
    return indexes;
}

// What can fail comes first: a record that was taken into the list and then not into an index would
// have two owners, the list and whoever hears of the failure.
void CVConnectorAppInfoList::appendLocked(CVConnectorAppInfo* info) {
    const Indexes::Hashes hashes = indexes_.prepare(info->specifier.view());
    items_.append(info);
    indexes_.add(hashes);
}

CVConnectorAppInfo* CVConnectorAppInfoList::findEqualLocked(const CVConnectorAppInfo& info,
                                                            int32_t* index) const {
    // Equal records have equal specifiers.
    const uint32_t hash = CVPositionIndex::hash(info.specifier.view());
    for (int32_t i = indexes_.bySpecifier.first(hash); i >= 0; i = indexes_.bySpecifier.after(i)) {
        if (*items_[i] == info) {
            if (index != nullptr) {
                *index = i;
            }
            return items_[i];
        }
    }
    return nullptr;
}

bool CVConnectorAppInfoList::append(CVConnectorAppInfo* info) {
    if (info == nullptr) {
        return false;
    }
    // The caller has given it away, whatever comes of it.
    std::unique_ptr<CVConnectorAppInfo> owned(info);
    ObjectLock lock(*this);
    if (findEqualLocked(*info, nullptr) != nullptr) {
        return false;
    }
    appendLocked(owned.get());
    (void)owned.release(); // the list owns it
    return true;
}

bool CVConnectorAppInfoList::isInList(const CVConnectorAppInfo& info) const {
    ObjectLock lock(*this);
    return findEqualLocked(info, nullptr) != nullptr;
}

bool CVConnectorAppInfoList::update(const CVConnectorAppInfo& info) {
    ObjectLock lock(*this);
    if (lastUpdated_ != nullptr && lastUpdated_->specifier == info.specifier) {
        // Under the same specifier, so no index changes.
        *lastUpdated_ = info;
        return true;
    }
    int32_t position = -1;
    if (CVConnectorAppInfo* found = findLocked(info.specifier, &position)) {
        // What can fail comes first: the index and the record are then changed together.
        CVConnectorAppInfo copy(info);
        if (found->specifier != info.specifier) {
            indexes_ = indexesWithLocked(position, &info.specifier);
        }
        *found = std::move(copy);
        lastUpdated_ = found;
        return true;
    }
    if (info.specifier.isEmpty()) {
        return false;
    }
    auto added = std::make_unique<CVConnectorAppInfo>(info);
    // Owned here until the list has it: without memory it has not.
    appendLocked(added.get());
    lastUpdated_ = added.release();
    return true;
}

CVConnectorAppInfo* CVConnectorAppInfoList::findExactLocked(std::string_view specifier,
                                                            int32_t* index) const {
    // A chain is in the order of the list, so its first hit is the first registration. The hash
    // knows no upper case, the comparison does.
    const uint32_t hash = CVPositionIndex::hash(specifier);
    for (int32_t i = indexes_.bySpecifier.first(hash); i >= 0; i = indexes_.bySpecifier.after(i)) {
        if (items_[i]->specifier.view() == specifier) {
            if (index != nullptr) {
                *index = i;
            }
            return items_[i];
        }
    }
    return nullptr;
}

CVConnectorAppInfo* CVConnectorAppInfoList::findLocked(const SoString& specifier,
                                                       int32_t* index) const {
    if (index != nullptr) {
        *index = -1;
    }
    if (CVConnectorAppInfo* found = findExactLocked(specifier.view(), index)) {
        return found;
    }
    Convey::Specifier bare(specifier.c_str(), false);
    bare.setInstance(SoString());
    bare.setSuffix(SoString());
    // Nothing to drop, or no specifier at all: the first search was the answer.
    if (bare.isEmpty() || bare == specifier) {
        return nullptr;
    }
    return findExactLocked(bare.view(), index);
}

CVConnectorAppInfo* CVConnectorAppInfoList::find(const SoString& specifier, int32_t* index) const {
    ObjectLock lock(*this);
    return findLocked(specifier, index);
}

bool CVConnectorAppInfoList::find(const SoString& specifier, CVConnectorAppInfo& out,
                                  int32_t* index) const {
    ObjectLock lock(*this);
    const CVConnectorAppInfo* found = findLocked(specifier, index);
    if (found == nullptr) {
        return false;
    }
    out = *found;
    return true;
}

void CVConnectorAppInfoList::clear() {
    ObjectLock lock(*this);
    clearWithoutLocking();
}

void CVConnectorAppInfoList::clearWithoutLocking() {
    // It points to one of those that are deleted below.
    lastUpdated_ = nullptr;
    indexes_.bySpecifier.clear();
    indexes_.byAppName.clear();
    while (items_.count() > 0) {
        // From the end, where nothing has to be moved up.
        delete items_.removeAt(items_.count() - 1);
    }
}

bool CVConnectorAppInfoList::getItemAt(int32_t i, CVConnectorAppInfo& out) const {
    ObjectLock lock(*this);
    if (i < 0 || i >= items_.count()) {
        return false;
    }
    out = *items_[i];
    return true;
}

CVConnectorAppInfo* CVConnectorAppInfoList::get(int32_t i) const {
    ObjectLock lock(*this);
    return i < 0 || i >= items_.count() ? nullptr : items_[i];
}

bool CVConnectorAppInfoList::remove(const CVConnectorAppInfo& info) {
    ObjectLock lock(*this);
    int32_t index = -1;
    if (findEqualLocked(info, &index) == nullptr) {
        return false;
    }
    // This may fail, so nothing is changed before it.
    Indexes indexes = indexesWithLocked(index, nullptr);
    lastUpdated_ = nullptr;
    delete items_.removeAt(index);
    indexes_ = std::move(indexes);
    return true;
}

// Walks the chain that starts at `record`; a chain longer than the list has met a record twice.
// False when the first target is missing or the chain has no end.
bool CVConnectorAppInfoList::redirectedPathLocked(const CVConnectorAppInfo& record,
                                                  SoString& path) const {
    const CVConnectorAppInfo* last = nullptr;
    const CVConnectorAppInfo* current = &record;
    for (int32_t steps = 0; !current->redirectTo.isEmpty(); ++steps) {
        if (steps > items_.count()) {
            return false;
        }
        const CVConnectorAppInfo* target = findLocked(current->redirectTo, nullptr);
        if (target == nullptr) {
            break;
        }
        last = current = target;
    }
    if (last == nullptr) {
        return false;
    }
    path = last->path;
    return true;
}

bool CVConnectorAppInfoList::resolveRedirectTo() {
    ObjectLock lock(*this);
    bool any = false;
    for (int32_t i = 0; i < items_.count(); ++i) {
        CVConnectorAppInfo& record = *items_[i];
        if (record.redirectTo.isEmpty()) {
            continue;
        }
        any = true;
        SoString path;
        // In any order: the end of a chain keeps its own path, so it does not matter which records
        // on the way have theirs already.
        if (redirectedPathLocked(record, path)) {
            record.path = path;
        }
    }
    return any;
}

bool CVConnectorAppInfoList::setProcessID(const SoString& specifier, uint32_t pid) {
    ObjectLock lock(*this);
    // Exactly: what an instance runs as is not the process of its application.
    CVConnectorAppInfo* found = findExactLocked(specifier.view(), nullptr);
    if (found == nullptr) {
        return false;
    }
    found->processID = pid;
    return true;
}

int32_t CVConnectorAppInfoList::count() const {
    ObjectLock lock(*this);
    return items_.count();
}

void CVConnectorAppInfoList::appendSpecifiersOf(const SoString& appName,
                                                std::vector<SoString>& out) const {
    ObjectLock lock(*this);
    const uint32_t hash = CVPositionIndex::hash(appName.view());
    for (int32_t i = indexes_.byAppName.first(hash); i >= 0; i = indexes_.byAppName.after(i)) {
        // A hit is a candidate only: other names may have the same hash.
        Convey::Specifier registered(items_[i]->specifier.c_str(), false);
        if (CVSpecifierParts::of(registered.view()).appName == appName.view()) {
            out.push_back(std::move(registered));
        }
    }
}

} // namespace ScObjects
