#include <memory>
#include <set>
#include <string>
#include <utility>

#include "core/gateway_dispatch.h"
#include "core/gateway_services.h"
#include "util/log.h"
#include "util/text.h"

namespace qm {
namespace {

/// Takes member `key` out of the frame; null if there is none.
json takeMember(json& frame, const char* key) {
    const auto member = frame.find(key);
    return member == frame.end() ? json() : std::move(*member);
}

void execute(const GatewayHost& host, GatewayRequest&& request) {
    const json* id = findMember(request.frame, "capabilityId");
    std::string name =
        id != nullptr && id->is_string() ? id->get<std::string>() : stringMember(request.frame, "capability");
    // Shared, because a std::function must be copyable and these may be megabytes.
    auto arguments = std::make_shared<json>(takeMember(request.frame, "args"));
    auto context = std::make_shared<const json>(takeMember(request.frame, "invocation"));
    request.frame = nullptr;
    host.detachGuarded("execute",
                       [services = host.services, stop = host.stopToken, request = std::move(request),
                        name = std::move(name), arguments = std::move(arguments), context = std::move(context)] {
                           request.reply("executeResult", "result",
                                         services->pipeline.invoke(name, std::move(*arguments), *context, stop));
                       });
}

std::string noResolutionText(const GatewayRequest& request) {
    return "Capability does not support resolution: " + stringMember(request.frame, "capabilityId");
}

void refuseResolution(const GatewayHost&, GatewayRequest&& request) {
    request.reply("resolutionToolResult", "result", {{"error", noResolutionText(request)}});
}

void refuseValidation(const GatewayHost&, GatewayRequest&& request) {
    request.reply("validateCapabilityArgsResult", "validation",
                  {{"valid", false}, {"code", "CANONICAL_SEMANTIC_INVALID"}, {"message", noResolutionText(request)}});
}

void syncPolicy(const GatewayHost& host, GatewayRequest&& request) {
    const json* list = findMember(request.frame, "disabledCapabilityIds");
    if (list == nullptr || !list->is_array()) return;
    std::set<std::string> disabled;
    for (const json& id : *list) {
        if (id.is_string()) disabled.insert(id.get<std::string>());
    }
    const std::size_t count = disabled.size();
    host.services->policy.replaceAll(std::move(disabled));
    log(LogLevel::Info, "capability policy synchronized: " + std::to_string(count) + " disabled");
}

void updatePolicy(const GatewayHost& host, GatewayRequest&& request) {
    const std::string id = stringMember(request.frame, "capabilityId");
    if (trimmed(id).empty()) {
        request.reply("capabilityPolicyAck", "data", {{"ok", false}, {"error", "capabilityId must not be blank"}});
        return;
    }
    const bool enabled = boolMember(request.frame, "enabled", true);
    host.services->policy.set(id, enabled);
    request.reply("capabilityPolicyAck", "data", {{"ok", true}, {"capabilityId", id}, {"enabled", enabled}});
}

}  // namespace

const std::vector<GatewayCommand>& capabilityCommands() {
    static const std::vector<GatewayCommand> commands{
        {"execute", execute},
        {"resolutionToolExecute", refuseResolution},
        {"validateCapabilityArgs", refuseValidation},
        {"capabilityPolicySync", syncPolicy},
        {"capabilityPolicyUpdate", updatePolicy},
    };
    return commands;
}

}  // namespace qm
