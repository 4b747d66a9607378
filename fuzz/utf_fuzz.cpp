// Conversions between UTF-8 and UTF-16, whatever the bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "scriptobjects/core/SoString.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ScObjects::SoString;
    if (size < 2 || size > 4096) {
        return 0;
    }
    const SoString text(reinterpret_cast<const char*>(data), static_cast<int32_t>(size));
    const auto units = static_cast<size_t>(text.utf16Units());
    std::vector<unsigned short> out(units); // exactly what is announced
    text.convertToUtf16(out.data(), static_cast<uint32_t>(size) + 1);
    std::vector<unsigned short> utf16(size / 2);
    std::memcpy(utf16.data(), data, utf16.size() * 2);
    const SoString back(utf16.data(), static_cast<int32_t>(utf16.size()));
    if (back.c_str()[back.length()] != '\0') {
        std::abort();
    }
    return 0;
}
