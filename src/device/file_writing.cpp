// write_file and make_directory: what changes a workspace.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "capabilities/capability_arguments.h"
#include "capabilities/capability_result.h"
#include "device/canonical_path.h"
#include "device/filesystem_handlers.h"
#include "device/line_changes.h"
#include "device/workspace_files.h"
#include "device/workspace_registry.h"
#include "util/json.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::size_t kMaxContentBytes = 4194304;

/// A path in a workspace that may be written to, or why it may not.
struct WritablePath {
    ResolvedPath resolved;
    std::string refusal;
};

WritablePath resolveForWriting(const WorkspaceRegistry& workspaces, const json& arguments, ResolveMode mode) {
    const std::string& id = textArgument(arguments, "workspace");
    const auto workspace = workspaces.find(id);
    if (!workspace) return {{}, "未知的 workspace：" + id};
    if (auto refusal = WorkspaceRegistry::requirePermission(*workspace, WorkspacePermission::READ_WRITE);
        !refusal.empty()) {
        return {{}, std::move(refusal)};
    }
    WritablePath target{workspaces.resolve(id, textArgument(arguments, "path"), mode), {}};
    if (!target.resolved.ok) target.refusal = target.resolved.error;
    return target;
}

/// What the file holds so far; empty if there is none, or none that can be read or compared.
std::string oldContent(const RootDirectory& root, const std::string& path) {
    struct stat status {};
    std::error_code ignored;
    const UniqueFd file = root.openRegularFile(path, O_RDONLY, status, ignored);
    if (!file || status.st_size > static_cast<off_t>(kMaxContentBytes)) return {};
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t used = 0;
    while (used < content.size()) {
        const ssize_t count = ::read(file.get(), content.data() + used, content.size() - used);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        used += static_cast<std::size_t>(count);
    }
    content.resize(used);
    return content;
}

bool writeAndClose(UniqueFd file, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = ::write(file.get(), content.data(), content.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    // Some file systems tell of a full disk here only. After EINTR the descriptor is gone and the data is on its way.
    return ::close(file.release()) == 0 || errno == EINTR;
}

}  // namespace

json writeFile(const WorkspaceRegistry& workspaces, const json& arguments) {
    const std::string& content = textArgument(arguments, "content");
    const bool append = boolArgument(arguments, "append", false);
    const auto [resolved, refusal] = resolveForWriting(workspaces, arguments, ResolveMode::ParentMustExist);
    if (!refusal.empty()) return failure(refusal);
    if (content.size() > kMaxContentBytes) return failure("内容超过 4 MiB 上限");

    const RootDirectory root(resolved.rootPath);
    const std::string before = oldContent(root, resolved.relativePath);
    const LineChanges lines = append ? linesAppended(before, content) : linesReplaced(before, content);
    struct stat status {};
    std::error_code error;
    UniqueFd file =
        root.openRegularFile(resolved.relativePath, O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), status, error);
    if (!file) return failure("无法写入文件");
    if (!writeAndClose(std::move(file), content)) return failure("写入失败");
    return json{{"path", toStrictUtf8(resolved.relativePath)},
                {"bytesWritten", content.size()},
                {"appended", append},
                {"linesAdded", lines.added},
                {"linesRemoved", lines.removed}};
}

json makeDirectory(const WorkspaceRegistry& workspaces, const json& arguments) {
    const auto [resolved, refusal] = resolveForWriting(workspaces, arguments, ResolveMode::MayBeMissing);
    if (!refusal.empty()) return failure(refusal);

    std::error_code error;
    // A root that was lost comes back first, so that the rest is made below a descriptor of it as always.
    const bool rootCreated = RootDirectory("/").makeDirectories(relativeTo("/", resolved.rootPath.native()), error);
    if (error) return failure("创建目录失败");
    const bool created = RootDirectory(resolved.rootPath).makeDirectories(resolved.relativePath, error);
    if (error) return failure("创建目录失败");
    return json{{"path", toStrictUtf8(resolved.relativePath)}, {"created", rootCreated || created}};
}

}  // namespace qm
