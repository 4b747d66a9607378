#include "cmd/KivraConveyCmd.h"

#include <iostream>
#include <new>
#include <string_view>

#include "cmd/HostProductInfoFromCapsLib.h"
#include "limits/Limits.h"
#include "platform/LargeHeap.h"
#include "platform/Locale.h"
#include "scriptobjects/convey/SoCVBeforeStart.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoConvey.h"
#include "scriptobjects/core/SoString.h"

using ScObjects::Convey;
using ScObjects::SoString;

namespace {

constexpr const char* kOwnSpecifier = "kivra-7.0";
constexpr const char* kCheckCommand = "check_running";
constexpr const char* kNotFoundOut = "UNDEFINED";
constexpr const char* kDefaultLocale = "en_US";
constexpr int kCheckArguments = 3; // the program, the command and the specifier
constexpr int32_t kCheckTimeoutSeconds = limits::of("check.wait");

// The library's search for one of several is a call for each byte.
void appendXML(std::string& out, std::string_view text) {
    const char* done = text.data();
    const char* const end = done + text.size();
    for (const char* at = done; at != end; ++at) {
        const char c = *at;
        if (c == '&' || c == '<' || c == '>') {
            out.append(done, at).append(c == '&' ? "&amp;" : c == '<' ? "&lt;" : "&gt;");
            done = at + 1;
        }
    }
    out.append(done, end);
}

// A line at a time, so that a reader sees each one whole and at once.
void print(const std::string& line) {
    std::cout.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

// True when that is all that is registered.
bool listProducts() {
    std::string fallbackLocale; // asked for once: it is the same for all
    const bool isKnown = Convey::isRegistryKnown();
    const int32_t count = Convey::getNumberOfRegisteredApplications();
    const CHostProductInfoFromCapsLib& products = *CHostProductInfoFromCapsLib::getInstance();
    print("<products>\n");
    // One of each for all lines: their buffers are taken once.
    std::string folder;
    std::string languages;
    std::string line;
    for (int32_t i = 0; i < count; ++i) {
        const SoString specifier = Convey::getApplicationSpecifier(i);
        if (specifier.isEmpty()) {
            throw std::bad_alloc(); // each has one
        }
        const SoString path =
            Convey::Specifier(specifier.c_str(), true).getApplicationPath(nullptr);
        folder.assign(path.view());
        folder.resize(folder.rfind('/')); // throws without one: see the header
        products.LookupInstalledLanguages(folder, languages);
        if (languages.empty()) {
            if (fallbackLocale.empty() && !platform::Locale::system().identifier(fallbackLocale)) {
                fallbackLocale = kDefaultLocale;
            }
            languages = fallbackLocale;
        }
        line.assign("<product specifier='");
        appendXML(line, specifier.view());
        appendXML(line.append("' path='"), path.view());
        appendXML(line.append("' locale='"), languages);
        print(line.append("'/>\n"));
    }
    print("</products>\n");
    return isKnown && products.isComplete();
}

void printAnswer(const std::string& specifier, const std::string& response) {
    std::cout << "<product specifier='" + toXMLString(specifier) + "' running_response='" +
                     toXMLString(response) + "' />"
              << std::endl;
}

} // namespace

int kivraConveyMain(int argc, char** argv) {
    const auto start = [] { return Convey::InitTerm::init(kOwnSpecifier, true); };
    if (argc == kCheckArguments) {
        const bool isCheck = std::string_view(argv[1]) == kCheckCommand;
        SoString answer;
        if (isCheck && ScObjects::ConveyUtils::pingBeforeStart(kOwnSpecifier, argv[2],
                                                               kCheckTimeoutSeconds, answer)) {
            printAnswer(argv[2], answer.c_str());
            return 0;
        }
        if (!start()) {
            return 1;
        }
        if (isCheck) {
            checkRunning(argv[2]);
        }
        return 0;
    }
    platform::expectLargeHeap(); // for all that is registered
    if (!ScObjects::ConveyUtils::readRegistryBeforeStart(kOwnSpecifier) && !start()) {
        return 1;
    }
    // The layer ends with the process: to free all that it knows of ten thousand applications takes
    // a twentieth of the instructions of their listing.
    return listProducts() ? 0 : 1;
}

void checkRunning(const std::string& specifier) {
    std::string response =
        Convey::Thread::ping(specifier.c_str(), nullptr, kCheckTimeoutSeconds, nullptr).c_str();
    if (response.empty()) { // without memory
        response = kNotFoundOut;
    }
    printAnswer(specifier, response);
}

std::string toXMLString(const std::string& text) {
    std::string result;
    appendXML(result, text);
    return result;
}
