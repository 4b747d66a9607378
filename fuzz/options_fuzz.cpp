// Words of launch parameters: nothing is lost but what separates them, and nothing is empty.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoVector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ScObjects::SoString;
    constexpr std::string_view kSeparators = " =;\"':";
    const SoString text(reinterpret_cast<const char*>(data), static_cast<int32_t>(size));
    ScObjects::SoVector<SoString> words;
    const int32_t count = ScObjects::ConveyUtils::parseOptions(text, words);
    if (count != words.count()) {
        std::abort();
    }
    std::string joined;
    for (int32_t i = 0; i < count; ++i) {
        if (words[i]->isEmpty() ||
            words[i]->view().find_first_of(kSeparators) != std::string_view::npos) {
            std::abort();
        }
        joined += words[i]->view();
        delete words[i];
    }
    std::string expected;
    for (const char c : text.view()) {
        if (kSeparators.find(c) == std::string_view::npos) {
            expected += c;
        }
    }
    if (joined != expected) {
        std::abort();
    }
    return 0;
}
