#include "device/workspace_registry.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "device/canonical_path.h"
#include "util/file_io.h"
#include "util/json.h"
#include "util/random_id.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr std::string_view kPathWhitespace = " \t\r\n";

constexpr std::array<const char*, 4> kPermissionNames{"READ_ONLY", "READ_WRITE", "EXECUTE", "FULL"};

/// Nothing if the member is there but is no string.
std::optional<std::string> textOr(const json& element, std::string_view key, std::string_view fallback) {
    const json* member = findMember(element, key);
    if (member == nullptr) return std::string(fallback);
    if (!member->is_string()) return std::nullopt;
    return member->get<std::string>();
}

std::optional<Workspace> readWorkspace(const json& element) {
    if (!element.is_object()) return std::nullopt;
    auto id = textOr(element, "id", "");
    auto label = textOr(element, "label", "");
    const auto hostPath = textOr(element, "hostPath", "");
    const auto permission = textOr(element, "permission", "READ_WRITE");
    if (!id || !label || !hostPath || !permission || id->empty() || hostPath->empty()) return std::nullopt;
    return Workspace{std::move(*id), std::move(*label), *hostPath, parsePermission(*permission)};
}

std::string unknownWorkspaceText(std::string_view id, const std::vector<Workspace>& available) {
    std::string text = "未知的 workspace：";
    text += id.empty() ? std::string_view("(未提供)") : id;
    text += "。可用：";
    std::string_view separator;
    for (const auto& workspace : available) {
        text += separator;
        text += workspace.id + "(" + workspace.label + ")";
        separator = ", ";
    }
    return text;
}

/// The path as an agent may write it, in the form that is checked and shown: trimmed, "/" only, empty for the root.
std::string normalisedInput(std::string_view relativePath) {
    std::string path(trimmed(relativePath, kPathWhitespace));
    if (path == ".") path.clear();
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

bool hasParentComponent(std::string_view path) {
    while (true) {
        const std::size_t end = path.find('/');
        if (path.substr(0, end) == "..") return true;
        if (end == std::string_view::npos) return false;
        path.remove_prefix(end + 1);
    }
}

/// Why `path` may not even be looked up; empty if it may.
std::string lexicalRefusal(std::string_view path) {
    // A colon would name a drive or an alternate data stream on other systems; it is refused on all.
    if (path.starts_with('/') || path.find(':') != std::string_view::npos) {
        return "只接受工作区内的相对路径，不允许宿主机绝对路径。";
    }
    if (hasParentComponent(path)) return "路径不允许包含 `..`。";
    return {};
}

/// Canonical root and candidate, either of which may be missing in part; of the candidate that counts the root too.
struct Located {
    CanonicalPath root;
    CanonicalPath candidate;
};

Located locate(const std::filesystem::path& hostPath, std::string_view path) {
    Located located;
    const std::string_view root = hostPath == "/" ? "/" : withoutTrailingSlashes(hostPath.native());
    std::string whole = joinBelow(root, path);
    // Nearly all look-ups meet an existing path without links, and one system call tells for root and path together.
    if (existsAsCanonical(whole)) {
        located.root.path = root;
        located.candidate.path = std::move(whole);
        return located;
    }
    if (existsAsCanonical(root)) {
        located.root.path = root;
    } else {
        // Records that were written by hand may hold anything, a path relative to the working directory too.
        const auto absolute = std::filesystem::absolute(hostPath, located.root.error);
        if (located.root.error) return located;
        located.root = followLinks("/", withoutTrailingSlashes(absolute.native()));
        // What stops the way to the root stops the way through it.
        located.candidate.error = located.root.error;
        if (located.root.error) return located;
    }
    located.candidate = followLinks(located.root.path, path);
    located.candidate.missing += located.root.missing;
    return located;
}

}  // namespace

const char* permissionName(WorkspacePermission permission) {
    return kPermissionNames.at(static_cast<std::size_t>(permission));
}

WorkspacePermission parsePermission(std::string_view text) {
    const auto* const found = std::find(kPermissionNames.begin(), kPermissionNames.end(), text);
    if (found == kPermissionNames.end()) return WorkspacePermission::READ_ONLY;
    return static_cast<WorkspacePermission>(found - kPermissionNames.begin());
}

WorkspaceRegistry::WorkspaceRegistry(const std::filesystem::path& dataDir) : file_(dataDir / "workspaces.json") {}

void WorkspaceRegistry::load() {
    const auto text = readRegularFile(file_);
    if (!text) return;
    const json document = json::parse(*text, nullptr, false);
    std::vector<Workspace> loaded;
    for (const auto& element : arrayMember(document, "workspaces")) {
        if (auto workspace = readWorkspace(element)) loaded.push_back(std::move(*workspace));
    }
    const std::lock_guard lock(mutex_);
    workspaces_ = std::move(loaded);
}

std::vector<Workspace> WorkspaceRegistry::list() const {
    const std::lock_guard lock(mutex_);
    return workspaces_;
}

std::optional<Workspace> WorkspaceRegistry::find(std::string_view id) const {
    const std::lock_guard lock(mutex_);
    for (const auto& workspace : workspaces_) {
        if (workspace.id == id) return workspace;
    }
    return std::nullopt;
}

WorkspaceRegistry::AddResult WorkspaceRegistry::add(std::string_view path, std::string_view label,
                                                    WorkspacePermission permission) {
    const std::string given(trimmed(path, kPathWhitespace));
    if (given.empty()) return {std::nullopt, "目录不能为空"};
    std::error_code error;
    std::filesystem::path canonical;
    // A NUL would cut the path short on its way to the kernel.
    if (given.find('\0') == std::string::npos) canonical = std::filesystem::canonical(given, error);
    if (canonical.empty() || error || !std::filesystem::is_directory(canonical, error)) {
        return {std::nullopt, "目录不存在：" + given};
    }

    Workspace workspace{{}, std::string(trimmed(label, kPathWhitespace)), canonical, permission};
    if (workspace.label.empty()) workspace.label = canonical == "/" ? "/" : canonical.filename().string();

    const std::lock_guard lock(mutex_);
    for (const auto& existing : workspaces_) {
        if (existing.hostPath == canonical) return {std::nullopt, "该目录已经是工作区"};
    }
    workspace.id = randomId("ws_", 8);
    workspaces_.push_back(workspace);
    save();
    return {std::move(workspace), {}};
}

bool WorkspaceRegistry::remove(std::string_view id) {
    const std::lock_guard lock(mutex_);
    if (std::erase_if(workspaces_, [id](const Workspace& workspace) { return workspace.id == id; }) == 0) return false;
    save();
    return true;
}

bool WorkspaceRegistry::setPermission(std::string_view id, WorkspacePermission permission) {
    const std::lock_guard lock(mutex_);
    for (auto& workspace : workspaces_) {
        if (workspace.id != id) continue;
        workspace.permission = permission;
        save();
        return true;
    }
    return false;
}

std::string WorkspaceRegistry::requirePermission(const Workspace& workspace, WorkspacePermission level) {
    if (workspace.permission >= level) return {};
    return "工作区 " + workspace.label + " 的权限档位是 " + permissionName(workspace.permission) + "，此操作需要 " +
           permissionName(level) + "。请在 Executor 界面调整。";
}

ResolvedPath WorkspaceRegistry::resolve(std::string_view id, std::string_view relativePath, ResolveMode mode) const {
    ResolvedPath resolved;
    const auto refuse = [&resolved](std::string text) {
        resolved.error = std::move(text);
        return resolved;
    };

    const auto workspaces = list();
    if (workspaces.empty()) {
        return refuse("本设备尚未配置任何工作区，文件与终端能力已拒绝执行。请在 Executor 界面里添加一个工作目录。");
    }
    const auto workspace =
        std::find_if(workspaces.begin(), workspaces.end(), [id](const Workspace& each) { return each.id == id; });
    if (workspace == workspaces.end()) return refuse(unknownWorkspaceText(id, workspaces));

    const std::string path = normalisedInput(relativePath);
    if (auto refusal = lexicalRefusal(path); !refusal.empty()) return refuse(std::move(refusal));

    const auto [root, candidate] = locate(workspace->hostPath, path);
    if (candidate.error) return refuse("无法解析路径：" + candidate.error.message());
    if (root.error) return refuse("工作区根目录不可用");
    if (!isWithin(root.path, candidate.path)) return refuse("路径逃逸出工作区，已拒绝。");
    if (mode == ResolveMode::MustExist && candidate.missing > 0) return refuse("路径不存在：" + path);
    if (mode == ResolveMode::ParentMustExist && candidate.missing > 1) return refuse("上级目录不存在：" + path);

    resolved.ok = true;
    resolved.hostPath = candidate.path;
    resolved.relativePath = relativeTo(root.path, candidate.path);
    resolved.rootPath = root.path;
    resolved.namesLink = candidate.namesLink;
    return resolved;
}

std::optional<WorkspaceRegistry::PresumedPath> WorkspaceRegistry::presume(std::string_view id,
                                                                          std::string_view relativePath) const {
    PresumedPath presumed{{}, normalisedInput(relativePath)};
    if (presumed.relativePath.empty() || !lexicalRefusal(presumed.relativePath).empty()) return std::nullopt;
    {
        const std::lock_guard lock(mutex_);
        const auto workspace =
            std::find_if(workspaces_.begin(), workspaces_.end(), [id](const Workspace& each) { return each.id == id; });
        if (workspace == workspaces_.end()) return std::nullopt;
        presumed.hostPath = joinBelow(workspace->hostPath.native(), presumed.relativePath);
    }
    if (!isPlainAbsolute(presumed.hostPath)) return std::nullopt;
    return presumed;
}

// Overwrites in place, with mutex_ held: the table is small and changes at the owner's hand only.
void WorkspaceRegistry::save() const {
    json records = json::array();
    for (const auto& workspace : workspaces_) {
        records.push_back(json::object({{"id", workspace.id},
                                        {"label", workspace.label},
                                        {"hostPath", workspace.hostPath.native()},
                                        {"permission", permissionName(workspace.permission)}}));
    }
    std::filesystem::create_directories(file_.parent_path());
    if (!writeRegularFile(file_, dumpJsonPretty(json::object({{"workspaces", records}})))) {
        throw std::runtime_error("cannot save " + file_.string());
    }
}

}  // namespace qm
