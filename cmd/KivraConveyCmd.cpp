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

// True when that is all that is registered.
bool listProducts() {
    std::string fallbackLocale; // asked for once: it is the same for all
    const bool isKnown = Convey::isRegistryKnown();
    const int32_t count = Convey::getNumberOfRegisteredApplications();
    const CHostProductInfoFromCapsLib& products = *CHostProductInfoFromCapsLib::getInstance();
    std::cout << "<products>" << std::endl;
    for (int32_t i = 0; i < count; ++i) {
        const std::string specifier = Convey::getApplicationSpecifier(i).c_str();
        if (specifier.empty()) {
            throw std::bad_alloc(); // each has one
        }
        const std::string path =
            Convey::Specifier(specifier.c_str(), true).getApplicationPath(nullptr).c_str();
        std::string folder = path;
        folder.resize(folder.rfind('/')); // throws without one: see the header
        std::string languages;
        products.LookupInstalledLanguages(folder, languages);
        if (languages.empty()) {
            if (fallbackLocale.empty() && !platform::Locale::system().identifier(fallbackLocale)) {
                fallbackLocale = kDefaultLocale;
            }
            languages = fallbackLocale;
        }
        // A line at a time, so that a reader sees each one whole and at once.
        std::cout << "<product specifier='" + toXMLString(specifier) + "' path='" +
                         toXMLString(path) + "' locale='" + toXMLString(languages) + "'/>"
                  << std::endl;
    }
    std::cout << "</products>" << std::endl;
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
    size_t done = 0;
    // The library's search for one of several is a call for each byte, a fiftieth of a listing.
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '&' || text[i] == '<' || text[i] == '>') {
            result.append(text, done, i - done);
            result += text[i] == '&' ? "&amp;" : text[i] == '<' ? "&lt;" : "&gt;";
            done = i + 1;
        }
    }
    return result.append(text, done);
}
