#pragma once

#include "util/json_fwd.h"

namespace qm {

class WorkspaceRegistry;

/// What the file capabilities do, each under its capability's name: arguments in, result or {"error": text} out. No
/// state, any thread. Beside failures as results they throw a std::exception for an argument of a wrong JSON type and
/// for what the file system refuses in a way that has no text of its own; no such text names a path of the host.

json listWorkspaces(const WorkspaceRegistry& workspaces, const json& arguments);
json listDirectory(const WorkspaceRegistry& workspaces, const json& arguments);
json readFile(const WorkspaceRegistry& workspaces, const json& arguments);
json writeFile(const WorkspaceRegistry& workspaces, const json& arguments);
json makeDirectory(const WorkspaceRegistry& workspaces, const json& arguments);
json statPath(const WorkspaceRegistry& workspaces, const json& arguments);
json findFiles(const WorkspaceRegistry& workspaces, const json& arguments);

}  // namespace qm
