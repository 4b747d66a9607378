#include "scriptobjects/convey/SoCVUtils.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <nettle/md5.h>
#include <set>
#include <string>
#include <vector>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Files.h"
#include "platform/Frameworks.h"
#include "platform/Locale.h"
#include "platform/Log.h"
#include "platform/Processes.h"
#include "platform/Random.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects::ConveyUtils {
namespace {

constexpr size_t kLocaleBufferBytes = limits::of("options.locale");

constexpr uint32_t kFolderMode = 0771;
constexpr size_t kIdentifierBytes = 16;
constexpr int32_t kMaximumCachedBytes = limits::of("identifier.length");
constexpr size_t kMaximumIdentifierFile = limits::of("identifier.file");
constexpr int kMaximumFolderDepth = limits::of("folders.depth");
constexpr std::string_view kWordEnds = " =;\"':";

// Each byte in upper-case hexadecimal, and how many digits it has.
struct HexadecimalByte {
    std::array<char, 2> digits;
    uint8_t count;
};
constexpr auto kHexadecimal = [] {
    constexpr const char* digits = "0123456789ABCDEF";
    std::array<HexadecimalByte, 256> bytes{};
    for (size_t byte = 0; byte < bytes.size(); ++byte) {
        bytes[byte] = byte < 0x10 ? HexadecimalByte{{digits[byte], '\0'}, 1}
                                  : HexadecimalByte{{digits[byte >> 4], digits[byte & 0xF]}, 2};
    }
    return bytes;
}();

// Appended at once, without branches: a digest is made of each message, twice.
template <size_t count>
void appendHexadecimal(SoString& out, const uint8_t (&bytes)[count]) {
    char text[2 * count];
    char* end = text;
    for (const uint8_t byte : bytes) {
        const HexadecimalByte& one = kHexadecimal[byte];
        std::memcpy(end, one.digits.data(), one.digits.size()); // a short one is written over
        end += one.count;
    }
    out.append(text, static_cast<int32_t>(end - text));
}

// An identifier of this user, kept in a file of the home folder.
// With a lock of its own kind: it lives for ever, and objects with locks of the layer are counted
// as its users.
class Identifier {
public:
    explicit Identifier(const char* name) : name_(name) {}

    SoString get() {
        const std::lock_guard<std::mutex> guard(mutex_);
        // Under the lock to the end: threads that come first together read one file.
        if (!cached_.isEmpty()) {
            return cached_;
        }
        SoString text = read();
        // An empty one is asked for again: a home folder can come later.
        if (text.length() >= 1 && text.length() <= kMaximumCachedBytes) {
            cached_ = text;
        }
        return text;
    }

    void forget() {
        const std::lock_guard<std::mutex> guard(mutex_);
        cached_.shrink(0);
    }

private:
    SoString read() const {
        const char* home = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe): nobody sets it
        if (home == nullptr || *home == '\0') {
            return SoString();
        }
        platform::Files& files = platform::Files::system();
        const std::string folder = std::string(home) + "/.ovrel";
        const std::string file = folder + "/" + name_;
        std::string content;
        // Made only where there is none: what is refused may be another's and is left alone.
        auto reading = files.readOwn(file, kMaximumIdentifierFile, content);
        if (reading == platform::Files::Reading::missing) {
            if (!files.makeFolder(folder, kFolderMode)) {
                if (!files.exists(home)) {
                    return SoString(); // a user without a home folder has less to offer
                }
                // Once for the user: said at each run of a tool it would be in the way of the
                // answers.
                platform::Log::system().problemOfUser("cannot make the folder " + folder +
                                                      ": messages carry no digest");
                return SoString();
            }
            uint8_t bytes[kIdentifierBytes];
            // None rather than one that can be guessed: digests of others would pass for the
            // user's.
            if (!platform::Random::system().fill(bytes, sizeof bytes)) {
                return SoString();
            }
            SoString text;
            appendHexadecimal(text, bytes);
            // When another process was faster, its identifier is the user's.
            (void)files.publish(file, text.view());
            reading = files.readOwn(file, kMaximumIdentifierFile, content);
        }
        if (reading == platform::Files::Reading::done && content.empty()) {
            platform::Log::system().problemOfUser(file + " is empty: messages carry no digest");
        }
        return reading == platform::Files::Reading::done ? SoString(content.c_str()) : SoString();
    }

    const char* const name_;
    std::mutex mutex_;
    SoString cached_; // under the mutex
};

Identifier& userIdentifier() {
    static auto* const identifier = new Identifier("userid");
    return *identifier;
}

Identifier& digestIdentifier() {
    static auto* const identifier = new Identifier("md5");
    return *identifier;
}

// MD5 because peers compare it. It tells damage and texts from elsewhere; it keeps no program of
// this user from forging. The form: identifier, '+', text, '+', identifier.
class Digest {
public:
    Digest() {
        md5_init(&context_);
        add(identifier_.view());
        add("+");
    }
    void add(std::string_view piece) {
        md5_update(&context_, piece.size(), reinterpret_cast<const uint8_t*>(piece.data()));
    }
    SoString finish() {
        SoString result;
        if (identifier_.isEmpty()) {
            return result; // a digest that is not the user's would pass for one
        }
        add("+");
        add(identifier_.view());
        uint8_t digest[MD5_DIGEST_SIZE];
        md5_digest(&context_, sizeof digest, digest);
        appendHexadecimal(result, digest);
        return result;
    }

private:
    md5_ctx context_;
    const SoString identifier_ = digestIdentifier().get();
};

void walk(const std::string& path, FileFilter& filter, std::set<std::string>& walked, int depth) {
    std::vector<platform::FolderEntry> entries;
    std::string identity;
    // By what the folder is, not by its path: links may lead to it by many.
    if (depth > kMaximumFolderDepth || !platform::Files::system().list(path, entries, identity) ||
        !walked.insert(identity).second) {
        return;
    }
    for (const platform::FolderEntry& entry : entries) {
        const std::string child = path + "/" + entry.name;
        if (entry.isFolder) {
            filter.onFolder(SoString(child));
            walk(child, filter, walked, depth + 1);
        } else {
            filter.onFile(SoString(child));
        }
    }
}

} // namespace

void init() {}

void exit() {
    userIdentifier().forget();
    digestIdentifier().forget();
}

SoString getSenderID() {
    SoString text(kSenderIDPrefix);
    text << platform::Processes::system().ownNumber();
    return text;
}

SoString getUserID() {
    return userIdentifier().get();
}

SoString getSecurityID() {
    return getUserID();
}

SoString getSignature() {
    return getUserID();
}

struct MD5::State {
    Digest digest;
};

MD5::MD5() : state_(std::make_unique<State>()) {}

MD5::~MD5() = default;

void MD5::add(std::string_view piece) {
    state_->digest.add(piece);
}

SoString MD5::finish() {
    return state_->digest.finish();
}

SoString getMD5(const SoString& text) {
    return getMD5({text.view()});
}

SoString getMD5(std::initializer_list<std::string_view> parts) {
    Digest digest; // on the stack: each small text has one made and one compared
    for (const std::string_view part : parts) {
        digest.add(part);
    }
    return digest.finish();
}

SoString getCurrentLocale() {
    std::string identifier;
    if (!platform::Locale::system().identifier(identifier) ||
        identifier.size() >= kLocaleBufferBytes ||
        std::any_of(identifier.begin(), identifier.end(),
                    [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
        return SoString("en_us");
    }
    return SoString(identifier.c_str()).lowercase();
}

bool fileExists(const SoString& path) {
    return !path.isEmpty() && platform::Files::system().exists(path.c_str());
}

bool mkdir(const SoString& path) {
    return !path.isEmpty() && platform::Files::system().makeFolder(path.c_str(), kFolderMode);
}

bool rmdir(const SoString& path) {
    return !path.isEmpty() && platform::Files::system().removeFolder(path.c_str());
}

bool deleteFile(const SoString& path) {
    return !path.isEmpty() && platform::Files::system().removeFile(path.c_str());
}

bool createAlias(const SoString& target, const SoString& alias) {
    // What a relative one means would depend on where the link lies.
    if (alias.isEmpty() || target == alias || *target.c_str() != '/' || !fileExists(target)) {
        return false;
    }
    // Only when the target is known to be there: a link that cannot be made must cost nobody a
    // file.
    (void)deleteFile(alias); // as a rule there is none
    // It replaces nothing, so what was there had to go first.
    return platform::Files::system().makeLink(target.c_str(), alias.c_str());
}

SoString resolveAlias(const SoString& path) {
    std::string real;
    if (path.isEmpty() || !platform::Files::system().resolve(path.c_str(), real)) {
        return path;
    }
    return SoString(real);
}

SoString getLaunchFolderPath() {
    return SoString("/Library/Application Support/Ovrel/Launch");
}

SoString getNextAppInstance(const SoString& name) {
    const SoString folder = getLaunchFolderPath();
    SoString next = name;
    for (uint32_t instance = 1;; ++instance) {
        SoString file = folder;
        file << "/" << next;
        if (!fileExists(file)) {
            return next;
        }
        next = name;
        next << "_" << instance;
    }
}

void FileFilter::onFile(const SoString& /*path*/) {}

void FileFilter::onFolder(const SoString& /*path*/) {}

void FileFilter::run(const SoString& path) {
    iterateFolder(path, *this);
}

void iterateFolder(const SoString& path, FileFilter& filter) {
    std::set<std::string> walked;
    walk(path.c_str(), filter, walked, 0);
}

SoString getFolderSeparator() {
    return SoString("/");
}

uint32_t getTimeSeconds() {
    return static_cast<uint32_t>(platform::Clock::system().utcMilliseconds() / 1000);
}

double getUTCTimeMilliSeconds() {
    // A double holds whole milliseconds exactly for more years than matter.
    return static_cast<double>(platform::Clock::system().utcMilliseconds());
}

SoString getTimeString(const uint32_t* seconds) {
    const auto time =
        platform::Clock::system().localTimeOfDay(seconds != nullptr ? *seconds : getTimeSeconds());
    SoString text;
    for (const int32_t number : {time.hour, time.minute, time.second}) {
        if (!text.isEmpty()) {
            text.append(':');
        }
        text.append(static_cast<char>('0' + number / 10));
        text.append(static_cast<char>('0' + number % 10));
    }
    return text;
}

void sleep(uint32_t milliseconds) {
    ScObjects::Thread::sleep(milliseconds);
}

int32_t parseOptions(const SoString& text, SoVector<SoString>& words) {
    std::string_view rest = text.view();
    while (!rest.empty()) {
        const size_t length = std::min(rest.find_first_of(kWordEnds), rest.size());
        if (length != 0) {
            auto word = std::make_unique<SoString>(rest.data(), static_cast<int32_t>(length));
            words.append(word.get());
            // Only now the list's: appending may find no memory.
            (void)word.release();
        }
        // With the mark that has ended the word; the last word has none.
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return words.count();
}

void logText(const SoString& /*text*/) {}

void logMessage(const char* /*prefix*/, const Convey::Message& /*message*/, bool /*flag*/) {}

void* SharedLib::loadPCDLibrary(const char* name) {
    return loadPCDLibrary(name, nullptr);
}

void* SharedLib::loadPCDLibrary(const char* name, bool* isThere) {
    if (isThere != nullptr) {
        *isThere = false;
    }
    if (name == nullptr || *name == '\0') {
        return nullptr;
    }
    platform::Frameworks& frameworks = platform::Frameworks::system();
    // A path is meant as it is. Names never go to the system's loader, whose search follows the
    // environment.
    const std::vector<std::string> paths = *name == '/'
                                               ? std::vector<std::string>{name}
                                               : platform::frameworkCandidates(frameworks, name);
    std::string tried;
    for (const std::string& path : paths) {
        tried += (tried.empty() ? "" : ", ") + path;
        if (!frameworks.mayBeThere(path)) {
            continue;
        }
        if (void* handle = frameworks.load(path)) {
            return handle;
        }
        if (isThere != nullptr) {
            // One that is there and does not load is a registry that could not be read, not an
            // empty one.
            *isThere = true;
        }
    }
    // Without it no application is known: who has installed half of the system must hear of it.
    platform::Log::system().problem("no database library: tried " + tried);
    return nullptr;
}

void* SharedLib::loadPCDLibraryUTF8(const SoString& name) {
    return loadPCDLibrary(name.c_str());
}

void SharedLib::unloadPCDLibrary(void* handle) {
    platform::Frameworks::system().unload(handle);
}

void* SharedLib::getFunctionPtr(void* handle, const char* name) {
    return platform::Frameworks::system().function(handle, name);
}

} // namespace ScObjects::ConveyUtils
