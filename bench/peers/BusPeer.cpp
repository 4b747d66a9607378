// sd-bus: method calls with an array of bytes, answered with one; without an answer for texts that
// are only taken.
#include <cstring>
#include <string>
#include <systemd/sd-bus.h>

#include "bench/BareSocket.h"
#include "bench/peers/Peer.h"

namespace bench {
namespace {

constexpr const char* kInterface = "org.example.Bench";
constexpr const char* kPath = "/org/example/Bench";
constexpr uint64_t kWaitMicroseconds = 60'000'000;

class BusPeer : public Peer {
public:
    explicit BusPeer(const std::string& address) : address_(address) {
        if (address_.empty() && socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) != 0) {
            fail("socketpair");
        }
    }
    ~BusPeer() override { sd_bus_unref(bus_); }

    void serve() override {
        open(true);
        if (!address_.empty()) {
            check(sd_bus_request_name(bus_, kInterface, 0));
        }
        for (;;) {
            sd_bus_message* message = nullptr;
            const int progress = check(sd_bus_process(bus_, &message));
            if (message != nullptr) {
                answer(message);
                sd_bus_message_unref(message);
            } else if (progress == 0) {
                check(sd_bus_wait(bus_, UINT64_MAX));
            }
        }
    }
    void connect() override {
        open(false);
        if (!address_.empty()) { // until the other one has its name
            const auto end = Time::now() + std::chrono::seconds(10);
            sd_bus_creds* owner = nullptr;
            while (sd_bus_get_name_creds(bus_, kInterface, 0, &owner) < 0 && Time::now() < end) {
                usleep(1000);
            }
            sd_bus_creds_unref(owner);
        }
    }
    void roundTrip(const std::string& text) override {
        sd_bus_message* const request = call(text);
        sd_bus_message* reply = nullptr;
        check(sd_bus_call(bus_, request, kWaitMicroseconds, nullptr, &reply));
        const void* bytes = nullptr;
        size_t size = 0;
        check(sd_bus_message_read_array(reply, 'y', &bytes, &size));
        if (size != text.size()) {
            fail("an answer of another size");
        }
        sd_bus_message_unref(reply);
        sd_bus_message_unref(request);
    }
    void sendOnly(const std::string& text) override {
        sd_bus_message* const request = call(text);
        check(sd_bus_message_set_expect_reply(request, 0));
        check(sd_bus_send(bus_, request, nullptr));
        // What does not fit the socket is queued without a bound: a sender of many must flush.
        check(sd_bus_flush(bus_));
        sd_bus_message_unref(request);
    }
    bool offer(const std::string& text) override {
        sd_bus_message* const request = call(text);
        check(sd_bus_message_set_expect_reply(request, 0));
        const bool taken = sd_bus_send(bus_, request, nullptr) >= 0;
        sd_bus_message_unref(request);
        (void)sd_bus_process(bus_, nullptr); // writes what the socket takes
        return taken;
    }

private:
    static int check(int result) {
        if (result < 0) {
            errno = -result;
            fail("sd-bus");
        }
        return result;
    }
    void open(bool serves) {
        check(sd_bus_new(&bus_));
        if (address_.empty()) {
            const int fd = ends_[serves ? 1 : 0];
            close(ends_[serves ? 0 : 1]);
            check(sd_bus_set_fd(bus_, fd, fd));
            if (serves) {
                sd_id128_t id;
                check(sd_id128_randomize(&id));
                check(sd_bus_set_server(bus_, 1, id));
            }
        } else {
            check(sd_bus_set_address(bus_, address_.c_str()));
            check(sd_bus_set_bus_client(bus_, 1));
        }
        check(sd_bus_start(bus_));
    }
    sd_bus_message* call(const std::string& text) {
        sd_bus_message* message = nullptr;
        check(sd_bus_message_new_method_call(
            bus_, &message, address_.empty() ? nullptr : kInterface, kPath, kInterface, "Text"));
        check(sd_bus_message_append_array(message, 'y', text.data(), text.size()));
        return message;
    }
    void answer(sd_bus_message* request) {
        if (sd_bus_message_is_method_call(request, kInterface, "Text") <= 0) {
            return;
        }
        const void* bytes = nullptr;
        size_t size = 0;
        check(sd_bus_message_read_array(request, 'y', &bytes, &size));
        if (*static_cast<const char*>(bytes) != kAnswer) {
            return;
        }
        sd_bus_message* reply = nullptr;
        check(sd_bus_message_new_method_return(request, &reply));
        check(sd_bus_message_append_array(reply, 'y', bytes, size));
        check(sd_bus_send(bus_, reply, nullptr));
        check(sd_bus_flush(bus_));
        sd_bus_message_unref(reply);
    }

    const std::string address_; // empty: over the pair
    int ends_[2] = {-1, -1};
    sd_bus* bus_ = nullptr;
};

} // namespace

std::unique_ptr<Peer> directBusPeer() {
    return std::make_unique<BusPeer>("");
}

std::unique_ptr<Peer> brokerBusPeer(const std::string& address) {
    return std::make_unique<BusPeer>(address);
}

} // namespace bench
