#include <cstdio>
#include <cstdlib>
#include <string>
#include <zmq.h>

#include "bench/BareSocket.h"
#include "bench/peers/Peer.h"

namespace bench {
namespace {

class ZeroMqPeer : public Peer {
public:
    explicit ZeroMqPeer(const std::string& folder) : address_("ipc://" + folder + "/zeromq") {}
    ~ZeroMqPeer() override {
        if (socket_ != nullptr) {
            const int none = 0;
            (void)zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof none);
            zmq_close(socket_);
            zmq_ctx_term(context_);
        }
    }

    void serve() override {
        open();
        check(zmq_bind(socket_, address_.c_str()));
        zmq_msg_t text;
        zmq_msg_init(&text);
        for (;;) {
            check(zmq_msg_recv(&text, socket_, 0));
            if (*static_cast<const char*>(zmq_msg_data(&text)) == kAnswer) {
                give(zmq_msg_data(&text), zmq_msg_size(&text));
            }
        }
    }
    void connect() override {
        open();
        check(zmq_connect(socket_, address_.c_str())); // tries again until it is bound
    }
    void roundTrip(const std::string& text) override {
        sendOnly(text);
        zmq_msg_t answer;
        zmq_msg_init(&answer);
        check(zmq_msg_recv(&answer, socket_, 0));
        zmq_msg_close(&answer);
    }
    void sendOnly(const std::string& text) override { give(text.data(), text.size()); }
    bool offer(const std::string& text) override {
        return zmq_send(socket_, text.data(), text.size(), ZMQ_DONTWAIT) >= 0;
    }

private:
    static void check(int result) {
        if (result < 0) {
            fail(zmq_strerror(zmq_errno()));
        }
    }
    void open() {
        context_ = zmq_ctx_new();
        socket_ = zmq_socket(context_, ZMQ_PAIR);
    }
    void give(const void* bytes, size_t size) { check(zmq_send(socket_, bytes, size, 0)); }

    const std::string address_;
    void* context_ = nullptr;
    void* socket_ = nullptr;
};

} // namespace

std::unique_ptr<Peer> zeroMqPeer(const std::string& folder) {
    return std::make_unique<ZeroMqPeer>(folder);
}

} // namespace bench
