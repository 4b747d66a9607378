#include "caps/Store.h"

#include "caps/StoreImpl.h"
#include "limits/InWords.h"

namespace caps {

Status Store::checkEntry(std::string_view key, std::string_view value) {
    if (!isName(key, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument,
                      "a key has 1 to " + limits::inWords("database.code"));
    }
    if (!isText(value, kMaxValueBytes)) {
        return refuse(Status::invalidArgument, "a value has at most " +
                                                   limits::inWords("database.value") +
                                                   ", none of them zero");
    }
    return Status::ok;
}

Status Store::runOnSomething(Statement& statement, const char* operation) {
    // SQLite takes it for success to change no row at all.
    const Status status = run(statement, operation);
    return status == Status::ok && sqlite3_changes(impl_->connection) == 0 ? Status::nothingThere
                                                                           : status;
}

Status Store::addSubdomain(int32_t domain, std::string_view subdomain) {
    if (!isName(subdomain, kMaxSubdomainBytes)) {
        return refuse(Status::invalidArgument,
                      "a subdomain has 1 to " + limits::inWords("database.subdomain"));
    }
    return inTransaction([&] {
        // Whatever is written below a subdomain is a change of it. Within the same second the row
        // is not written again, which an import would do for each value.
        Statement& insert = impl_->prepared(
            "INSERT INTO subdomain (domain, name, changed) VALUES (?1, ?2, unixepoch()) "
            "ON CONFLICT DO UPDATE SET changed = excluded.changed "
            "WHERE changed <> excluded.changed");
        insert.bind(domain, subdomain);
        return run(insert, "the subdomain cannot be written");
    });
}

Status Store::rowOf(int32_t domain, std::string_view subdomain, int64_t& row) {
    Statement& select = impl_->prepared("SELECT id FROM subdomain WHERE domain = ?1 AND name = ?2");
    select.bind(domain, subdomain);
    // Reset at once, since a statement that stands on a row holds its transaction open.
    const int code = select.step();
    row = code == SQLITE_ROW ? select.integer(0) : 0;
    select.reset();
    return code == SQLITE_ROW ? Status::ok : fail(code, "the subdomain cannot be read");
}

// By its row: a statement that reads the tables that it writes (INSERT ... SELECT) would keep what
// it reads in a table of its own, which costs as much as the rest three times over.
Status Store::writeValue(int64_t subdomain, std::string_view key, std::string_view value) {
    Statement& insert =
        impl_->prepared("INSERT INTO domain_data (subdomain, position, key, value, origin) VALUES "
                        "(?1, (SELECT coalesce(max(position), 0) + 1 FROM domain_data "
                        "WHERE subdomain = ?1), ?2, ?3, ?4) "
                        "ON CONFLICT (subdomain, key) DO UPDATE SET value = excluded.value, "
                        "origin = excluded.origin");
    insert.bind(subdomain, key, value, std::string_view(impl_->origin));
    return run(insert, "the value cannot be written");
}

Status Store::setDomainData(int32_t domain, std::string_view subdomain, std::string_view key,
                            std::string_view value) {
    if (const Status status = checkEntry(key, value); status != Status::ok) {
        return status;
    }
    return inTransaction([&] {
        int64_t row = 0;
        Status status = addSubdomain(domain, subdomain);
        if (status == Status::ok) {
            status = rowOf(domain, subdomain, row);
        }
        return status == Status::ok ? writeValue(row, key, value) : status;
    });
}

Status Store::writeSubdomain(const Subdomain& subdomain) {
    return inTransaction([&] {
        int64_t row = 0;
        Status status = addSubdomain(subdomain.domain, subdomain.name);
        if (status == Status::ok) {
            status = rowOf(subdomain.domain, subdomain.name, row);
        }
        for (const KeyValue& entry : subdomain.data) {
            if (status == Status::ok) {
                status = checkEntry(entry.key, entry.value);
            }
            if (status == Status::ok) {
                status = writeValue(row, entry.key, entry.value);
            }
        }
        return status;
    });
}

Status Store::removeDomainData(int32_t domain, std::string_view subdomain, std::string_view key) {
    return inTransaction([&] {
        Statement& remove =
            impl_->prepared("DELETE FROM domain_data WHERE key = ?3 AND subdomain = "
                            "(SELECT id FROM subdomain WHERE domain = ?1 AND name = ?2)");
        remove.bind(domain, subdomain, key);
        const Status status = runOnSomething(remove, "the value cannot be removed");
        return status == Status::ok ? addSubdomain(domain, subdomain) : status; // notes the time
    });
}

Status Store::clearSubdomain(int32_t domain, std::string_view subdomain) {
    return inTransaction([&] {
        Statement& remove =
            impl_->prepared("DELETE FROM domain_data WHERE subdomain = "
                            "(SELECT id FROM subdomain WHERE domain = ?1 AND name = ?2)");
        remove.bind(domain, subdomain);
        return run(remove, "the subdomain cannot be emptied");
    });
}

void Store::setOrigin(std::string origin) {
    impl_->origin = std::move(origin);
}

Status Store::setChanged(int32_t domain, std::string_view subdomain, int64_t time) {
    return inTransaction([&] {
        // Without a change the row is not written, so that the modification time stays as well.
        Statement& update = impl_->prepared("UPDATE subdomain SET changed = ?3 WHERE domain = ?1 "
                                            "AND name = ?2 AND changed <> ?3");
        update.bind(domain, subdomain, time);
        return run(update, "the time cannot be written");
    });
}

Status Store::setProductChanged(std::string_view code, int64_t time) {
    return inTransaction([&] {
        Statement& update =
            impl_->prepared("UPDATE product SET changed = ?2 WHERE code = ?1 AND changed <> ?2");
        update.bind(code, time);
        return run(update, "the time cannot be written");
    });
}

Status Store::removeSubdomain(int32_t domain, std::string_view subdomain) {
    return inTransaction([&] {
        Statement& remove =
            impl_->prepared("DELETE FROM subdomain WHERE domain = ?1 AND name = ?2");
        remove.bind(domain, subdomain);
        return runOnSomething(remove, "the subdomain cannot be removed");
    });
}

Status Store::addProduct(const Product& product) {
    if (!isName(product.code, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument,
                      "a product's identifier has 1 to " + limits::inWords("database.code"));
    }
    return inTransaction([&] {
        Statement& insert = impl_->prepared(
            "INSERT INTO product (code, changed, origin) VALUES (?1, unixepoch(), ?2)");
        insert.bind(std::string_view(product.code), std::string_view(impl_->origin));
        Status status = run(insert, "the product cannot be written");
        for (const Payload& payload : product.payloads) {
            if (status == Status::ok) {
                status = addPayload(product.code, payload);
            }
        }
        return status;
    });
}

// The product's row stays, so that it keeps its place in the order of registration.
Status Store::replaceProduct(const Product& product) {
    return inTransaction([&] {
        Statement& update = impl_->prepared(
            "UPDATE product SET changed = unixepoch(), origin = ?2 WHERE code = ?1");
        update.bind(std::string_view(product.code), std::string_view(impl_->origin));
        Status status = runOnSomething(update, "the product cannot be written");
        if (status == Status::ok) {
            Statement& remove = impl_->prepared("DELETE FROM payload WHERE product = "
                                                "(SELECT id FROM product WHERE code = ?1)");
            remove.bind(std::string_view(product.code));
            status = run(remove, "the payloads cannot be removed");
        }
        for (const Payload& payload : product.payloads) {
            if (status == Status::ok) {
                status = addPayload(product.code, payload);
            }
        }
        return status;
    });
}

Status Store::addPayload(std::string_view product, const Payload& payload) {
    if (!isName(payload.code, kMaxCodeBytes) || !isText(payload.kind, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument, "a payload's identifier has 1 to " +
                                                   limits::inWords("database.code") +
                                                   ", as has its kind");
    }
    if (!isText(payload.launchPath, kMaxLaunchPathBytes)) {
        return refuse(Status::invalidArgument,
                      "a launch path has at most " + limits::inWords("database.launch-path"));
    }
    return inTransaction([&] {
        Statement& insert =
            impl_->prepared("INSERT INTO payload (product, code, kind, launch_path, install_state) "
                            "SELECT id, ?2, ?3, ?4, ?5 FROM product WHERE code = ?1");
        insert.bind(product, std::string_view(payload.code), std::string_view(payload.kind),
                    std::string_view(payload.launchPath), payload.installState);
        Status status = runOnSomething(insert, "the payload cannot be written");
        for (const PayloadValue& value : payload.data) {
            if (status == Status::ok) {
                status = setPayloadData(payload.code, value.domain, value.key, value.value);
            }
        }
        return status;
    });
}

Status Store::removeProduct(std::string_view code) {
    return inTransaction([&] {
        Statement& remove = impl_->prepared("DELETE FROM product WHERE code = ?1");
        remove.bind(code);
        return runOnSomething(remove, "the product cannot be removed");
    });
}

Status Store::setPayloadData(std::string_view payload, int32_t domain, std::string_view key,
                             std::string_view value) {
    if (const Status status = checkEntry(key, value); status != Status::ok) {
        return status;
    }
    return inTransaction([&] {
        Statement& insert = impl_->prepared(
            "INSERT INTO payload_data (payload, position, domain, key, value) "
            "SELECT p.id, (SELECT coalesce(max(d.position), 0) + 1 FROM payload_data d "
            "WHERE d.payload = p.id), ?2, ?3, ?4 FROM payload p WHERE p.code = ?1 "
            "ON CONFLICT (payload, domain, key) DO UPDATE SET value = excluded.value");
        insert.bind(payload, domain, key, value);
        return runOnSomething(insert, "the value cannot be written");
    });
}

Status Store::removePayloadData(std::string_view payload, int32_t domain, std::string_view key) {
    return inTransaction([&] {
        Statement& remove =
            impl_->prepared("DELETE FROM payload_data WHERE domain = ?2 AND key = ?3 AND payload = "
                            "(SELECT id FROM payload WHERE code = ?1)");
        remove.bind(payload, domain, key);
        return runOnSomething(remove, "the value cannot be removed");
    });
}

Status Store::clear() {
    return inTransaction([&] {
        // What belongs to these goes with them, by the schema.
        const int code = impl_->execute("DELETE FROM product; DELETE FROM subdomain");
        return code == SQLITE_OK ? Status::ok : fail(code, "cannot be emptied");
    });
}

} // namespace caps
