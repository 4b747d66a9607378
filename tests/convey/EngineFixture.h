#pragma once

#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "tests/support/Peers.h"
#include "tests/support/TableConnector.h"

// What the tests of the engine within one process share.

class EngineTest : public testing::Test {
protected:
    EngineTest() : layer("own-1.0", {"own-1.0", "other-2.0", "docsafe-8.0"}) {
        EXPECT_TRUE(layer.started);
    }

    StartedLayer layer;
};
