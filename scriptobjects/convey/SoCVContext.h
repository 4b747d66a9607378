#pragma once

#include <cstdint>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {

class ConveyConnector;

// The messaging state of this process: under which specifier it takes part. One context at a time
// is the current one; the start of the layer makes it, the end of the layer deletes it.
//
// Threads: any. The specifier is fixed at construction.
class SO_EXPORT ConveyContext : public SoLockable {
public:
    // `appSpecifier`: the specifier of this application.
    explicit ConveyContext(const SoString& appSpecifier);
    ~ConveyContext() override;

    // The current context, or null; good until it is replaced.
    static ConveyContext* getCurrentContext();

    // Makes `context` (owned from now on; null for none) the current one and deletes the one that
    // was. The same context again changes nothing. No other thread may be using the old one.
    static void setCurrentContext(ConveyContext* context);

    // The process-wide registry, or null.
    ConveyConnector* getConnector() const;

    // The specifier of this application, fixed up, without suffix.
    SoString getAppSpecifier() const;

    // A number for the next message. The first of a process is 1; a context that is made later goes
    // on with the number handed out last, so its first one repeats that.
    uint32_t getNextSerialNumber();

private:
    const SoString appSpecifier_;
    uint32_t serialNumber_ SO_GUARDED_BY(this);
};

} // namespace ScObjects
