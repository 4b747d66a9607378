#include "platform/Frameworks.h"

#include <climits>
#include <dlfcn.h>
#include <string_view>
#include <unistd.h>

namespace platform {
namespace {

constexpr std::string_view kFrameworkExtension = ".framework";
constexpr std::string_view kProgramFolderInApp = ".app/Contents/MacOS";

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// X.framework holds its library as X.framework/X.
std::string libraryOf(std::string bundlePath) {
    while (bundlePath.size() > 1 && bundlePath.back() == '/') {
        bundlePath.pop_back();
    }
    std::string name = bundlePath.substr(bundlePath.rfind('/') + 1);
    if (name.size() <= kFrameworkExtension.size() || !name.ends_with(kFrameworkExtension)) {
        return {};
    }
    name.resize(name.size() - kFrameworkExtension.size());
    return bundlePath + "/" + name;
}

class LinuxFrameworks final : public Frameworks {
public:
    std::string mainBundleFolder() const override {
        char path[PATH_MAX];
        const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
        if (length <= 0 || static_cast<size_t>(length) >= sizeof path) {
            return {};
        }
        std::string folder = folderOf(std::string(path, static_cast<size_t>(length)));
        if (folder.ends_with(kProgramFolderInApp)) {
            folder.resize(folder.size() -
                          (kProgramFolderInApp.size() - std::string_view(".app").size()));
        }
        return folder;
    }

    void* load(const std::string& bundlePath) override {
        if (bundlePath.empty() || bundlePath.front() != '/') {
            return nullptr;
        }
        const std::string library = libraryOf(bundlePath);
        // Local: the library's own dependencies must not take the place of the host program's.
        return library.empty() ? nullptr : dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    }

    void unload(void* handle) override {
        if (handle != nullptr) {
            (void)dlclose(handle); // a library that refuses to go stays loaded, which harms nobody
        }
    }

    void* function(void* handle, const char* name) override {
        return handle == nullptr || name == nullptr ? nullptr : dlsym(handle, name);
    }
};

} // namespace

std::vector<std::string> frameworkCandidates(const std::string& mainBundleFolder,
                                             const std::string& name) {
    if (mainBundleFolder.empty() || name.empty()) {
        return {};
    }
    const bool isApp = mainBundleFolder.ends_with(".app");
    return {mainBundleFolder + "/Contents/Frameworks/" + name,
            mainBundleFolder + "/Frameworks/" + name,
            (isApp ? folderOf(mainBundleFolder) : mainBundleFolder) + "/" + name};
}

Frameworks& Frameworks::own() {
    static auto* const frameworks = new LinuxFrameworks;
    return *frameworks;
}

} // namespace platform
