#pragma once

#include <cstdint>
#include <string>

#include "caps/config/Merge.h"
#include "caps/tool/Context.h"
#include "caps/tool/Registry.h"

// The commands of the tool. Each opens the database, does one thing and gives the exit status: 0,
// or 1 when the answer is no. They throw Failure or TomlError, with what to tell the person.
namespace caps::tool {

// Makes an empty database, or brings one up to date.
int init(Context& context);

struct ImportOptions {
    std::string rule; // keep, replace or newer; empty: the file's usual one
    bool dryRun = false;
};
// All of a file or nothing, whatever a registry is kept in; "-" is standard input.
int import(Context& context, const std::string& file, const ImportOptions& options);
int importToml(Context& context, const std::string& file);
int importDesktop(Context& context, const std::string& folder);

int addApplication(Context& context, Application application);
int removeApplication(Context& context, const std::string& specifier);
int addProduct(Context& context, const Product& product);
int removeProduct(Context& context, const std::string& code);
int addGroup(Context& context, const Group& group);
int removeGroup(Context& context, const Group& group);

// One value; `name` is a specifier or a subdomain.
int set(Context& context, int32_t domain, const std::string& name, const std::string& key,
        const std::string& value);
int get(Context& context, int32_t domain, const std::string& name, const std::string& key);
int remove(Context& context, int32_t domain, const std::string& name, const std::string& key);

struct RemoveOptions {
    bool yes = false; // it is meant
    bool dryRun = false;
};
// Tells what goes, then removes it.
int removeEntries(Context& context, const config::Selection& selection,
                  const RemoveOptions& options);

// Brings what packages' files say into the system's database, or the one that is named. Exit status
// 1 when a file could not be read.
int sync(Context& context, const std::vector<std::string>& folders, bool dryRun);

int list(Context& context);
int listGroups(Context& context);
int show(Context& context, const std::string& specifier);
int exportAll(Context& context);
int exportXml(Context& context);
// Exit status 1 when the two differ.
int diff(Context& context, const std::string& before, const std::string& after);
// Exit status 1 when there is something to report.
int check(Context& context);

} // namespace caps::tool
