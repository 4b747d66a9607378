#include "scriptobjects/convey/SoCVUtils.h"

#include <algorithm>
#include <string>

#include "platform/Clock.h"
#include "platform/Files.h"
#include "platform/Frameworks.h"
#include "platform/Locale.h"

namespace ScObjects::ConveyUtils {
namespace {

constexpr size_t kLocaleBufferBytes = 16; // identifier and terminator: longer ones are not used

} // namespace

void init() {}

void exit() {}

SoString getCurrentLocale() {
    std::string identifier;
    if (!platform::Locale::system().identifier(identifier) ||
        identifier.size() >= kLocaleBufferBytes ||
        std::any_of(identifier.begin(), identifier.end(),
                    [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
        return SoString("en_us");
    }
    return SoString(identifier.c_str()).lowercase();
}

bool fileExists(const SoString& path) {
    return !path.isEmpty() && platform::Files::system().exists(path.c_str());
}

SoString getFolderSeparator() {
    return SoString("/");
}

uint32_t getTimeSeconds() {
    return static_cast<uint32_t>(platform::Clock::system().utcMilliseconds() / 1000);
}

double getUTCTimeMilliSeconds() {
    return static_cast<double>(platform::Clock::system().utcMilliseconds());
}

void* SharedLib::loadPCDLibrary(const char* name) {
    if (name == nullptr || *name == '\0') {
        return nullptr;
    }
    platform::Frameworks& frameworks = platform::Frameworks::system();
    if (*name == '/') {
        return frameworks.load(name);
    }
    for (const std::string& path :
         platform::frameworkCandidates(frameworks.mainBundleFolder(), name)) {
        if (void* handle = frameworks.load(path)) {
            return handle;
        }
    }
    return nullptr;
}

void* SharedLib::loadPCDLibraryUTF8(const SoString& name) {
    return loadPCDLibrary(name.c_str());
}

void SharedLib::unloadPCDLibrary(void* handle) {
    platform::Frameworks::system().unload(handle);
}

void* SharedLib::getFunctionPtr(void* handle, const char* name) {
    return platform::Frameworks::system().function(handle, name);
}

} // namespace ScObjects::ConveyUtils
