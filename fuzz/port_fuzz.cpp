// Packets into a live port. The input is cut into packets: two bytes of length, the lowest first,
// and so many bytes; a length of 0xFFFF ends the connection and begins another one.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/MessagePort.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr const char* kName = "fuzzed";

// The number of zero bytes, so that inputs find seals that fit.
class Seal : public platform::PortSeal {
public:
    std::string_view finish() override {
        line_ = "sum:" + std::to_string(zeros_) + "\n";
        return line_;
    }

private:
    void add(std::string_view bytes) override {
        zeros_ += std::count(bytes.begin(), bytes.end(), '\0');
    }
    int64_t zeros_ = 0;
    std::string line_;
};

struct OpenPort {
    OpenPort() {
        setenv("XDG_RUNTIME_DIR", folder.file("").c_str(), 1);
        port = platform::MessagePorts::own().open(kName);
        if (port == nullptr) {
            std::abort();
        }
        port->checkSeals([] { return std::make_unique<Seal>(); });
    }
    int connection() const {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        folder.file(std::string("/convey/") + kName + ".socket")
            .copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            std::abort();
        }
        return fd;
    }

    TemporaryFolder folder;
    std::unique_ptr<platform::LocalPort> port;
};

size_t drain(platform::LocalPort& port) {
    size_t texts = 0;
    platform::PortText text;
    while (port.take(text)) {
        ++texts;
        if (text.sealBytes() > text.size() ||
            (text.sealBytes() != 0 && text.view().substr(0, 4) != "sum:")) {
            std::abort();
        }
        // Every byte must be there to be read.
        volatile char sum = 0;
        for (const char c : text.view()) {
            sum = static_cast<char>(sum + c);
        }
    }
    return texts;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static OpenPort open;
    int fd = open.connection();
    while (size >= 2) {
        const size_t length = data[0] + 256U * data[1];
        data += 2;
        size -= 2;
        if (length == 0xFFFF) {
            close(fd);
            fd = open.connection();
            continue;
        }
        const size_t bytes = std::min(length, size);
        if (send(fd, data, bytes, MSG_NOSIGNAL) < 0) {
            (void)drain(*open.port); // closed for what it sent, or full
        }
        data += bytes;
        size -= bytes;
    }
    close(fd);
    (void)drain(*open.port);
    const platform::PortStatistics statistics = open.port->statistics();
    if (statistics.connections != 0) {
        std::abort(); // an end that was not seen
    }
    return 0;
}
