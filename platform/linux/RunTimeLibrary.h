#pragma once

#include <dlfcn.h>
#include <initializer_list>

namespace platform {

// A library that is loaded when it is first needed and never unloaded, because its own threads and
// exit functions may be running: what needs it is missing on a machine without it, the rest works.
// Threads: any.
class RunTimeLibrary {
public:
    // The first of the names that loads.
    explicit RunTimeLibrary(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            handle_ = handle_ == nullptr ? dlopen(name, RTLD_NOW | RTLD_LOCAL) : handle_;
        }
    }
    RunTimeLibrary(const RunTimeLibrary&) = delete;
    RunTimeLibrary& operator=(const RunTimeLibrary&) = delete;

    // Sets `function`, to null when the library or the function is missing; false then.
    template <class Function>
    bool get(const char* name, Function*& function) const {
        function = handle_ == nullptr ? nullptr : reinterpret_cast<Function*>(dlsym(handle_, name));
        return function != nullptr;
    }

private:
    void* handle_ = nullptr;
};

} // namespace platform
