#include <cmath>
#include <limits>
#include <random>
#include <thread>

#include "scriptobjects/connector/SoCVConnectorAppInfo.h"
#include "scriptobjects/connector/SoCVGroups.h"

using ScObjects::CVConnectorAppInfo;
using ScObjects::CVConnectorAppInfoList;
using ScObjects::CVGroups;
using ScObjects::SoString;

namespace {

CVConnectorAppInfo record(const char* specifier, const char* path = "/p") {
    CVConnectorAppInfo info;
    info.specifier = specifier;
    info.path = path;
    return info;
}

void fill(CVConnectorAppInfoList& list, std::initializer_list<CVConnectorAppInfo> records) {
    for (const CVConnectorAppInfo& info : records) {
        ASSERT_TRUE(list.append(new CVConnectorAppInfo(info)));
    }
}

TEST(AppInfo, isEqualWhateverRuns) {
    const CVConnectorAppInfo base = record("a-1.0");
    CVConnectorAppInfo other = base;
    other.processID = 7;
    EXPECT_EQ(base, other);
    const auto differs = [&base](auto&& change) {
        CVConnectorAppInfo changed = base;
        change(changed);
        return !(changed == base);
    };
    using Info = CVConnectorAppInfo;
    for (SoString Info::*field :
         {&Info::specifier, &Info::path, &Info::windowClassName, &Info::bundleIdentifier,
          &Info::displayName, &Info::executableBasename, &Info::executableExtension,
          &Info::omvDictionary, &Info::developerInstallPath, &Info::redirectTo}) {
        EXPECT_TRUE(differs([field](Info& info) { info.*field = "other"; }));
    }
    for (bool Info::*field :
         {&Info::allowMultipleInstances, &Info::isShellTool, &Info::supportsDBGK,
          &Info::messageAuthentication, &Info::messageDigest}) {
        EXPECT_TRUE(differs([field](Info& info) { info.*field = !(info.*field); }));
    }
    CVConnectorAppInfo unknown = base;
    unknown.conveyVersion = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(unknown == unknown) << "two versions that are no numbers are not the same";
}

TEST(AppInfoList, findsExactlyBeforeWithoutInstanceAndSuffix) {
    CVConnectorAppInfoList list;
    fill(list, {record("kivra-7.0", "/bare"), record("kivra_3-7.0", "/instance")});
    const std::pair<const char*, int32_t> cases[] = {
        {"kivra-7.0", 0},     {"kivra_2-7.0", 0}, {"kivra-7.0#2", 0}, {"kivra_3-7.0", 1},
        {"kivra_3-7.0#x", 0}, {"kivra-8.0", -1},  {"", -1},           {"kivra", -1}};
    for (const auto& [specifier, expected] : cases) {
        SCOPED_TRACE(specifier);
        int32_t index = 99;
        const CVConnectorAppInfo* found = list.find(specifier, &index);
        EXPECT_EQ(index, expected);
        EXPECT_EQ(found, list.get(expected));
    }
    CVConnectorAppInfo out = record("untouched");
    EXPECT_FALSE(list.find("nosuch", out, nullptr));
    EXPECT_FALSE(list.getItemAt(2, out));
    EXPECT_FALSE(list.getItemAt(-1, out));
    EXPECT_STREQ(out.specifier.c_str(), "untouched");
    EXPECT_TRUE(list.getItemAt(1, out));
    EXPECT_STREQ(out.path.c_str(), "/instance");
}

TEST(AppInfoList, updatesUnderTheNameThatTheCallerGives) {
    CVConnectorAppInfoList list;
    fill(list, {record("kivra-7.0")});
    EXPECT_TRUE(list.update(record("kivra_2-7.0", "/new")));
    EXPECT_EQ(list.count(), 1);
    EXPECT_EQ(list.find("kivra-7.0", nullptr), nullptr) << "the record has taken the new name";
    EXPECT_STREQ(list.find("kivra_2-7.0", nullptr)->path.c_str(), "/new");
    EXPECT_TRUE(list.update(record("lumen-1.0")));
    EXPECT_EQ(list.count(), 2);
    EXPECT_FALSE(list.update(record("")));
    EXPECT_EQ(list.count(), 2);
    EXPECT_FALSE(list.setProcessID("lumen_1-1.0", 5)) << "exact registrations only";
    EXPECT_TRUE(list.setProcessID("lumen-1.0", 5));
    EXPECT_EQ(list.get(1)->processID, 5U);
}

TEST(AppInfoList, findsWhatAWalkWouldFindAfterRandomChanges) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    CVConnectorAppInfoList list;
    std::vector<CVConnectorAppInfo> model;
    const auto name = [&random] {
        return "app" + std::to_string(random() % 40) + "-" + std::to_string(random() % 3) + ".0";
    };
    for (int i = 0; i < 5'000; ++i) {
        const CVConnectorAppInfo info =
            record(name().c_str(), std::to_string(random() % 2).c_str());
        const auto equal = std::find(model.begin(), model.end(), info);
        switch (random() % 4) {
        case 0:
        case 1:
            ASSERT_EQ(list.append(new CVConnectorAppInfo(info)), equal == model.end());
            if (equal == model.end()) {
                model.push_back(info);
            }
            break;
        case 2:
            ASSERT_EQ(list.remove(info), equal != model.end());
            if (equal != model.end()) {
                model.erase(equal);
            }
            break;
        default: {
            ASSERT_TRUE(list.update(info));
            const auto same = std::find_if(model.begin(), model.end(), [&](const auto& one) {
                return one.specifier == info.specifier;
            });
            if (same != model.end()) {
                *same = info;
            } else {
                model.push_back(info);
            }
        }
        }
        const std::string wanted = name();
        const SoString app = wanted.substr(0, wanted.find('-')).c_str();
        int32_t expected = -1;
        std::vector<std::string> ofApp;
        for (size_t k = 0; k < model.size(); ++k) {
            const std::string specifier = model[k].specifier.c_str();
            if (expected < 0 && specifier == wanted) {
                expected = static_cast<int32_t>(k);
            }
            if (specifier.starts_with(std::string(app.c_str()) + "-")) {
                ofApp.push_back(specifier);
            }
        }
        int32_t index = 0;
        (void)list.find(wanted.c_str(), &index);
        // `update` prefers the record that it touched last to the first of several with one name.
        ASSERT_EQ(index, expected);
        std::vector<SoString> found;
        list.appendSpecifiersOf(app, found);
        ASSERT_EQ(found.size(), ofApp.size());
        for (size_t k = 0; k < found.size(); ++k) {
            ASSERT_EQ(found[k], ofApp[k].c_str());
        }
        ASSERT_EQ(list.count(), static_cast<int32_t>(model.size()));
        const bool hasOther = ofApp.size() > 1 || (ofApp.size() == 1 && ofApp[0] != wanted);
        ASSERT_EQ(list.hasNoOther(app.view(), wanted), !hasOther);
        if (model.size() > 150) { // more names than an index begins with
            list.clear();
            model.clear();
        }
    }
}

TEST(Groups, chooseTheHighestNumberAndTheLastAmongEquals) {
    CVGroups groups;
    for (const char* text : {"a/1/app-7.*", "b/3/app-7.5", "c/3/app-7.*", "d/2/app-7.*", "broken",
                             "zero/0/other-1.0", "one/only", "e/5/x.*", "f/9/app-7"}) {
        groups.texts().append(new SoString(text));
    }
    groups.split();
    const auto groupOf = [&groups](const char* key) {
        const ScObjects::CVGroupEntry* entry = groups.findGroupOf(key);
        return std::string(entry != nullptr ? entry->name.c_str() : "");
    };
    EXPECT_EQ(groupOf("app-7.5"), "c");
    EXPECT_EQ(groupOf("app-7.9"), "c");
    EXPECT_EQ(groupOf("app-8.0"), "");
    EXPECT_EQ(groupOf("app-7"), "f") << "no '.' for the pattern's to stand for";
    EXPECT_EQ(groupOf("other-1.0"), "") << "a number of 0 never wins";
    EXPECT_EQ(groupOf("x.y-2"), "e") << "what \".*\" stands for reaches into the name";
}

} // namespace
