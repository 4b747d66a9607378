// What the registry says of the messages' switches: messages themselves know no registry.
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects::ConveyData {

void MessageGlobals::readRegistry() {
    bool authentication = true;
    bool createDigest = true;
    if (const ConveyConnector* connector = ConveyConnector::get()) {
        const SoString own = connector->getApplicationSpecifier(-1);
        authentication = connector->getMessageAuthentication(own);
        createDigest = connector->getMessageDigest(own);
    }
    const ObjectLock guard(*this);
    authentication_ = authentication;
    createDigest_ = createDigest;
}

} // namespace ScObjects::ConveyData
