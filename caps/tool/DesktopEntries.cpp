#include "caps/tool/DesktopEntries.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

#include "limits/InWords.h"
#include "limits/Limits.h"

namespace caps::tool {
namespace {

namespace fs = std::filesystem;

constexpr uintmax_t kMaxFileBytes = limits::of("import.desktop-file");
// What the desktop puts in their place is files, icon and name: without them the program starts.
constexpr std::string_view kFieldCodes = "fFuUickdDnNvm";
constexpr size_t kMaxFiles = limits::of("import.desktop-files");

using Fields = std::map<std::string, std::string>;

std::string trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r");
    const size_t last = text.find_last_not_of(" \t\r");
    return first == std::string_view::npos ? "" : std::string(text.substr(first, last - first + 1));
}

// The escapes of a value: \s \n \t \r \\.
std::string unescaped(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        switch (text[++i]) {
        case 's':
            out += ' ';
            break;
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'r':
            out += '\r';
            break;
        case '\\':
            out += '\\';
            break;
        default:
            out += '\\';
            out += text[i];
        }
    }
    return out;
}

// The group [Desktop Entry], values as they stand; false when the text is not of the format.
bool readFields(std::istream& in, Fields& fields, std::string& reason) {
    std::string line;
    bool inEntry = false;
    for (size_t number = 1; std::getline(in, line); ++number) {
        const std::string text = trimmed(line);
        if (text.empty() || text.front() == '#') {
            continue;
        }
        if (text.front() == '[') {
            if (inEntry) {
                break; // the groups behind it are of no interest
            }
            inEntry = text == "[Desktop Entry]";
            continue;
        }
        const size_t equals = text.find('=');
        if (equals == std::string::npos) {
            reason = "line " + std::to_string(number) + " is no \"key=value\"";
            return false;
        }
        if (inEntry) {
            fields.try_emplace(trimmed(text.substr(0, equals)), trimmed(text.substr(equals + 1)));
        }
    }
    if (!inEntry) {
        reason = "has no [Desktop Entry]";
    }
    return inEntry;
}

std::string field(const Fields& fields, const std::string& key) {
    const auto found = fields.find(key);
    return found == fields.end() ? "" : found->second;
}

bool isProgram(const std::string& path) {
    std::error_code ignored;
    return fs::is_regular_file(path, ignored) && access(path.c_str(), X_OK) == 0;
}

// The program's path: itself, or the first one on the PATH; empty when there is none.
std::string resolved(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        // A relative path would be one from wherever the import was run.
        return program.front() == '/' && isProgram(program) ? program : "";
    }
    const char* value = std::getenv("PATH"); // NOLINT(concurrency-mt-unsafe): one thread
    std::string_view folders = value != nullptr ? value : "/usr/local/bin:/usr/bin:/bin";
    while (!folders.empty()) {
        const size_t end = folders.find(':');
        std::string path = std::string(folders.substr(0, end)) + "/" + program;
        if (path.front() == '/' && isProgram(path)) {
            return path;
        }
        folders = end == std::string_view::npos ? "" : folders.substr(end + 1);
    }
    return "";
}

// The application's version, where a file gives one under a key of its maker's own.
std::string versionOf(const Fields& fields) {
    for (const auto& [key, value] : fields) {
        // One such key tells which program installed the file.
        if (key.starts_with("X-") && key.ends_with("Version") &&
            key != "X-Desktop-File-Install-Version" && !value.empty() && value.front() >= '0' &&
            value.front() <= '9' && value.find_first_not_of("0123456789.") == std::string::npos) {
            return value;
        }
    }
    return "";
}

// The first word by the format's quoting rules, and where it ends; empty for a malformed line.
std::string firstWord(const std::string& line, size_t& end) {
    const size_t first = line.find_first_not_of(' ');
    end = line.size();
    if (first == std::string::npos) {
        return "";
    }
    std::string program;
    if (line[first] != '"') {
        end = std::min(line.find(' ', first), line.size());
        program = line.substr(first, end - first);
        // These have to be quoted: who has not means something else with them, perhaps a shell.
        return program.find_first_of("\"'\\`$<>~|&;*?#()%") == std::string::npos ? program : "";
    }
    for (size_t i = first + 1; i < line.size(); ++i) {
        if (line[i] == '"') {
            end = i + 1;
            return program;
        }
        if (line[i] == '\\' && i + 1 < line.size()) {
            ++i; // a quoted '"', '`', '$' or '\'
        }
        program += line[i];
    }
    return ""; // the quotation does not end
}

bool isTrue(const Fields& fields, const std::string& key) {
    return field(fields, key) == "true";
}

// What the registry keeps of a file beside the path. A value that it refuses is left out, but for
// the name.
void addKeys(const Fields& fields, Application& application) {
    const auto add = [&application](const std::string& key, const std::string& value) {
        if (!value.empty() && !valueFault(key, value)) {
            application.keys.push_back({key, value});
        }
    };
    add(std::string(kDisplayNameKey), unescaped(field(fields, "Name")));
    for (const auto& [key, value] : fields) {
        if (key.starts_with("Name[") && key.ends_with("]")) {
            add(std::string(kDisplayNameKey) + key.substr(std::string_view("Name").size()),
                unescaped(value));
        }
    }
    add(std::string(kIconKey), unescaped(field(fields, "Icon")));
    add("WindowClassName", unescaped(field(fields, "StartupWMClass")));
}

} // namespace

std::string programOf(const std::string& execLine) {
    size_t end = 0;
    return firstWord(unescaped(execLine), end);
}

bool startsProgramAlone(const std::string& execLine) {
    const std::string line = unescaped(execLine);
    size_t end = 0;
    (void)firstWord(line, end);
    std::istringstream rest(line.substr(end));
    for (std::string word; rest >> word;) {
        if (word.size() != 2 || word[0] != '%' || kFieldCodes.find(word[1]) == std::string::npos) {
            return false;
        }
    }
    return true;
}

std::optional<Application> readDesktopEntry(std::istream& in, const std::string& path,
                                            std::string& reason) {
    Fields fields;
    if (!readFields(in, fields, reason)) {
        return std::nullopt;
    }
    if (field(fields, "Type") != "Application") {
        reason = "is no application";
        return std::nullopt;
    }
    if (isTrue(fields, "Hidden") || isTrue(fields, "NoDisplay")) {
        reason = "is hidden";
        return std::nullopt;
    }
    const std::string name = unescaped(field(fields, "Name"));
    if (name.empty()) {
        reason = "has no Name";
        return std::nullopt;
    }
    const std::string tryExec = field(fields, "TryExec");
    if (!tryExec.empty() && resolved(unescaped(tryExec)).empty()) {
        reason = "\"" + tryExec + "\" is not installed";
        return std::nullopt;
    }
    const std::string program = programOf(field(fields, "Exec"));
    const std::string programPath = program.empty() ? "" : resolved(program);
    if (programPath.empty()) {
        reason =
            program.empty() ? "has no usable Exec line" : "\"" + program + "\" is not installed";
        return std::nullopt;
    }
    Application application;
    application.specifier = lowerCase(fs::path(path).stem().string());
    // These are the marks between the parts of a specifier.
    for (char& c : application.specifier) {
        c = c == '-' || c == '_' || c == '#' ? '.' : c;
    }
    if (const std::string version = versionOf(fields); !version.empty()) {
        application.specifier += "-" + version;
    }
    if (const auto fault = specifierFault(application.specifier)) {
        reason = *fault;
        return std::nullopt;
    }
    // The program's own path where that is all there is to it; else the desktop's library has to
    // read the file again when it is started.
    const bool alone = startsProgramAlone(field(fields, "Exec")) && tryExec.empty() &&
                       !isTrue(fields, "Terminal") && !isTrue(fields, "DBusActivatable");
    application.keys = {{std::string(kPathKey), alone ? programPath : path}};
    for (const auto& [key, value] :
         {std::pair(kPathKey, application.keys.front().value), std::pair(kDisplayNameKey, name)}) {
        if (const auto fault = valueFault(key, value)) {
            reason = std::string(key) + ": " + *fault;
            return std::nullopt;
        }
    }
    addKeys(fields, application);
    return application;
}

DesktopImport readDesktopFolder(const std::string& folder) {
    DesktopImport result;
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::recursive_directory_iterator
             entry(folder, fs::directory_options::skip_permission_denied, error),
         end;
         !error && entry != end && files.size() < kMaxFiles; entry.increment(error)) {
        if (entry->path().extension() == ".desktop") {
            files.push_back(entry->path());
        }
    }
    if (error) {
        result.skipped.push_back(folder + ": " + error.message());
    }
    // Folders are read in no order, and of two files with the same specifier the first has it: the
    // same one each time.
    std::sort(files.begin(), files.end());
    std::set<std::string> specifiers;
    for (const fs::path& file : files) {
        std::string reason;
        std::optional<Application> application;
        if (!fs::is_regular_file(file, error)) {
            reason = "is no file"; // opening a FIFO would wait for ever
        } else if (fs::file_size(file, error) > kMaxFileBytes) {
            reason = "is larger than " + limits::inWords("import.desktop-file");
        } else if (std::ifstream in(file); in) {
            application =
                readDesktopEntry(in, fs::absolute(file).lexically_normal().string(), reason);
        } else {
            reason = "cannot be read";
        }
        if (application && !specifiers.insert(application->specifier).second) {
            reason = "its specifier " + application->specifier + " is taken";
            application.reset();
        }
        if (application) {
            result.applications.push_back(std::move(*application));
        } else {
            result.skipped.push_back(file.string() + ": " + reason);
        }
    }
    return result;
}

} // namespace caps::tool
