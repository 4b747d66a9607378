#ifndef OVREL_CAPS_H
#define OVREL_CAPS_H

#include <stdint.h>

// The installed-product database as programs read it.
//
// Nobody links to this library: it is loaded at run time from ovrel_caps.framework/ovrel_caps and
// its functions are bound by name, so that a program works, with less to offer, where it is
// missing.
//
// Database. One SQLite file: $OVREL_CAPS_DB, else $XDG_DATA_HOME/ovrel/caps.db
// (~/.local/share/ovrel/caps.db without the variable), else /var/lib/ovrel/caps.db, the first that
// exists; a set OVREL_CAPS_DB is never passed over. A user's own database lies over the system's
// when both exist: readers see both, what is written goes into the upper one. No function creates a
// database. Readers never wait for a writer.
//
// Three kinds of data:
//  - products and their payloads (mdb: "master", pdb: payload details, caps: collections). A
//  payload
//    has an identifier, a kind ("normal" for applications), a launch path, an install state (4:
//    installed) and data: texts by domain number and key. A collection is a product, read as a
//    group of payloads.
//  - domain data (pcd): texts by domain number, subdomain and key.
//  - two modification times, of products and of domain data: seconds since 1970, larger after every
//    change, also when two changes fall in one second.
//
// Limits. Identifiers and keys have 1 to 255 bytes, subdomains up to 512, launch paths up to 1023,
// values up to 65,536. What another program wrote beyond that is passed over.
//
// Order. Every list is in the order of registration: what was registered first comes first, and
// writing a value again keeps its place.
//
// Ownership. Sessions belong to who opened them and are closed by the matching function. Texts,
// lists and records that are handed out belong to the session and must not be changed or freed. A
// session reads a domain, or the products, whole at first use and answers from what it read, so a
// walk sees one state of the database. It looks for a newer state only when it is asked for a list
// of products, subdomains or payloads, or writes: what was handed out is good until such a call, or
// until the session is closed. Lists end with a null pointer.
//
// Statuses. Every function returns one of the CAPS_ numbers below. Outputs are written on CAPS_OK
// only, unless said otherwise.
//
// Threads. Different sessions may be used in different threads at once, one session by one thread
// at a time. A session must not be used in a child after fork().

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define CAPS_EXPORT __attribute__((visibility("default")))
#else
#define CAPS_EXPORT
#endif

typedef int32_t capsStatus;
typedef int32_t capsDomain;
typedef struct capsiSession capsiSession;

enum {
    CAPS_OK = 0,
    CAPS_NOT_LOADED = 1,        // what a caller reports when there is no library; never returned
    CAPS_NO_DATABASE = 2,       // no database file where one is looked for
    CAPS_DAMAGED = 3,           // no database, or its content contradicts its schema
    CAPS_FOREIGN = 4,           // an SQLite database of another application
    CAPS_NEWER_SCHEMA = 5,      // written by a later version of this library
    CAPS_TOO_SMALL = 6,         // the caller's area does not hold the answer
    CAPS_BUSY = 7,              // another process holds the database for itself
    CAPS_NOTHING_THERE = 8,     // no such entry, or an empty list
    CAPS_NO_SESSION = 9,        // a null session
    CAPS_INVALID_ARGUMENT = 10, // a null or empty argument, or a text over its limit
    CAPS_READ_ONLY = 11,        // the file or its folder may not be written
    CAPS_FAILED = 12            // disk, memory, or another failure of the system
};

// A product. `identifier` is the text that the other functions take.
typedef struct capsProduct {
    const char* identifier;
} capsProduct;

// A payload. The first word is its identifier, the fifth its kind.
typedef struct capsPayload {
    const char* identifier;
    const char* product;    // the identifier of its product
    const char* launchPath; // empty when it has none
    intptr_t installState;
    const char* kind;
} capsPayload;

// Open a session on the database, never creating one. `mode` is 1 (read). On success *session is to
// be closed with the function of the same prefix. CAPS_NO_DATABASE, CAPS_DAMAGED, CAPS_FOREIGN,
// CAPS_NEWER_SCHEMA, CAPS_BUSY, CAPS_FAILED: no session.
CAPS_EXPORT capsStatus mdbOpenSessionNoCreate(capsiSession** session, int32_t mode);
CAPS_EXPORT capsStatus pdbOpenSessionNoCreate(capsiSession** session, int32_t mode);
CAPS_EXPORT capsStatus pcdOpenSessionNoCreate(capsiSession** session, int32_t mode);
CAPS_EXPORT capsStatus capsOpenSession(capsiSession** session, int32_t mode);

// Close a session and free all that it handed out. CAPS_NO_SESSION for null.
CAPS_EXPORT capsStatus mdbCloseSession(capsiSession* session);
CAPS_EXPORT capsStatus pdbCloseSession(capsiSession* session);
CAPS_EXPORT capsStatus pcdCloseSession(capsiSession* session);
CAPS_EXPORT capsStatus capsCloseSession(capsiSession* session);

// The identifiers of all products; an empty list is CAPS_OK.
CAPS_EXPORT capsStatus mdbGetProductIDList(capsiSession* session, const char*** ids);
// The product `id`; CAPS_NOTHING_THERE when there is none.
CAPS_EXPORT capsStatus mdbGetProduct(capsiSession* session, const char* id,
                                     const capsProduct** product);
// The identifiers of the product's payloads; an empty list is CAPS_OK.
CAPS_EXPORT capsStatus mdbGetProductPayloads(capsiSession* session, const capsProduct* product,
                                             const char*** payloads);
// The payload `id`; CAPS_NOTHING_THERE when there is none.
CAPS_EXPORT capsStatus mdbGetPayload(capsiSession* session, const char* id,
                                     const capsPayload** payload);

// The value of `key` in a domain of the payload; CAPS_NOTHING_THERE when there is none.
CAPS_EXPORT capsStatus pdbGetPayloadData(capsiSession* session, const char* payload,
                                         capsDomain domain, const char* key, const char** value);
// The keys of a domain of the payload, into the caller's `keys`. *slots is the room there, in
// pointers, and the final null takes one. On CAPS_OK *slots is the number of keys. On
// CAPS_TOO_SMALL *slots is the room that is needed, and as many keys as fit are there, with the
// final null. CAPS_NOTHING_THERE when the payload has no keys there.
CAPS_EXPORT capsStatus pdbGetPayloadDataKeys(capsiSession* session, const char* payload,
                                             capsDomain domain, const char** keys, uint32_t* slots);
// The launch path of a payload, into the caller's `buffer` of *size bytes. On CAPS_OK *size is the
// length of the text with its zero byte, on CAPS_TOO_SMALL the room that is needed.
// CAPS_NOTHING_THERE when it has none. Answers from the database that this process has open, else
// opens it for the call. Any thread.
CAPS_EXPORT capsStatus pdbGetAppLaunchPath(const char* payload, char* buffer, uint32_t* size);

// The names of a domain's subdomains; CAPS_NOTHING_THERE when it has none.
CAPS_EXPORT capsStatus pcdGetDomainDataSubdomains(capsiSession* session, capsDomain domain,
                                                  const char*** subdomains);
// The keys of a subdomain; CAPS_NOTHING_THERE when there is no such subdomain. One without keys
// gives an empty list.
CAPS_EXPORT capsStatus pcdGetDomainDataKeys(capsiSession* session, capsDomain domain,
                                            const char* subdomain, const char*** keys);
// The same, and the value of each of the keys: one question for what a walk over a registry asks.
// `values` has as many texts, in the order of the keys, and a final null.
CAPS_EXPORT capsStatus pcdGetDomainDataPairs(capsiSession* session, capsDomain domain,
                                             const char* subdomain, const char*** keys,
                                             const char*** values);
CAPS_EXPORT capsStatus pcdGetDomainData(capsiSession* session, capsDomain domain,
                                        const char* subdomain, const char* key, const char** value);
// Write and remove one value, each in a transaction of its own that waits up to 5 seconds for other
// writers. CAPS_READ_ONLY when the caller may not write the database.
CAPS_EXPORT capsStatus pcdSetDomainData(capsiSession* session, capsDomain domain,
                                        const char* subdomain, const char* key, const char* value);
CAPS_EXPORT capsStatus pcdRemoveDomainData(capsiSession* session, capsDomain domain,
                                           const char* subdomain, const char* key);

// The payloads of a collection that have this install state; CAPS_NOTHING_THERE when there are
// none.
CAPS_EXPORT capsStatus capsGetCollectionPayloads(capsiSession* session, const char* collection,
                                                 int32_t installState, const char*** payloads);
// All payloads that have this install state; CAPS_NOTHING_THERE when there are none.
CAPS_EXPORT capsStatus capsGetPayloads(capsiSession* session, int32_t installState,
                                       const char*** payloads);
// The keys of a domain of the payload; CAPS_NOTHING_THERE when it has none there.
CAPS_EXPORT capsStatus capsGetPayloadDataKeys(capsiSession* session, const char* payload,
                                              capsDomain domain, const char*** keys);
CAPS_EXPORT capsStatus capsGetPayloadData(capsiSession* session, const char* payload,
                                          capsDomain domain, const char* key, const char** value);

// When products, and when domain data, were last changed. Looks into the database at every call. A
// caller that compares sees every change: when another file was put in the place of the first, with
// the same time in it, the answer is one second later.
CAPS_EXPORT capsStatus capsGetLastModTime(capsiSession* session, uint32_t* time);
CAPS_EXPORT capsStatus pcdGetLastModTime(capsiSession* session, uint32_t* time);
// Both by one look. An older library does not have this function.
CAPS_EXPORT capsStatus capsGetLastModTimes(capsiSession* session, uint32_t* products,
                                           uint32_t* domains);

// Whether the system's database, where a user's own lies over it, takes part in the answers:
// CAPS_OK also when there is none to be read. Else why not: what is the user's does not depend on
// it, and what is not found may be registered there.
CAPS_EXPORT capsStatus capsGetLowerStatus(capsiSession* session);
// Why the last function that returned CAPS_NO_DATABASE, CAPS_DAMAGED, CAPS_FOREIGN,
// CAPS_NEWER_SCHEMA, CAPS_BUSY or CAPS_FAILED in this thread did so: a sentence for a person, with
// the file and the system's reason, or the empty text. Good until this thread's next call. An older
// library has neither this function nor the one before.
CAPS_EXPORT const char* capsLastFailure(void);

// The registry as a whole. A part of its own: callers bind these functions one by one, and an older
// library has none of them. The version of the part; 0 when what it needs is not installed, and the
// others then return CAPS_NOT_LOADED.
CAPS_EXPORT int32_t capsConfigVersion(void);
// The registry as an XML document (docs/registry.rng), or of one application with `specifier`,
// which may be empty. The text belongs to the session, until the next of these functions; it says
// what is wrong unless the status is CAPS_OK: CAPS_INVALID_ARGUMENT for texts that XML cannot hold.
CAPS_EXPORT capsStatus capsConfigExport(capsiSession* session, const char* specifier,
                                        const char** text);
// Takes the entries of `source` into the upper database, in one transaction: a document (it begins
// with '<'), or the path of one or of a database. `rule` ("keep", "replace", "newer") says what
// wins where both have an entry. `text`, unless null, says what is wrong: CAPS_INVALID_ARGUMENT for
// a document with a fault, with its line and column.
CAPS_EXPORT capsStatus capsConfigImport(capsiSession* session, const char* source, const char* rule,
                                        const char** text);
// Removes every application and every group of the upper database; CAPS_NOTHING_THERE without any.
CAPS_EXPORT capsStatus capsConfigRemoveAll(capsiSession* session, const char** text);

#ifdef __cplusplus
}
#endif

#endif
