#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"
#include "scriptobjects/core/SoThreadAnnotations.h"
#include "scriptobjects/core/SoVector.h"

namespace ScObjects {

class ConveyContext;

class CVConnectorAppInfo;
class CVConnectorAppInfoList;
class CVGroups;

// The registry of applications as the rest of the layer sees it: answers questions about registered
// applications and turns an incomplete specifier into that of an installed one. A concrete
// connector supplies the records and groups through `initLists`.
//
// Owned by the process: `InitTerm::init` makes and installs it, `InitTerm::exit` deletes it. Owns
// the list of records and the groups, which are read on first use and dropped by `clearCache`.
//
// Threads: any. Each query holds the connector's lock, and under it the list's; what may ask other
// processes or fix up a specifier happens outside of both. Queries never fail loudly: without a
// list or a record the answer is the empty text, 0 or false, and true for the two message flags.
//
// Specifiers are passed as texts: a `Convey::Specifier` is one.
class SO_EXPORT ConveyConnector : public SoLockable {
public:
    // The registry's subdomains and keys.
    static constexpr const char* kAppSubdomainPrefix = "/ovrel/convey/";
    static constexpr const char* kGroupSubdomainPrefix = "/ovrel/convey/groups/";
    static constexpr const char* kGroupKeyPrefix = "Group";
    static constexpr const char* kGuidKey = "Specifier";
    static constexpr const char* kProductCodeKey = "ProductCode";
    static constexpr const char* kLocationKey = "Path";
    static constexpr const char* kWinClassNameKey = "WindowClassName";
    static constexpr const char* kDisplayNameKey = "DisplayName";
    static constexpr const char* kBundleIdentifierKey = "BundleIdentifier";
    static constexpr const char* kConveyVersionKey = "ConveyVersion";
    static constexpr const char* kAllowMultipleInstancesKey = "AllowMultipleInstances";
    static constexpr const char* kIsShellToolKey = "IsShellTool";
    static constexpr const char* kMessageAuthenticationKey = "MessageAuthentication";
    static constexpr const char* kMessageDigestKey = "MessageDigest";
    static constexpr const char* kSupportsDbgkKey = "SupportsDBGK";
    static constexpr const char* kConveyCodeKey = "ConveyCode";
    static constexpr const char* kExecutableBasenameKey = "ExecutableBasename";
    static constexpr const char* kOMVDictionaryKey = "OMVDictionary";
    static constexpr const char* kDeveloperInstallPathKey = "DeveloperInstallPath";
    static constexpr const char* kRedirectToKey = "RedirectTo";
    static constexpr const char* kExecutablePathKey = "ExecutablePath";
    static constexpr const char* kExecutableExtensionKey = "ExecutableExtensionMac";
    static constexpr const char* kExecutableExtensionValue = "app";

    // The process-wide connector at the start and the end of the layer.
    class InitTerm {
    public:
        // Makes the connector for the application `appName` and installs it, unless there is one.
        // Without a database there is none afterwards, and all queries give their neutral values.
        static void init(const SoString& appName);
        // Deletes it. No other thread may be using it.
        static void exit();
    };

    // The process-wide connector, null for none; good until `InitTerm::exit`.
    static ConveyConnector* get();
    // Installs `connector` (owned from now on; null for none). The one before stays alive until
    // `InitTerm::exit`, because other threads may be in the middle of a query.
    static void set(ConveyConnector* connector);

    // `name`: under which application the registry is opened.
    explicit ConveyConnector(const SoString& name);
    ~ConveyConnector() override;
    ConveyConnector(const ConveyConnector&) = delete;
    ConveyConnector& operator=(const ConveyConnector&) = delete;

    // The specifier of `appName` that goes with `specifier` in `group`, a group's name or number:
    // the last group entry of that group whose pattern names the application decides, and a pattern
    // such as lumen-2.* gives the installed 2.x that runs, else the highest. Where `specifier` is
    // of the same application, only entries from its version up to, not including, the next major
    // one count. Without such an entry `appName` itself when it is installed, else the empty text.
    virtual SoString findPreferredApp(const SoString& specifier, const SoString& appName,
                                      const SoString& group);

    // The group of the application `specifier`: that of the entry with the highest number (above
    // 0) whose pattern is its name and version (1.0 without one), among equal numbers the last.
    // `detail`, when given, receives the number as it is written. Empty for none.
    virtual SoString findGroupForSpecifier(const SoString& specifier, SoString* detail);

    // The installed application that the last entry of `group` (a name, or a number) names for the
    // application `appName`; empty where the group has none, or it is not installed.
    virtual SoString findSpecifierInGroup(const SoString& appName, const SoString& group);

    // True when the registry can be read.
    [[nodiscard]] virtual bool isGood() const;

    virtual int32_t getNumberOfRegisteredApplications() const;

    // The specifier of record `i` in the order of registration, the connector's own name for -1,
    // empty out of range.
    virtual SoString getApplicationSpecifier(int32_t i) const;

    // The name for people of the application (version and locale may be empty), completed to a
    // registered one: its display name, else the last component of its path without extension.
    virtual SoString getDisplayName(const SoString& appName, const SoString& version,
                                    const SoString& locale) const;

    // The path of the application; `key` is for connectors that keep several.
    virtual SoString getApplicationPath(const SoString& specifier, const char* key) const;

    // What the record of `specifier` says.
    virtual bool supportsDBGK(const SoString& specifier) const;
    virtual bool isShellTool(const SoString& specifier) const;
    // True for an unknown target too: it is talked to with authentication and digest.
    virtual bool getMessageAuthentication(const SoString& specifier) const;
    virtual bool getMessageDigest(const SoString& specifier) const;
    virtual SoString getBundleIdentifier(const SoString& specifier) const;
    virtual SoString getExecutableBasename(const SoString& specifier) const;
    virtual SoString getExecutableExtension(const SoString& specifier) const;
    virtual SoString getOMVDictionary(const SoString& specifier) const;
    virtual SoString getDeveloperInstallPath(const SoString& specifier) const;
    virtual SoString getRedirectTo(const SoString& specifier) const;

    // The process in which the application runs, as far as it has been reported; 0 when unknown.
    // It is noted for an exact registration only.
    virtual void setProcessID(const SoString& specifier, uint32_t pid);
    virtual uint32_t getProcessID(const SoString& specifier) const;

    // Starts the application with parameters, in front of others or behind them; 1 when it was
    // started, 0 when it is not registered, does not lie where it is registered, or could not be
    // started. The process is noted, for a target that has no registration of its own, such as an
    // instance of an application, with a copy of the record that was found for it.
    virtual int32_t launchTarget(const SoString& specifier, const SoString& parameters,
                                 bool inFront, ConveyContext* context) SO_EXCLUDES(this);

    // Brings the running application to the front, as far as there is a desktop; false when it is
    // not registered.
    virtual bool bringToFront(const char* specifier, ConveyContext* context) const
        SO_EXCLUDES(this);

    // Drops records and groups; the next query reads them again.
    virtual void clearCache();

    // Change the registry. It belongs to the packagers' tools: these do nothing and return false.
    virtual bool registerApplication(const SoString& specifier, const SoString& path,
                                     const SoString* detail, bool flag);
    virtual bool unregisterApplication(const SoString& specifier, const SoString* detail);
    virtual bool addToGroup(const SoString& specifier, const SoString& group,
                            const SoString* detail) = 0;
    virtual bool removeFromGroup(const SoString& specifier, const SoString& group,
                                 const SoString* detail) = 0;

    // Appends the registry's rows of the diagnostics text below `path`: its kind, its state, and
    // what it has read.
    virtual void appendDiagnostics(SoString& out, const SoString& path) const;

    // The kind of connector, for example "PCD".
    virtual SoString getName() const = 0;

    // The registry as an XML document (docs/registry-moving.md), or of one application with
    // `specifier`. Empty where the connector has none, which the base has not; why is told once on
    // standard error.
    virtual SoString getConnectorConfig(const SoString& specifier) const;

    // Takes over, in one transaction, what is not here already: of a document (it begins with '<'),
    // or of the path of one or of a database. False, with nothing changed and the reason on
    // standard error, when that cannot be done; the base never can.
    virtual bool importFrom(const SoString& source);

    // Removes every application and every group for good, in one transaction; false when there are
    // none or they may not be removed. The base never can.
    virtual bool removeAll();

    // True when both have the same records and the same group entries, in the same order. What runs
    // is not compared.
    virtual bool isEqual(const ConveyConnector& other) const;

    // Reads the registry again. The base: with `force` at once, true when that could be done;
    // without, nothing and false. A concrete connector looks first whether anything has changed.
    virtual bool updateCache(bool force);

    // When the registry was last changed, 0 when unknown.
    virtual uint32_t getTimestamp() const = 0;

    // Appends the specifiers of the records of the application `appName` (lower case) to `out`, in
    // lower case and in registry order.
    void appendSpecifiersOf(const SoString& appName, std::vector<SoString>& out) const;

    // As the list's own: true when the application has no registration but `specifier`.
    [[nodiscard]] bool hasNoOther(std::string_view appName, std::string_view specifier) const;

    // True when a record equal to `specifier` or standing for it is in the list read so far; also
    // true when none has been read.
    bool hasRecordOrNoList(const SoString& specifier) const;

    // Whether every query since the cache was last dropped has seen the whole registry; reads it
    // when that has not been done. False when reading broke off or failed in parts: what was not
    // found may be registered all the same. The next look for changes reads again.
    [[nodiscard]] bool isComplete() const;

    // The same of the process's connector; without one, false when there is a registry that could
    // not be opened. Any thread.
    static bool isRegistryKnown();

    // Whether there is a registration without a version: completing such a name depends on what
    // runs and on who asks, completing others on what is registered only. Reads the registry when
    // that has not been done; false without a connector. Any thread.
    static bool hasVersionless();

protected:
    // True after a reading that failed.
    bool needsReadingLocked() const SO_REQUIRES(this) { return !complete_; }

    // Fills both empty containers, in the order of registration; false when the registry could not
    // be read to its end. Called under the connector's lock.
    virtual bool initLists(CVConnectorAppInfoList& list, SoVector<SoString>& groups) = 0;

private:
    CVConnectorAppInfoList* getAppInfoListLocked() const SO_REQUIRES(this);
    void copyContents(std::vector<CVConnectorAppInfo>& records,
                      std::vector<SoString>& groups) const;
    bool findRecord(const SoString& specifier, CVConnectorAppInfo& out) const;
    void noteLaunched(const SoString& specifier, uint32_t pid);
    template <class Field>
    Field field(const SoString& specifier, Field CVConnectorAppInfo::*member, Field unknown) const;

    const SoString name_;
    // Both are read on first use, which is a query.
    mutable std::unique_ptr<CVConnectorAppInfoList> appInfoList_ SO_GUARDED_BY(this);
    mutable std::unique_ptr<CVGroups> groups_ SO_GUARDED_BY(this);
    mutable bool complete_ SO_GUARDED_BY(this) = true; // what was read since they were dropped
};

// Splits a group entry at its first and at its last '/' into the group's name, a number as text and
// an application pattern. False, and nothing written, when there are not two of them. Any thread.
SO_EXPORT bool parseEntry(const SoString& entry, SoString& name, SoString& number,
                          SoString& pattern);

namespace ConveyUtils {

// A new connector of the kind `type` ("PCD"; empty and "default" mean it too) for the application
// `appName`; the caller owns it. Null for another kind or when the registry cannot be opened.
// `isUnreadable`, unless null, tells then whether there is a registry all the same.
SO_EXPORT ConveyConnector* createConnector(const SoString& appName, const SoString& type,
                                           bool* isUnreadable = nullptr);

} // namespace ConveyUtils

} // namespace ScObjects
