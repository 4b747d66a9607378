#pragma once

#include <cstddef>
#include <cstdint>

// How the database library asks for what needs an XML library: that lies in a module of its own
// beside it, which is loaded when it is first asked, so that no other program pays for it.
extern "C" {

struct CapsConfigRequest {
    enum Command : int32_t { exportAll, import, removeAll };
    Command command;
    const char* path;   // of the database
    const char* below;  // of the one on which it lies; empty for none
    const char* source; // export: only this application, empty for all; import: a document, or the
                        // path of one or of a database
    const char* rule;   // of an import: keep, replace or newer
    // Receives the result, or what is wrong; called once at most, and may throw nothing.
    void (*give)(void* to, const char* text, size_t bytes);
    void* to;
};

// A status of ovrel_caps.h. No exception leaves it.
__attribute__((visibility("default"))) int32_t capsConfigRun(const CapsConfigRequest* request);
}
