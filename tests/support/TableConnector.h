#pragma once

#include <string>
#include <vector>

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/connector/SoCVConnectorAppInfo.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoConvey.h"

// A registry that a test writes down: specifiers, each with a path made of it, and group entries.
class TableConnector : public ScObjects::ConveyConnector {
public:
    using SoString = ScObjects::SoString;
    template <class T>
    using SoVector = ScObjects::SoVector<T>;

    TableConnector(std::vector<std::string> specifiers, std::vector<std::string> groups)
        : ConveyConnector("test"), specifiers_(std::move(specifiers)), groups_(std::move(groups)) {}

    bool addToGroup(const SoString&, const SoString&, const SoString*) override { return false; }
    bool removeFromGroup(const SoString&, const SoString&, const SoString*) override {
        return false;
    }
    SoString getName() const override { return "table"; }
    uint32_t getTimestamp() const override { return 0; }

    // What a launch answers, and which targets were launched with what.
    int32_t launchResult = 0;
    std::vector<std::string> launches;
    int32_t launchTarget(const SoString& specifier, const SoString& parameters, bool inFront,
                         ScObjects::ConveyContext*) override {
        launches.push_back(std::string(specifier.c_str()) + (inFront ? " front: " : " behind: ") +
                           parameters.c_str());
        return launchResult;
    }

    int readings = 0;

protected:
    bool initLists(ScObjects::CVConnectorAppInfoList& list, SoVector<SoString>& groups) override {
        ++readings;
        for (const std::string& specifier : specifiers_) {
            auto* info = new ScObjects::CVConnectorAppInfo;
            info->specifier = specifier.c_str();
            info->path = ("/apps/" + specifier).c_str();
            list.append(info);
        }
        for (const std::string& group : groups_) {
            groups.append(new SoString(group.c_str()));
        }
        return true;
    }

private:
    const std::vector<std::string> specifiers_;
    const std::vector<std::string> groups_;
};

// The layer, started as `own` on such a registry, for the life of a block.
class StartedLayer {
public:
    StartedLayer(const char* own, std::vector<std::string> specifiers,
                 std::vector<std::string> groups = {}) {
        connector = new TableConnector(std::move(specifiers), std::move(groups));
        ScObjects::ConveyConnector::set(connector);
        started = ScObjects::Convey::InitTerm::init(own, true);
    }
    ~StartedLayer() {
        ScObjects::Convey::InitTerm::exit();
        ScObjects::ConveyConnector::InitTerm::exit();
    }
    StartedLayer(const StartedLayer&) = delete;
    StartedLayer& operator=(const StartedLayer&) = delete;

    TableConnector* connector; // owned by the layer
    bool started = false;
};
