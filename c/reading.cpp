// What C programs read of messages and outcomes.
#include <charconv>
#include <string_view>

#include "c/Shown.h"
#include "c/include/convey.h"

using namespace ScObjects;
using namespace ScObjects::ConveyData;

namespace {

const char* showNothing(size_t* length) {
    if (length != nullptr) {
        *length = 0;
    }
    return "";
}

const char* show(const SoString& text, size_t* length) {
    if (length != nullptr) {
        *length = static_cast<size_t>(text.length());
    }
    return text.c_str();
}

const Convey::Header* headerAt(const convey_message* message, size_t index) {
    const Convey::Header* header = message == nullptr ? nullptr : shown(message).getHeaders();
    for (; header != nullptr && index != 0; --index) {
        header = header->next;
    }
    return header;
}

// Texts behind each other in a buffer, each with its NUL, as far as it goes.
class Copies {
public:
    Copies(char* buffer, size_t size) : buffer_(buffer), size_(buffer == nullptr ? 0 : size) {}

    void add(std::string_view text) {
        put(text.substr(0, text.find('\0'))); // none has one; what comes behind relies on it
        put(std::string_view(&kEnd, 1));
    }
    void add(int64_t number) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
        add(std::string_view(digits, static_cast<size_t>(end - digits)));
    }
    void add(const convey_message* message) {
        if (message == nullptr) {
            return;
        }
        add(int64_t{convey_message_number(message)});
        add(int64_t{convey_message_timeout(message)});
        add(int64_t{convey_message_wants_result(message)});
        add(shown(message).getType().view());
        add(shown(message).getSender().view());
        add(shown(message).getTarget().view());
        add(shown(message).getBody().view());
        for (const auto* header = headerAt(message, 0); header != nullptr; header = header->next) {
            add(header->name.view());
            add(header->value.view());
        }
    }
    size_t length() const { return length_; }

private:
    void put(std::string_view text) {
        if (length_ < size_) {
            text.copy(buffer_ + length_, size_ - length_);
        }
        length_ += text.size();
    }

    static constexpr char kEnd = '\0';

    char* const buffer_;
    const size_t size_;
    size_t length_ = 0;
};

} // namespace

const char* convey_message_body(const convey_message* message, size_t* length) {
    return message == nullptr ? showNothing(length) : show(shown(message).getBody(), length);
}

const char* convey_message_type(const convey_message* message) {
    return message == nullptr ? "" : shown(message).getType().c_str();
}

const char* convey_message_sender(const convey_message* message) {
    return message == nullptr ? "" : shown(message).getSender().c_str();
}

const char* convey_message_target(const convey_message* message) {
    return message == nullptr ? "" : shown(message).getTarget().c_str();
}

unsigned int convey_message_number(const convey_message* message) {
    return message == nullptr ? 0 : shown(message).getSerialNumber();
}

unsigned int convey_message_timeout(const convey_message* message) {
    return message == nullptr ? 0 : shown(message).getTimeout();
}

int convey_message_wants_result(const convey_message* message) {
    return message != nullptr && shown(message).getResponseRequest().view().find(
                                     CV_WANTS_RESULT) != std::string_view::npos
               ? 1
               : 0;
}

const char* convey_message_header(const convey_message* message, const char* name) {
    const Convey::Header* header = headerAt(message, 0);
    while (header != nullptr && !(header->name == given(name))) {
        header = header->next;
    }
    return header == nullptr ? nullptr : header->value.c_str();
}

size_t convey_message_header_count(const convey_message* message) {
    size_t count = 0;
    for (const auto* header = headerAt(message, 0); header != nullptr; header = header->next) {
        ++count;
    }
    return count;
}

const char* convey_message_header_name(const convey_message* message, size_t index) {
    const Convey::Header* const header = headerAt(message, index);
    return header == nullptr ? "" : header->name.c_str();
}

const char* convey_message_header_value(const convey_message* message, size_t index) {
    const Convey::Header* const header = headerAt(message, index);
    return header == nullptr ? "" : header->value.c_str();
}

size_t convey_message_copy(const convey_message* message, char* buffer, size_t size) {
    Copies copies(buffer, size);
    copies.add(message);
    return copies.length();
}

int convey_outcome_kind(const convey_outcome* outcome) {
    return outcome == nullptr ? CONVEY_ERROR : outcome->outcome.kind();
}

int convey_outcome_code(const convey_outcome* outcome) {
    return outcome == nullptr ? CONVEY_CODE_OUT_OF_MEMORY : outcome->outcome.code();
}

const char* convey_outcome_text(const convey_outcome* outcome, size_t* length) {
    return outcome == nullptr ? showNothing(length) : show(outcome->outcome.text(), length);
}

const convey_message* convey_outcome_message(const convey_outcome* outcome) {
    return outcome == nullptr ? nullptr : shown(outcome->outcome.message());
}

size_t convey_outcome_copy(const convey_outcome* outcome, char* buffer, size_t size) {
    Copies copies(buffer, size);
    const convey_message* const message = convey_outcome_message(outcome);
    const bool isTwice = message != nullptr && convey_outcome_kind(outcome) == CONVEY_RESULT;
    copies.add(int64_t{convey_outcome_kind(outcome)});
    copies.add(int64_t{convey_outcome_code(outcome)});
    copies.add(isTwice ? std::string_view() : convey_outcome_text(outcome, nullptr));
    copies.add(message);
    return copies.length();
}
