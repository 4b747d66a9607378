#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

struct capsiSession;

// The functions of the installed-product database library that the product information needs, bound
// by name. Owns the library; null functions for what is missing.
struct CapsProductFunctions;

// Answers which languages are installed for the product in a folder. Reads the database once, when
// it is made, and answers from two tables; every failure leaves the tables as they are then, so
// without a database no folder is known.
//
// The process-wide instance is never destroyed. Threads: one; the front end has no others.
class CHostProductInfoFromCapsLib {
public:
    // The instance, made and so read on the first call.
    static CHostProductInfoFromCapsLib* getInstance();

    // Reads through `functions`, whose null pointers count as failures. For the instance above, and
    // for tests with functions of their own.
    explicit CHostProductInfoFromCapsLib(const CapsProductFunctions& functions);

    // False when the database is there and could not be read to its end: a folder that is not known
    // may have languages all the same.
    bool isComplete() const { return complete_; }

    // Sets `languages` to the languages installed for the product in `folder` (exactly as it is
    // registered), with the product's own language keys translated. False, and `languages` empty,
    // when the folder is not known.
    bool LookupInstalledLanguages(const std::string& folder, std::string& languages) const;

    // Sets `out` to "key,value;" for each key of the null-terminated list `keys` (null: none) that
    // has a value in the payload's language domain.
    static void SerializeDummyLanguageKeys(const CapsProductFunctions& functions,
                                           capsiSession* session, const char* payload,
                                           const char* const* keys, std::string& out);

    // Replaces each occurrence of `from` (not empty) in `text` by `to`, left to right, without
    // looking at what was inserted.
    static void stringReplace(std::string& text, const std::string& from, const std::string& to);

private:
    class Walk;

    std::unordered_map<std::string, std::string> installedLanguages_; // by product folder
    std::unordered_map<std::string, std::string>
        languageKeyPairs_; // "key,value;..." by product folder
    bool complete_;        // last: the walk that tells fills the tables
};
