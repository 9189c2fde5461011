#pragma once

namespace qm {

class CapabilityRegistry;
class WorkspaceRegistry;

/// Adds `list_workspaces`, `list_directory`, `read_file`, `write_file`, `make_directory`, `stat_path` and `find_files`.
/// Their handlers hold no state and run on any thread; `workspaces` must outlive them. They answer failures as an
/// object with `error`, and throw a std::exception for arguments of a wrong JSON type and where the file system fails
/// in a way that has no text of its own: a disk that can't be read, a directory that can't be opened, a path that can't
/// be looked at.
void registerFilesystemCapabilities(CapabilityRegistry& registry, WorkspaceRegistry& workspaces);

}  // namespace qm
