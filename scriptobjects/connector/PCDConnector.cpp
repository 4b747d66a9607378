#include "scriptobjects/connector/PCDConnector.h"

#include <algorithm>
#include <mutex>
#include <string_view>

#include "platform/Log.h"
#include "scriptobjects/connector/PCDIterator.h"
#include "scriptobjects/connector/PCDWrapper.h"
#include "scriptobjects/connector/SoCVConnectorAppInfo.h"

namespace ScObjects {
namespace {

constexpr int32_t kDomainKeys = 5;
constexpr const char* kName = "PCD";

const char* domainSuffix(int32_t key) {
    static constexpr const char* suffixes[kDomainKeys] = {"-installer", "-ivor", "-zor", "-wex",
                                                          "-pyl"};
    return key >= 0 && key < kDomainKeys ? suffixes[key] : "";
}

// The folder that hosts set before they start the layer. Never destroyed: see Retired connectors.
struct CapsFolder {
    std::mutex mutex;
    SoString path;
    int32_t connectors = 0;
};

CapsFolder& capsFolder() {
    static auto* const folder = new CapsFolder;
    return *folder;
}

// True for a success; else says why not.
bool told(int32_t status, const SoString& text, const char* what) {
    if (status != PCDWrapper::kSuccess) {
        std::string line = std::string("the registry cannot be ") + what + ": ";
        line += text.isEmpty() ? "the database library has no part for configurations, or the "
                                 "database is not open"
                               : text.c_str();
        platform::Log::system().problem(line);
    }
    return status == PCDWrapper::kSuccess;
}

// After each reading that failed, however many there are: the log keeps from repeating a line.
void tellOfFailure(const PCDWrapper& wrapper) {
    if (!wrapper.isComplete() && *wrapper.reason() != '\0') {
        platform::Log::system().problem(std::string("the registry cannot be read: ") +
                                        wrapper.reason());
    }
}

} // namespace

PCDConnector::PCDConnector(const SoString& appName, bool master, DomainKey key)
    : ConveyConnector(appName),
      master_(master),
      key_(key),
      wrapper_(std::make_unique<PCDWrapper>(master, key < kDomainKeys ? key : kIvorDomain)) {
    // Only now, as making the wrapper has asked for the folder under this lock.
    const std::lock_guard<std::mutex> lock(capsFolder().mutex);
    ++capsFolder().connectors;
}

PCDConnector::~PCDConnector() {
    const std::lock_guard<std::mutex> lock(capsFolder().mutex);
    // A later start that sets no folder must not find that of the one before.
    if (--capsFolder().connectors == 0) {
        capsFolder().path = SoString();
    }
}

bool PCDConnector::isGood() const {
    ObjectLock lock(*this);
    return wrapper_->isGood();
}

bool PCDConnector::isUnreadable() const {
    ObjectLock lock(*this);
    tellOfFailure(*wrapper_);
    return !wrapper_->isComplete();
}

SoString PCDConnector::getName() const {
    SoString name(kName);
    if (!master_) {
        name << "-cache" << domainSuffix(key_);
    } else if (key_ != kIvorDomain) {
        name << "-master" << domainSuffix(key_);
    }
    return name;
}

bool PCDConnector::initLists(CVConnectorAppInfoList& list, SoVector<SoString>& groups) {
    // Its times are those of before the list: what changes during the walk is seen at the next
    // look.
    PCDInitLists walk(list, groups);
    const bool complete = walk.run(*wrapper_) && wrapper_->isComplete();
    // Also when nothing was found: a database that comes later is a change worth looking for.
    filled_ = true;
    productModTime_ = walk.productModTime();
    domainModTime_ = walk.domainModTime();
    tellOfFailure(*wrapper_);
    return complete;
}

bool PCDConnector::updateCache(bool force) {
    ObjectLock lock(*this);
    // After a reading that failed it is read again, though no time may have changed.
    bool changed = needsReadingLocked();
    if (!filled_ && !changed) {
        return false;
    }
    const PCDWrapper::ModTimes times = wrapper_->getLastModTimes();
    // Another time, not only a later one: a database may be restored.
    if (times.products.value_or(productModTime_) != productModTime_) {
        productModTime_ = *times.products;
        changed = true;
    }
    if (times.domains.value_or(domainModTime_) != domainModTime_) {
        domainModTime_ = *times.domains;
        changed = true;
    }
    if (!changed && !force) {
        return false;
    }
    clearCache();
    // Without force the next query reads: a process that pumps looks here regularly and may never
    // ask.
    return !force || ConveyConnector::updateCache(true);
}

uint32_t PCDConnector::getTimestamp() const {
    ObjectLock lock(*this);
    const PCDWrapper::ModTimes times = wrapper_->getLastModTimes();
    return std::max(times.products.value_or(0), times.domains.value_or(0));
}

bool PCDConnector::addToGroup(const SoString&, const SoString&, const SoString*) {
    return false;
}

bool PCDConnector::removeFromGroup(const SoString&, const SoString&, const SoString*) {
    return false;
}

SoString PCDConnector::getConnectorConfig(const SoString& specifier) const {
    ObjectLock lock(*this);
    // Under the lock to the end: the sessions serve one thread at a time.
    SoString text;
    return told(wrapper_->exportConfig(specifier, text), text, "exported") ? text : SoString();
}

bool PCDConnector::importFrom(const SoString& source) {
    ObjectLock lock(*this);
    SoString text;
    if (!told(wrapper_->importConfig(source, "keep", text), text, "imported")) {
        return false;
    }
    // What was read before is out of date now, and the times would say so only at the next look.
    clearCache();
    return true;
}

bool PCDConnector::removeAll() {
    ObjectLock lock(*this);
    SoString text;
    const int32_t status = wrapper_->removeAllConfig(text);
    // Nothing to remove is an answer, and nothing that a person must hear of.
    if (status == PCDWrapper::kNothingThere || !told(status, text, "removed")) {
        return false;
    }
    clearCache();
    return true;
}

bool PCDConnector::skipImport(const CVConnectorAppInfo& info) const {
    return hasRecordOrNoList(info.specifier);
}

void PCDConnector::setCapsFolder(const SoString& folder) {
    const std::lock_guard<std::mutex> lock(capsFolder().mutex);
    capsFolder().path = folder;
}

SoString PCDConnector::getCapsFolder() {
    const std::lock_guard<std::mutex> lock(capsFolder().mutex);
    return capsFolder().path;
}

ConveyConnector* ConveyUtils::createConnector(const SoString& appName, const SoString& type,
                                              bool* isUnreadable) {
    if (isUnreadable != nullptr) {
        *isUnreadable = false;
    }
    if (!type.isEmpty() && type != "default" && type != kName) {
        return nullptr;
    }
    auto connector = std::make_unique<PCDConnector>(appName, true, PCDConnector::kIvorDomain);
    // One that is not good is told by its absence: queries then give their neutral values.
    if (connector->isGood()) {
        return connector.release();
    }
    if (isUnreadable != nullptr) {
        *isUnreadable = connector->isUnreadable();
    }
    return nullptr;
}

} // namespace ScObjects
