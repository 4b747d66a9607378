#pragma once

#include <asio/posix/stream_descriptor.hpp>

#include "scriptobjects/convey/SoConvey.h"

namespace ScObjects::ConveyAsio {

// Lets an asio context (stand-alone asio, without Boost) serve the layer while the object exists:
// handlers run on the threads that run the context, one pump at a time. Keeps the context's `run`
// from returning; its end lets go. The object ends before its context, and on its thread.
class Attachment {
public:
    // For an `asio::io_context`, or what else has its executor.
    template <class Context>
    explicit Attachment(Context& context) : descriptor_(context) {
        const int descriptor = Convey::getPollDescriptor();
        if (descriptor >= 0) {
            descriptor_.assign(descriptor);
            wait();
        }
    }
    // The descriptor is the layer's: it is given back, not closed.
    ~Attachment() {
        if (isGood()) {
            (void)descriptor_.release();
        }
    }
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;

    // False when the system gave no descriptor.
    bool isGood() const { return descriptor_.is_open(); }

private:
    void wait() {
        descriptor_.async_wait(asio::posix::descriptor_base::wait_read,
                               [this](const asio::error_code& error) {
                                   if (!error) { // else the object is gone
                                       (void)Convey::pump(kProcessBoth);
                                       wait();
                                   }
                               });
    }

    asio::posix::stream_descriptor descriptor_;
};

} // namespace ScObjects::ConveyAsio
