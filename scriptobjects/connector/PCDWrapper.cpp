#include "scriptobjects/connector/PCDWrapper.h"

#include <atomic>
#include <cstring>

#include "caps/include/ovrel_caps.h"
#include "scriptobjects/connector/PCDConnector.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {
namespace {

constexpr const char* kFramework = "ovrel_caps.framework";
constexpr const char* kDomainCollection = "IvorDataCollectionActingAsADomain";
constexpr int32_t kInstalled = 4;
constexpr int32_t kReadMode = 1;

constinit std::atomic<int32_t> gLibRefCount{0};

void* loadLibrary() {
    SoString path = PCDConnector::getCapsFolder();
    if (path.isEmpty()) {
        return ConveyUtils::SharedLib::loadPCDLibrary(kFramework);
    }
    path << ConveyUtils::getFolderSeparator() << kFramework;
    return ConveyUtils::SharedLib::loadPCDLibraryUTF8(path);
}

} // namespace

struct PCDWrapper::Functions {
    decltype(&::pcdOpenSessionNoCreate) pcdOpenSessionNoCreate = nullptr;
    decltype(&::pcdCloseSession) pcdCloseSession = nullptr;
    decltype(&::pcdGetDomainDataSubdomains) pcdGetDomainDataSubdomains = nullptr;
    decltype(&::pcdGetDomainDataKeys) pcdGetDomainDataKeys = nullptr;
    decltype(&::pcdGetDomainData) pcdGetDomainData = nullptr;
    decltype(&::pcdSetDomainData) pcdSetDomainData = nullptr;
    decltype(&::pcdRemoveDomainData) pcdRemoveDomainData = nullptr;
    decltype(&::capsOpenSession) capsOpenSession = nullptr;
    decltype(&::capsCloseSession) capsCloseSession = nullptr;
    decltype(&::capsGetCollectionPayloads) capsGetCollectionPayloads = nullptr;
    decltype(&::capsGetPayloadDataKeys) capsGetPayloadDataKeys = nullptr;
    decltype(&::capsGetPayloadData) capsGetPayloadData = nullptr;
    decltype(&::capsGetPayloads) capsGetPayloads = nullptr;
    decltype(&::capsGetLastModTime) capsGetLastModTime = nullptr;
    decltype(&::pcdGetLastModTime) pcdGetLastModTime = nullptr;
    decltype(&::pdbGetAppLaunchPath) pdbGetAppLaunchPath = nullptr;

    void bind(void* handle) {
        using ConveyUtils::SharedLib;
        SharedLib::getFunction(handle, "pcdOpenSessionNoCreate", pcdOpenSessionNoCreate);
        SharedLib::getFunction(handle, "pcdCloseSession", pcdCloseSession);
        SharedLib::getFunction(handle, "pcdGetDomainDataSubdomains", pcdGetDomainDataSubdomains);
        SharedLib::getFunction(handle, "pcdGetDomainDataKeys", pcdGetDomainDataKeys);
        SharedLib::getFunction(handle, "pcdGetDomainData", pcdGetDomainData);
        SharedLib::getFunction(handle, "pcdSetDomainData", pcdSetDomainData);
        SharedLib::getFunction(handle, "pcdRemoveDomainData", pcdRemoveDomainData);
        SharedLib::getFunction(handle, "capsOpenSession", capsOpenSession);
        SharedLib::getFunction(handle, "capsCloseSession", capsCloseSession);
        SharedLib::getFunction(handle, "capsGetCollectionPayloads", capsGetCollectionPayloads);
        SharedLib::getFunction(handle, "capsGetPayloadDataKeys", capsGetPayloadDataKeys);
        SharedLib::getFunction(handle, "capsGetPayloadData", capsGetPayloadData);
        SharedLib::getFunction(handle, "capsGetPayloads", capsGetPayloads);
        SharedLib::getFunction(handle, "capsGetLastModTime", capsGetLastModTime);
        SharedLib::getFunction(handle, "pcdGetLastModTime", pcdGetLastModTime);
        SharedLib::getFunction(handle, "pdbGetAppLaunchPath", pdbGetAppLaunchPath);
    }
};

PCDWrapper::PCDWrapper(bool open, capsDomain domain)
    : functions_(std::make_unique<Functions>()),
      handle_(loadLibrary()),
      domain_(domain),
      open_(open) {
    if (handle_ == nullptr) {
        return;
    }
    ++gLibRefCount;
    functions_->bind(handle_);
    if (!open || !openSessions()) {
        unload();
    }
}

PCDWrapper::~PCDWrapper() {
    if (database_ != nullptr && functions_->pcdCloseSession != nullptr) {
        (void)functions_->pcdCloseSession(database_); // nothing to be done about a failure
    }
    if (products_ != nullptr && functions_->capsCloseSession != nullptr) {
        (void)functions_->capsCloseSession(products_);
    }
    unload();
}

bool PCDWrapper::openSessions() {
    if (functions_->pcdOpenSessionNoCreate == nullptr ||
        functions_->pcdOpenSessionNoCreate(&database_, kReadMode) != kSuccess) {
        database_ = nullptr;
        return false;
    }
    // The registry works without product data.
    if (functions_->capsOpenSession == nullptr ||
        functions_->capsOpenSession(&products_, kReadMode) != kSuccess) {
        products_ = nullptr;
    }
    return true;
}

// The system counts the loads: the library stays as long as another wrapper holds it.
void PCDWrapper::unload() {
    if (handle_ == nullptr) {
        return;
    }
    ConveyUtils::SharedLib::unloadPCDLibrary(handle_);
    handle_ = nullptr;
    --gLibRefCount;
}

int32_t PCDWrapper::getLibRefCount() {
    return gLibRefCount;
}

int32_t PCDWrapper::pcdGetDomainDataSubdomains(capsDomain domain,
                                               const char* const*& subdomains) const {
    if (!isGood()) {
        return kNotGood;
    }
    if (domain == 0) {
        return capsGetCollectionPayloads(kDomainCollection, kInstalled, subdomains);
    }
    if (functions_->pcdGetDomainDataSubdomains == nullptr) {
        return kNotGood;
    }
    const char** list = nullptr;
    const int32_t status = functions_->pcdGetDomainDataSubdomains(database_, domain, &list);
    if (status == kSuccess) {
        subdomains = list;
    }
    return status;
}

int32_t PCDWrapper::pcdGetDomainDataKeys(capsDomain domain, const char* subdomain,
                                         const char* const*& keys) const {
    if (!isGood()) {
        return kNotGood;
    }
    if (domain == 0) {
        return capsGetPayloadDataKeys(subdomain, 0, keys);
    }
    if (functions_->pcdGetDomainDataKeys == nullptr) {
        return kNotGood;
    }
    const char** list = nullptr;
    const int32_t status = functions_->pcdGetDomainDataKeys(database_, domain, subdomain, &list);
    if (status == kSuccess) {
        keys = list;
    }
    return status;
}

int32_t PCDWrapper::pcdGetDomainData(capsDomain domain, const char* subdomain, const char* key,
                                     const char*& value) const {
    if (!isGood()) {
        return kNotGood;
    }
    if (domain == 0) {
        return capsGetPayloadData(subdomain, 0, key, value);
    }
    return functions_->pcdGetDomainData != nullptr
               ? functions_->pcdGetDomainData(database_, domain, subdomain, key, &value)
               : kNotGood;
}

int32_t PCDWrapper::pcdSetDomainData(capsDomain domain, const char* subdomain, const char* key,
                                     const char* value) {
    if (!isGood()) {
        return kNotGood;
    }
    return domain != 0 && functions_->pcdSetDomainData != nullptr
               ? functions_->pcdSetDomainData(database_, domain, subdomain, key, value)
               : kReadOnly;
}

int32_t PCDWrapper::pcdRemoveDomainData(capsDomain domain, const char* subdomain, const char* key) {
    if (!isGood()) {
        return kNotGood;
    }
    if (domain == 0) {
        return products_ == nullptr ? kNoProductSession : kReadOnly;
    }
    return functions_->pcdRemoveDomainData != nullptr
               ? functions_->pcdRemoveDomainData(database_, domain, subdomain, key)
               : kNotGood;
}

int32_t PCDWrapper::capsGetCollectionPayloads(const char* collection, int32_t installState,
                                              const char* const*& payloads) const {
    if (!isGood()) {
        return kNotGood;
    }
    if (products_ == nullptr || functions_->capsGetCollectionPayloads == nullptr) {
        return kNoProductSession;
    }
    const char** list = nullptr;
    const int32_t status =
        functions_->capsGetCollectionPayloads(products_, collection, installState, &list);
    if (status == kSuccess) {
        payloads = list;
    }
    return status;
}

int32_t PCDWrapper::capsGetPayloadDataKeys(const char* payload, capsDomain domain,
                                           const char* const*& keys) const {
    if (!isGood()) {
        return kNotGood;
    }
    if (products_ == nullptr || functions_->capsGetPayloadDataKeys == nullptr) {
        return kNoProductSession;
    }
    const char** list = nullptr;
    const int32_t status = functions_->capsGetPayloadDataKeys(products_, payload, domain, &list);
    if (status == kSuccess) {
        keys = list;
    }
    return status;
}

int32_t PCDWrapper::capsGetPayloadData(const char* payload, capsDomain domain, const char* key,
                                       const char*& value) const {
    if (!isGood()) {
        return kNotGood;
    }
    return products_ != nullptr && functions_->capsGetPayloadData != nullptr
               ? functions_->capsGetPayloadData(products_, payload, domain, key, &value)
               : kNoProductSession;
}

int32_t PCDWrapper::capsGetPayloads(int32_t installState, const char* const*& payloads) const {
    if (!isGood()) {
        return kNotGood;
    }
    if (products_ == nullptr || functions_->capsGetPayloads == nullptr) {
        return kNoProductSession;
    }
    const char** list = nullptr;
    const int32_t status = functions_->capsGetPayloads(products_, installState, &list);
    if (status == kSuccess) {
        payloads = list;
    }
    return status;
}

int32_t PCDWrapper::capsGetLastModTime(uint32_t& time) const {
    time = 0;
    if (!isGood()) {
        return kNotGood;
    }
    return products_ != nullptr && functions_->capsGetLastModTime != nullptr
               ? functions_->capsGetLastModTime(products_, &time)
               : kNoProductSession;
}

int32_t PCDWrapper::pcdGetLastModTime(uint32_t& time) const {
    time = 0;
    return isGood() && functions_->pcdGetLastModTime != nullptr
               ? functions_->pcdGetLastModTime(database_, &time)
               : kNotGood;
}

int32_t PCDWrapper::pdbGetAppLaunchPath(const char* payload, SoString& path) const {
    path.shrink(0);
    if (!isGood() || functions_->pdbGetAppLaunchPath == nullptr) {
        return kNotGood;
    }
    char buffer[kLaunchPathBytes] = {};
    uint32_t bytes = sizeof buffer;
    const int32_t status = functions_->pdbGetAppLaunchPath(payload, buffer, &bytes);
    if (status == kSuccess) {
        // The library is another program's code: its text ends where the buffer ends at the latest.
        path.assign(buffer, static_cast<int32_t>(strnlen(buffer, sizeof buffer)));
    }
    return status;
}

} // namespace ScObjects
