#include "core/status_record.h"

#include "util/json.h"
#include "util/version.h"

namespace qm {

json statusRecord(const ExecutorStatus& status) {
    const Settings& settings = status.settings;
    const ModelState& model = status.model;
    return {
        {"state", connectionStateName(status.state)},
        {"agentId", settings.nodeId},
        {"name", settings.name},
        {"description", settings.description},
        {"mode", std::string(canonicalMode(settings.mode))},
        {"gatewayUrl", settings.gatewayUrl},
        {"version", kVersion},
        {"connection", std::string(canonicalConnection(settings.connection))},
        {"authMode", std::string(canonicalAuthMode(settings.authMode))},
        {"accountEmail", settings.accountEmail},
        {"imageSupported", model.imageSupported},
        {"modelCapabilities", model.capabilities},
        {"online", status.state == ConnectionState::Connected || status.state == ConnectionState::Standalone},
        {"configured", settings.isStandalone() || !settings.executorToken.empty()},
        {"capabilityCount", status.capabilityCount},
        {"workspaceCount", status.workspaceCount},
        {"modelSource", model.source},
        {"modelConfigured", model.ready},
        {"modelName", model.modelName},
        {"modelFollowsGateway", model.followsGateway()},
        {"maxTaskRounds", model.maxTaskRounds},
    };
}

}  // namespace qm
