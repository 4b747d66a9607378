#pragma once

#include <map>
#include <set>
#include <string>

#include "platform/Clock.h"
#include "platform/Files.h"
#include "platform/Frameworks.h"
#include "platform/Locale.h"
#include "platform/Threads.h"

// The services as a test wants them. Each keeps its interface's contract and has public switches
// for what the real system does only on a bad day.
namespace platform {

class FakeLocale : public Locale {
public:
    bool readable = true;
    std::string text = "en_US";

    bool identifier(std::string& out) const override {
        if (readable) {
            out = text;
        }
        return readable;
    }
};

class FakeClock : public Clock {
public:
    int64_t utc = 1'000'000;
    int64_t monotonic = 5'000;

    int64_t utcMilliseconds() const override { return utc; }
    int64_t monotonicMilliseconds() const override { return monotonic; }
};

class FakeFiles : public Files {
public:
    std::set<std::string> paths;
    bool broken = false;

    bool exists(const std::string& path) const override {
        return !broken && !path.empty() && paths.count(path) != 0;
    }
};

// Starts real threads, or none.
class FakeThreads : public Threads {
public:
    bool fails = false;

    bool start(std::thread& out, void (*entry)(void*), void* argument) override {
        return !fails && own().start(out, entry, argument);
    }
};

class FakeFrameworks : public Frameworks {
public:
    using Functions = std::map<std::string, void*>;

    std::string folder = "/fake/program";
    std::map<std::string, Functions> bundles; // by absolute path
    bool loadFails = false;
    int loaded = 0; // handles given out and not given back

    std::string mainBundleFolder() const override { return folder; }

    void* load(const std::string& bundlePath) override {
        const auto found = bundles.find(bundlePath);
        if (loadFails || bundlePath.empty() || bundlePath.front() != '/' ||
            found == bundles.end()) {
            return nullptr;
        }
        ++loaded;
        return &found->second;
    }

    void unload(void* handle) override { loaded -= handle != nullptr ? 1 : 0; }

    void* function(void* handle, const char* name) override {
        if (handle == nullptr || name == nullptr) {
            return nullptr;
        }
        const auto& functions = *static_cast<Functions*>(handle);
        const auto found = functions.find(name);
        return found == functions.end() ? nullptr : found->second;
    }
};

} // namespace platform
