#include "caps/config/Module.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "caps/Layers.h"
#include "caps/RegistryLayout.h"
#include "caps/config/Document.h"
#include "caps/config/Merge.h"

namespace caps::config {
namespace {

Status readAll(const std::string& path, Contents& out, std::string& text) {
    std::unique_ptr<Store> store;
    Status status = Store::open(path, Store::Access::read, store, &text);
    if (status == Status::ok) {
        status = store->readAll(out);
        text = status == Status::ok ? "" : store->lastError();
    }
    return status;
}

Status exportAll(const CapsConfigRequest& request, std::string& text) {
    Contents contents;
    Status status = readAll(request.path, contents, text);
    if (status == Status::ok && *request.below != '\0') {
        Contents below;
        std::string unread;
        // What is the user's own can be exported whether or not the system's can be read.
        if (readAll(request.below, below, unread) == Status::ok) {
            contents = layered(std::move(below), std::move(contents), request.below);
        }
    }
    if (status != Status::ok) {
        return status;
    }
    if (*request.source != '\0') {
        const std::string specifier = lowerCase(request.source);
        contents.products.clear();
        std::erase_if(contents.subdomains, [&](const Subdomain& subdomain) {
            return !isApplicationSubdomain(subdomain) || effectiveSpecifier(subdomain) != specifier;
        });
    }
    text = writeDocument(contents);
    return Status::ok;
}

Status readSource(const std::string& source, Contents& out, std::string& text) {
    // A document itself. A path that begins so can be given with its folder.
    if (source.starts_with('<')) {
        out = readDocument(source, "document");
        return Status::ok;
    }
    std::ifstream stream(source, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(stream),
                            std::istreambuf_iterator<char>()};
    if (!stream.is_open() || stream.bad()) {
        text = source + ": cannot be read";
        return Status::failed;
    }
    // With these bytes every database of SQLite begins.
    if (bytes.starts_with("SQLite format 3")) {
        return readAll(source, out, text);
    }
    out = readDocument(bytes, source);
    return Status::ok;
}

// One transaction around `work`.
template <class Work>
Status change(const char* path, std::string& text, Work&& work) {
    std::unique_ptr<Store> store;
    Status status = Store::open(path, Store::Access::write, store, &text);
    if (status != Status::ok) {
        return status;
    }
    // Ends with its object: whatever fails on the way leaves the database as it was.
    Store::Transaction transaction(*store);
    status = transaction.begin();
    if (status == Status::ok) {
        status = work(*store);
    }
    if (status == Status::ok) {
        status = transaction.commit();
    }
    if (status != Status::ok && text.empty()) {
        text = store->lastError();
    }
    return status;
}

Status run(const CapsConfigRequest& request, std::string& text) {
    switch (request.command) {
    case CapsConfigRequest::exportAll:
        return exportAll(request, text);
    case CapsConfigRequest::import: {
        const auto rule = ruleOf(request.rule);
        Contents incoming;
        const Status status =
            rule ? readSource(request.source, incoming, text) : Status::invalidArgument;
        Merged merged;
        return status != Status::ok ? status : change(request.path, text, [&](Store& store) {
            return merge(store, incoming, *rule, merged, text);
        });
    }
    case CapsConfigRequest::removeAll: {
        Selection all;
        all.all = true;
        return change(request.path, text, [&](Store& store) { return removeSelected(store, all); });
    }
    }
    return Status::invalidArgument;
}

} // namespace
} // namespace caps::config

extern "C" int32_t capsConfigRun(const CapsConfigRequest* request) {
    try {
        std::string text;
        caps::Status status = caps::Status::failed;
        try {
            status = caps::config::run(*request, text);
        } catch (const caps::config::DocumentError& error) {
            status = caps::Status::invalidArgument;
            text = error.what();
        }
        // What went wrong is told this way, too.
        request->give(request->to, text.data(), text.size());
        return static_cast<int32_t>(status);
    } catch (const std::exception&) { // memory
        return static_cast<int32_t>(caps::Status::failed);
    }
}
