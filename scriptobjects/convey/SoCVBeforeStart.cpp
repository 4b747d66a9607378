#include "scriptobjects/convey/SoCVBeforeStart.h"

#include <utility>

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVPing.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVSpecifierParts.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects {

bool ConveyUtils::readRegistryBeforeStart(const SoString& own) noexcept {
    return ConveyData::guarded(false, [&] {
        ConveyConnector::InitTerm::init(own);
        return !ConveyConnector::hasVersionless();
    });
}

bool ConveyUtils::pingBeforeStart(const SoString& own, const char* target, int32_t timeoutSeconds,
                                  SoString& answer) noexcept {
    return ConveyData::guarded(false, [&] {
        Convey::Specifier name(target, false);
        const CVSpecifierParts parts = CVSpecifierParts::of(name.view());
        if (parts.version.empty()) {
            return false; // who runs, and who asks, decides
        }
        const bool isComplete = !parts.locale.empty();
        InterAppStream::InitTerm::init(own);
        // Completing leaves a name with a locale as it is, and a target that runs says so itself.
        if (!isComplete || InterAppStream::presenceFor(ConveyThread::createThreadSpecifier(name)) !=
                               InterAppStream::Presence::present) {
            ConveyConnector::InitTerm::init(own);
        }
        if (!isComplete) {
            name = Convey::Specifier(target, true);
        }
        const auto ask = [&] {
            return pingResolved(CVResolution::ofCompleted(name), SoString(), timeoutSeconds,
                                nullptr);
        };
        SoString found = ask();
        if (ConveyConnector::get() == nullptr &&
            (found == ConveyThread::CV_ISNOTINSTALLED || found == ConveyThread::CV_ISNOTRUNNING)) {
            ConveyConnector::InitTerm::init(own); // it has ended since
            found = ask();
        }
        answer = std::move(found);
        return true;
    });
}

} // namespace ScObjects
