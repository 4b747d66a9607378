#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"
#include "scriptobjects/core/SoThreadAnnotations.h"

namespace ScObjects {

// One application that can be addressed as a messaging target, as the installed-product database
// describes it. A plain value; owns its texts. Used by one thread at a time.
//
// A record that says nothing of message authentication or of digests asks for both.
class SO_EXPORT CVConnectorAppInfo {
public:
    SoString specifier; // lower case unless it was taken from the name of its subdomain
    SoString path;
    SoString windowClassName;
    SoString bundleIdentifier;
    SoString displayName;
    double conveyVersion; // of the messaging layer that the application uses; ours by default
    bool allowMultipleInstances = false;
    bool isShellTool = false;
    bool supportsDBGK = false;
    bool messageAuthentication = true;
    bool messageDigest = true;
    SoString executableBasename;
    SoString executableExtension; // "app" by default
    SoString omvDictionary;
    SoString developerInstallPath;
    SoString redirectTo;    // the specifier of the application that stands in for this one
    uint32_t processID = 0; // of the running application, 0 when unknown; never stored

    CVConnectorAppInfo();

    // True when all fields but `processID` are equal: what runs does not change what is registered.
    // Two records whose versions are NaN are unequal.
    [[nodiscard]] bool operator==(const CVConnectorAppInfo& other) const;
};

// An index from the hash of a text to the positions of a list, positions in ascending order. Holds
// no texts: a hit is a candidate that the caller compares. Used under the lock of the list.
class CVPositionIndex {
public:
    static uint32_t hash(std::string_view text);

    // Takes the memory that the next `add` needs. Throws std::bad_alloc, and nothing that can be
    // asked for has changed.
    void prepare();
    // The hash of the text at the next position, counted from 0; room for it was prepared.
    void add(uint32_t textHash) noexcept;
    void clear() noexcept;

    // The first position whose text has this hash, and the next one after `position`; -1 when there
    // is none:
    //     for (int32_t i = index.first(h); i >= 0; i = index.after(i))
    int32_t first(uint32_t textHash) const;
    int32_t after(int32_t position) const;

private:
    // The positions of one hash, in a table with open addressing: one that allocates for each hash
    // costs more than all other steps of reading a record's names.
    struct Chain {
        uint32_t hash = 0;
        int32_t first = -1; // -1: nobody's place
        int32_t last = -1;
    };
    size_t placeOf(uint32_t textHash) const;

    std::vector<int32_t> next_; // by position: the next one with the same hash, -1 at the end
    std::vector<Chain> chains_; // a power of two, or none; at least a half is nobody's
    size_t used_ = 0;
};

// All registered applications, in the order in which they were registered.
//
// Owned by the connector, which makes it on first use and drops it when the database has changed.
// Owns its records and deletes them on removal, clearing and destruction.
//
// Threads: any; every operation holds the list's lock for its whole body. Pointers to records stay
// good until the next `remove`, `clear` or destruction; who hands data to another thread copies it
// with `getItemAt` or the copying `find`. A record's `specifier` must not be changed through such a
// pointer (the searches would miss it): `update` does that.
class SO_EXPORT CVConnectorAppInfoList : public SoLockable {
public:
    CVConnectorAppInfoList();
    ~CVConnectorAppInfoList() override;
    CVConnectorAppInfoList(const CVConnectorAppInfoList&) = delete;
    CVConnectorAppInfoList& operator=(const CVConnectorAppInfoList&) = delete;

    // Appends `info` and owns it from now on. When an equal record is there already, `info` is
    // deleted and the answer is false; null is refused with false.
    bool append(CVConnectorAppInfo* info);

    // True when some record equals `info`.
    [[nodiscard]] bool isInList(const CVConnectorAppInfo& info) const;

    // Overwrites the record that `find` gives for the specifier of `info`, whole and including the
    // specifier, or appends a copy when there is none. False, and nothing changed, when there is
    // none and the specifier is empty.
    bool update(const CVConnectorAppInfo& info);

    // The first record registered under `specifier` exactly, else the first one registered under
    // it without instance and suffix (kivra_2-7.0 and kivra-7.0#2 find kivra-7.0); null when there
    // is none. `index`, when given, receives the position, -1 for none.
    CVConnectorAppInfo* find(const SoString& specifier, int32_t* index) const;

    // As above, copying the record to `out`. False, and `out` left alone, when there is none.
    bool find(const SoString& specifier, CVConnectorAppInfo& out, int32_t* index) const;

    // Deletes all records.
    void clear();
    // The same, for callers that hold the list's lock already.
    void clearWithoutLocking() SO_REQUIRES(this);

    // Copies record `i` to `out`; false, and `out` left alone, when `i` is out of range.
    [[nodiscard]] bool getItemAt(int32_t i, CVConnectorAppInfo& out) const;

    // Record `i`, null when `i` is out of range.
    CVConnectorAppInfo* get(int32_t i) const;

    // Removes and deletes the first record equal to `info`; false when there is none.
    bool remove(const CVConnectorAppInfo& info);

    // Gives each record with a `redirectTo` the path at the end of its chain. A chain that ends at
    // a missing target, or that leads back to itself, leaves the record's path as it is. True when
    // at least one record had a `redirectTo`.
    bool resolveRedirectTo();

    // Notes the process of the first record registered under `specifier` exactly; false when there
    // is none.
    bool setProcessID(const SoString& specifier, uint32_t pid);

    // The number of records.
    [[nodiscard]] int32_t count() const;

    // Appends to `out` the specifier of each record whose application name is `appName` (lower
    // case), in lower case and in the order of the list. What a walk over the whole list would
    // give, at the cost of the records found.
    void appendSpecifiersOf(const SoString& appName, std::vector<SoString>& out) const;

    // True when nothing is registered under the application name of `specifier`, which is in lower
    // case, but that, spelt so, or nothing at all; false may also mean that it was not worth
    // finding out.
    [[nodiscard]] bool hasNoOther(std::string_view appName, std::string_view specifier) const;

private:
    CVConnectorAppInfo* findExactLocked(std::string_view specifier, int32_t* index) const
        SO_REQUIRES(this);
    CVConnectorAppInfo* findLocked(const SoString& specifier, int32_t* index) const
        SO_REQUIRES(this);
    CVConnectorAppInfo* findEqualLocked(const CVConnectorAppInfo& info, int32_t* index) const
        SO_REQUIRES(this);
    bool redirectedPathLocked(const CVConnectorAppInfo& record, SoString& path) const
        SO_REQUIRES(this);
    void appendLocked(std::unique_ptr<CVConnectorAppInfo> info) SO_REQUIRES(this);

    CVConnectorAppInfo* at(int32_t i) const SO_REQUIRES(this) {
        return items_[static_cast<size_t>(i)].get();
    }
    bool isInside(int32_t i) const SO_REQUIRES(this) {
        return i >= 0 && static_cast<size_t>(i) < items_.size();
    }

    // No SoVector, which grows by a few places at a time: of a hundred thousand each would be moved
    // a thousand times.
    std::vector<std::unique_ptr<CVConnectorAppInfo>> items_ SO_GUARDED_BY(this);
    // The record that `update` touched last: programs report the same target again and again.
    CVConnectorAppInfo* lastUpdated_ SO_GUARDED_BY(this) = nullptr;
    struct Indexes {
        CVPositionIndex bySpecifier;
        CVPositionIndex byAppName;
        struct Hashes {
            uint32_t specifier;
            uint32_t appName;
        };
        // As those of CVPositionIndex; `add` takes what `prepare` gave.
        Hashes prepare(std::string_view specifier);
        void add(Hashes hashes) noexcept;
    };
    // Those of the list as it will be, `changed` under the specifier `specifier` or, without one,
    // not in it.
    Indexes indexesWithLocked(int32_t changed, const SoString* specifier) const SO_REQUIRES(this);

    Indexes indexes_ SO_GUARDED_BY(this);
};

} // namespace ScObjects
