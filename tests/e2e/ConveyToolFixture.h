#pragma once

#include <nlohmann/json.hpp>

#include "tests/e2e/Scene.h"

using Json = nlohmann::json;

// The tool on the sample registry, beside a host that runs as lumen.
class ConveyToolTest : public Scene {
protected:
    ConveyToolTest() {
        setenv("LC_ALL", "en_US.UTF-8", 1);
        const ProcessResult filled = runProcess({OVREL_CAPS_TOOL, "import", SAMPLE_REGISTRY});
        EXPECT_EQ(filled.exitStatus, 0) << filled.err;
        lumen = host("lumen-2.5-en_us", {"--quiet"});
    }
    static ProcessResult tool(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), CONVEY_PROGRAM);
        return runProcess(arguments);
    }
    static Json json(std::vector<std::string> arguments) {
        arguments.emplace_back("--json");
        return Json::parse(tool(arguments).out);
    }

    std::unique_ptr<RunningProcess> lumen;
};
