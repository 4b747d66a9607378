#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "caps/Store.h"
#include "caps/include/ovrel_caps.h"

namespace caps {

// Keeps texts at fixed places, each with a zero byte behind it, in a few large blocks.
class TextArena {
public:
    const char* add(std::string_view text);

private:
    std::vector<std::unique_ptr<char[]>> blocks_;
    char* next_ = nullptr;
    size_t left_ = 0;
};

// The positions of names. Made when a question does not come in their order: a walk over all of
// them never needs it. Threads: any; a snapshot is shared by the sessions of several.
class NameIndex {
public:
    // The position of `name` among `count` names, of which `nameAt` gives each; -1 when it is none
    // of them, the first of several. `hint` is where it may be, or just before: walks ask in order.
    template <class NameAt>
    ptrdiff_t find(std::string_view name, ptrdiff_t hint, size_t count, NameAt&& nameAt) const {
        for (ptrdiff_t i = hint; i >= 0 && i <= hint + 1; ++i) {
            if (i < static_cast<ptrdiff_t>(count) && name == nameAt(static_cast<size_t>(i))) {
                return i;
            }
        }
        std::call_once(made_, [&] {
            positions_.reserve(count);
            for (size_t i = 0; i < count; ++i) {
                positions_.emplace(nameAt(i), i);
            }
        });
        const auto found = positions_.find(name);
        return found == positions_.end() ? -1 : static_cast<ptrdiff_t>(found->second);
    }

private:
    mutable std::once_flag made_;
    mutable std::unordered_map<std::string_view, size_t> positions_;
};

// One domain as it was at one moment, never changed afterwards: readers on any thread share it.
class DomainSnapshot {
public:
    // `below`: null, or the database on which `store` lies.
    [[nodiscard]] static Status read(Store& store, Store* below, int32_t domain,
                                     std::shared_ptr<const DomainSnapshot>& out);

    bool isEmpty() const { return entries_.empty(); }
    // With a final null, as all lists.
    const char* const* names() const { return names_.data(); }
    // The position of a subdomain, or -1. `hint` is where it may be: walks ask in order.
    ptrdiff_t find(std::string_view name, ptrdiff_t hint) const;
    const char* const* keys(ptrdiff_t subdomain) const;
    // The value of each of these keys.
    const char* const* values(ptrdiff_t subdomain) const;
    // Null when there is no such key; `hint` as above, in and out.
    const char* value(ptrdiff_t subdomain, std::string_view key, size_t& hint) const;

private:
    class Builder;
    struct Entry {
        size_t firstKey; // in keys_ and values_, which hold a null behind each subdomain's last
        size_t keys;
    };

    TextArena arena_;
    std::vector<const char*> names_;
    std::vector<Entry> entries_;
    std::vector<const char*> keys_;
    std::vector<const char*> values_;
    NameIndex index_;
};

// All products as they were at one moment, never changed afterwards.
class ProductSnapshot {
public:
    [[nodiscard]] static Status read(Store& store, Store* below,
                                     std::shared_ptr<const ProductSnapshot>& out);

    const char* const* productCodes() const { return productCodes_.data(); }
    // Null when there is none. `hint`, in and out, as that of a domain's subdomains.
    const capsProduct* product(std::string_view code, ptrdiff_t& hint) const;
    const capsPayload* payload(std::string_view code, ptrdiff_t& hint) const;
    const char* const* payloadsOf(const capsProduct& product) const;

    // The payloads of a product (null: of all) with this install state.
    std::vector<const char*> withState(const capsProduct* product, int32_t installState) const;
    // The keys of a domain of the payload, without a final null.
    std::vector<const char*> keys(const capsPayload& payload, int32_t domain) const;
    const char* value(const capsPayload& payload, int32_t domain, std::string_view key) const;

private:
    class Builder;
    struct Value {
        int32_t domain;
        const char* key;
        const char* value;
    };
    struct Range {
        size_t first;
        size_t count;
    };

    TextArena arena_;
    std::vector<const char*> productCodes_;
    std::vector<capsProduct> products_;
    std::vector<Range> payloadRanges_;       // of each product, in payloads_
    std::vector<const char*> payloadCodes_;  // a null behind each product's last
    std::vector<size_t> payloadCodeOffsets_; // of each product, in payloadCodes_
    std::vector<capsPayload> payloads_;
    std::vector<Range> valueRanges_; // of each payload, in values_
    std::vector<Value> values_;
    NameIndex productIndex_;
    NameIndex payloadIndex_;
};

} // namespace caps
