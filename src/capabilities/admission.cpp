#include "capabilities/admission.h"

#include <algorithm>
#include <utility>

#include "util/json.h"

namespace qm {
namespace {

constexpr std::string_view kUnknownWorkspace = "the Executor workspace handle is unknown or no longer valid";

/// The array `required` of the definition's schema, empty if it has none.
const json& requiredArguments(const CapabilityDef& definition) {
    return arrayMember(definition.parameters, "required");
}

bool requiresWorkspace(const CapabilityDef& definition) {
    const json& required = requiredArguments(definition);
    return std::find(required.begin(), required.end(), "workspace") != required.end();
}

/// Throws json::type_error if the argument is no string.
std::string workspaceArgument(const json& arguments) {
    const json* argument = findMember(arguments, "workspace");
    return argument == nullptr ? std::string() : argument->get<std::string>();
}

std::optional<json> settleWorkspaceArgument(runtime::ToolInvocation& invocation) {
    if (!invocation.arguments.is_object()) invocation.arguments = json::object();
    const std::string argument = workspaceArgument(invocation.arguments);
    if (invocation.workspace.empty()) return {};
    if (!argument.empty() && argument != invocation.workspace) {
        return refusal("WORKSPACE_MISMATCH", "capability arguments do not match the admitted workspace");
    }
    invocation.arguments["workspace"] = invocation.workspace;
    return {};
}

std::optional<json> handleRefusal(const CapabilityDef& definition, const WorkspaceRegistry& workspaces,
                                  const std::string& handle) {
    if (handle.empty()) {
        if (!requiresWorkspace(definition)) return {};
        return refusal("WORKSPACE_REQUIRED", "this capability requires an Executor workspace handle");
    }
    if (!workspaces.find(handle)) return refusal("WORKSPACE_NOT_FOUND", kUnknownWorkspace);
    return {};
}

std::optional<json> argumentRefusal(const CapabilityDef& definition, const json& arguments) {
    for (const json& key : requiredArguments(definition)) {
        if (!key.is_string()) continue;
        const auto& name = key.get_ref<const std::string&>();
        if (!arguments.contains(name)) return refusal("INVALID_ARGUMENT", "missing required argument: " + name);
    }
    return {};
}

}  // namespace

json refusal(std::string_view errorCode, std::string_view text) {
    return {{"error", text}, {"errorCode", errorCode}};
}

std::optional<json> accessRefusal(const CapabilityDef& definition, const WorkspaceRegistry& workspaces,
                                  const runtime::ToolInvocation& invocation) {
    const std::string& access = invocation.access;
    if (access == "none") {
        if (!requiresWorkspace(definition)) return {};
        return refusal("PERMISSION_DENIED", "this task was admitted without workspace access");
    }
    if (access != "read" && access != "write") {
        return refusal("INVALID_ARGUMENT", "workspace access must be none, read, or write");
    }
    const auto workspace = workspaces.find(invocation.workspace);
    if (!workspace) return refusal("PERMISSION_DENIED", kUnknownWorkspace);
    const auto level = access == "write" ? WorkspacePermission::READ_WRITE : WorkspacePermission::READ_ONLY;
    const std::string text = WorkspaceRegistry::requirePermission(*workspace, level);
    if (!text.empty()) return refusal("PERMISSION_DENIED", text);
    if (access == "read" && definition.effect != "READ_ONLY") {
        return refusal("PERMISSION_DENIED", "a read-only task cannot invoke a mutating capability");
    }
    return {};
}

std::optional<json> admissionRefusal(const CapabilityDef& definition, const WorkspaceRegistry& workspaces,
                                     runtime::ToolInvocation& invocation) {
    if (auto refused = settleWorkspaceArgument(invocation)) return refused;
    std::string handle = workspaceArgument(invocation.arguments);
    if (auto refused = handleRefusal(definition, workspaces, handle)) return refused;
    // An invocation that wasn't admitted to a workspace has no access to judge, whatever stands there.
    if (!invocation.workspace.empty()) {
        if (auto refused = accessRefusal(definition, workspaces, invocation)) return refused;
    }
    if (auto refused = argumentRefusal(definition, invocation.arguments)) return refused;
    invocation.workspace = std::move(handle);
    return {};
}

}  // namespace qm
