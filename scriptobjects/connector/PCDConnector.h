#pragma once

#include <cstdint>
#include <memory>

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/core/SoExport.h"

namespace ScObjects {

class PCDWrapper;

// The connector that reads the registry from the installed-product database. It reads only: the
// registry is written by the packagers' tools.
//
// Owned like every connector; owns the wrapper, and with it the library and the sessions. It
// survives a missing or damaged database: it is not good then, and its lists are empty.
// Threads: any, under the connector's lock.
class SO_EXPORT PCDConnector : public ConveyConnector {
public:
    // The domain of the database that holds the registry.
    enum DomainKey : int32_t {
        kInstallerDomain = 0,
        kIvorDomain = 1, // the standard one
        kZorDomain = 2,
        kWexDomain = 3,
        kPylDomain = 4,
    };

    // `master` false makes a connector that reads nothing and is never good. A key above 4 reads
    // the standard domain.
    PCDConnector(const SoString& appName, bool master, DomainKey key);
    ~PCDConnector() override;

    [[nodiscard]] bool isGood() const override;

    // Of a connector that is not good: true, and the reason told on standard error, when there is
    // something to read and it could not be; false when there is nothing.
    [[nodiscard]] bool isUnreadable() const;

    // "PCD" for the standard connector; "PCD-cache" or "PCD-master" and the domain's suffix for
    // others.
    SoString getName() const override;

    // Looks whether the database has changed since it was read; false before it was first read.
    // Drops the lists when it has, or with `force`, and then reads them at once with `force`.
    bool updateCache(bool force) override;

    // The later of the database's two modification times, 0 when unknown.
    uint32_t getTimestamp() const override;

    // The registry is read-only for this program: nothing is done, the answer is false.
    bool addToGroup(const SoString& specifier, const SoString& group,
                    const SoString* detail) override;
    bool removeFromGroup(const SoString& specifier, const SoString& group,
                         const SoString* detail) override;

    SoString getConnectorConfig(const SoString& specifier) const override;
    bool importFrom(const SoString& source) override;
    bool removeAll() override;

    // True when a record need not be taken over from another connector: its specifier is here
    // already, or nothing has been read here.
    [[nodiscard]] bool skipImport(const CVConnectorAppInfo& info) const;

    // The folder that holds the database library's framework, empty when none was set. Read when
    // a connector is made, forgotten when the last connector goes. Any thread.
    static void setCapsFolder(const SoString& folder);
    static SoString getCapsFolder();

protected:
    bool initLists(CVConnectorAppInfoList& list, SoVector<SoString>& groups) override
        SO_REQUIRES(this);

private:
    const bool master_;
    const DomainKey key_;
    const std::unique_ptr<PCDWrapper> wrapper_ SO_PT_GUARDED_BY(this);
    // Whether a list was ever asked for. The times do not tell: they are 0 after a reading that
    // found no database, and in databases of the first version.
    bool filled_ SO_GUARDED_BY(this) = false;
    // As of the last reading, 0 when unknown.
    uint32_t productModTime_ SO_GUARDED_BY(this) = 0;
    uint32_t domainModTime_ SO_GUARDED_BY(this) = 0;
};

} // namespace ScObjects
