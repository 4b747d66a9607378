#include "platform/Frameworks.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "platform/linux/Descriptor.h"

namespace platform {
namespace {

constexpr std::string_view kFrameworkExtension = ".framework";
// A bundle's program lies this deep in it, and the bundle, not the folder, is what others lie
// beside.
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

// As `realpath`, which asks the system about each folder of the path, where that can tell at once.
bool resolve(const char* path, char (&out)[PATH_MAX]) {
    const Descriptor file(open(path, O_PATH | O_CLOEXEC));
    if (file) {
        const std::string link = "/proc/self/fd/" + std::to_string(file.get());
        const ssize_t length = readlink(link.c_str(), out, sizeof out);
        // One that was removed or lies outside of this process's root has no path.
        if (length > 0 && static_cast<size_t>(length) < sizeof out && out[0] == '/' &&
            std::string_view(out, static_cast<size_t>(length)).find(" (deleted)") ==
                std::string_view::npos) {
            out[length] = '\0';
            return true;
        }
    }
    return realpath(path, out) != nullptr;
}

class LinuxFrameworks final : public Frameworks {
public:
    std::string mainBundleFolder() const override {
        char path[PATH_MAX];
        // Of the file that runs, not of the first argument, which whoever starts a program chooses.
        // A path that fills all of the room may have been cut, and a cut path names another file.
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

    std::vector<std::string> installedFolders() const override {
        std::vector<std::string> folders;
        // Anything that is linked into this library tells where it was loaded from.
        static constexpr char kOfThisLibrary = 0;
        Dl_info info{};
        char path[PATH_MAX];
        // The path is relative where a program that holds the layer itself was started by one.
        if (dladdr(&kOfThisLibrary, &info) != 0 && resolve(info.dli_fname, path)) {
            folders.push_back(folderOf(path));
            folders.push_back(folders.back() + "/convey");
        }
        folders.emplace_back(CONVEY_INSTALLED_FRAMEWORKS);
        return folders;
    }

    void* load(const std::string& bundlePath) override {
        // A relative name would be looked for along the loader's search path, where anybody's may
        // lie.
        if (bundlePath.empty() || bundlePath.front() != '/') {
            return nullptr;
        }
        const std::string library = libraryOf(bundlePath);
        // Local: the library's own dependencies must not take the place of the host program's.
        return library.empty() ? nullptr : dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    }

    bool mayBeThere(const std::string& bundlePath) const override {
        const std::string library = libraryOf(bundlePath);
        // What cannot be looked at is no absence: it is loaded then, which tells the reason.
        return !library.empty() && (access(library.c_str(), F_OK) == 0 ||
                                    (errno != ENOENT && errno != ENOTDIR && errno != EACCES));
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

std::vector<std::string> frameworkCandidates(const Frameworks& frameworks,
                                             const std::string& name) {
    if (name.empty()) {
        return {};
    }
    // Code is loaded from there: not for a program that has more rights than who starts it.
    if (const char* folder = secure_getenv("CONVEY_CAPS_FOLDER");
        folder != nullptr && *folder != '\0') {
        return {std::string(folder) + "/" + name};
    }
    std::vector<std::string> paths;
    const auto add = [&](const std::string& folder) {
        std::string path = folder + "/" + name;
        if (std::find(paths.begin(), paths.end(), path) == paths.end()) {
            paths.push_back(std::move(path));
        }
    };
    // What comes with the program goes before what the machine has.
    if (const std::string bundle = frameworks.mainBundleFolder(); !bundle.empty()) {
        add(bundle + "/Contents/Frameworks");
        add(bundle + "/Frameworks");
        add(bundle.ends_with(".app") ? folderOf(bundle) : bundle);
    }
    for (const std::string& folder : frameworks.installedFolders()) {
        add(folder);
    }
    return paths;
}

Frameworks& Frameworks::own() {
    static auto* const frameworks = new LinuxFrameworks;
    return *frameworks;
}

} // namespace platform
