#include "platform/linux/ProcessTable.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/linux/Descriptor.h"

namespace platform {
namespace {

constexpr size_t kMaximumBytes = limits::of("process.text");

std::string procPath(uint32_t number, const char* leaf) {
    return "/proc/" + std::to_string(number) + leaf;
}

// Files below /proc tell no size, and a process that ends meanwhile ends the reading.
std::string readProc(uint32_t number, const char* leaf) {
    const Descriptor file(open(procPath(number, leaf).c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    char buffer[4096];
    while (file && text.size() < kMaximumBytes) {
        const ssize_t length =
            uninterrupted([&] { return read(file.get(), buffer, sizeof buffer); });
        if (length <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(length));
    }
    return text;
}

// Empty for one that is not this user's to look at, and for a path that may have been cut.
std::string linkOf(uint32_t number, const char* leaf) {
    char path[PATH_MAX];
    const ssize_t length = readlink(procPath(number, leaf).c_str(), path, sizeof path);
    return length > 0 && static_cast<size_t>(length) < sizeof path
               ? std::string(path, static_cast<size_t>(length))
               : std::string();
}

// The first word of a text, which loses it.
std::string_view takeUpTo(std::string_view& text, char end) {
    const size_t length = text.find(end);
    const std::string_view word = text.substr(0, length);
    text = length == std::string_view::npos ? std::string_view() : text.substr(length + 1);
    return word;
}

} // namespace

uint64_t processStartTime(uint32_t number) {
    const std::string text = readProc(number, "/stat");
    const size_t nameEnd = text.rfind(')'); // the name may hold anything, parentheses too
    if (nameEnd == std::string::npos || nameEnd + 2 > text.size()) {
        return 0;
    }
    std::string_view rest = std::string_view(text).substr(nameEnd + 2);
    const std::string_view state = takeUpTo(rest, ' ');
    // One that has ended and whose parent has not asked for it yet still has its number.
    if (state == "Z" || state == "X" || state == "x") {
        return 0;
    }
    constexpr int kFieldsBetween = 18; // the start time is field 22, the state field 3
    for (int i = 0; i < kFieldsBetween; ++i) {
        (void)takeUpTo(rest, ' ');
    }
    uint64_t ticks = 0;
    const std::string_view word = takeUpTo(rest, ' ');
    const auto end = std::from_chars(word.data(), word.data() + word.size(), ticks);
    return end.ec == std::errc() ? ticks + 1 : 0; // init itself starts at 0
}

std::vector<uint32_t> ownProcesses() {
    std::vector<uint32_t> numbers;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
    if (folder == nullptr) {
        return numbers;
    }
    while (const dirent* entry = readdir(folder.get())) { // NOLINT(concurrency-mt-unsafe): own
        const std::string_view name(entry->d_name);
        uint32_t number = 0;
        const auto end = std::from_chars(name.data(), name.data() + name.size(), number);
        struct stat status {};
        // The folder belongs to who runs the process. Others' processes are no applications of this
        // user.
        if (end.ec == std::errc() && end.ptr == name.data() + name.size() && number != 0 &&
            fstatat(dirfd(folder.get()), entry->d_name, &status, 0) == 0 &&
            status.st_uid == geteuid()) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

std::string programOfProcess(uint32_t number) {
    return linkOf(number, "/exe");
}

std::string workingFolderOf(uint32_t number) {
    return linkOf(number, "/cwd");
}

std::vector<std::string> commandLineOf(uint32_t number, size_t maximumWords) {
    // The kernel ends each word with a zero byte, an empty one, too. A program may write over them.
    const std::string text = readProc(number, "/cmdline");
    std::string_view rest(text);
    std::vector<std::string> words;
    while (!rest.empty() && words.size() < maximumWords) {
        words.emplace_back(takeUpTo(rest, '\0'));
    }
    return words;
}

std::map<std::string, uint32_t> openFilesBelow(const std::string& folder) {
    std::map<std::string, uint32_t> owners;
    const std::string start = folder + "/";
    for (const uint32_t number : ownProcesses()) {
        const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(procPath(number, "/fd").c_str()),
                                                       closedir);
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the folder is this call's own
        while (const dirent* entry = open == nullptr ? nullptr : readdir(open.get())) {
            char path[PATH_MAX];
            const ssize_t length = readlinkat(dirfd(open.get()), entry->d_name, path, sizeof path);
            if (length > 0 && static_cast<size_t>(length) < sizeof path) {
                const std::string_view text(path, static_cast<size_t>(length));
                if (text.starts_with(start)) {
                    owners.emplace(text, number);
                }
            }
        }
    }
    return owners;
}

std::string startVariableOf(uint32_t number, const std::string& name) {
    const std::string text = readProc(number, "/environ");
    std::string_view rest(text);
    while (!rest.empty()) {
        const std::string_view entry = takeUpTo(rest, '\0');
        if (entry.size() > name.size() && entry[name.size()] == '=' &&
            entry.substr(0, name.size()) == name) {
            return std::string(entry.substr(name.size() + 1));
        }
    }
    return {};
}

} // namespace platform
