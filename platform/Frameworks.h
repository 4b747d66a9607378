#pragma once

#include <string>
#include <vector>

#include "platform/Service.h"

namespace platform {

// Framework bundles: folders named X.framework that hold a loadable library named X.
//
// Porting contract: loading runs the library's own initialisers and may wait for the disk; a
// library loaded twice is loaded once and counted. What is not an absolute path is never handed to
// the system's loader, whose search follows the environment. Threads: any.
class Frameworks : public Service<Frameworks> {
public:
    virtual ~Frameworks() = default;

    // The bundle of the running program: the X.app folder for a program that lies in
    // X.app/Contents/MacOS, else the folder of the program, links resolved. Empty when the system
    // does not tell.
    virtual std::string mainBundleFolder() const = 0;

    // Where the frameworks of this installation lie when the program lies elsewhere, first choice
    // first: beside the layer's own library, in the folder "convey" there, and in the folder that
    // the build was made for. Absolute paths, links resolved.
    virtual std::vector<std::string> installedFolders() const = 0;

    // Loads the library of the bundle folder `bundlePath` (absolute). Returns a handle for the two
    // calls below, to be given back with `unload`, or null when there is no such bundle or its
    // library does not load.
    virtual void* load(const std::string& bundlePath) = 0;

    // False when there is no such bundle, or none that holds a library: one that was not loaded is
    // there then, and could not be.
    virtual bool mayBeThere(const std::string& bundlePath) const = 0;

    // Gives the handle back. Functions of the library must not be called afterwards.
    virtual void unload(void* handle) = 0;

    // The function `name` of the library, null when it has none. Good until `unload`.
    virtual void* function(void* handle, const char* name) = 0;

    static Frameworks& own();
};

// Where a framework that is asked for by its name alone may lie, first choice first: in the folder
// that the environment names ($CONVEY_CAPS_FOLDER), and there only; else in the main bundle's
// Contents/Frameworks, in its Frameworks, beside the program or application, and in the folders of
// the installation. Each path once.
std::vector<std::string> frameworkCandidates(const Frameworks& frameworks, const std::string& name);

} // namespace platform
