#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "util/unique_fd.h"

namespace qm {

/// Levels of one order: each grants everything below it.
enum class WorkspacePermission { READ_ONLY = 0, READ_WRITE = 1, EXECUTE = 2, FULL = 3 };

/// The level's name as it stands in files and results.
const char* permissionName(WorkspacePermission permission);
/// Case-sensitive; everything unknown is READ_ONLY.
WorkspacePermission parsePermission(std::string_view text);

/// A directory of the host that its owner has opened to agents.
struct Workspace {
    std::string id;                  ///< Opaque handle: "ws_" and 8 random characters.
    std::string label;               ///< Name for people.
    std::filesystem::path hostPath;  ///< Canonical absolute directory.
    WorkspacePermission permission = WorkspacePermission::READ_ONLY;
};

/// A workspace-relative path that was found to stay inside its workspace.
struct ResolvedPath {
    bool ok = false;
    std::filesystem::path hostPath;  ///< Absolute path on the host; never shown to agents.
    std::string relativePath;        ///< Relative to the workspace root with "/"; empty for the root itself.
    std::string error;
    std::filesystem::path rootPath;  ///< Canonical root, to open `relativePath` below it; may be missing itself.
    bool namesLink = false;          ///< The path as it was given names a symbolic link.
};

/// What a caller needs of the target of resolve().
enum class ResolveMode {
    MustExist = 0,
    ParentMustExist = 1,  ///< About to create or replace a file.
    MayBeMissing = 2,     ///< About to create directories.
};

/// The table of workspaces, kept in `workspaces.json`, and the one place that turns a handle and a relative path into
/// a path of the host. Any thread may call anything; file-system work of resolve() runs with no lock held.
class WorkspaceRegistry {
public:
    struct AddResult {
        std::optional<Workspace> workspace;
        std::string error;  ///< Empty on success.
    };

    /// Keeps its file below `dataDir`; reads nothing yet.
    explicit WorkspaceRegistry(const std::filesystem::path& dataDir);

    /// Reads the file, once at start. An absent or damaged file leaves the table empty; a damaged element is skipped.
    void load();

    std::vector<Workspace> list() const;
    std::optional<Workspace> find(std::string_view id) const;

    /// Opens `path` to agents under a new handle. Throws what saving throws, with the table already changed.
    AddResult add(std::string_view path, std::string_view label, WorkspacePermission permission);
    /// Whether there was such a record. Throws what saving throws.
    bool remove(std::string_view id);
    /// Whether there is such a record. Throws what saving throws.
    bool setPermission(std::string_view id, WorkspacePermission permission);

    /// Empty if `workspace` grants `level`, otherwise the refusal for the user.
    static std::string requirePermission(const Workspace& workspace, WorkspacePermission level);

    /// Never throws for bad input: `ok` is false and `error` says why.
    ResolvedPath resolve(std::string_view id, std::string_view relativePath, ResolveMode mode) const;

    /// Where a path lies if it leads through no link, found without a look at the disk. Nothing where only resolve()
    /// can tell: an unknown handle, a path that it would refuse, or one with "." or doubled slashes. For callers that
    /// open what is there without following links, and ask resolve() when that fails.
    struct PresumedPath {
        std::string hostPath;
        std::string relativePath;
    };
    std::optional<PresumedPath> presume(std::string_view id, std::string_view relativePath) const;

private:
    void save() const;

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    std::vector<Workspace> workspaces_;
};

}  // namespace qm
