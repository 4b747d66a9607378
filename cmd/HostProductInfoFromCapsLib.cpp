#include "cmd/HostProductInfoFromCapsLib.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "cmd/CapsProductFunctions.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace {

constexpr const char* kFramework = "ovrel_caps.framework";
constexpr int32_t kReadMode = 1;
constexpr capsDomain kGeneralDomain = 0;
constexpr capsDomain kLanguageDomain = 6;
constexpr const char* kNormalKind = "normal"; // of payloads that are applications
constexpr uint32_t kKeySlots = 100;           // a product rarely has ten languages
constexpr uint32_t kLaunchPathBytes = 1024;
constexpr const char* kProgramFolderInBundle = ".app/contents/macos"; // in lower case
constexpr size_t kBundleExtensionBytes = 4;                           // ".app"

CapsProductFunctions bindFunctions(void* library) {
    using ScObjects::ConveyUtils::SharedLib;
    CapsProductFunctions f;
    SharedLib::getFunction(library, "mdbOpenSessionNoCreate", f.mdbOpenSessionNoCreate);
    SharedLib::getFunction(library, "mdbCloseSession", f.mdbCloseSession);
    SharedLib::getFunction(library, "mdbGetProductIDList", f.mdbGetProductIDList);
    SharedLib::getFunction(library, "mdbGetProduct", f.mdbGetProduct);
    SharedLib::getFunction(library, "mdbGetProductPayloads", f.mdbGetProductPayloads);
    SharedLib::getFunction(library, "mdbGetPayload", f.mdbGetPayload);
    SharedLib::getFunction(library, "pdbOpenSessionNoCreate", f.pdbOpenSessionNoCreate);
    SharedLib::getFunction(library, "pdbCloseSession", f.pdbCloseSession);
    SharedLib::getFunction(library, "pdbGetPayloadData", f.pdbGetPayloadData);
    SharedLib::getFunction(library, "pdbGetPayloadDataKeys", f.pdbGetPayloadDataKeys);
    SharedLib::getFunction(library, "pdbGetAppLaunchPath", f.pdbGetAppLaunchPath);
    return f;
}

// Calls the library, and remembers whether it failed to find something out; that something is not
// there is no failure.
class Reader {
public:
    explicit Reader(const CapsProductFunctions& bound) : functions(bound) {}

    template <class... Parameters, class... Arguments>
    int32_t call(capsStatus (*function)(Parameters...), Arguments... arguments) {
        const int32_t status = function(arguments...);
        hasFailed_ = hasFailed_ || status == CAPS_DAMAGED || status == CAPS_FOREIGN ||
                     status == CAPS_NEWER_SCHEMA || status == CAPS_BUSY || status == CAPS_FAILED;
        return status;
    }
    bool hasFailed() const { return hasFailed_; }

    const CapsProductFunctions& functions;

private:
    bool hasFailed_ = false;
};

// The value of a key, null when it cannot be read.
const char* payloadValue(Reader& reader, capsiSession* session, const char* payload,
                         capsDomain domain, const char* key) {
    const char* value = nullptr;
    return reader.call(reader.functions.pdbGetPayloadData, session, payload, domain, key, &value) ==
                   CAPS_OK
               ? value
               : nullptr;
}

// The pairs of all keys of a null-terminated list, null for none, that have a value.
std::string keyPairs(Reader& reader, capsiSession* session, const char* payload,
                     const char* const* keys) {
    std::string pairs;
    for (; keys != nullptr && *keys != nullptr; ++keys) {
        if (const char* value = payloadValue(reader, session, payload, kLanguageDomain, *keys)) {
            pairs.append(*keys).append(",").append(value).append(";");
        }
    }
    return pairs;
}

// The keys of the language domain, with a final null, in the slots of `keys`; null when they cannot
// be read.
const char* const* languageKeys(Reader& reader, capsiSession* session, const char* payload,
                                std::vector<const char*>& keys) {
    // Without those of the payload before, which are gone by now.
    keys.assign(std::max<size_t>(keys.size(), kKeySlots), nullptr);
    auto slots = static_cast<uint32_t>(keys.size());
    const auto read = [&] {
        return reader.call(reader.functions.pdbGetPayloadDataKeys, session, payload,
                           kLanguageDomain, keys.data(), &slots);
    };
    int32_t status = read();
    if (status == CAPS_TOO_SMALL && slots > keys.size()) {
        keys.assign(slots, nullptr);
        status = read();
    }
    if (status != CAPS_OK) {
        return nullptr;
    }
    keys.back() = nullptr; // whatever the library wrote, the list ends
    return keys.data();
}

// The folder that holds the application bundle, empty when the payload launches none.
std::string launchFolder(Reader& reader, const char* payload) {
    char buffer[kLaunchPathBytes] = {};
    uint32_t bytes = sizeof buffer;
    if (reader.call(reader.functions.pdbGetAppLaunchPath, payload, buffer, &bytes) != CAPS_OK) {
        return {};
    }
    const std::string path(buffer, strnlen(buffer, sizeof buffer));
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    });
    const size_t found = lower.find(kProgramFolderInBundle);
    if (found == std::string::npos) {
        return {};
    }
    const std::string bundle = path.substr(0, found + kBundleExtensionBytes);
    return bundle.substr(0, bundle.find_last_of("\\/"));
}

// The product's folder: what lies directly below the install folder on the way to the product's
// configuration, else the folder of its bundle.
std::string productFolder(Reader& reader, const char* payload, std::string_view configPath,
                          std::string_view installFolder) {
    if (configPath.find(installFolder) != std::string_view::npos) {
        // Behind the install folder comes a separator; the next one ends the product's folder.
        const size_t end = configPath.find('/', installFolder.size() + 1);
        return std::string(configPath.substr(0, end));
    }
    return launchFolder(reader, payload);
}

void storeFirst(std::unordered_map<std::string, std::string>& table, const std::string& folder,
                const std::string& value) {
    std::string& entry = table[folder];
    if (entry.empty()) {
        entry = value;
    }
}

} // namespace

// The walk over the database that fills the tables.
class CHostProductInfoFromCapsLib::Walk {
public:
    Walk(CHostProductInfoFromCapsLib& info, const CapsProductFunctions& functions)
        : info_(info), reader_(functions) {}

    // False when something could not be read.
    bool run() {
        const CapsProductFunctions& f = reader_.functions;
        capsiSession* products = nullptr;
        capsiSession* payloads = nullptr;
        if (reader_.call(f.mdbOpenSessionNoCreate, &products, kReadMode) == CAPS_OK) {
            if (reader_.call(f.pdbOpenSessionNoCreate, &payloads, kReadMode) == CAPS_OK) {
                readProducts(products, payloads);
                (void)f.pdbCloseSession(payloads); // nothing to be done about a failure
            }
            (void)f.mdbCloseSession(products);
        }
        return !reader_.hasFailed();
    }

private:
    void readProducts(capsiSession* products, capsiSession* payloads);
    void readPayload(capsiSession* session, const char* payload);

    CHostProductInfoFromCapsLib& info_;
    Reader reader_;
    std::vector<const char*> keySlots_; // for one payload after the other
};

CHostProductInfoFromCapsLib* CHostProductInfoFromCapsLib::getInstance() {
    static auto* const instance = [] {
        using ScObjects::ConveyUtils::SharedLib;
        bool isThere = false;
        void* library = SharedLib::loadPCDLibrary(kFramework, &isThere);
        auto* info = new CHostProductInfoFromCapsLib(bindFunctions(library));
        SharedLib::unloadPCDLibrary(library); // the tables are copies
        info->complete_ = info->complete_ && (library != nullptr || !isThere);
        return info;
    }();
    return instance;
}

CHostProductInfoFromCapsLib::CHostProductInfoFromCapsLib(const CapsProductFunctions& functions)
    : complete_(!functions.areComplete() || Walk(*this, functions).run()) {}

void CHostProductInfoFromCapsLib::Walk::readProducts(capsiSession* products,
                                                     capsiSession* payloads) {
    const CapsProductFunctions& f = reader_.functions;
    const char** productIDs = nullptr;
    if (reader_.call(f.mdbGetProductIDList, products, &productIDs) != CAPS_OK) {
        return;
    }
    for (; productIDs != nullptr && *productIDs != nullptr; ++productIDs) {
        const capsProduct* product = nullptr;
        const char** payloadIDs = nullptr;
        if (reader_.call(f.mdbGetProduct, products, *productIDs, &product) != CAPS_OK ||
            reader_.call(f.mdbGetProductPayloads, products, product, &payloadIDs) != CAPS_OK) {
            continue;
        }
        for (; payloadIDs != nullptr && *payloadIDs != nullptr; ++payloadIDs) {
            const capsPayload* payload = nullptr;
            if (reader_.call(f.mdbGetPayload, products, *payloadIDs, &payload) == CAPS_OK &&
                payload != nullptr && payload->identifier != nullptr && payload->kind != nullptr &&
                std::strcmp(payload->kind, kNormalKind) == 0) {
                readPayload(payloads, payload->identifier);
            }
        }
    }
}

void CHostProductInfoFromCapsLib::Walk::readPayload(capsiSession* session, const char* payload) {
    const auto general = [&](const char* key) {
        return payloadValue(reader_, session, payload, kGeneralDomain, key);
    };
    const char* languages = general("installedLanguages");
    const char* configPath = languages != nullptr ? general("PYLConfigPath") : nullptr;
    const char* installFolder = configPath != nullptr ? general("INSTALLDIR") : nullptr;
    if (installFolder == nullptr) {
        return;
    }
    const std::string folder = productFolder(reader_, payload, configPath, installFolder);
    if (folder.empty()) {
        return;
    }
    storeFirst(info_.installedLanguages_, folder, languages);
    const std::string pairs =
        keyPairs(reader_, session, payload, languageKeys(reader_, session, payload, keySlots_));
    if (!pairs.empty()) {
        storeFirst(info_.languageKeyPairs_, folder, pairs);
    }
}

void CHostProductInfoFromCapsLib::SerializeDummyLanguageKeys(const CapsProductFunctions& functions,
                                                             capsiSession* session,
                                                             const char* payload,
                                                             const char* const* keys,
                                                             std::string& out) {
    Reader reader(functions);
    out = keyPairs(reader, session, payload, keys);
}

void CHostProductInfoFromCapsLib::stringReplace(std::string& text, const std::string& from,
                                                const std::string& to) {
    for (size_t found = text.find(from); found != std::string::npos;
         found = text.find(from, found + to.size())) {
        text.replace(found, from.size(), to);
    }
}

bool CHostProductInfoFromCapsLib::LookupInstalledLanguages(const std::string& folder,
                                                           std::string& languages) const {
    languages.clear();
    const auto found = installedLanguages_.find(folder);
    if (found == installedLanguages_.end()) {
        return false;
    }
    languages = found->second;
    if (languageKeyPairs_.empty()) {
        return true;
    }
    const auto pairs = languageKeyPairs_.find(folder);
    std::string rest = pairs != languageKeyPairs_.end() ? pairs->second : std::string();
    for (size_t end = rest.find(';'); end != std::string::npos; end = rest.find(';')) {
        const std::string pair = rest.substr(0, end);
        rest.erase(0, end + 1);
        const size_t comma = pair.find(',');
        if (comma == std::string::npos || comma == 0) {
            continue; // no pair, or one without a key
        }
        // The last value is whole; an earlier one is never longer than what follows its pair less
        // one byte. Readers of the listing know the short forms.
        const size_t longest = rest.empty() ? std::string::npos : rest.size() - 1;
        stringReplace(languages, pair.substr(0, comma), pair.substr(comma + 1, longest));
    }
    return true;
}
