#include "platform/Files.h"

#include <sys/stat.h>

namespace platform {
namespace {

class LinuxFiles final : public Files {
public:
    bool exists(const std::string& path) const override {
        struct stat status {};
        return stat(path.c_str(), &status) == 0;
    }
};

} // namespace

Files& Files::own() {
    static auto* const files = new LinuxFiles;
    return *files;
}

} // namespace platform
