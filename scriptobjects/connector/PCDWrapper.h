#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "limits/Limits.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoHeap.h"

struct capsiSession;

namespace ScObjects {

class SoString;

// The installed-product database library, bound by name at run time, and the two sessions that the
// registry reads through.
//
// Owned by its connector; owns the library handle and the sessions. What the library hands out
// (texts, null-terminated lists) belongs to the session: it stays good until the next list of
// subdomains or payloads finds the database changed, or until the wrapper goes.
//
// Every operation returns the library's status: 0 success, 8 nothing there. The wrapper's own are 1
// (no library, or a function is missing), 9 (no product session) and 11 (may not be written).
// Outputs are written on success only, unless said otherwise.
//
// Threads: one at a time; the connector's lock guards it.
class SO_EXPORT PCDWrapper : public SoHeap {
public:
    using capsDomain = int32_t;

    static constexpr int32_t kSuccess = 0;
    static constexpr int32_t kNotGood = 1;
    static constexpr int32_t kNothingThere = 8;
    static constexpr int32_t kNoProductSession = 9;
    static constexpr int32_t kReadOnly = 11;
    static constexpr int32_t kFailed = 12;
    static constexpr uint32_t kLaunchPathBytes = limits::of("registry.launch-path");
    // The collections that stand for domains, and the payloads of them that are installed.
    static constexpr const char* kDomainCollection = "IvorDataCollectionActingAsADomain";
    static constexpr int32_t kInstalled = 4;

    // Loads the library and opens the sessions, never creating a database. `open` false binds the
    // library, for what binding shows, and lets go of it again: such a wrapper is never good.
    PCDWrapper(bool open, capsDomain domain);
    ~PCDWrapper() override;
    PCDWrapper(const PCDWrapper&) = delete;
    PCDWrapper& operator=(const PCDWrapper&) = delete;

    // True while the library is held and the database open.
    [[nodiscard]] bool isGood() const { return handle_ != nullptr; }
    // False when the library, the database or a part of it is there and could not be read, since
    // the last `startWalk`: what was not found may be there all the same. True where there is no
    // library and where there is no database.
    [[nodiscard]] bool isComplete() const { return failure_ == kSuccess; }
    // Why not, for a person; empty when that has been said.
    const char* reason() const { return reason_; }
    // Forgets what could not be read before; what could not be opened stays.
    void startWalk();
    // The domain that the registry is read from.
    capsDomain domain() const { return domain_; }
    // Whether it was made to read the registry.
    bool isOpened() const { return open_; }

    // The number of wrappers of this process that hold the library. Any thread.
    static int32_t getLibRefCount();

    // Domain data. Domain 0 is the collection "IvorDataCollectionActingAsADomain" of the product
    // data (install state 4): its payloads are the subdomains; it is not written.
    int32_t pcdGetDomainDataSubdomains(capsDomain domain, const char* const*& subdomains) const;
    int32_t pcdGetDomainDataKeys(capsDomain domain, const char* subdomain,
                                 const char* const*& keys) const;
    // The same with the value of each key; `values` is null where the library, an earlier one, or
    // the domain, 0, tells them one by one only.
    int32_t pcdGetDomainDataPairs(capsDomain domain, const char* subdomain,
                                  const char* const*& keys, const char* const*& values) const;
    int32_t pcdGetDomainData(capsDomain domain, const char* subdomain, const char* key,
                             const char*& value) const;
    int32_t pcdSetDomainData(capsDomain domain, const char* subdomain, const char* key,
                             const char* value);
    int32_t pcdRemoveDomainData(capsDomain domain, const char* subdomain, const char* key);

    // Product data.
    int32_t capsGetCollectionPayloads(const char* collection, int32_t installState,
                                      const char* const*& payloads) const;
    int32_t capsGetPayloadDataKeys(const char* payload, capsDomain domain,
                                   const char* const*& keys) const;
    int32_t capsGetPayloadData(const char* payload, capsDomain domain, const char* key,
                               const char*& value) const;
    int32_t capsGetPayloads(int32_t installState, const char* const*& payloads) const;

    // When product data and domain data were last changed; `time` is 0 unless the status is.
    int32_t capsGetLastModTime(uint32_t& time) const;
    int32_t pcdGetLastModTime(uint32_t& time) const;
    // Both, by one look where the library has that; none where it cannot be read.
    struct ModTimes {
        std::optional<uint32_t> products;
        std::optional<uint32_t> domains;
    };
    ModTimes getLastModTimes() const;

    // The launch path of an installed payload; `path` is empty unless the status is 0.
    int32_t pdbGetAppLaunchPath(const char* payload, SoString& path) const;

    // The registry as a whole; 1 where the library has no such part. `text` is the document, or
    // what is wrong. An empty specifier is all of it.
    int32_t exportConfig(const SoString& specifier, SoString& text) const;
    int32_t importConfig(const SoString& source, const char* rule, SoString& text);
    int32_t removeAllConfig(SoString& text);

private:
    static constexpr size_t kReasonBytes = 1024; // as the library's own

    struct Functions;

    bool openSessions();
    // Hands a status on, and keeps the first that is a failure to find out, with its reason.
    int32_t noted(int32_t status) const;
    void unload();
    // Calls a function of the library with a session; `missing` is the status when either is.
    template <class Function, class... Arguments>
    int32_t call(Function* function, capsiSession* session, int32_t missing,
                 Arguments... arguments) const;
    // The same of a function whose last argument is the list that it hands out.
    template <class Function, class... Arguments>
    int32_t list(Function* function, capsiSession* session, int32_t missing,
                 const char* const*& out, Arguments... arguments) const;

    std::unique_ptr<Functions> functions_;
    void* handle_ = nullptr;
    capsiSession* database_ = nullptr;
    capsiSession* products_ = nullptr;
    const capsDomain domain_;
    const bool open_;
    bool opened_ = false; // all of it
    mutable int32_t failure_ = kSuccess;
    mutable char reason_[kReasonBytes] = {};
};

} // namespace ScObjects
