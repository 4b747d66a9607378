// What the registry says of the messages' switches: messages themselves know no registry.
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects::ConveyData {

SoString MessageGlobals::startName() {
    const ConveyConnector* connector = ConveyConnector::get();
    return connector == nullptr ? SoString() : connector->getApplicationSpecifier(-1);
}

void MessageGlobals::readRegistry(const SoString& own) {
    bool authentication = true;
    bool createDigest = true;
    if (const ConveyConnector* connector = ConveyConnector::get()) {
        authentication = connector->getMessageAuthentication(own);
        createDigest = connector->getMessageDigest(own);
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    authentication_ = authenticationIsSet_ ? authentication_ : authentication;
    createDigest_ = createDigestIsSet_ ? createDigest_ : createDigest;
}

} // namespace ScObjects::ConveyData
