#include "platform/StandardStreams.h"
#include "tools/convey/Output.h"
#include "tools/convey/Session.h"
#include "tools/convey/Tool.h"

int main(int argc, char** argv) {
    using convey_tool::kNoLayer;
    convey_tool::Ending::finish(platform::StandardStreams::run(
        "convey", kNoLayer, kNoLayer, [&] { return conveyToolMain(argc, argv); }));
}
