#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoVector.h"

// Small services that the layer needs of the operating system. Threads: any. Nothing is thrown but
// std::bad_alloc.
namespace ScObjects::ConveyUtils {

// `init` has nothing to prepare; `exit` forgets the user's identifiers, so that the next start
// reads them anew.
void init();
void exit();

// The user's locale in lower case, for example "en_us", which it also is when none can be read or
// the identifier has 16 bytes or more.
SO_EXPORT SoString getCurrentLocale();

// How this process signs the messages that it sends: "localhost:mac" and its process id.
SO_EXPORT SoString getSenderID();
inline constexpr std::string_view kSenderIDPrefix = "localhost:mac";

// The user's identifier: 16 random bytes, made when it is first asked for and kept in the file
// ".ovrel/userid" of the home folder; the same in all processes of the user. Empty without a home
// folder that can be used. All three are the same.
SO_EXPORT SoString getUserID();
SO_EXPORT SoString getSecurityID();
SO_EXPORT SoString getSignature();

// The MD5 digest, salted with the user's digest identifier (".ovrel/md5", made like the user's), of
// a text; `parts` is a text in pieces. Each byte in upper-case hexadecimal without a leading zero,
// so 16 to 32 characters: peers compare this text. It tells damage and texts of other users, not
// forgery by this user's own programs. Empty without the identifier.
SO_EXPORT SoString getMD5(const SoString& text);
SO_EXPORT SoString getMD5(std::initializer_list<std::string_view> parts);
// The same of a text that comes piece by piece, since a large one takes long.
class SO_EXPORT MD5 {
public:
    MD5();
    ~MD5();
    MD5(const MD5&) = delete;
    MD5& operator=(const MD5&) = delete;

    void add(std::string_view piece);
    // The digest; nothing may be added any more.
    SoString finish();

private:
    struct State;
    const std::unique_ptr<State> state_;
};

// True when `path` names an existing file or folder.
SO_EXPORT bool fileExists(const SoString& path);

// True when the folder exists already or was made, with mode 0771 less the process's mask.
SO_EXPORT bool mkdir(const SoString& path);

// True when the empty folder, or the file or alias itself, was there and is removed.
SO_EXPORT bool rmdir(const SoString& path);
SO_EXPORT bool deleteFile(const SoString& path);

// Makes `alias` a symbolic link to `target`, in place of the file or link that is there, if any.
// False, with nothing changed, unless `target` is an absolute path to something else that is there.
SO_EXPORT bool createAlias(const SoString& target, const SoString& alias);

// The path without links that `path` comes to; `path` itself when it names nothing.
SO_EXPORT SoString resolveAlias(const SoString& path);

// The folder in which running applications leave their mark.
SO_EXPORT SoString getLaunchFolderPath();

// The first of name, name_1, name_2 and so on that is no file in the launch folder.
SO_EXPORT SoString getNextAppInstance(const SoString& name);

// Called with each entry of a folder tree; by itself does nothing with them.
class SO_EXPORT FileFilter {
public:
    FileFilter() = default;
    virtual ~FileFilter() = default;
    FileFilter(const FileFilter&) = delete;
    FileFilter& operator=(const FileFilter&) = delete;

    virtual void onFile(const SoString& path);
    // A folder; its entries come afterwards.
    virtual void onFolder(const SoString& path);

    // Walks the folder `path`, which is not itself reported.
    void run(const SoString& path);
};

// Walks the tree below the folder `path` and calls `filter` with the path of each entry. Links are
// followed, but no folder is walked twice, so a link to a folder above it does no harm. At most 64
// folders deep; what cannot be read is passed over.
SO_EXPORT void iterateFolder(const SoString& path, FileFilter& filter);

// What separates folders in a path.
SO_EXPORT SoString getFolderSeparator();

// Seconds since 1970. 32 bits hold them until 2106.
SO_EXPORT uint32_t getTimeSeconds();

// Milliseconds since 1970 UTC, whole.
SO_EXPORT double getUTCTimeMilliSeconds();

// The local time, "%H:%M:%S", of `*seconds` after 1970 UTC, or of now for null.
SO_EXPORT SoString getTimeString(const uint32_t* seconds);

// Sleeps the whole time, signals or not.
SO_EXPORT void sleep(uint32_t milliseconds);

// Appends the words of `text` to `words`, whose owner deletes them; returns how many `words` then
// holds. Words end at any of blank = ; " ' and :, so that quoting is not understood and a key and
// its value become two words.
SO_EXPORT int32_t parseOptions(const SoString& text, SoVector<SoString>& words);

// Logging is off in this system: there is no place that these texts go to.
SO_EXPORT void logText(const SoString& text);
SO_EXPORT void logMessage(const char* prefix, const Convey::Message& message, bool flag);

// Frameworks that are loaded at run time: the layer works, with less to offer, where they are
// missing.
class SO_EXPORT SharedLib {
public:
    // Loads the framework `name`: a full path when it begins with '/', else a name that is looked
    // for in $CONVEY_CAPS_FOLDER when that is set; else in the running program's
    // Contents/Frameworks, in its Frameworks, beside it, beside the layer's own library, in the
    // folder "convey" there, and where the build was installed. A handle to be given back with
    // `unloadPCDLibrary`, or null; a process says once on standard error what was tried in vain.
    // `isThere`, unless null, tells a library that could not be loaded from one that is missing.
    static void* loadPCDLibrary(const char* name);
    static void* loadPCDLibrary(const char* name, bool* isThere);
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
