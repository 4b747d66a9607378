#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <string>
#include <unistd.h>

#include "bench/BareSocket.h"
#include "bench/peers/Peer.h"

namespace bench {
namespace {

class NngPeer : public Peer {
public:
    explicit NngPeer(const std::string& folder) : address_("ipc://" + folder + "/nng") {}
    ~NngPeer() override {
        if (open_) {
            nng_close(socket_);
        }
    }

    void serve() override {
        open();
        check(nng_listen(socket_, address_.c_str(), nullptr, 0));
        for (;;) {
            char* text = nullptr;
            size_t size = 0;
            check(nng_recv(socket_, &text, &size, NNG_FLAG_ALLOC));
            if (*text == kAnswer) {
                check(nng_send(socket_, text, size, 0));
            }
            nng_free(text, size);
        }
    }
    void connect() override {
        open();
        while (nng_dial(socket_, address_.c_str(), nullptr, 0) != 0) { // not there yet
            usleep(1000);
        }
    }
    void roundTrip(const std::string& text) override {
        sendOnly(text);
        char* answer = nullptr;
        size_t size = 0;
        check(nng_recv(socket_, &answer, &size, NNG_FLAG_ALLOC));
        nng_free(answer, size);
    }
    void sendOnly(const std::string& text) override {
        check(nng_send(socket_, const_cast<char*>(text.data()), text.size(), 0));
    }
    bool offer(const std::string& text) override {
        return nng_send(socket_, const_cast<char*>(text.data()), text.size(), NNG_FLAG_NONBLOCK) ==
               0;
    }

private:
    static void check(int result) {
        if (result != 0) {
            fail(nng_strerror(result));
        }
    }
    void open() {
        check(nng_pair0_open(&socket_));
        open_ = true;
        check(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0)); // no bound of its own
    }

    const std::string address_;
    nng_socket socket_{};
    bool open_ = false;
};

} // namespace

std::unique_ptr<Peer> nngPeer(const std::string& folder) {
    return std::make_unique<NngPeer>(folder);
}

} // namespace bench
