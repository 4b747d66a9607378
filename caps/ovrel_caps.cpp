#include "caps/include/ovrel_caps.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string_view>

#include "caps/Session.h"

using caps::Database;
using caps::Status;

// Programs that were built with the C header compare with its numbers.
static_assert(static_cast<int32_t>(Status::ok) == CAPS_OK);
static_assert(static_cast<int32_t>(Status::notLoaded) == CAPS_NOT_LOADED);
static_assert(static_cast<int32_t>(Status::noDatabase) == CAPS_NO_DATABASE);
static_assert(static_cast<int32_t>(Status::damaged) == CAPS_DAMAGED);
static_assert(static_cast<int32_t>(Status::foreign) == CAPS_FOREIGN);
static_assert(static_cast<int32_t>(Status::newerSchema) == CAPS_NEWER_SCHEMA);
static_assert(static_cast<int32_t>(Status::tooSmall) == CAPS_TOO_SMALL);
static_assert(static_cast<int32_t>(Status::busy) == CAPS_BUSY);
static_assert(static_cast<int32_t>(Status::nothingThere) == CAPS_NOTHING_THERE);
static_assert(static_cast<int32_t>(Status::noSession) == CAPS_NO_SESSION);
static_assert(static_cast<int32_t>(Status::invalidArgument) == CAPS_INVALID_ARGUMENT);
static_assert(static_cast<int32_t>(Status::readOnly) == CAPS_READ_ONLY);
static_assert(static_cast<int32_t>(Status::failed) == CAPS_FAILED);
static_assert(offsetof(capsPayload, kind) == 4 * sizeof(void*), "the kind is the fifth word");

namespace {

// The only one: a session reads, and what it writes goes through a connection of its own.
constexpr int32_t kReadMode = 1;

// Runs the body of one exported function: no exception crosses into C.
template <class Body>
capsStatus guarded(Body&& body) noexcept {
    try {
        return static_cast<capsStatus>(body());
    } catch (const std::bad_alloc&) {
        caps::LastFailure::note("no memory");
        return CAPS_FAILED;
    } catch (const std::exception& error) { // the standard library's own, such as a length error
        caps::LastFailure::note(error.what());
        return CAPS_FAILED;
    }
}

bool isEmpty(const char* text) {
    return text == nullptr || *text == '\0';
}

// The same of a function that needs a session. `usable` tells whether the other arguments can be
// used; a missing session is told before a bad argument.
template <class Body>
capsStatus answering(const capsiSession* session, bool usable, Body&& body) noexcept {
    if (session == nullptr) {
        return CAPS_NO_SESSION;
    }
    return usable ? guarded(body) : CAPS_INVALID_ARGUMENT;
}

capsStatus openSession(capsiSession** session, int32_t mode) noexcept {
    return guarded([&] {
        if (session == nullptr || mode != kReadMode) {
            return Status::invalidArgument;
        }
        Database* database = nullptr;
        const Status status = Database::acquire(database);
        if (status != Status::ok) {
            return status;
        }
        *session = new (std::nothrow) capsiSession(database);
        if (*session == nullptr) {
            Database::release(database);
            caps::LastFailure::note("no memory");
            return Status::failed;
        }
        return Status::ok;
    });
}

capsStatus closeSession(capsiSession* session) noexcept {
    if (session == nullptr) {
        return CAPS_NO_SESSION;
    }
    delete session;
    return CAPS_OK;
}

// The session's products; with `refresh` the newest state.
Status products(capsiSession* session, bool refresh) {
    if (!refresh && session->products != nullptr) {
        return Status::ok;
    }
    std::shared_ptr<const caps::ProductSnapshot> snapshot;
    const Status status = session->database->products(refresh, snapshot);
    // Pointers that were handed out stay good as long as nothing has changed.
    if (status == Status::ok && snapshot != session->products) {
        session->lists.clear();
        session->products = std::move(snapshot);
    }
    return status;
}

// The session's state of a domain; with `refresh` the newest one.
Status domainOf(capsiSession* session, int32_t number, bool refresh, capsiSession::Domain*& out) {
    capsiSession::Domain& domain = session->domains[number];
    out = &domain;
    if (!refresh && domain.snapshot != nullptr) {
        return Status::ok;
    }
    std::shared_ptr<const caps::DomainSnapshot> snapshot;
    const Status status = session->database->domain(number, refresh, snapshot);
    if (status == Status::ok && snapshot != domain.snapshot) {
        // The places that a walk had reached were those of the state before.
        domain = {std::move(snapshot), 0, 0};
    }
    return status;
}

// Looks a payload up, which has a name, and hands it to `use`.
template <class Use>
Status withPayload(capsiSession* session, const char* payload, Use&& use) {
    const Status status = products(session, false);
    if (status != Status::ok) {
        return status;
    }
    const capsPayload* found = session->products->payload(payload, session->lastPayload);
    return found == nullptr ? Status::nothingThere : use(*found);
}

// Looks a subdomain up, which has a name, and hands the domain and the subdomain's position to
// `use`.
template <class Use>
Status withSubdomain(capsiSession* session, int32_t number, const char* subdomain, Use&& use) {
    capsiSession::Domain* domain = nullptr;
    const Status status = domainOf(session, number, false, domain);
    if (status != Status::ok) {
        return status;
    }
    const ptrdiff_t found = domain->snapshot->find(subdomain, domain->lastSubdomain);
    if (found < 0) {
        return Status::nothingThere;
    }
    // The next question is expected where the last one was answered: a walk asks in order.
    if (found != domain->lastSubdomain) {
        domain->lastSubdomain = found;
        domain->nextKey = 0;
    }
    return use(*domain, found);
}

// Hands out a list that was made for a question, under the question's name.
Status handOut(capsiSession* session, std::string question, std::vector<const char*> list,
               const char*** out) {
    if (list.empty()) {
        return Status::nothingThere;
    }
    list.push_back(nullptr);
    // An answer that was handed out before is the same: it was made from the same state.
    const auto [entry, added] = session->lists.try_emplace(std::move(question), std::move(list));
    *out = entry->second.data();
    return Status::ok;
}

// The lists of a snapshot are fixed; C has no way to say so that callers would not stumble over.
const char** list(const char* const* names) {
    return const_cast<const char**>(names);
}

Status payloadValue(capsiSession* session, const char* payload, capsDomain domain, const char* key,
                    const char** value) {
    return withPayload(session, payload, [&](const capsPayload& found) {
        const char* text = session->products->value(found, domain, key);
        if (text == nullptr) {
            return Status::nothingThere;
        }
        *value = text;
        return Status::ok;
    });
}

template <class Work>
capsStatus writing(capsiSession* session, bool usable, Work&& work) noexcept {
    return answering(session, usable, [&] {
        const Status status = work(*session->database);
        if (status == Status::ok) {
            session->domains.clear(); // read anew at the next question
        }
        return status;
    });
}

} // namespace

extern "C" {

// Each part of the interface has names of its own for it; any session serves all of them.
capsStatus mdbOpenSessionNoCreate(capsiSession** session, int32_t mode) {
    return openSession(session, mode);
}

capsStatus pdbOpenSessionNoCreate(capsiSession** session, int32_t mode) {
    return openSession(session, mode);
}

capsStatus pcdOpenSessionNoCreate(capsiSession** session, int32_t mode) {
    return openSession(session, mode);
}

capsStatus capsOpenSession(capsiSession** session, int32_t mode) {
    return openSession(session, mode);
}

capsStatus mdbCloseSession(capsiSession* session) {
    return closeSession(session);
}

capsStatus pdbCloseSession(capsiSession* session) {
    return closeSession(session);
}

capsStatus pcdCloseSession(capsiSession* session) {
    return closeSession(session);
}

capsStatus capsCloseSession(capsiSession* session) {
    return closeSession(session);
}

capsStatus mdbGetProductIDList(capsiSession* session, const char*** ids) {
    return answering(session, ids != nullptr, [&] {
        // Lists bring the newest state, and all other questions are answered from that: a walk sees
        // one state from its beginning to its end.
        const Status status = products(session, true);
        if (status == Status::ok) {
            *ids = list(session->products->productCodes());
        }
        return status;
    });
}

capsStatus mdbGetProduct(capsiSession* session, const char* id, const capsProduct** product) {
    return answering(session, !isEmpty(id) && product != nullptr, [&] {
        const Status status = products(session, false);
        if (status != Status::ok) {
            return status;
        }
        const capsProduct* found = session->products->product(id, session->lastProduct);
        if (found == nullptr) {
            return Status::nothingThere;
        }
        *product = found;
        return Status::ok;
    });
}

capsStatus mdbGetProductPayloads(capsiSession* session, const capsProduct* product,
                                 const char*** payloads) {
    return answering(session, product != nullptr && payloads != nullptr, [&] {
        const Status status = products(session, false);
        if (status != Status::ok) {
            return status;
        }
        // By its identifier: the record may be the caller's copy.
        const capsProduct* found =
            isEmpty(product->identifier)
                ? nullptr
                : session->products->product(product->identifier, session->lastProduct);
        if (found == nullptr) {
            return Status::nothingThere;
        }
        *payloads = list(session->products->payloadsOf(*found));
        return Status::ok;
    });
}

capsStatus mdbGetPayload(capsiSession* session, const char* id, const capsPayload** payload) {
    return answering(session, payload != nullptr && !isEmpty(id), [&] {
        return withPayload(session, id, [payload](const capsPayload& found) {
            *payload = &found;
            return Status::ok;
        });
    });
}

capsStatus pdbGetPayloadData(capsiSession* session, const char* payload, capsDomain domain,
                             const char* key, const char** value) {
    return answering(session, !isEmpty(payload) && key != nullptr && value != nullptr,
                     [&] { return payloadValue(session, payload, domain, key, value); });
}

capsStatus pdbGetPayloadDataKeys(capsiSession* session, const char* payload, capsDomain domain,
                                 const char** keys, uint32_t* slots) {
    return answering(session, keys != nullptr && slots != nullptr && !isEmpty(payload), [&] {
        return withPayload(session, payload, [&](const capsPayload& found) {
            const std::vector<const char*> all = session->products->keys(found, domain);
            if (all.empty()) {
                return Status::nothingThere;
            }
            // What fits is given in any case, with its end marked; `slots` says what all would
            // take, the end included.
            const size_t fitting = *slots == 0 ? 0 : std::min<size_t>(all.size(), *slots - 1);
            std::copy_n(all.begin(), fitting, keys);
            if (*slots > 0) {
                keys[fitting] = nullptr;
            }
            const bool whole = *slots > all.size();
            *slots = static_cast<uint32_t>(whole ? all.size() : all.size() + 1);
            return whole ? Status::ok : Status::tooSmall;
        });
    });
}

capsStatus pdbGetAppLaunchPath(const char* payload, char* buffer, uint32_t* size) {
    return guarded([&] {
        if (isEmpty(payload) || buffer == nullptr || size == nullptr) {
            return Status::invalidArgument;
        }
        // Without a session of the caller's: what the process has open is asked, else it is opened
        // for this one question.
        Database* database = Database::acquireOpen();
        Status status = database != nullptr ? Status::ok : Database::acquire(database);
        if (status != Status::ok) {
            return status;
        }
        const capsiSession session(database); // gives the database back
        std::shared_ptr<const caps::ProductSnapshot> products;
        ptrdiff_t hint = 0;
        status = database->products(false, products);
        if (status != Status::ok) {
            return status;
        }
        const capsPayload* found = products->payload(payload, hint);
        if (found == nullptr || *found->launchPath == '\0') {
            return Status::nothingThere;
        }
        const size_t bytes = std::strlen(found->launchPath) + 1;
        const bool fits = bytes <= *size;
        *size = static_cast<uint32_t>(bytes);
        if (fits) {
            std::memcpy(buffer, found->launchPath, bytes);
        }
        return fits ? Status::ok : Status::tooSmall;
    });
}

capsStatus pcdGetDomainDataSubdomains(capsiSession* session, capsDomain domain,
                                      const char*** subdomains) {
    return answering(session, subdomains != nullptr, [&] {
        capsiSession::Domain* found = nullptr;
        const Status status = domainOf(session, domain, true, found);
        if (status != Status::ok) {
            return status;
        }
        if (found->snapshot->isEmpty()) {
            return Status::nothingThere;
        }
        *subdomains = list(found->snapshot->names());
        return Status::ok;
    });
}

capsStatus pcdGetDomainDataKeys(capsiSession* session, capsDomain domain, const char* subdomain,
                                const char*** keys) {
    return answering(session, keys != nullptr && !isEmpty(subdomain), [&] {
        return withSubdomain(session, domain, subdomain,
                             [keys](const capsiSession::Domain& found, ptrdiff_t position) {
                                 *keys = list(found.snapshot->keys(position));
                                 return Status::ok;
                             });
    });
}

capsStatus pcdGetDomainDataPairs(capsiSession* session, capsDomain domain, const char* subdomain,
                                 const char*** keys, const char*** values) {
    const bool usable = keys != nullptr && values != nullptr && !isEmpty(subdomain);
    return answering(session, usable, [&] {
        return withSubdomain(session, domain, subdomain,
                             [&](const capsiSession::Domain& found, ptrdiff_t position) {
                                 *keys = list(found.snapshot->keys(position));
                                 *values = list(found.snapshot->values(position));
                                 return Status::ok;
                             });
    });
}

capsStatus pcdGetDomainData(capsiSession* session, capsDomain domain, const char* subdomain,
                            const char* key, const char** value) {
    return answering(session, key != nullptr && value != nullptr && !isEmpty(subdomain), [&] {
        return withSubdomain(
            session, domain, subdomain, [&](capsiSession::Domain& found, ptrdiff_t position) {
                const char* text = found.snapshot->value(position, key, found.nextKey);
                if (text == nullptr) {
                    return Status::nothingThere;
                }
                *value = text;
                return Status::ok;
            });
    });
}

capsStatus pcdSetDomainData(capsiSession* session, capsDomain domain, const char* subdomain,
                            const char* key, const char* value) {
    const bool usable = !isEmpty(subdomain) && !isEmpty(key) && value != nullptr;
    return writing(session, usable, [&](Database& database) {
        return database.setDomainData(domain, subdomain, key, value);
    });
}

capsStatus pcdRemoveDomainData(capsiSession* session, capsDomain domain, const char* subdomain,
                               const char* key) {
    return writing(session, !isEmpty(subdomain) && !isEmpty(key), [&](Database& database) {
        return database.removeDomainData(domain, subdomain, key);
    });
}

capsStatus capsGetCollectionPayloads(capsiSession* session, const char* collection,
                                     int32_t installState, const char*** payloads) {
    return answering(session, !isEmpty(collection) && payloads != nullptr, [&] {
        const Status status = products(session, true);
        if (status != Status::ok) {
            return status;
        }
        const capsProduct* found = session->products->product(collection, session->lastProduct);
        if (found == nullptr) {
            return Status::nothingThere;
        }
        return handOut(session, "state " + std::to_string(installState) + " of " + collection,
                       session->products->withState(found, installState), payloads);
    });
}

capsStatus capsGetPayloads(capsiSession* session, int32_t installState, const char*** payloads) {
    return answering(session, payloads != nullptr, [&] {
        const Status status = products(session, true);
        if (status != Status::ok) {
            return status;
        }
        return handOut(session, "state " + std::to_string(installState),
                       session->products->withState(nullptr, installState), payloads);
    });
}

capsStatus capsGetPayloadDataKeys(capsiSession* session, const char* payload, capsDomain domain,
                                  const char*** keys) {
    return answering(session, keys != nullptr && !isEmpty(payload), [&] {
        return withPayload(session, payload, [&](const capsPayload& found) {
            return handOut(session, "keys " + std::to_string(domain) + " of " + payload,
                           session->products->keys(found, domain), keys);
        });
    });
}

capsStatus capsGetPayloadData(capsiSession* session, const char* payload, capsDomain domain,
                              const char* key, const char** value) {
    return answering(session, !isEmpty(payload) && key != nullptr && value != nullptr,
                     [&] { return payloadValue(session, payload, domain, key, value); });
}

capsStatus capsGetLastModTime(capsiSession* session, uint32_t* time) {
    return answering(session, time != nullptr,
                     [&] { return session->database->modTimes(time, nullptr); });
}

capsStatus pcdGetLastModTime(capsiSession* session, uint32_t* time) {
    return answering(session, time != nullptr,
                     [&] { return session->database->modTimes(nullptr, time); });
}

capsStatus capsGetLastModTimes(capsiSession* session, uint32_t* products, uint32_t* domains) {
    return answering(session, products != nullptr && domains != nullptr,
                     [&] { return session->database->modTimes(products, domains); });
}

capsStatus capsGetLowerStatus(capsiSession* session) {
    return answering(session, true, [&] { return session->database->belowStatus(); });
}

const char* capsLastFailure(void) {
    return caps::LastFailure::text();
}

} // extern "C"
