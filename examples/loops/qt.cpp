// A Qt program without a window that takes part until it is told "quit".
#include <QCoreApplication>
#include <cstdio>

#include "Greeter.h"
#include "adapters/ConveyQt.h"

using ScObjects::Convey;

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    Convey::Messenger messenger("qt-1.0");
    greet(messenger, [](const std::string& body) {
        std::puts(body.c_str());
        if (body == "quit") {
            QCoreApplication::quit();
        }
    });
    if (ScObjects::ConveyQt::attach(&application) == nullptr) {
        return 1;
    }
    const int status = QCoreApplication::exec();
    return status;
}
