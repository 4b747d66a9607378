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

CVConnectorAppInfo::CVConnectorAppInfo() : executableExtension("app") {
    static const double ownVersion = parseNumber(Convey::kVersion);
    conveyVersion = ownVersion;
}

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

// Where the chain of the hash is, or belongs; the table has places.
size_t CVPositionIndex::placeOf(uint32_t textHash) const {
    const size_t mask = chains_.size() - 1;
    size_t place = textHash & mask;
    while (chains_[place].first >= 0 && chains_[place].hash != textHash) {
        place = (place + 1) & mask;
    }
    return place;
}

void CVPositionIndex::prepare() {
    // `reserve` gives what it is told: one more at a time would move all positions each time.
    if (next_.size() == next_.capacity()) {
        next_.reserve(std::max(kFirstPositions, next_.size() * 2));
    }
    if ((used_ + 1) * 2 <= chains_.size()) {
        return;
    }
    CVPositionIndex larger;
    larger.chains_.resize(std::max(2 * kFirstPositions, chains_.size() * 2));
    for (const Chain& chain : chains_) {
        if (chain.first >= 0) {
            larger.chains_[larger.placeOf(chain.hash)] = chain;
        }
    }
    chains_.swap(larger.chains_);
}

void CVPositionIndex::add(uint32_t textHash) noexcept {
    const auto position = static_cast<int32_t>(next_.size());
    next_.push_back(-1);
    // Neither this nor the line before needs memory: `prepare` has made the room.
    Chain& chain = chains_[placeOf(textHash)];
    if (chain.first < 0) {
        chain = {textHash, position, position};
        ++used_;
        return;
    }
    next_[static_cast<size_t>(chain.last)] = position;
    chain.last = position;
}

void CVPositionIndex::clear() noexcept {
    next_.clear();
    chains_.clear();
    used_ = 0;
}

int32_t CVPositionIndex::first(uint32_t textHash) const {
    return chains_.empty() ? -1 : chains_[placeOf(textHash)].first;
}

int32_t CVPositionIndex::after(int32_t position) const {
    return next_[static_cast<size_t>(position)];
}

CVConnectorAppInfoList::Indexes::Hashes
CVConnectorAppInfoList::Indexes::prepare(std::string_view specifier) {
    bySpecifier.prepare();
    byAppName.prepare();
    return {CVPositionIndex::hash(specifier), appNameHash(specifier)};
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
    for (int32_t i = 0; isInside(i); ++i) {
        const SoString* text = i == changed ? specifier : &at(i)->specifier;
        if (text != nullptr) {
            indexes.add(indexes.prepare(text->view()));
        }
    }
    return indexes;
}

// What can fail comes first: a record that was taken into the list and then not into an index could
// not be found.
void CVConnectorAppInfoList::appendLocked(std::unique_ptr<CVConnectorAppInfo> info) {
    const Indexes::Hashes hashes = indexes_.prepare(info->specifier.view());
    items_.push_back(std::move(info));
    indexes_.add(hashes);
}

CVConnectorAppInfo* CVConnectorAppInfoList::findEqualLocked(const CVConnectorAppInfo& info,
                                                            int32_t* index) const {
    // Equal records have equal specifiers.
    const uint32_t hash = CVPositionIndex::hash(info.specifier.view());
    for (int32_t i = indexes_.bySpecifier.first(hash); i >= 0; i = indexes_.bySpecifier.after(i)) {
        if (*at(i) == info) {
            if (index != nullptr) {
                *index = i;
            }
            return at(i);
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
    appendLocked(std::move(owned));
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
    CVConnectorAppInfo* const record = added.get();
    appendLocked(std::move(added));
    lastUpdated_ = record; // only now: without memory there is none
    return true;
}

CVConnectorAppInfo* CVConnectorAppInfoList::findExactLocked(std::string_view specifier,
                                                            int32_t* index) const {
    // A chain is in the order of the list, so its first hit is the first registration. The hash
    // knows no upper case, the comparison does.
    const uint32_t hash = CVPositionIndex::hash(specifier);
    for (int32_t i = indexes_.bySpecifier.first(hash); i >= 0; i = indexes_.bySpecifier.after(i)) {
        if (at(i)->specifier.view() == specifier) {
            if (index != nullptr) {
                *index = i;
            }
            return at(i);
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
    items_.clear();
}

bool CVConnectorAppInfoList::getItemAt(int32_t i, CVConnectorAppInfo& out) const {
    ObjectLock lock(*this);
    if (!isInside(i)) {
        return false;
    }
    out = *at(i);
    return true;
}

CVConnectorAppInfo* CVConnectorAppInfoList::get(int32_t i) const {
    ObjectLock lock(*this);
    return isInside(i) ? at(i) : nullptr;
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
    items_.erase(items_.begin() + index);
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
        if (steps > static_cast<int32_t>(items_.size())) {
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
    for (const std::unique_ptr<CVConnectorAppInfo>& item : items_) {
        CVConnectorAppInfo& record = *item;
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
    return static_cast<int32_t>(items_.size());
}

void CVConnectorAppInfoList::appendSpecifiersOf(const SoString& appName,
                                                std::vector<SoString>& out) const {
    ObjectLock lock(*this);
    const uint32_t hash = CVPositionIndex::hash(appName.view());
    for (int32_t i = indexes_.byAppName.first(hash); i >= 0; i = indexes_.byAppName.after(i)) {
        // A hit is a candidate only: other names may have the same hash.
        Convey::Specifier registered(at(i)->specifier.c_str(), false);
        if (CVSpecifierParts::of(registered.view()).appName == appName.view()) {
            out.push_back(std::move(registered));
        }
    }
}

bool CVConnectorAppInfoList::hasNoOther(std::string_view appName,
                                        std::string_view specifier) const {
    ObjectLock lock(*this);
    const int32_t i = indexes_.byAppName.first(CVPositionIndex::hash(appName));
    // Another name of the same hash makes this false, which costs its asker the long way only.
    return i < 0 || (indexes_.byAppName.after(i) < 0 && at(i)->specifier.view() == specifier);
}

} // namespace ScObjects
