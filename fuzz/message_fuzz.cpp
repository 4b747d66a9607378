// Message texts: reading any text, one message after the other, and writing what was read.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "scriptobjects/convey/SoCVMessage.h"

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using Message = ScObjects::Convey::Message;
    setenv("HOME", "/nonexistent", 1);
    // A block that ends with the text, so that a look behind it is seen.
    const std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    const char* const end = text.get() + std::strlen(text.get());
    Message reused;
    for (const char* next = text.get(); *next != '\0';) {
        Message message;
        const char* const behind = message.readFromString(next);
        require(behind > next && behind <= end);
        // A message that has a target is cleared first; another keeps what it has.
        const bool cleared = !reused.getTarget().isEmpty();
        const char* const reusedBehind = reused.readFromString(next);
        require(reusedBehind > next && reusedBehind <= end);
        require(!cleared || reusedBehind == behind);
        next = behind;

        ScObjects::SoString written;
        const bool complete = !message.getTarget().isEmpty() && !message.getSender().isEmpty();
        require(message.writeToString(written) == complete);
        // The old formats have no escape, and no format one for a name that begins with a line end.
        bool escapable = complete;
        for (auto* header = message.getHeaders(); header != nullptr; header = header->next) {
            escapable = escapable && header->name.view().front() != '\n';
        }
        if (escapable) {
            message.setVersion("2.05");
            written = ScObjects::SoString();
            require(message.writeToString(written));
            Message back;
            (void)back.readFromString(written.c_str());
            require(back.getTarget() == message.getTarget());
            require(back.getBody() == message.getBody());
        }
        ScObjects::SoString dump;
        require(message.logToString("", dump, true));
        const Message copy(message);
        require(copy.getSerialNumber() == message.getSerialNumber());
    }
    return 0;
}
