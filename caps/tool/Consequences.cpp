#include "caps/tool/Consequences.h"

#include "caps/tool/Checks.h"
#include "caps/tool/Table.h"

namespace caps::tool {
namespace {

std::string lineOf(const Finding& finding) {
    return finding.where + ": " + finding.what + "; " + finding.why;
}

} // namespace

Consequences::Consequences(Context& context)
    : context_(context), before_(context.readLayers()), reading_(before_) {
    for (const Finding& finding : checkRegistry(before_)) {
        if (finding.harm != Harm::none) {
            harm_.insert(lineOf(finding));
        }
    }
}

void Consequences::tell() const {
    const Contents after = context_.readLayers();
    const auto say = [this](const std::string& line) {
        context_.err << "ovrel-caps: " << printable(line) << '\n';
    };
    // Told even where the application has a path of its own, which no check takes for harm.
    const Reading reading(after);
    for (const Reading::Record& record : reading.records()) {
        if (!record.redirect.empty() && reading.find(record.redirect) == nullptr &&
            reading_.find(record.redirect) != nullptr) {
            say(record.specifier + " redirects to " + record.redirect +
                ", which is registered no more");
        }
    }
    bool harm = false;
    for (const Finding& finding : checkRegistry(after)) {
        if (finding.harm != Harm::none && !harm_.contains(lineOf(finding))) {
            harm = true;
            say(lineOf(finding));
        }
    }
    if (harm && context_.strict) {
        throw Failure("nothing was changed, because of --strict");
    }
}

} // namespace caps::tool
