#include <algorithm>

#include "caps/config/Document.h"
#include "limits/Limits.h"

namespace caps::config {
namespace {

constexpr int kMaxDepth = limits::of("config.depth");

// Those of XML 1.0. The parser takes others, and what it took other programs would refuse.
bool isCharacter(uint32_t code) {
    return code == '\t' || code == '\n' || code == '\r' || (code >= 0x20 && code <= 0xD7FF) ||
           (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Whether the text behind a '&' is a reference that every XML has: by name, or a character's
// number.
bool isReference(std::string_view text) {
    text = text.substr(0, text.find(';') == std::string_view::npos ? 0 : text.find(';'));
    if (!text.starts_with('#')) {
        constexpr std::string_view names[] = {"amp", "lt", "gt", "quot", "apos"};
        return std::find(std::begin(names), std::end(names), text) != std::end(names);
    }
    const bool hexadecimal = text.starts_with("#x");
    text.remove_prefix(hexadecimal ? 2 : 1);
    // So many digits of either kind fit 32 bits.
    if (text.empty() || text.size() > 8) {
        return false;
    }
    uint32_t code = 0;
    for (const char c : text) {
        const bool digit = c >= '0' && c <= '9';
        const char lower = static_cast<char>(c | 0x20);
        if (!digit && !(hexadecimal && lower >= 'a' && lower <= 'f')) {
            return false;
        }
        code = code * (hexadecimal ? 16 : 10) +
               static_cast<uint32_t>(digit ? c - '0' : lower - 'a' + 10);
    }
    return isCharacter(code);
}

// Where in a document a byte can stand.
class Scanner {
public:
    Scanner(std::string_view text, const std::string& name) : text_(text), name_(name) {}

    void run() {
        constexpr std::string_view mark = "\xEF\xBB\xBF";
        position_ = text_.starts_with(mark) ? mark.size() : 0;
        while (position_ < text_.size()) {
            const size_t bytes = characterBytes(text_.substr(position_));
            // Looked at everywhere, in comments too: a document that holds them anywhere is no XML.
            if (bytes == 0) {
                fail("not a character of XML in UTF-8");
            }
            const size_t before = position_;
            step(text_[position_]);
            // A mark that was skipped has moved it further.
            position_ = std::max(position_, before + bytes);
        }
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw DocumentError(at(text_, position_, name_, what));
    }

    bool skip(std::string_view mark) {
        const bool found = text_.substr(position_).starts_with(mark);
        position_ += found ? mark.size() : 0;
        return found;
    }

    void step(char c) {
        if (!end_.empty()) { // inside of what ends with this mark, whatever it holds
            if (skip(end_)) {
                end_ = {};
            }
        } else if (c == '&') {
            // The parser leaves what it does not know as it stands: the reader would get another
            // text than was meant.
            if (!isReference(text_.substr(position_ + 1))) {
                fail("a reference to an entity, of which a configuration has none");
            }
        } else if (quote_ != '\0') {
            quote_ = c == quote_ ? '\0' : quote_;
            if (c == '<') {
                fail("a '<' in an attribute");
            }
        } else if (inTag_) {
            stepInTag(c);
        } else if (c == '<') {
            beginMarkup();
        } else if (depth_ == 0 && !isBlank(c)) {
            fail("text outside of the document's element");
        }
    }

    void stepInTag(char c) {
        if (c == '"' || c == '\'') {
            quote_ = c;
        } else if (c == '<') {
            fail("a '<' inside of a tag");
        } else if (c == '>') {
            inTag_ = false;
            // Whether names of opening and closing tags are the same is the parser's to tell.
            depth_ -= closing_ || text_[position_ - 1] == '/' ? 1 : 0;
        }
    }

    void beginMarkup() {
        if (skip("<!--")) {
            end_ = "-->";
        } else if (skip("<![CDATA[")) {
            end_ = "]]>";
        } else if (skip("<?")) {
            end_ = "?>";
        } else if (text_.substr(position_).starts_with("<!")) {
            // Nobody needs one here, and entities come with it.
            fail("a document type, of which a configuration has none");
        } else {
            closing_ = text_.substr(position_).starts_with("</");
            inTag_ = true;
            depth_ += closing_ ? 0 : 1;
            if (depth_ > kMaxDepth) {
                fail("more than " + std::to_string(kMaxDepth) + " elements inside each other");
            }
        }
    }

    const std::string_view text_;
    const std::string& name_;
    size_t position_ = 0;
    std::string_view end_; // of a comment and the like
    char quote_ = '\0';
    bool inTag_ = false;
    bool closing_ = false;
    int depth_ = 0;
};

} // namespace

size_t characterBytes(std::string_view text) {
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (text.empty()) {
        return 0;
    }
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return isCharacter(first) ? 1 : 0;
    }
    const size_t bytes = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < bytes) {
        return 0;
    }
    uint32_t code = first & (0x7FU >> bytes);
    for (size_t i = 1; i < bytes; ++i) {
        if ((byte(i) & 0xC0U) != 0x80U) {
            return 0;
        }
        code = code << 6U | (byte(i) & 0x3FU);
    }
    constexpr uint32_t lowest[] = {0, 0, 0x80, 0x800, 0x10000}; // a longer form is none
    return code >= lowest[bytes] && isCharacter(code) ? bytes : 0;
}

void refuseForbidden(std::string_view text, const std::string& name) {
    Scanner(text, name).run();
}

std::string at(std::string_view text, size_t offset, const std::string& name,
               const std::string& what) {
    const std::string_view before = text.substr(0, std::min(offset, text.size()));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const size_t begin = before.rfind('\n');
    const size_t column = before.size() - (begin == std::string_view::npos ? 0 : begin + 1) + 1;
    return name + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + what;
}

} // namespace caps::config
