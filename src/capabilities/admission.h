#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "capabilities/capability_def.h"
#include "device/workspace_registry.h"
#include "runtime/tool_invocation.h"
#include "util/json_fwd.h"

namespace qm {

/// A refusal as the caller gets it.
json refusal(std::string_view errorCode, std::string_view text);

/// Judges workspace, access and required arguments of an invocation of `definition`, in this order; nothing if all are
/// in order. Then `invocation.arguments` is an object that holds the admitted workspace if there is one, and
/// `invocation.workspace` is the handle in the arguments, so that a handler finds the same one in both. After a refusal
/// `invocation` is of no more use. Throws json::type_error if the argument `workspace` is no string. Any thread.
std::optional<json> admissionRefusal(const CapabilityDef& definition, const WorkspaceRegistry& workspaces,
                                     runtime::ToolInvocation& invocation);

/// The step of the above that judges the access to the workspace an invocation was admitted to. It looks the workspace
/// up itself, because it may have been closed since the step before.
std::optional<json> accessRefusal(const CapabilityDef& definition, const WorkspaceRegistry& workspaces,
                                  const runtime::ToolInvocation& invocation);

}  // namespace qm
