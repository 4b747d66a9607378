#pragma once

#include <cstdint>

#include "scriptobjects/core/SoExport.h"

namespace ScObjects {

class ConveyContext;
class SoString;

// The messaging layer as a host program sees it: start and stop, and questions about the
// registered applications.
//
// Every operation gives the neutral value (false, 0, the empty text, null) while the layer is not
// started or no registry can be read. Nothing is thrown. Threads: `InitTerm` from one thread at a
// time; everything else from any thread between `InitTerm::init` and `InitTerm::exit`.
class SO_EXPORT Convey {
public:
    class Specifier;  // SoCVSpecifier.h
    class Message;    // SoCVMessage.h
    class Header;     // SoCVMessage.h
    class MsgHandler; // SoCVMessage.h

    // The layer's own version, as registrations and messages give it.
    static constexpr const char* kVersion = "2.0";

    // Starts and stops the layer for this process.
    class SO_EXPORT InitTerm {
    public:
        // Starts the layer as the application `appSpecifier`: loads the registry and makes the
        // shared context, in the calling thread. `synchronous` asks for just that; there is no
        // setup in the background yet, so false does the same. True when this call started the
        // layer; false when it is started already or `appSpecifier` is no specifier, and then
        // nothing has changed. A missing database is no failure: the registry is empty then.
        static bool init(const SoString& appSpecifier, bool synchronous);

        // Stops the layer; false when it is not started. The connector and the records that it
        // handed out are gone afterwards.
        static bool exit();
    };

    // Questions to the background threads of applications.
    class SO_EXPORT Thread {
    public:
        // The state of the application `target`, from the registry alone as long as no messages
        // are exchanged: "INVALIDSPEC" for no specifier, "UNDEFINED" for this application itself,
        // "ISNOTINSTALLED", else "ISNOTRUNNING"; empty while the layer is not started. `key` (null
        // for an echo), `timeoutSeconds` and `parameters` (null for none) are for the target.
        static SoString ping(const char* target, const char* key, int32_t timeoutSeconds,
                             const SoString* parameters);
    };

    // The shared context, null while the layer is not started. Good until `InitTerm::exit`.
    static ConveyContext* getSharedContext();

    // The number of registered applications.
    static int32_t getNumberOfRegisteredApplications();

    // The specifier of the application at `index` (0 to the number less one, in the order of
    // registration), or the name that the registry was opened under for -1; empty out of range.
    static SoString getApplicationSpecifier(int32_t index);

    // The name of an application for people: what is registered, else what its path suggests.
    // `version` and `locale` may be empty.
    static SoString getDisplayName(const SoString& appName, const SoString& version,
                                   const SoString& locale);

    // The specifier of this application, without suffix.
    static SoString getSharedAppName();

    // Reads the registry anew when it has changed, or when `force` is set. True when it has been
    // or will be read anew.
    static bool updateConnectorCache(bool force);

    // The folder that holds the installed-product database's framework; empty: the program's own
    // folders. To be set before `InitTerm::init`, forgotten by `InitTerm::exit`.
    static void setCapsFolder(const SoString& folder);
    static SoString getCapsFolder();

    Convey() = delete;
};

} // namespace ScObjects
