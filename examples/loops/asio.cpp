// A program with an asio context that takes part until SIGTERM.
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>

#include "Greeter.h"
#include "adapters/ConveyAsio.h"

using ScObjects::Convey;

int main() {
    Convey::Messenger messenger("asio-1.0");
    greet(messenger, [](const std::string& body) { std::puts(body.c_str()); });
    asio::io_context context;
    asio::signal_set requests(context, SIGTERM);
    requests.async_wait([&](const asio::error_code&, int) { context.stop(); });
    const ScObjects::ConveyAsio::Attachment attachment(context);
    if (!attachment.isGood()) {
        return 1;
    }
    context.run();
    return 0;
}
