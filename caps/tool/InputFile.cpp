#include "caps/tool/InputFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace caps::tool {
namespace {

constexpr size_t kBlockBytes = 65536;

std::string tooLarge(size_t maximumBytes) {
    return "is larger than " + std::to_string(maximumBytes / (1024 * 1024)) + " MiB";
}

std::string errnoText() {
    return std::generic_category().message(errno);
}

class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() {
        if (descriptor_ >= 0) {
            (void)close(descriptor_); // only read from: nothing can be lost
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return descriptor_; }

private:
    int descriptor_;
};

} // namespace

std::optional<std::string> readFile(const std::string& path, size_t maximumBytes,
                                    std::string& reason) {
    // Opened first and looked at then: what stands under the name may change in between. Without
    // O_NONBLOCK the opening itself would wait at a FIFO.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
        reason = "cannot be read: " + errnoText();
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        reason = "is not a file";
        return std::nullopt;
    }
    std::string text;
    size_t used = 0;
    while (true) {
        text.resize(used + kBlockBytes);
        const ssize_t bytes = read(file.get(), text.data() + used, kBlockBytes);
        if (bytes < 0 && errno == EINTR) {
            continue;
        }
        if (bytes < 0) {
            reason = "cannot be read: " + errnoText();
            return std::nullopt;
        }
        used += static_cast<size_t>(bytes);
        if (used > maximumBytes) {
            reason = tooLarge(maximumBytes);
            return std::nullopt;
        }
        if (bytes == 0) {
            text.resize(used);
            return text;
        }
    }
}

std::optional<std::string> readStream(std::istream& in, size_t maximumBytes, std::string& reason) {
    std::string text;
    std::string block(kBlockBytes, '\0');
    while (in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0) {
        text.append(block, 0, static_cast<size_t>(in.gcount()));
        if (text.size() > maximumBytes) {
            reason = tooLarge(maximumBytes);
            return std::nullopt;
        }
    }
    if (in.bad()) {
        reason = "cannot be read";
        return std::nullopt;
    }
    return text;
}

} // namespace caps::tool
