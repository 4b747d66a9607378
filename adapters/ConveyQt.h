#pragma once

#include <QObject>
#include <QSocketNotifier>

#include "scriptobjects/convey/SoConvey.h"

namespace ScObjects::ConveyQt {

// Lets the Qt event loop of the calling thread serve the layer: handlers run in it. Deleted with
// `parent`, or by the caller. Null when the system gives no descriptor. The program links QtCore
// itself.
inline QSocketNotifier* attach(QObject* parent) {
    const int descriptor = Convey::getPollDescriptor();
    if (descriptor < 0) {
        return nullptr;
    }
    auto* const notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, parent);
    QObject::connect(notifier, &QSocketNotifier::activated, notifier,
                     [] { (void)Convey::pump(kProcessBoth); });
    return notifier;
}

} // namespace ScObjects::ConveyQt
