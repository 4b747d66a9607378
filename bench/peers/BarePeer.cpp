// Sequenced packets without any of our code: what the system itself costs.
#include <string>
#include <vector>

#include "bench/BareSocket.h"
#include "bench/peers/Peer.h"

namespace bench {
namespace {

constexpr size_t kPacketBytes = size_t{512} << 10; // the best of several where it was measured

class BarePeer : public Peer {
public:
    void serve() override {
        std::string text;
        for (;;) {
            take(pair_.ends[1], text);
            if (text[0] == kAnswer) {
                give(pair_.ends[1], text);
            }
        }
    }
    void connect() override {}
    void roundTrip(const std::string& text) override {
        give(pair_.ends[0], text);
        take(pair_.ends[0], answer_);
    }
    void sendOnly(const std::string& text) override { give(pair_.ends[0], text); }

    bool offer(const std::string& text) override {
        return send(pair_.ends[0], text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
    }

private:
    // The size first, for texts of several packets.
    static void give(int socket, const std::string& text) {
        const size_t size = text.size();
        iovec parts[] = {{const_cast<size_t*>(&size), sizeof size},
                         {const_cast<char*>(text.data()), std::min(size, kPacketBytes)}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        if (sendmsg(socket, &message, MSG_NOSIGNAL) < 0) {
            fail("sendmsg");
        }
        for (size_t at = kPacketBytes; at < size; at += kPacketBytes) {
            sendBare(socket, text.data() + at, std::min(kPacketBytes, size - at));
        }
    }
    static void take(int socket, std::string& text) {
        size_t size = 0;
        static std::vector<char> packet(kPacketBytes);
        iovec parts[] = {{&size, sizeof size}, {packet.data(), packet.size()}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        const ssize_t bytes = recvmsg(socket, &message, 0);
        if (bytes <= 0) {
            _exit(0);
        }
        text.resize(size);
        size_t got = static_cast<size_t>(bytes) - sizeof size;
        std::copy(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(got), text.begin());
        while (got < size) {
            got += receiveBare(socket, text.data() + got, size - got, false);
        }
    }

    const Pair pair_;
    std::string answer_;
};

} // namespace

std::unique_ptr<Peer> bareSocketPeer() {
    return std::make_unique<BarePeer>();
}

} // namespace bench
