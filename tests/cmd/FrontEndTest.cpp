#include <cstring>

#include "cmd/CapsProductFunctions.h"
#include "cmd/HostProductInfoFromCapsLib.h"
#include "cmd/KivraConveyCmd.h"

namespace {

// A database library that a test fills; one product for all payloads.
struct FakePayload {
    std::string identifier;
    std::string kind = "normal";
    std::string launchPath;
    std::map<std::string, std::string> general;                      // domain 0
    std::vector<std::pair<std::string, std::string>> languages = {}; // domain 6
};

std::vector<FakePayload> gPayloads;
std::vector<const char*> gList;
capsPayload gRecord;
int gOpenSessions = 0;

const FakePayload* payloadOf(const char* identifier) {
    const auto found = std::find_if(gPayloads.begin(), gPayloads.end(), [&](const FakePayload& p) {
        return p.identifier == identifier;
    });
    return found == gPayloads.end() ? nullptr : &*found;
}

CapsProductFunctions fakeFunctions() {
    CapsProductFunctions f;
    f.mdbOpenSessionNoCreate = [](capsiSession** session, int32_t) -> int32_t {
        ++gOpenSessions;
        *session = reinterpret_cast<capsiSession*>(&gRecord);
        return CAPS_OK;
    };
    f.pdbOpenSessionNoCreate = f.mdbOpenSessionNoCreate;
    f.mdbCloseSession = [](capsiSession*) -> int32_t { return --gOpenSessions, CAPS_OK; };
    f.pdbCloseSession = f.mdbCloseSession;
    f.mdbGetProductIDList = [](capsiSession*, const char*** ids) -> int32_t {
        static const char* list[] = {"broken", "product", nullptr};
        *ids = list;
        return CAPS_OK;
    };
    f.mdbGetProduct = [](capsiSession*, const char* id, const capsProduct** product) -> int32_t {
        static const capsProduct record = {"product"};
        *product = &record;
        return std::strcmp(id, "broken") == 0 ? CAPS_DAMAGED : CAPS_OK;
    };
    f.mdbGetProductPayloads = [](capsiSession*, const capsProduct*,
                                 const char*** payloads) -> int32_t {
        gList.assign(1, "{gone}"); // in the list, but not to be read
        for (const FakePayload& payload : gPayloads) {
            gList.push_back(payload.identifier.c_str());
        }
        gList.push_back(nullptr);
        *payloads = gList.data();
        return CAPS_OK;
    };
    f.mdbGetPayload = [](capsiSession*, const char* id, const capsPayload** out) -> int32_t {
        const FakePayload* payload = payloadOf(id);
        if (payload == nullptr) {
            return CAPS_NOTHING_THERE;
        }
        gRecord = {payload->identifier.c_str(), "", "", 4, payload->kind.c_str()};
        *out = &gRecord;
        return CAPS_OK;
    };
    f.pdbGetPayloadData = [](capsiSession*, const char* id, capsDomain domain, const char* key,
                             const char** value) -> int32_t {
        const FakePayload& payload = *payloadOf(id);
        if (domain == 0) {
            const auto found = payload.general.find(key);
            *value = found == payload.general.end() ? nullptr : found->second.c_str();
            return CAPS_OK; // a success without a value counts as none
        }
        for (const auto& [candidate, text] : payload.languages) {
            if (candidate == key && text != "<fails>") {
                *value = text.c_str();
                return CAPS_OK;
            }
        }
        return CAPS_NOTHING_THERE;
    };
    f.pdbGetPayloadDataKeys = [](capsiSession*, const char* id, capsDomain, const char** keys,
                                 uint32_t* slots) -> int32_t {
        const auto& languages = payloadOf(id)->languages;
        if (languages.size() + 1 > *slots) {
            *slots = static_cast<uint32_t>(languages.size() + 1);
            return CAPS_TOO_SMALL;
        }
        EXPECT_EQ(std::count(keys, keys + *slots, nullptr), *slots) << "of another payload";
        for (const auto& [key, value] : languages) {
            *keys++ = key.c_str(); // and no null behind them
        }
        return languages.empty() ? CAPS_NOTHING_THERE : CAPS_OK;
    };
    f.pdbGetAppLaunchPath = [](const char* id, char* buffer, uint32_t* size) -> int32_t {
        const std::string& path = payloadOf(id)->launchPath;
        if (path.empty() || path.size() >= *size) {
            return CAPS_NOTHING_THERE;
        }
        path.copy(buffer, path.size());
        return CAPS_OK;
    };
    return f;
}

class ProductInfoTest : public testing::Test {
protected:
    ~ProductInfoTest() override { EXPECT_EQ(gOpenSessions, 0); }

    static FakePayload payload(const char* languages, const char* config, const char* install) {
        return {"{p" + std::to_string(gPayloads.size()) + "}",
                "normal",
                "",
                {{"installedLanguages", languages},
                 {"PYLConfigPath", config},
                 {"INSTALLDIR", install}}};
    }
    static std::string lookUp(const CHostProductInfoFromCapsLib& info, const char* folder) {
        std::string languages = "old";
        const bool found = info.LookupInstalledLanguages(folder, languages);
        return found ? languages : languages.empty() ? "<none>" : "<not emptied>";
    }
    // What the languages become with these pairs.
    static std::string translated(const char* languages,
                                  std::vector<std::pair<std::string, std::string>> pairs) {
        gPayloads.clear();
        gPayloads.push_back(payload(languages, "/o/P/c.xml", "/o"));
        gPayloads.back().languages = std::move(pairs);
        return lookUp(CHostProductInfoFromCapsLib(fakeFunctions()), "/o/P");
    }
    ProductInfoTest() { gPayloads.clear(); }
};

TEST_F(ProductInfoTest, findsTheFolderOfAProduct) {
    const struct {
        const char* config;
        const char* install;
        const char* launchPath;
        const char* folder; // empty: the payload is not used
        const char* why;
    } cases[] = {
        {"/Applications/Product X/PYL/application.xml", "/Applications", "",
         "/Applications/Product X", "below the install folder"},
        {"/a/b", "/a", "", "/a/b", "no further separator"},
        {"/ab/c/d", "/a", "", "/ab", "the byte behind the install folder is passed over"},
        {"/x", "/longer/than/it", "/Applications/P/P.APP/Contents/MacOS/P", "/Applications/P",
         "beside the bundle, in its own case"},
        {"/x", "/y", "C:\\P\\p.app/Contents/MacOS/p", "C:\\P", "either separator"},
        {"/x", "/y", "/usr/bin/tool", "", "no bundle"},
        {"/x", "/y", "", "", "no launch path"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        gPayloads = {payload("xx_XX", c.config, c.install)};
        gPayloads[0].launchPath = c.launchPath;
        const CHostProductInfoFromCapsLib info(fakeFunctions());
        EXPECT_EQ(lookUp(info, *c.folder != '\0' ? c.folder : "/x"),
                  *c.folder != '\0' ? "xx_XX" : "<none>");
        EXPECT_EQ(lookUp(info, (std::string(c.folder) + "/").c_str()), "<none>") << "exact folders";
    }
}

TEST_F(ProductInfoTest, keepsTheFirstLanguagesOfAFolder) {
    gPayloads.push_back(payload("", "/o/P/c", "/o"));
    gPayloads.push_back(payload("aa_AA", "/o/P/c", "/o"));
    gPayloads.push_back(payload("bb_BB", "/o/P/c", "/o"));
    gPayloads[1].languages = gPayloads[2].languages = {{"key", "value"}};
    gPayloads.push_back(payload("cc_CC", "/o/Q/c", "/o"));
    gPayloads.back().kind = "Normal";
    gPayloads.push_back(payload("dd_DD", "/o/R/c", "/o"));
    gPayloads.back().general.erase("INSTALLDIR");
    const CHostProductInfoFromCapsLib info(fakeFunctions());
    EXPECT_EQ(lookUp(info, "/o/P"), "aa_AA");
    EXPECT_EQ(lookUp(info, "/o/Q"), "<none>");
    EXPECT_EQ(lookUp(info, "/o/R"), "<none>");
}

TEST_F(ProductInfoTest, translatesTheProductsOwnLanguageKeys) {
    EXPECT_EQ(translated("a,c", {{"a", "b"}}), "b,c");
    EXPECT_EQ(translated("aa", {{"a", "b"}}), "bb");
    EXPECT_EQ(translated("a", {{"a", "aa"}}), "aa") << "what was inserted is not looked at";
    EXPECT_EQ(translated("a", {{"a", "fr_FR"}, {"b", "c"}}), "fr_") << "cut by the short rest";
    EXPECT_EQ(translated("a", {{"a", "fr_FR"}, {"bb", "cccc"}}), "fr_FR");
    EXPECT_EQ(translated("a", {{"x", "<fails>"}, {"a", "b"}}), "b");
    EXPECT_EQ(translated("a", {{"", "b"}}), "a") << "a key without a name means nothing";
    std::vector<std::pair<std::string, std::string>> many;
    for (int i = 0; i < 150; ++i) {
        many.emplace_back("key" + std::to_string(i) + ".", "l" + std::to_string(i));
    }
    EXPECT_EQ(translated("key149.", many), "l149") << "more keys than the usual area holds";
}

TEST_F(ProductInfoTest, knowsNothingWithoutEveryFunction) {
    gPayloads = {payload("xx_XX", "/o/P/c", "/o")};
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(CapsProductFunctions()), "/o/P"), "<none>");
    CapsProductFunctions functions = fakeFunctions();
    functions.pdbGetPayloadDataKeys = nullptr;
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(functions), "/o/P"), "<none>");
    functions = fakeFunctions();
    functions.pdbOpenSessionNoCreate = [](capsiSession**, int32_t) -> int32_t { return CAPS_BUSY; };
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(functions), "/o/P"), "<none>");
}

} // namespace
