// Launching what is registered: the one thing for which the registry needs the messaging engine.
#include <string_view>

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/connector/SoCVConnectorAppInfo.h"
#include "scriptobjects/convey/SoCVLauncher.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace ScObjects {
int32_t ConveyConnector::launchTarget(const SoString& specifier, const SoString& parameters,
                                      bool inFront, ConveyContext* /*context*/) {
    // A copy: the records go when the registry has changed, and no lock is held below.
    CVConnectorAppInfo info;
    if (!findRecord(specifier, info)) {
        return 0;
    }
    if (info.path.view().substr(0, ConveyUtils::Launcher::kWebAddress.size()) !=
        ConveyUtils::Launcher::kWebAddress) {
        info.path = ConveyUtils::resolveAlias(info.path);
        // A registration can outlive its application, which is better told than tried.
        if (!ConveyUtils::fileExists(info.path)) {
            return 0;
        }
    }
    uint32_t pid = 0;
    // With no lock held: it sends messages and starts processes.
    if (!ConveyUtils::Launcher::launch(
            specifier, info.path, &parameters,
            inFront ? ConveyUtils::Launcher::kInFront : ConveyUtils::Launcher::kBehind, &pid)) {
        return 0;
    }
    if (pid != 0) {
        noteLaunched(specifier, pid);
    }
    return 1;
}

bool ConveyConnector::bringToFront(const char* specifier, ConveyContext* /*context*/) const {
    CVConnectorAppInfo info;
    if (!findRecord(specifier, info)) {
        return false;
    }
    ConveyUtils::Launcher::bringToFront(ConveyUtils::resolveAlias(info.path),
                                        ConveyUtils::Launcher::kByBundlePath);
    return true;
}

} // namespace ScObjects
