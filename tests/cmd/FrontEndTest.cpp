#include <cstring>
#include <dlfcn.h>

#include "cmd/CapsProductFunctions.h"
#include "cmd/HostProductInfoFromCapsLib.h"
#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

namespace {

CapsProductFunctions gLibrary; // the real one, some of whose answers a test changes

class ProductInfoTest : public testing::Test {
protected:
    using Pairs = std::vector<std::pair<std::string, std::string>>;

    ProductInfoTest() {
        void* const library = dlopen(OVREL_CAPS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
#define BIND(name) gLibrary.name = reinterpret_cast<decltype(::name)*>(dlsym(library, #name))
        BIND(mdbOpenSessionNoCreate);
        BIND(mdbCloseSession);
        BIND(mdbGetProductIDList);
        BIND(mdbGetProduct);
        BIND(mdbGetProductPayloads);
        BIND(mdbGetPayload);
        BIND(pdbOpenSessionNoCreate);
        BIND(pdbCloseSession);
        BIND(pdbGetPayloadData);
        BIND(pdbGetPayloadDataKeys);
        BIND(pdbGetAppLaunchPath);
#undef BIND
        EXPECT_TRUE(gLibrary.areComplete());
    }

    static caps::Payload payload(const char* languages, const char* config, const char* install,
                                 const Pairs& pairs = {}) {
        caps::Payload made;
        made.data = {{0, "installedLanguages", languages},
                     {0, "PYLConfigPath", config},
                     {0, "INSTALLDIR", install}};
        for (const auto& [key, value] : pairs) {
            made.data.push_back({6, key, value});
        }
        return made;
    }
    // A database with a product of these payloads.
    void fill(std::vector<caps::Payload> payloads) {
        const std::string path = folder.file(std::to_string(++filled));
        setenv("OVREL_CAPS_DB", path.c_str(), 1);
        for (size_t i = 0; i < payloads.size(); ++i) {
            payloads[i].code = "{p" + std::to_string(i) + "}";
        }
        const auto store = openStore(path);
        EXPECT_EQ(store->addProduct({"broken", {}}), caps::Status::ok);
        EXPECT_EQ(store->addProduct({"product", payloads}), caps::Status::ok);
    }
    static std::string lookUp(const CHostProductInfoFromCapsLib& info, const char* folder) {
        std::string languages = "old";
        const bool found = info.LookupInstalledLanguages(folder, languages);
        return found ? languages : languages.empty() ? "<none>" : "<not emptied>";
    }
    // What the languages become with these pairs, of a library that fails for one name, and knows
    // of a key without a name.
    std::string translated(const char* languages, const Pairs& pairs) {
        fill({payload(languages, "/o/P/c.xml", "/o", pairs)});
        CapsProductFunctions functions = gLibrary;
        functions.pdbGetPayloadDataKeys = [](capsiSession* session, const char* id,
                                             capsDomain domain, const char** keys,
                                             uint32_t* slots) {
            const int32_t status = gLibrary.pdbGetPayloadDataKeys(session, id, domain, keys, slots);
            if (status == CAPS_OK && std::strcmp(keys[0], "nameless") == 0) {
                keys[0] = "";
            }
            return status;
        };
        functions.pdbGetPayloadData = [](capsiSession* session, const char* id, capsDomain domain,
                                         const char* key, const char** value) {
            const int32_t status = gLibrary.pdbGetPayloadData(
                session, id, domain, *key == '\0' ? "nameless" : key, value);
            return std::strcmp(key, "fails") == 0 ? CAPS_FAILED : status;
        };
        return lookUp(CHostProductInfoFromCapsLib(functions), "/o/P");
    }

    TemporaryFolder folder;
    int filled = 0;
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
        caps::Payload only = payload("xx_XX", c.config, c.install);
        only.launchPath = c.launchPath;
        fill({only});
        const CHostProductInfoFromCapsLib info(gLibrary);
        EXPECT_EQ(lookUp(info, *c.folder != '\0' ? c.folder : "/x"),
                  *c.folder != '\0' ? "xx_XX" : "<none>");
        EXPECT_EQ(lookUp(info, (std::string(c.folder) + "/").c_str()), "<none>") << "exact folders";
    }
}

// Of what can be read.
TEST_F(ProductInfoTest, keepsTheFirstLanguagesOfAFolder) {
    fill({payload("", "/o/P/c", "/o"), payload("none", "/o/P/c", "/o"),
          payload("aa_AA", "/o/P/c", "/o", {{"key", "value"}}),
          payload("bb_BB", "/o/P/c", "/o", {{"key", "value"}}), payload("cc_CC", "/o/Q/c", "/o"),
          payload("dd_DD", "/o/R/c", "/o")});
    executeSql(folder.file("1"), "UPDATE payload SET kind = 'Normal' WHERE code = '{p4}';"
                                 "DELETE FROM payload_data WHERE value = '/o' AND payload = "
                                 "(SELECT id FROM payload WHERE code = '{p5}')");
    CapsProductFunctions functions = gLibrary;
    functions.mdbGetProduct = [](capsiSession* session, const char* id, const capsProduct** out) {
        const int32_t status = gLibrary.mdbGetProduct(session, id, out);
        return std::strcmp(id, "broken") == 0 ? CAPS_DAMAGED : status;
    };
    functions.mdbGetPayload = [](capsiSession* session, const char* id, const capsPayload** out) {
        return std::strcmp(id, "{p1}") == 0 ? CAPS_NOTHING_THERE
                                            : gLibrary.mdbGetPayload(session, id, out);
    };
    functions.pdbGetPayloadDataKeys = [](capsiSession* session, const char* id, capsDomain domain,
                                         const char** keys, uint32_t* slots) {
        EXPECT_EQ(std::count(keys, keys + *slots, nullptr), *slots) << "of another payload";
        return gLibrary.pdbGetPayloadDataKeys(session, id, domain, keys, slots);
    };
    const CHostProductInfoFromCapsLib info(functions);
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
    EXPECT_EQ(translated("a", {{"fails", "c"}, {"a", "b"}}), "b");
    EXPECT_EQ(translated("a", {{"nameless", "b"}}), "a") << "it means nothing";
    Pairs many;
    for (int i = 0; i < 150; ++i) {
        many.emplace_back("key" + std::to_string(i) + ".", "l" + std::to_string(i));
    }
    EXPECT_EQ(translated("key149.", many), "l149") << "more keys than the usual area holds";
}

TEST_F(ProductInfoTest, knowsNothingWithoutEveryFunction) {
    fill({payload("xx_XX", "/o/P/c", "/o")});
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(gLibrary), "/o/P"), "xx_XX");
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(CapsProductFunctions()), "/o/P"), "<none>");
    CapsProductFunctions functions = gLibrary;
    functions.pdbGetPayloadDataKeys = nullptr;
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(functions), "/o/P"), "<none>");
    functions = gLibrary;
    functions.pdbOpenSessionNoCreate = [](capsiSession**, int32_t) -> int32_t { return CAPS_BUSY; };
    EXPECT_EQ(lookUp(CHostProductInfoFromCapsLib(functions), "/o/P"), "<none>");
}

} // namespace
