#pragma once

#include <cstdint>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

// Small services that the layer needs of the operating system. Threads: any. Nothing is thrown but
// std::bad_alloc.
namespace ScObjects::ConveyUtils {

// Nothing to prepare and nothing to give back; they keep their places in the order of start and
// end.
void init();
void exit();

// The user's locale in lower case, for example "en_us", which it also is when none can be read or
// the identifier has 16 bytes or more.
SO_EXPORT SoString getCurrentLocale();

// True when `path` names an existing file or folder.
SO_EXPORT bool fileExists(const SoString& path);

// What separates folders in a path.
SO_EXPORT SoString getFolderSeparator();

// Seconds since 1970. 32 bits hold them until 2106.
SO_EXPORT uint32_t getTimeSeconds();

// Milliseconds since 1970 UTC, whole.
SO_EXPORT double getUTCTimeMilliSeconds();

// Frameworks that are loaded at run time: the layer works, with less to offer, where they are
// missing.
class SO_EXPORT SharedLib {
public:
    // Loads the framework `name`: a full path when it begins with '/', else a name that is looked
    // for in the running program's Contents/Frameworks, in its Frameworks and beside it. A handle
    // to be given back with `unloadPCDLibrary`, or null.
    static void* loadPCDLibrary(const char* name);
    static void* loadPCDLibraryUTF8(const SoString& name);

    // Null is ignored. The library's functions must not be called afterwards.
    static void unloadPCDLibrary(void* handle);

    // The function `name`, null when the library has none.
    static void* getFunctionPtr(void* handle, const char* name);

    // The same, typed: getFunction(handle, "name", pointer) sets the pointer.
    template <class Function>
    static void getFunction(void* handle, const char* name, Function*& function) {
        function = reinterpret_cast<Function*>(getFunctionPtr(handle, name));
    }
};

} // namespace ScObjects::ConveyUtils
