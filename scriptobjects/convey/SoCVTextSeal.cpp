#include "scriptobjects/convey/SoCVTextSeal.h"

#include <atomic>
#include <new>

#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects::ConveyData {
namespace {

constinit std::atomic<bool> gCompared{true};

} // namespace

std::unique_ptr<platform::PortSeal> TextSeal::ofArriving() noexcept {
    if (gCompared.load(std::memory_order_relaxed)) {
        try {
            return std::make_unique<TextSeal>();
        } catch (const std::bad_alloc&) {
            // Then it is checked when it is read.
        }
    }
    return nullptr;
}

void TextSeal::setCompared(bool on) {
    gCompared.store(on, std::memory_order_relaxed);
}

void TextSeal::add(std::string_view bytes) {
    digest_.add(bytes);
}

std::string_view TextSeal::finish() {
    if (lineBytes_ == 0) {
        const SoString digest = digest_.finish();
        for (const std::string_view piece : {std::string_view(CV_MD5), std::string_view(":"),
                                             digest.view(), std::string_view("\n")}) {
            lineBytes_ += piece.copy(line_ + lineBytes_, kMaximumBytes - lineBytes_);
        }
    }
    return {line_, lineBytes_};
}

} // namespace ScObjects::ConveyData
