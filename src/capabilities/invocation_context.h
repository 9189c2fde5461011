#pragma once

#include <string_view>

#include "runtime/tool_invocation.h"
#include "util/json_fwd.h"

namespace qm {

/// Reads the plain-JSON form of an invocation's context as the gateway sends it. `arguments` or `context` that are no
/// objects count as empty ones. Throws json::type_error for a member of the wrong type; budgets are the exception: what
/// isn't a positive integer leaves the default, and no value raises one. Numbers beyond the field's range become its
/// nearest value.
runtime::ToolInvocation invocationFromContext(std::string_view name, json arguments, const json& context);

}  // namespace qm
