#include "platform/linux/RunningProgram.h"

#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

#include "limits/Limits.h"
#include "platform/Files.h"
#include "platform/linux/ProcessTable.h"

namespace platform {
namespace {

constexpr size_t kInterpreterLineBytes = limits::of("process.interpreter-line");
constexpr size_t kInterpreterWords = limits::of("process.interpreter-words");
// What the kernel writes behind the path of a running file that has no name any more.
constexpr std::string_view kReplaced = " (deleted)";

std::string_view fileName(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

// The words of a script's first line behind "#!"; none for another file.
std::vector<std::string> interpreterLine(const std::string& path) {
    char line[kInterpreterLineBytes] = {};
    std::ifstream in(path, std::ios::binary);
    in.read(line, sizeof line);
    const std::string_view text(line, static_cast<size_t>(in.gcount()));
    std::vector<std::string> words;
    if (text.starts_with("#!")) {
        std::istringstream rest{std::string(text.substr(2, text.find('\n') - 2))};
        for (std::string word; rest >> word;) {
            words.push_back(word);
        }
    }
    return words;
}

} // namespace

std::string resolvedPath(const std::string& path) {
    std::string real;
    return Files::own().resolve(path, real) ? real : path;
}

RunningProgram::RunningProgram(const std::string& path) : program_(resolvedPath(path)) {
    // The kernel runs the interpreter in the place of a script, so a script is never the
    // executable.
    const std::vector<std::string> words = interpreterLine(program_);
    if (words.empty()) {
        return;
    }
    interpreter_ = resolvedPath(words.front());
    // It looks for the interpreter along the path and becomes it; which file that is depends on the
    // path of whoever started it, so only its name is compared.
    if (fileName(words.front()) == "env") {
        for (size_t i = 1; i < words.size() && name_.empty(); ++i) {
            const bool isOption = words[i].front() == '-';
            const bool isVariable = words[i].find('=') != std::string::npos;
            name_ = isOption || isVariable ? "" : words[i];
        }
    }
}

bool RunningProgram::isRunBy(uint32_t process) const {
    std::string running = programOfProcess(process);
    if (running.empty() || running == program_) {
        return !running.empty();
    }
    // Compared with and without the mark, since a file may be called that way.
    if (running.ends_with(kReplaced)) {
        running.resize(running.size() - kReplaced.size());
    }
    return running == program_ || (!interpreter_.empty() && interprets(process, running));
}

bool RunningProgram::interprets(uint32_t process, const std::string& running) const {
    const std::vector<std::string> words = commandLineOf(process, kInterpreterWords);
    if (words.empty() || (name_.empty() ? running != interpreter_ : fileName(words[0]) != name_)) {
        return false;
    }
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.empty()) {
            return false;
        }
        if (word.front() != '-') {
            // A person's shell gives a script as it was typed.
            const std::string path =
                word.front() == '/' ? word : workingFolderOf(process) + "/" + word;
            return path == program_ || resolvedPath(path) == program_;
        }
    }
    return false; // its own options, and no script
}

} // namespace platform
