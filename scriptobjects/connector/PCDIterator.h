#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoHeap.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoVector.h"

namespace ScObjects {

class CVConnectorAppInfo;
class CVConnectorAppInfoList;
class PCDWrapper;

// A walk over the registry in the installed-product database: every application's subdomain, and
// in it every key, in the library's order; the base turns what it visits into records.
//
// A local of whoever walks; lives for one walk at a time, in one thread. The answers of the
// callbacks do not stop the walk: one bad entry must not hide the others.
class SO_EXPORT PCDIterator : public SoHeap {
public:
    PCDIterator() = default;
    ~PCDIterator() override = default;

    // Walks. False when the wrapper is not good or a list of subdomains or keys cannot be read;
    // what was visited until then stays visited. An empty registry is a success.
    bool run(PCDWrapper& wrapper);

    // The database's two modification times as they were when the walk began, 0 when unknown.
    uint32_t productModTime() const { return productModTime_; }
    uint32_t domainModTime() const { return domainModTime_; }

    virtual bool onStart(PCDWrapper& wrapper);
    virtual bool onEnd(PCDWrapper& wrapper);
    virtual bool onStartSubDomain(PCDWrapper& wrapper, const SoString& subdomain,
                                  CVConnectorAppInfo& info);
    // Makes the record known through `onAppInfo`, taking the specifier from the subdomain's name
    // when no key gave one. Nothing for the subdomain of the groups and those beneath it.
    virtual bool onEndSubDomain(PCDWrapper& wrapper, const SoString& subdomain,
                                CVConnectorAppInfo& info);
    // Reads the key's value into the record, or a group entry out of the subdomain of the groups.
    virtual bool onKey(PCDWrapper& wrapper, const SoString& subdomain, const SoString& key,
                       CVConnectorAppInfo& info);
    // For a subclass that meets an entry it cannot bear.
    virtual bool onError(PCDWrapper& wrapper, const char* what, const char* where);
    // A whole record, which may be moved from: the walk is done with it.
    virtual bool onAppInfo(PCDWrapper& wrapper, CVConnectorAppInfo& info);
    virtual bool onGroupInfo(PCDWrapper& wrapper, const SoString& key, const SoString& entry);

protected:
    // For `onStart`: the walk's list of subdomains, which it would ask for next.
    void useList(const char* const* subdomains) { listed_ = subdomains; }

private:
    class Keys;
    class AtHand;

    // The value that belongs to the key of a callback, null when there is none.
    const char* valueOf(const PCDWrapper& wrapper, const SoString& subdomain,
                        const SoString& key) const;

    const char* const* listed_ = nullptr; // for the moment between `onStart` and the walk
    const Keys* atHand_ = nullptr;        // those of the subdomain that the walk is in
    uint32_t productModTime_ = 0;
    uint32_t domainModTime_ = 0;
};

// The walk that fills a connector's lists. Where a registration gives no path, it is looked for in
// the products' payloads that name the registration's Convey code.
class SO_EXPORT PCDInitLists : public PCDIterator {
public:
    // Both are the caller's and must outlive the walk, which empties them first and then owns
    // nothing of them: records belong to the list, group texts to whoever owns the vector.
    PCDInitLists(CVConnectorAppInfoList& list, SoVector<SoString>& groups);
    ~PCDInitLists() override = default;

    bool onStart(PCDWrapper& wrapper) override;
    bool onEnd(PCDWrapper& wrapper) override;
    bool onError(PCDWrapper& wrapper, const char* what, const char* where) override;
    bool onAppInfo(PCDWrapper& wrapper, CVConnectorAppInfo& info) override;
    bool onGroupInfo(PCDWrapper& wrapper, const SoString& key, const SoString& entry) override;

private:
    // What a product's payload says of where the application of a Convey code lies.
    struct PayloadJoin {
        SoString configPath;
        SoString launchPath;
    };

    void readPayloadJoins(const PCDWrapper& wrapper);
    SoString pathFromPayloads(const CVConnectorAppInfo& info) const;

    CVConnectorAppInfoList& list_;
    SoVector<SoString>& groups_;
    std::unordered_map<std::string, std::vector<PayloadJoin>> joins_; // by Convey code
};

} // namespace ScObjects
