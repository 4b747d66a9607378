#include "caps/Store.h"

#include <limits>

#include "caps/Schema.h"
#include "caps/StoreImpl.h"

namespace caps {

void Store::Visitor::onProduct(std::string_view) {}
void Store::Visitor::onPayload(std::string_view, std::string_view, std::string_view, int32_t) {}
void Store::Visitor::onPayloadData(int32_t, std::string_view, std::string_view) {}
void Store::Visitor::onWritten(int64_t, std::string_view) {}
void Store::Visitor::onSubdomain(int32_t, std::string_view) {}
void Store::Visitor::onSubdomainWritten(int64_t) {}
void Store::Visitor::onDomainData(std::string_view, std::string_view) {}
void Store::Visitor::onOrigin(std::string_view) {}
void Store::Visitor::onRefused(std::string_view, std::string_view) {}

namespace {

constexpr size_t kShownNameBytes = 80; // enough to find it

// As isName, for texts that a Statement has cut at their first zero byte already.
bool isReadableName(std::string_view text, size_t maximumBytes) {
    return !text.empty() && text.size() <= maximumBytes;
}

struct Collector : Store::Visitor {
    explicit Collector(Contents& contents) : contents_(contents) {}

    void onProduct(std::string_view code) override {
        contents_.products.push_back({std::string(code), {}});
    }
    void onWritten(int64_t changed, std::string_view origin) override {
        contents_.products.back().changed = changed;
        contents_.products.back().origin = origin;
    }
    void onPayload(std::string_view code, std::string_view kind, std::string_view launchPath,
                   int32_t installState) override {
        contents_.products.back().payloads.push_back(
            {std::string(code), std::string(kind), std::string(launchPath), installState, {}});
    }
    void onPayloadData(int32_t domain, std::string_view key, std::string_view value) override {
        contents_.products.back().payloads.back().data.push_back(
            {domain, std::string(key), std::string(value)});
    }
    void onSubdomain(int32_t domain, std::string_view name) override {
        contents_.subdomains.push_back({domain, std::string(name), {}});
    }
    void onSubdomainWritten(int64_t changed) override {
        contents_.subdomains.back().changed = changed;
    }
    void onDomainData(std::string_view key, std::string_view value) override {
        contents_.subdomains.back().data.push_back({std::string(key), std::string(value)});
    }
    void onOrigin(std::string_view origin) override {
        contents_.subdomains.back().data.back().origin = origin;
    }
    void onRefused(std::string_view kind, std::string_view name) override {
        contents_.refused.push_back(std::string(kind) + " " +
                                    std::string(name.substr(0, kShownNameBytes)));
    }

private:
    Contents& contents_;
};

// The rows of a detail table that belong to the master rows as these go by: both are scanned in the
// order of the master's number, so each row is looked at once.
class Details {
public:
    explicit Details(Statement& rows) : rows_(rows) { advance(); }

    // Calls `use` for each row of master row `id`; rows of masters gone by belong to nothing.
    template <class Use>
    void of(int64_t id, Use&& use) {
        while (code_ == SQLITE_ROW && master_ <= id) {
            if (master_ == id) {
                use(rows_);
            }
            advance();
        }
    }
    void skipTo(int64_t id) {
        of(id, [](Statement&) {});
    }
    // SQLITE_ROW or SQLITE_DONE, or the failure that ended the scan.
    int code() const { return code_; }
    bool failed() const { return code_ != SQLITE_ROW && code_ != SQLITE_DONE; }

private:
    void advance() {
        code_ = rows_.step();
        if (code_ == SQLITE_ROW) {
            master_ = rows_.integer(0);
        }
    }

    Statement& rows_;
    int code_ = SQLITE_ROW;
    int64_t master_ = 0; // of the row at hand
};

// The values of payloads that go by in the order of their products. As a rule that is the order of
// their numbers, too, and one scan has them; those of a payload that a product got behind later
// ones' are looked up.
class PayloadData {
public:
    explicit PayloadData(sqlite3* connection)
        : scan_(connection, "SELECT payload, domain, key, value FROM payload_data "
                            "ORDER BY payload, position"),
          lookUp_(connection, "SELECT payload, domain, key, value FROM payload_data "
                              "WHERE payload = ?1 ORDER BY position"),
          inOrder_(scan_) {}

    template <class Use>
    void of(int64_t payload, Use&& use) {
        if (payload > last_) {
            last_ = payload;
            inOrder_.of(payload, use);
            return;
        }
        lookUp_.bind(payload);
        while ((code_ = lookUp_.step()) == SQLITE_ROW) {
            use(lookUp_);
        }
        lookUp_.reset();
    }
    bool failed() const { return inOrder_.failed() || code_ != SQLITE_DONE; }
    int code() const { return inOrder_.failed() ? inOrder_.code() : code_; }

private:
    Statement scan_;
    Statement lookUp_;
    Details inOrder_;
    int64_t last_ = std::numeric_limits<int64_t>::min();
    int code_ = SQLITE_DONE; // of the last look-up
};

void visit(Statement& value, std::string_view payload, Store::Visitor& visitor) {
    const std::string_view key = value.text(2);
    const std::string_view text = value.text(3);
    if (isReadableName(key, kMaxCodeBytes) && text.size() <= kMaxValueBytes) {
        visitor.onPayloadData(static_cast<int32_t>(value.integer(1)), key, text);
    } else {
        visitor.onRefused("key", std::string(payload) + " " + std::string(key));
    }
}

} // namespace

// `withOrigins`: the rows have when each was written in their last column, and the values say where
// they come from. Programs that only read ask for neither, which a large registry shows.
Status Store::visitSubdomains(Statement& subdomains, bool withOrigins, Visitor& visitor) {
    Statement data(
        impl_->connection,
        withOrigins
            ? "SELECT subdomain, key, value, origin FROM domain_data ORDER BY subdomain, position"
            : "SELECT subdomain, key, value FROM domain_data ORDER BY subdomain, position");
    Details details(data);
    int code = SQLITE_ROW;
    while (!details.failed() && (code = subdomains.step()) == SQLITE_ROW) {
        const int64_t id = subdomains.integer(0);
        const std::string_view name = subdomains.text(2);
        if (!isReadableName(name, kMaxSubdomainBytes)) {
            // A name over its limit was written by no program of ours. It is told instead of cut: a
            // name that was cut would be another one's.
            visitor.onRefused("subdomain", name);
            details.skipTo(id);
            continue;
        }
        visitor.onSubdomain(static_cast<int32_t>(subdomains.integer(1)), name);
        if (withOrigins) {
            visitor.onSubdomainWritten(subdomains.integer(3));
        }
        details.of(id, [&visitor, name, withOrigins](Statement& row) {
            const std::string_view key = row.text(1);
            const std::string_view value = row.text(2);
            if (isReadableName(key, kMaxCodeBytes) && value.size() <= kMaxValueBytes) {
                visitor.onDomainData(key, value);
                if (const std::string_view origin = withOrigins ? row.text(3) : std::string_view();
                    !origin.empty()) {
                    visitor.onOrigin(origin);
                }
            } else {
                visitor.onRefused("key", std::string(name) + " " + std::string(key));
            }
        });
    }
    if (details.failed()) {
        return fail(details.code(), "domain data cannot be read");
    }
    return code == SQLITE_DONE ? Status::ok : fail(code, "subdomains cannot be read");
}

Status Store::visitDomain(int32_t domain, Visitor& visitor) {
    return inReadTransaction([&] {
        // Not by the index of domains: in the order of the table, as its details are scanned,
        // nothing is sorted.
        Statement rows(impl_->connection, "SELECT id, domain, name FROM subdomain NOT INDEXED "
                                          "WHERE domain = ?1 ORDER BY id");
        rows.bind(domain);
        return visitSubdomains(rows, false, visitor);
    });
}

Status Store::visitAllDomains(Visitor& visitor) {
    return inReadTransaction([&] {
        const bool withOrigins = impl_->schemaVersion >= kFirstVersionWithOrigins;
        Statement rows(impl_->connection,
                       withOrigins ? "SELECT id, domain, name, changed FROM subdomain ORDER BY id"
                                   : "SELECT id, domain, name FROM subdomain ORDER BY id");
        return visitSubdomains(rows, withOrigins, visitor);
    });
}

Status Store::visitProducts(Visitor& visitor) {
    return inReadTransaction([&] {
        Statement products(impl_->connection,
                           impl_->schemaVersion < kFirstVersionWithOrigins
                               ? "SELECT id, code, 0, '' FROM product ORDER BY id"
                               : "SELECT id, code, changed, origin FROM product ORDER BY id");
        Statement payloads(impl_->connection,
                           "SELECT product, id, code, kind, launch_path, install_state "
                           "FROM payload ORDER BY product, id");
        Details payloadsOf(payloads);
        PayloadData data(impl_->connection);
        int code = SQLITE_ROW;
        while (!payloadsOf.failed() && !data.failed() && (code = products.step()) == SQLITE_ROW) {
            const std::string_view product = products.text(1);
            if (!isReadableName(product, kMaxCodeBytes)) {
                visitor.onRefused("product", product);
                continue; // its payloads are gone by with the next one's
            }
            visitor.onProduct(product);
            visitor.onWritten(products.integer(2), products.text(3));
            payloadsOf.of(products.integer(0), [&](Statement& row) {
                const std::string_view payload = row.text(2);
                const std::string_view launchPath = row.text(4);
                if (!isReadableName(payload, kMaxCodeBytes) ||
                    launchPath.size() > kMaxLaunchPathBytes) {
                    visitor.onRefused("payload", payload);
                    return;
                }
                visitor.onPayload(payload, row.text(3), launchPath,
                                  static_cast<int32_t>(row.integer(5)));
                data.of(row.integer(1), [&](Statement& value) { visit(value, payload, visitor); });
            });
        }
        if (data.failed()) {
            return fail(data.code(), "payload data cannot be read");
        }
        if (payloadsOf.failed()) {
            return fail(payloadsOf.code(), "payloads cannot be read");
        }
        return code == SQLITE_DONE ? Status::ok : fail(code, "products cannot be read");
    });
}

Status Store::readAll(Contents& out) {
    Contents contents;
    Collector collector(contents);
    // One transaction around both, so that they are of one state.
    Status status = inReadTransaction([&] {
        ++impl_->depth; // the inner ones join it
        Status inner = visitProducts(collector);
        if (inner == Status::ok) {
            inner = visitAllDomains(collector);
        }
        --impl_->depth;
        return inner;
    });
    if (status == Status::ok) {
        out = std::move(contents);
    }
    return status;
}

Status Store::readDomain(int32_t domain, std::vector<Subdomain>& out) {
    Contents contents;
    Collector collector(contents);
    const Status status = visitDomain(domain, collector);
    if (status != Status::ok) {
        return status;
    }
    out = std::move(contents.subdomains);
    return out.empty() ? Status::nothingThere : Status::ok;
}

Status Store::readProducts(std::vector<Product>& out) {
    Contents contents;
    Collector collector(contents);
    const Status status = visitProducts(collector);
    if (status == Status::ok) {
        out = std::move(contents.products);
    }
    return status;
}

Status Store::modTime(const char* what, uint32_t glanced, uint32_t& out) {
    if (!keepsTimes()) {
        out = 0; // unknown
        return Status::ok;
    }
    if (impl_->glance) {
        out = glanced;
        return Status::ok;
    }
    Statement statement(impl_->connection, "SELECT time FROM modification WHERE what = ?1");
    statement.bind(std::string_view(what));
    const int code = statement.step();
    if (code != SQLITE_ROW) {
        // The row is made with its table, and no program of ours removes it.
        return code == SQLITE_DONE ? refuse(Status::damaged, "the modification times are missing")
                                   : fail(code, "modification times cannot be read");
    }
    out = static_cast<uint32_t>(statement.integer(0));
    return Status::ok;
}

bool Store::keepsTimes() const {
    return impl_->schemaVersion >= kFirstVersionWithTimes;
}

Status Store::productModTime(uint32_t& out) {
    return modTime("product", impl_->glancedTimes[0], out);
}

Status Store::domainModTime(uint32_t& out) {
    return modTime("domain", impl_->glancedTimes[1], out);
}

bool Store::isOnFileOf(const Store& other) const {
    return impl_->fingerprint.sameFile(other.impl_->fingerprint);
}

bool Store::glances() const {
    return impl_->glance;
}

bool Store::changed() {
    const Fingerprint now = Fingerprint::of(impl_->path);
    // Opened so, SQLite would never see a change of the file.
    if (impl_->immutable) {
        // What is committed lies beside the file at first, and may stay there for long.
        return !(now == impl_->fingerprint) || (impl_->glance && !impl_->isNothingBeside());
    }
    if (!now.sameFile(impl_->fingerprint)) {
        return true;
    }
    int code = SQLITE_OK;
    // SQLite raises this number for changes by other connections only; of our own we know.
    const int64_t version = impl_->pragma("PRAGMA data_version", code);
    // What cannot be asked counts as a change: reading anew then says what is wrong.
    const bool differs = code != SQLITE_OK || version != impl_->dataVersion;
    impl_->dataVersion = version;
    return differs;
}

} // namespace caps
