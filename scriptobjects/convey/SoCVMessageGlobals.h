#pragma once

#include <cstdint>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects::ConveyData {

// The process-wide switches of the message text's integrity check: whether texts that are written
// carry a digest, and whether the digest of texts that are read is compared.
//
// Made on first use, with what the registry says of this application and with both on where it says
// nothing. Threads: any; `init` and `exit` from the thread that starts and stops the layer.
class SO_EXPORT MessageGlobals : public SoLockable {
public:
    // The switches; never null.
    static MessageGlobals* get();

    // Makes the switches, or forgets them so that the next use reads the registry anew. The object
    // itself is never deleted: another thread may be about to read it.
    static void init();
    static void exit();

    void setAuthentication(bool on);
    bool getAuthentication() const;
    void setCreateDigest(bool on);
    bool getCreateDigest() const;

private:
    MessageGlobals() = default;
    void readRegistry() SO_EXCLUDES(this);

    bool authentication_ SO_GUARDED_BY(this) = true;
    bool createDigest_ SO_GUARDED_BY(this) = true;
};

} // namespace ScObjects::ConveyData
