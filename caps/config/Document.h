#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "caps/Store.h"

// A whole registry as an XML document: docs/registry.rng is its grammar.
namespace caps::config {

inline constexpr const char* kNamespace = "https://ovrel.example/ns/registry";
inline constexpr int32_t kDocumentVersion = 1;

// A document that cannot be read, or a registry that XML cannot hold; `what` is for the person, and
// begins with "NAME:LINE:COLUMN: " where a document is at fault.
class DocumentError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The document of `contents`: the same bytes for the same contents. What each entry says and when
// it was written is in it, not where it comes from: that is of the machine. Throws DocumentError,
// naming the entry, for a name with control characters and for a text that is no UTF-8.
std::string writeDocument(const Contents& contents);

// Reads what `writeDocument` writes, and what people write by the same grammar. `name` stands for
// the document in errors. Throws DocumentError for anything else, for entries that are said twice
// and for texts over their limits.
Contents readDocument(std::string_view text, const std::string& name);

// The bytes of the character that `text` begins with, 0 when XML has no such character or it is no
// UTF-8.
size_t characterBytes(std::string_view text);

// Throws DocumentError for what the parser takes and XML, or we, refuse: bytes that are no
// characters, references to entities, a document type, text beside the root, too deep a nesting.
void refuseForbidden(std::string_view text, const std::string& name);

// "NAME:LINE:COLUMN: WHAT", the column in bytes, both from 1.
std::string at(std::string_view text, size_t offset, const std::string& name,
               const std::string& what);

} // namespace caps::config
