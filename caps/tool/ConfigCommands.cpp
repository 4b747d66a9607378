// The commands that take, compare and remove whole registries.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "caps/config/Difference.h"
#include "caps/config/Document.h"
#include "caps/tool/Checks.h"
#include "caps/tool/Commands.h"
#include "caps/tool/Consequences.h"
#include "caps/tool/DropIns.h"
#include "caps/tool/Source.h"
#include "caps/tool/Table.h"

namespace caps::tool {

using Json = nlohmann::ordered_json;

namespace {

void tell(Context& context, const std::vector<config::Difference>& rows) {
    for (const config::Difference& row : rows) {
        context.out << printable(config::lineOf(row)) << '\n';
    }
}

Json rowsOf(const std::vector<config::Difference>& rows) {
    Json list = Json::array();
    for (const config::Difference& row : rows) {
        Json one = {{"kind", config::kindText(row.kind)}, {"entry", row.entry}};
        if (!row.field.empty()) {
            one["field"] = row.field;
            one["before"] = row.before;
            one["after"] = row.after;
        }
        list.push_back(std::move(one));
    }
    return list;
}

Json problemsOf(const std::vector<Finding>& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"where", finding.where}, {"what", finding.what}, {"why", finding.why}});
    }
    return list;
}

} // namespace

int exportXml(Context& context) {
    context.open(Store::Access::read);
    context.out << config::writeDocument(context.readAll());
    return 0;
}

int import(Context& context, const std::string& file, const ImportOptions& options) {
    const SourceKind kind = file == "-" ? kindOf(context.in) : kindOfFile(file);
    if (kind == SourceKind::toml && options.rule.empty() && !options.dryRun) {
        return importToml(context, file);
    }
    // Read and judged before the database is opened: a file that is refused must not make one.
    const Contents incoming = readSource(file, context.in);
    const auto rule = config::ruleOf(options.rule.empty() ? "replace" : options.rule);
    if (!rule) {
        throw Failure(options.rule + ": the rule is keep, replace or newer");
    }
    if (const auto where = firstThatIsNotUtf8(incoming)) {
        throw Failure(file + ": " + printable(*where) + " is no UTF-8");
    }
    context.open(Store::Access::create);
    Store::Transaction transaction(context.store());
    context.expect(transaction.begin());
    const Consequences consequences(context);
    // A dry run does the work and takes it back: what it tells is what would happen, and no second
    // way of reckoning that could differ.
    const Contents before = options.dryRun ? context.readAll() : Contents();
    config::Merged merged;
    std::string reason;
    if (const Status status = config::merge(context.store(), incoming, *rule, merged, reason);
        status != Status::ok) {
        throw Failure(file + ": " + (reason.empty() ? context.store().lastError() : reason));
    }
    if (options.dryRun) {
        tell(context, config::compare(before, context.readAll()));
        consequences.tell();
        return 0; // and the transaction is rolled back
    }
    consequences.tell();
    context.expect(transaction.commit());
    context.out << merged.added << " entries added, " << merged.replaced << " replaced, "
                << merged.kept << " kept, " << merged.skipped << " left out\n";
    return 0;
}

int diff(Context& context, const std::string& before, const std::string& after) {
    const Contents a = readSource(before, context.in);
    const Contents b = readSource(after, context.in);
    const std::vector<config::Difference> rows = config::compare(a, b);
    if (context.json) {
        const Json report = {
            {"differences", rowsOf(rows)},
            {"problems",
             {{"before", problemsOf(checkRegistry(a))}, {"after", problemsOf(checkRegistry(b))}}}};
        context.out << dump(report) << '\n';
    } else {
        tell(context, rows);
        for (const auto& [name, contents] : {std::pair(&before, &a), std::pair(&after, &b)}) {
            for (const Finding& finding : checkRegistry(*contents)) {
                context.err << printable(*name + ": " + finding.where + ": " + finding.what + "; " +
                                         finding.why)
                            << '\n';
            }
        }
    }
    return rows.empty() ? 0 : 1;
}

int removeEntries(Context& context, const config::Selection& selection,
                  const RemoveOptions& options) {
    context.open(Store::Access::write);
    Store::Transaction transaction(context.store());
    context.expect(transaction.begin());
    const Contents before = context.readAll();
    const Consequences consequences(context);
    context.expect(config::removeSelected(context.store(), selection),
                   selection.specifier.empty() ? std::string("there is nothing to remove")
                                               : selection.specifier + " is not registered");
    tell(context, config::compare(before, context.readAll()));
    consequences.tell();
    if (options.dryRun) {
        return 0;
    }
    if (selection.all && !options.yes) {
        throw Failure("nothing was removed: --yes removes all of this");
    }
    context.out.flush(); // told before it is done
    context.expect(transaction.commit());
    return 0;
}

int sync(Context& context, const std::vector<std::string>& folders, bool dryRun) {
    const std::vector<DropIn> files = readDropIns(
        folders.empty() ? std::vector<std::string>{kPackagesFolder, kAdministratorsFolder}
                        : folders);
    if (context.databasePath.empty()) { // whoever runs it: packages are the system's
        context.databasePath = kSystemDatabase;
        (void)umask(S_IWGRP | S_IWOTH); // and everybody reads it
    }
    context.open(Store::Access::create);
    Store::Transaction transaction(context.store());
    context.expect(transaction.begin());
    const Contents before = context.readAll();
    std::vector<std::string> remarks;
    context.expect(applyDropIns(context.store(), files, remarks));
    tell(context, config::compare(before, context.readAll()));
    for (const std::string& remark : remarks) {
        context.err << "ovrel-caps: " << printable(remark) << '\n';
    }
    if (!dryRun) {
        context.expect(transaction.commit());
    }
    return std::any_of(files.begin(), files.end(),
                       [](const DropIn& file) { return !file.fault.empty(); })
               ? 1
               : 0;
}

} // namespace caps::tool
