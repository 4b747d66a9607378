#pragma once

#include <cstdint>
#include <memory>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/stream/MacInterAppStream.h"

namespace ScObjects {

// The stream of the layer: one for the process as a whole, reached by `get`, and one for each
// endpoint in it.
class SO_EXPORT InterAppStream : public MacInterAppStream {
public:
    // Makes and deletes the process's stream. From the thread that starts and stops the layer.
    class SO_EXPORT InitTerm {
    public:
        // Makes the process's stream, named after the specifier with the suffix "ping", in place of
        // the one that was. There is none afterwards when no such name is free.
        static void init(const SoString& specifier);
        // Also closes the connections that sending has kept open.
        static void exit();
    };

    using MacInterAppStream::MacInterAppStream;
    ~InterAppStream() override;

    // The process's stream; made now, with a name that says nothing, when there is none. Null when
    // no name is free. Good until `InitTerm::init` or `exit`. Any thread.
    static InterAppStream* get();
    // The same, and waits so long for a name while all are taken; many processes that live for a
    // moment may want one at once. Who waits in vain is told on standard error.
    static InterAppStream* get(int64_t waitMilliseconds);
};

namespace ConveyUtils {

// A new stream, the caller's, with `name` or, where that has an owner and carries no instance, with
// the first of its instances 1 to 8 that is free. Null for an empty name, when none is free (which
// standard error is told) and when the name cannot be had though it is free. Nothing is thrown. Any
// thread.
SO_EXPORT InterAppStream* createNextAvailableInterAppStream(const SoString& name);

// Keeps an open stream, null for none, for the instance that asks for its name, in place of the one
// that was kept before. Messages that came to the launch queue behind the parameters are the
// instance's; closing the stream would lose them.
void keepStreamFor(std::unique_ptr<InterAppStream> stream);

} // namespace ConveyUtils

} // namespace ScObjects
