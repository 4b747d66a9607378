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
constexpr int32_t kReadMode = 1;

constinit std::atomic<int32_t> gLibRefCount{0};

void* loadLibrary(bool& isThere) {
    SoString path = PCDConnector::getCapsFolder();
    if (path.isEmpty()) {
        return ConveyUtils::SharedLib::loadPCDLibrary(kFramework, &isThere);
    }
    path << ConveyUtils::getFolderSeparator() << kFramework;
    return ConveyUtils::SharedLib::loadPCDLibrary(path.c_str(), &isThere);
}

} // namespace

// Every function that is asked for, by its name in the library: each name is written once, and its
// type is the one that the library's header gives it.
#define CAPS_FUNCTIONS(USE)                                                                        \
    USE(pcdOpenSessionNoCreate)                                                                    \
    USE(pcdCloseSession)                                                                           \
    USE(pcdGetDomainDataSubdomains)                                                                \
    USE(pcdGetDomainDataKeys)                                                                      \
    USE(pcdGetDomainDataPairs)                                                                     \
    USE(pcdGetDomainData)                                                                          \
    USE(pcdSetDomainData)                                                                          \
    USE(pcdRemoveDomainData)                                                                       \
    USE(capsOpenSession)                                                                           \
    USE(capsCloseSession)                                                                          \
    USE(capsGetCollectionPayloads)                                                                 \
    USE(capsGetPayloadDataKeys)                                                                    \
    USE(capsGetPayloadData)                                                                        \
    USE(capsGetPayloads)                                                                           \
    USE(capsGetLastModTime)                                                                        \
    USE(pcdGetLastModTime)                                                                         \
    USE(capsGetLastModTimes)                                                                       \
    USE(pdbGetAppLaunchPath)                                                                       \
    USE(capsGetLowerStatus)                                                                        \
    USE(capsLastFailure)                                                                           \
    USE(capsConfigExport)                                                                          \
    USE(capsConfigImport)                                                                          \
    USE(capsConfigRemoveAll)

struct PCDWrapper::Functions {
// NOLINTNEXTLINE(bugprone-macro-parentheses): it names the member
#define CAPS_MEMBER(name) decltype(&::name) name = nullptr;
    CAPS_FUNCTIONS(CAPS_MEMBER)
#undef CAPS_MEMBER

    // A library of an earlier version has not all of them: those stay null, and who calls them
    // looks.
    void bind(void* handle) {
#define CAPS_BIND(name) ConveyUtils::SharedLib::getFunction(handle, #name, name);
        CAPS_FUNCTIONS(CAPS_BIND)
#undef CAPS_BIND
    }
};

#undef CAPS_FUNCTIONS

template <class Function, class... Arguments>
int32_t PCDWrapper::call(Function* function, capsiSession* session, int32_t missing,
                         Arguments... arguments) const {
    // Asked first: the pointers stay as they are when the library goes, and then lead nowhere.
    if (!isGood()) {
        return kNotGood;
    }
    return session != nullptr && function != nullptr ? noted(function(session, arguments...))
                                                     : missing;
}

template <class Function, class... Arguments>
int32_t PCDWrapper::list(Function* function, capsiSession* session, int32_t missing,
                         const char* const*& out, Arguments... arguments) const {
    // The caller's output is written on success only, whatever the library does to its own.
    const char** names = nullptr;
    const int32_t status = call(function, session, missing, arguments..., &names);
    if (status == kSuccess) {
        out = names;
    }
    return status;
}

PCDWrapper::PCDWrapper(bool open, capsDomain domain)
    : functions_(std::make_unique<Functions>()), domain_(domain), open_(open) {
    bool isThere = false;
    handle_ = loadLibrary(isThere);
    if (handle_ == nullptr) {
        failure_ = isThere ? kFailed : kSuccess; // which has been said
        return;
    }
    // Here and in `unload` only, beside the handle, so that each load is counted once.
    ++gLibRefCount;
    functions_->bind(handle_);
    // `isGood` looks at the library only, so it is not kept without a database.
    if (!open || !openSessions()) {
        unload();
    }
}

PCDWrapper::~PCDWrapper() {
    // The sessions before the library: closing them is its code.
    if (database_ != nullptr && functions_->pcdCloseSession != nullptr) {
        (void)functions_->pcdCloseSession(database_); // nothing to be done about a failure
    }
    if (products_ != nullptr && functions_->capsCloseSession != nullptr) {
        (void)functions_->capsCloseSession(products_);
    }
    unload();
}

bool PCDWrapper::openSessions() {
    if (functions_->pcdOpenSessionNoCreate == nullptr) {
        return false;
    }
    if (noted(functions_->pcdOpenSessionNoCreate(&database_, kReadMode)) != kSuccess) {
        // Whatever the library has left there: it is no session, and nobody may close it.
        database_ = nullptr;
        return false;
    }
    // The registry works without product data.
    if (functions_->capsOpenSession == nullptr ||
        noted(functions_->capsOpenSession(&products_, kReadMode)) != kSuccess) {
        products_ = nullptr;
    }
    // A walk reads again, but it opens nothing: what failed until here stays a failure.
    opened_ = isComplete();
    return true;
}

void PCDWrapper::startWalk() {
    if (opened_) {
        failure_ = kSuccess;
    }
    // A user's database answers without that of the system below it: that the latter could not be
    // read is seen only by asking.
    (void)call(functions_->capsGetLowerStatus, database_, kSuccess); // noted
}

int32_t PCDWrapper::noted(int32_t status) const {
    // No database is no failure: nothing is registered then. These leave open what is.
    const bool isFailure = status == CAPS_DAMAGED || status == CAPS_FOREIGN ||
                           status == CAPS_NEWER_SCHEMA || status == CAPS_BUSY ||
                           status == CAPS_FAILED;
    if (isFailure && failure_ == kSuccess) {
        failure_ = status;
        const char* const reason = functions_->capsLastFailure == nullptr
                                       ? "its library failed"
                                       : functions_->capsLastFailure();
        // Copied at once, since the text is good until this thread's next call. The first reason
        // stays: the failures behind it may be its consequences.
        const size_t bytes = strnlen(reason, sizeof reason_ - 1);
        std::memcpy(reason_, reason, bytes);
        reason_[bytes] = '\0';
    }
    return status;
}

// The system counts the loads: the library stays as long as another wrapper holds it.
void PCDWrapper::unload() {
    if (handle_ == nullptr) {
        return;
    }
    ConveyUtils::SharedLib::unloadPCDLibrary(handle_);
    handle_ = nullptr;
    // The pointers of `functions_` lead nowhere now; `isGood` keeps everybody from them.
    --gLibRefCount;
}

int32_t PCDWrapper::getLibRefCount() {
    return gLibRefCount;
}

int32_t PCDWrapper::pcdGetDomainDataSubdomains(capsDomain domain,
                                               const char* const*& subdomains) const {
    return domain == 0 ? capsGetCollectionPayloads(kDomainCollection, kInstalled, subdomains)
                       : list(functions_->pcdGetDomainDataSubdomains, database_, kNotGood,
                              subdomains, domain);
}

int32_t PCDWrapper::pcdGetDomainDataKeys(capsDomain domain, const char* subdomain,
                                         const char* const*& keys) const {
    return domain == 0 ? capsGetPayloadDataKeys(subdomain, 0, keys)
                       : list(functions_->pcdGetDomainDataKeys, database_, kNotGood, keys, domain,
                              subdomain);
}

int32_t PCDWrapper::pcdGetDomainDataPairs(capsDomain domain, const char* subdomain,
                                          const char* const*& keys,
                                          const char* const*& values) const {
    if (domain == 0 || functions_->pcdGetDomainDataPairs == nullptr) {
        values = nullptr;
        return pcdGetDomainDataKeys(domain, subdomain, keys);
    }
    const char** names = nullptr;
    const char** texts = nullptr;
    const int32_t status = call(functions_->pcdGetDomainDataPairs, database_, kNotGood, domain,
                                subdomain, &names, &texts);
    if (status == kSuccess) {
        keys = names;
        values = texts;
    }
    return status;
}

int32_t PCDWrapper::pcdGetDomainData(capsDomain domain, const char* subdomain, const char* key,
                                     const char*& value) const {
    return domain == 0 ? capsGetPayloadData(subdomain, 0, key, value)
                       : call(functions_->pcdGetDomainData, database_, kNotGood, domain, subdomain,
                              key, &value);
}

int32_t PCDWrapper::pcdSetDomainData(capsDomain domain, const char* subdomain, const char* key,
                                     const char* value) {
    if (domain == 0) {
        return isGood() ? kReadOnly : kNotGood;
    }
    return call(functions_->pcdSetDomainData, database_, kReadOnly, domain, subdomain, key, value);
}

int32_t PCDWrapper::pcdRemoveDomainData(capsDomain domain, const char* subdomain, const char* key) {
    if (domain == 0 && isGood()) {
        return products_ == nullptr ? kNoProductSession : kReadOnly;
    }
    return call(functions_->pcdRemoveDomainData, database_, kNotGood, domain, subdomain, key);
}

int32_t PCDWrapper::capsGetCollectionPayloads(const char* collection, int32_t installState,
                                              const char* const*& payloads) const {
    return list(functions_->capsGetCollectionPayloads, products_, kNoProductSession, payloads,
                collection, installState);
}

int32_t PCDWrapper::capsGetPayloadDataKeys(const char* payload, capsDomain domain,
                                           const char* const*& keys) const {
    return list(functions_->capsGetPayloadDataKeys, products_, kNoProductSession, keys, payload,
                domain);
}

int32_t PCDWrapper::capsGetPayloadData(const char* payload, capsDomain domain, const char* key,
                                       const char*& value) const {
    return call(functions_->capsGetPayloadData, products_, kNoProductSession, payload, domain, key,
                &value);
}

int32_t PCDWrapper::capsGetPayloads(int32_t installState, const char* const*& payloads) const {
    return list(functions_->capsGetPayloads, products_, kNoProductSession, payloads, installState);
}

int32_t PCDWrapper::capsGetLastModTime(uint32_t& time) const {
    time = 0;
    return call(functions_->capsGetLastModTime, products_, kNoProductSession, &time);
}

int32_t PCDWrapper::pcdGetLastModTime(uint32_t& time) const {
    time = 0;
    return call(functions_->pcdGetLastModTime, database_, kNotGood, &time);
}

PCDWrapper::ModTimes PCDWrapper::getLastModTimes() const {
    uint32_t products = 0;
    uint32_t domains = 0;
    if (functions_->capsGetLastModTimes != nullptr &&
        call(functions_->capsGetLastModTimes, products_, kNoProductSession, &products, &domains) ==
            kSuccess) {
        return {products, domains};
    }
    // One by one, of an earlier library, or what can be had.
    ModTimes times;
    if (capsGetLastModTime(products) == kSuccess) {
        times.products = products;
    }
    if (pcdGetLastModTime(domains) == kSuccess) {
        times.domains = domains;
    }
    return times;
}

int32_t PCDWrapper::pdbGetAppLaunchPath(const char* payload, SoString& path) const {
    path.shrink(0);
    if (!isGood() || functions_->pdbGetAppLaunchPath == nullptr) {
        return kNotGood;
    }
    // Cleared: a library that writes nothing gives an empty path.
    char buffer[kLaunchPathBytes] = {};
    uint32_t bytes = sizeof buffer;
    const int32_t status = noted(functions_->pdbGetAppLaunchPath(payload, buffer, &bytes));
    if (status == kSuccess) {
        // The library is another program's code: its text ends where the buffer ends at the latest.
        path.assign(buffer, static_cast<int32_t>(strnlen(buffer, sizeof buffer)));
    }
    return status;
}

int32_t PCDWrapper::exportConfig(const SoString& specifier, SoString& text) const {
    const char* told = "";
    const int32_t status =
        call(functions_->capsConfigExport, database_, kNotGood, specifier.c_str(), &told);
    // Copied: the library's text is good until the next of these functions.
    text = told;
    return status;
}

int32_t PCDWrapper::importConfig(const SoString& source, const char* rule, SoString& text) {
    const char* told = "";
    const int32_t status =
        call(functions_->capsConfigImport, database_, kNotGood, source.c_str(), rule, &told);
    text = told;
    return status;
}

int32_t PCDWrapper::removeAllConfig(SoString& text) {
    const char* told = "";
    const int32_t status = call(functions_->capsConfigRemoveAll, database_, kNotGood, &told);
    text = told;
    return status;
}

} // namespace ScObjects
