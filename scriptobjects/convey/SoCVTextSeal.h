#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects::ConveyData {

// The digest's line in front of a text, made of what stands behind it while that is sent, and while
// it arrives. One thread at a time; a seal of what arrives is used under the lock of its port, so
// it asks neither the registry nor anything that does.
class TextSeal final : public platform::PortSeal {
public:
    TextSeal() = default;

    // For a text that arrives; null when nobody here compares digests, and without memory.
    static std::unique_ptr<platform::PortSeal> ofArriving() noexcept;
    // Whether digests are compared here, as far as that is known: who reads the texts decides.
    // Any thread.
    static void setCompared(bool on);

    std::string_view finish() override;

private:
    void add(std::string_view bytes) override;

    ConveyUtils::MD5 digest_;
    char line_[kMaximumBytes]; // in place: in the middle of a text nothing may fail
    size_t lineBytes_ = 0;     // 0 until it is finished
};

} // namespace ScObjects::ConveyData
