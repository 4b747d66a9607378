#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects::ConveyData {

// The process-wide switches of the message text's integrity check: whether texts that are written
// carry a digest, and whether the digest of texts that are read is compared.
//
// Made on first use, with what the registry says of the name that the layer was started with, then,
// as soon as it is known, of the registration that this stands for; both are on where the registry
// says nothing. What the host sets stays. Threads: any; `init` and `exit` from the thread that
// starts and stops the layer. Its lock is not one of the layer's, whose users are counted: it lives
// for ever.
class SO_EXPORT MessageGlobals {
public:
    // The switches; never null.
    static MessageGlobals* get();

    // Makes the switches, or forgets them so that the next use reads the registry anew. The object
    // itself is never deleted: another thread may be about to read it.
    static void init();
    static void exit();

    // Takes what the registry says of the application `own`, for those that the host has not set.
    void readRegistry(const SoString& own);

    void setAuthentication(bool on);
    bool getAuthentication() const;
    void setCreateDigest(bool on);
    bool getCreateDigest() const;

private:
    MessageGlobals() = default;
    static MessageGlobals* object(); // whatever it says
    static SoString startName();

    std::mutex mutex_; // under which what follows changes
    // Read without, since each text asks.
    std::atomic<bool> authentication_{true};
    std::atomic<bool> createDigest_{true};
    bool authenticationIsSet_ = false;
    bool createDigestIsSet_ = false;
};

} // namespace ScObjects::ConveyData
