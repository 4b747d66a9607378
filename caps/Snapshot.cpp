#include "caps/Snapshot.h"

#include <algorithm>
#include <cstring>

#include "caps/Layers.h"

namespace caps {
namespace {

constexpr size_t kBlockBytes = 65'536;
constexpr size_t kComparedKeys = 32; // an application has some twenty

} // namespace

const char* TextArena::add(std::string_view text) {
    const size_t needed = text.size() + 1;
    if (needed > left_) {
        const size_t bytes = std::max(needed, kBlockBytes);
        blocks_.push_back(std::make_unique_for_overwrite<char[]>(bytes));
        next_ = blocks_.back().get();
        left_ = bytes;
    }
    char* place = next_;
    std::memcpy(place, text.data(), text.size());
    place[text.size()] = '\0';
    next_ += needed;
    left_ -= needed;
    return place;
}

class DomainSnapshot::Builder : public Store::Visitor {
public:
    explicit Builder(DomainSnapshot& target) : target_(target) {}

    void onSubdomain(int32_t, std::string_view name) override {
        endSubdomain();
        target_.names_.push_back(target_.arena_.add(name));
        target_.entries_.push_back({target_.keys_.size(), 0});
    }
    void onDomainData(std::string_view key, std::string_view value) override {
        Entry& entry = target_.entries_.back();
        target_.keys_.push_back(keyAt(entry.keys, key));
        target_.values_.push_back(target_.arena_.add(value));
        ++entry.keys;
    }
    void end() {
        endSubdomain();
        // The lists are handed out in C as they stand, where a null ends a list.
        target_.names_.push_back(nullptr);
    }

private:
    // The key at this place of its subdomain. As a rule the subdomain before had the same there:
    // what ten thousand applications say is said in the same few words.
    const char* keyAt(size_t place, std::string_view key) {
        if (place < keysAbove_.size() && keysAbove_[place] == key) {
            return keysAbove_[place].data();
        }
        const std::string_view kept(target_.arena_.add(key), key.size());
        if (place < kComparedKeys) {
            keysAbove_.resize(std::max(keysAbove_.size(), place + 1));
            keysAbove_[place] = kept;
        }
        return kept.data();
    }
    void endSubdomain() {
        if (!target_.entries_.empty()) {
            target_.keys_.push_back(nullptr);
            target_.values_.push_back(nullptr);
        }
    }

    DomainSnapshot& target_;
    std::vector<std::string_view> keysAbove_; // by place
};

namespace {

Status orNothing(Status status) {
    return status == Status::nothingThere ? Status::ok : status;
}

// The domain of both databases, shown to the visitor as if it were one's.
Status visitLayers(Store& store, Store& below, int32_t domain, Store::Visitor& visitor) {
    // Both are read before anything is shown: what the upper one has decides what is shown of the
    // lower.
    Contents lower;
    Contents upper;
    Status status = orNothing(below.readDomain(domain, lower.subdomains));
    if (status == Status::ok) {
        status = orNothing(store.readDomain(domain, upper.subdomains));
    }
    if (status == Status::ok) {
        for (const Subdomain& subdomain :
             layered(std::move(lower), std::move(upper), {}).subdomains) {
            visitor.onSubdomain(subdomain.domain, subdomain.name);
            for (const KeyValue& entry : subdomain.data) {
                visitor.onDomainData(entry.key, entry.value);
            }
        }
    }
    return status;
}

Status visitLayers(Store& store, Store& below, Store::Visitor& visitor) {
    Contents lower;
    Contents upper;
    Status status = below.readProducts(lower.products);
    if (status == Status::ok) {
        status = store.readProducts(upper.products);
    }
    if (status == Status::ok) {
        for (const Product& product : layered(std::move(lower), std::move(upper), {}).products) {
            visitor.onProduct(product.code);
            for (const Payload& payload : product.payloads) {
                visitor.onPayload(payload.code, payload.kind, payload.launchPath,
                                  payload.installState);
                for (const PayloadValue& value : payload.data) {
                    visitor.onPayloadData(value.domain, value.key, value.value);
                }
            }
        }
    }
    return status;
}

} // namespace

Status DomainSnapshot::read(Store& store, Store* below, int32_t domain,
                            std::shared_ptr<const DomainSnapshot>& out) {
    auto snapshot = std::make_shared<DomainSnapshot>();
    Builder builder(*snapshot);
    // With one database the rows go straight into the snapshot, and nothing is held twice.
    const Status status = below == nullptr ? store.visitDomain(domain, builder)
                                           : visitLayers(store, *below, domain, builder);
    if (status == Status::ok) {
        builder.end();
        out = std::move(snapshot);
    }
    return status;
}

ptrdiff_t DomainSnapshot::find(std::string_view name, ptrdiff_t hint) const {
    return index_.find(name, hint, entries_.size(), [this](size_t i) { return names_[i]; });
}

const char* const* DomainSnapshot::keys(ptrdiff_t subdomain) const {
    return keys_.data() + entries_[static_cast<size_t>(subdomain)].firstKey;
}

const char* const* DomainSnapshot::values(ptrdiff_t subdomain) const {
    return values_.data() + entries_[static_cast<size_t>(subdomain)].firstKey;
}

const char* DomainSnapshot::value(ptrdiff_t subdomain, std::string_view key, size_t& hint) const {
    const Entry& entry = entries_[static_cast<size_t>(subdomain)];
    for (size_t i = 0; i < entry.keys; ++i) {
        const size_t position = (hint + i) % entry.keys;
        if (key == keys_[entry.firstKey + position]) {
            hint = position + 1;
            return values_[entry.firstKey + position];
        }
    }
    return nullptr;
}

class ProductSnapshot::Builder : public Store::Visitor {
public:
    explicit Builder(ProductSnapshot& target) : target_(target) {}

    void onProduct(std::string_view code) override {
        endProduct();
        const char* text = target_.arena_.add(code);
        target_.productCodes_.push_back(text);
        target_.products_.push_back({text});
        target_.payloadRanges_.push_back({target_.payloads_.size(), 0});
        // Places, not pointers: the list that they are of still grows.
        target_.payloadCodeOffsets_.push_back(target_.payloadCodes_.size());
    }
    void onPayload(std::string_view code, std::string_view kind, std::string_view launchPath,
                   int32_t installState) override {
        const char* text = target_.arena_.add(code);
        target_.payloadCodes_.push_back(text);
        target_.payloads_.push_back({text, target_.products_.back().identifier,
                                     target_.arena_.add(launchPath), installState,
                                     target_.arena_.add(kind)});
        target_.valueRanges_.push_back({target_.values_.size(), 0});
        ++target_.payloadRanges_.back().count;
    }
    void onPayloadData(int32_t domain, std::string_view key, std::string_view value) override {
        target_.values_.push_back({domain, target_.arena_.add(key), target_.arena_.add(value)});
        ++target_.valueRanges_.back().count;
    }
    void end() {
        endProduct();
        target_.productCodes_.push_back(nullptr);
    }

private:
    void endProduct() {
        if (!target_.products_.empty()) {
            target_.payloadCodes_.push_back(nullptr);
        }
    }

    ProductSnapshot& target_;
};

Status ProductSnapshot::read(Store& store, Store* below,
                             std::shared_ptr<const ProductSnapshot>& out) {
    auto snapshot = std::make_shared<ProductSnapshot>();
    Builder builder(*snapshot);
    const Status status =
        below == nullptr ? store.visitProducts(builder) : visitLayers(store, *below, builder);
    if (status == Status::ok) {
        builder.end();
        out = std::move(snapshot);
    }
    return status;
}

const capsProduct* ProductSnapshot::product(std::string_view code, ptrdiff_t& hint) const {
    const ptrdiff_t found = productIndex_.find(
        code, hint, products_.size(), [this](size_t i) { return products_[i].identifier; });
    hint = std::max<ptrdiff_t>(found, 0);
    return found < 0 ? nullptr : &products_[static_cast<size_t>(found)];
}

const capsPayload* ProductSnapshot::payload(std::string_view code, ptrdiff_t& hint) const {
    const ptrdiff_t found = payloadIndex_.find(
        code, hint, payloads_.size(), [this](size_t i) { return payloads_[i].identifier; });
    hint = std::max<ptrdiff_t>(found, 0);
    return found < 0 ? nullptr : &payloads_[static_cast<size_t>(found)];
}

const char* const* ProductSnapshot::payloadsOf(const capsProduct& product) const {
    const auto position = static_cast<size_t>(&product - products_.data());
    return payloadCodes_.data() + payloadCodeOffsets_[position];
}

std::vector<const char*> ProductSnapshot::withState(const capsProduct* product,
                                                    int32_t installState) const {
    Range range{0, payloads_.size()};
    if (product != nullptr) {
        range = payloadRanges_[static_cast<size_t>(product - products_.data())];
    }
    std::vector<const char*> found;
    for (size_t i = range.first; i < range.first + range.count; ++i) {
        if (payloads_[i].installState == installState) {
            found.push_back(payloads_[i].identifier);
        }
    }
    return found;
}

std::vector<const char*> ProductSnapshot::keys(const capsPayload& payload, int32_t domain) const {
    const Range range = valueRanges_[static_cast<size_t>(&payload - payloads_.data())];
    std::vector<const char*> found;
    for (size_t i = range.first; i < range.first + range.count; ++i) {
        if (values_[i].domain == domain) {
            found.push_back(values_[i].key);
        }
    }
    return found;
}

const char* ProductSnapshot::value(const capsPayload& payload, int32_t domain,
                                   std::string_view key) const {
    const Range range = valueRanges_[static_cast<size_t>(&payload - payloads_.data())];
    for (size_t i = range.first; i < range.first + range.count; ++i) {
        if (values_[i].domain == domain && key == values_[i].key) {
            return values_[i].value;
        }
    }
    return nullptr;
}

} // namespace caps
