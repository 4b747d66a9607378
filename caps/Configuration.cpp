#include <dlfcn.h>
#include <exception>
#include <string>

#include "caps/Session.h"
#include "caps/config/Module.h"
#include "caps/include/ovrel_caps.h"

namespace {

constexpr int32_t kVersion = 1;
constexpr const char* kModule = "ovrel_caps_config";

// The module beside this library; null where it was not installed. Stays loaded.
decltype(&capsConfigRun) configModule() {
    // Where this library lies is known only to the loader: programs load it from several places,
    // and the module of another installation may not fit it.
    Dl_info self{};
    if (dladdr(reinterpret_cast<const void*>(&capsConfigVersion), &self) == 0) {
        return nullptr;
    }
    std::string path = self.dli_fname;
    path = path.substr(0, path.rfind('/') + 1) + kModule;
    void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    return module == nullptr
               ? nullptr
               : reinterpret_cast<decltype(&capsConfigRun)>(dlsym(module, "capsConfigRun"));
}

capsStatus ask(capsiSession* session, CapsConfigRequest::Command command, const char* source,
               const char* rule, const char** text) noexcept {
    if (session == nullptr) {
        return CAPS_NO_SESSION;
    }
    if (source == nullptr || rule == nullptr) {
        return CAPS_INVALID_ARGUMENT;
    }
    try {
        // Asked for each time: the loader counts, and gives the same module again.
        const auto run = configModule();
        if (run == nullptr) {
            return CAPS_NOT_LOADED;
        }
        const caps::Database::Paths paths = session->database->paths();
        std::string& given = session->configuration;
        given.clear();
        const CapsConfigRequest request{command,
                                        paths.own.c_str(),
                                        paths.below.c_str(),
                                        source,
                                        rule,
                                        [](void* to, const char* bytes, size_t size) {
                                            static_cast<std::string*>(to)->assign(bytes, size);
                                        },
                                        &given};
        const capsStatus status = run(&request);
        if (text != nullptr) {
            *text = given.c_str();
        }
        return status;
    } catch (const std::exception&) { // memory
        return CAPS_FAILED;
    }
}

} // namespace

extern "C" {

int32_t capsConfigVersion(void) {
    return configModule() == nullptr ? 0 : kVersion;
}

capsStatus capsConfigExport(capsiSession* session, const char* specifier, const char** text) {
    if (session != nullptr && text == nullptr) {
        return CAPS_INVALID_ARGUMENT;
    }
    return ask(session, CapsConfigRequest::exportAll, specifier, "", text);
}

capsStatus capsConfigImport(capsiSession* session, const char* source, const char* rule,
                            const char** text) {
    return ask(session, CapsConfigRequest::import, source, rule, text);
}

capsStatus capsConfigRemoveAll(capsiSession* session, const char** text) {
    return ask(session, CapsConfigRequest::removeAll, "", "", text);
}

} // extern "C"
