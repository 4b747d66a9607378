#pragma once

#include <string>
#include <vector>

namespace convey_link {

// The used applications in the user's installed-product database, while the link runs.
class Registrations {
public:
    // The value that marks a registration as a link's: the name of the link where it runs.
    static constexpr const char* kKey = "Link";

    virtual ~Registrations() = default;
    // Whether something else than a link has registered the application.
    virtual bool isLocal(const std::string& app) = 0;
    // Registers an application that runs at a link; false, and reported, when that failed.
    virtual bool add(const std::string& app, const std::string& at) = 0;
    // Removes what `add` has made, and what a link that was killed has left; all for an empty name.
    virtual void remove(const std::string& app) = 0;
};

// In the database that new registrations of this user go to. An application's path is a script
// below `folder`, which starts `program` with `kInPlace` and the application: that has the link
// launch it.
class DatabaseRegistrations : public Registrations {
public:
    static constexpr const char* kInPlace = "--in-place";

    DatabaseRegistrations(std::string folder, std::string program)
        : folder_(std::move(folder)), program_(std::move(program)) {}
    bool isLocal(const std::string& app) override;
    bool add(const std::string& app, const std::string& at) override;
    void remove(const std::string& app) override;

private:
    const std::string folder_;
    const std::string program_;
};

} // namespace convey_link
