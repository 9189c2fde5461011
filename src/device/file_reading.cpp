// list_workspaces, list_directory, read_file and stat_path: what looks at a workspace and changes nothing.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "capabilities/capability_arguments.h"
#include "capabilities/capability_result.h"
#include "device/directory_reader.h"
#include "device/filesystem_handlers.h"
#include "device/workspace_files.h"
#include "device/workspace_registry.h"
#include "util/json.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::size_t kMaxEntries = 500;
constexpr std::int64_t kMaxReadBytes = 131072;

ResolvedPath resolveExisting(const WorkspaceRegistry& workspaces, const json& arguments) {
    return workspaces.resolve(textArgument(arguments, "workspace"), textArgument(arguments, "path"),
                              ResolveMode::MustExist);
}

const char* typeName(EntryType type) {
    switch (type) {
        case EntryType::File:
            return "file";
        case EntryType::Directory:
            return "dir";
        case EntryType::Symlink:
            return "symlink";
        case EntryType::Other:
            break;
    }
    return "other";
}

/// Null if the entry is gone or has become something else since its name was read. Where the size can't be told, as in
/// a directory that may be read but not entered, it is left out.
json describeEntry(const DirectoryEntry& entry, int directory) {
    json described{{"name", toStrictUtf8(entry.name)}, {"type", typeName(entry.type)}};
    if (entry.type != EntryType::File) return described;
    struct stat status {};
    if (::fstatat(directory, entry.name.data(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? json() : described;
    }
    if (!S_ISREG(status.st_mode)) return nullptr;
    described["sizeBytes"] = status.st_size;
    return described;
}

/// At most `wanted` bytes from `offset` on. A file that claims to be empty may still have content, as those of /proc.
std::string readPiece(int file, std::int64_t sizeBytes, std::int64_t offset, std::int64_t wanted) {
    if (sizeBytes > 0) wanted = std::clamp<std::int64_t>(sizeBytes - offset, 0, wanted);
    std::string piece(static_cast<std::size_t>(wanted), '\0');
    std::size_t used = 0;
    while (used < piece.size()) {
        const ssize_t count =
            ::pread(file, piece.data() + used, piece.size() - used, offset + static_cast<std::int64_t>(used));
        if (count < 0 && errno == EINTR) continue;
        // The greatest offsets are refused by the kernel instead of lying behind the end.
        if (count < 0 && errno != EINVAL)
            throw std::system_error(errno, std::generic_category(), "cannot read the file");
        if (count <= 0) break;
        used += static_cast<std::size_t>(count);
    }
    piece.resize(used);
    return piece;
}

/// A regular file, open for reading, or why there is none.
struct OpenedFile {
    UniqueFd descriptor;
    struct stat status {};
    std::string relativePath;
    std::string refusal;
};

OpenedFile openForReading(const WorkspaceRegistry& workspaces, const json& arguments) {
    OpenedFile file;
    if (auto presumed = workspaces.presume(textArgument(arguments, "workspace"), textArgument(arguments, "path"))) {
        file.descriptor = openRegularFileWithoutLinks(presumed->hostPath, file.status);
        file.relativePath = std::move(presumed->relativePath);
        if (file.descriptor) return file;
    }
    auto resolved = resolveExisting(workspaces, arguments);
    if (!resolved.ok) {
        file.refusal = std::move(resolved.error);
        return file;
    }
    std::error_code error;
    file.descriptor =
        RootDirectory(resolved.rootPath).openRegularFile(resolved.relativePath, O_RDONLY, file.status, error);
    file.relativePath = std::move(resolved.relativePath);
    if (error) file.refusal = error == RootDirectory::kNotRegularFile ? "不是普通文件" : "无法打开文件";
    return file;
}

}  // namespace

json listWorkspaces(const WorkspaceRegistry& workspaces, const json&) {
    json listed = json::array();
    for (const auto& workspace : workspaces.list()) {
        listed.push_back(json{{"workspace", workspace.id},
                              {"label", workspace.label},
                              {"permission", permissionName(workspace.permission)}});
    }
    if (listed.empty()) {
        return failure("本设备尚未配置任何工作区，文件与命令能力不可用。请在 Executor 界面添加一个工作目录。");
    }
    return json{{"workspaces", std::move(listed)}};
}

json listDirectory(const WorkspaceRegistry& workspaces, const json& arguments) {
    const auto resolved = resolveExisting(workspaces, arguments);
    if (!resolved.ok) return failure(resolved.error);

    std::error_code error;
    UniqueFd directory = RootDirectory(resolved.rootPath).open(resolved.relativePath, O_RDONLY | O_DIRECTORY, error);
    if (error == std::errc::not_a_directory) return failure("不是目录");
    if (!directory) throw std::system_error(error, "cannot open the directory");

    DirectoryReader reader(std::move(directory));
    json entries = json::array();
    bool truncated = false;
    while (const auto* const entry = reader.next(error)) {
        truncated = entries.size() == kMaxEntries;
        if (truncated) break;
        if (json described = describeEntry(*entry, reader.descriptor()); !described.is_null()) {
            entries.push_back(std::move(described));
        }
    }
    if (error) throw std::system_error(error, "cannot read the directory");
    return json{
        {"path", toStrictUtf8(resolved.relativePath)}, {"entries", std::move(entries)}, {"truncated", truncated}};
}

json readFile(const WorkspaceRegistry& workspaces, const json& arguments) {
    const std::int64_t offset = std::max<std::int64_t>(integerArgument(arguments, "offsetBytes", 0), 0);
    const std::int64_t wanted =
        std::clamp<std::int64_t>(integerArgument(arguments, "maxBytes", kMaxReadBytes), 0, kMaxReadBytes);
    const OpenedFile file = openForReading(workspaces, arguments);
    if (!file.descriptor) return failure(file.refusal);

    const std::string raw = readPiece(file.descriptor.get(), file.status.st_size, offset, wanted);
    std::string content = sanitizeUtf8(raw);
    // Unsigned, because an offset near the end of the range and a piece more pass the signed one.
    const std::uint64_t nextOffset = static_cast<std::uint64_t>(offset) + raw.size();
    const auto totalBytes = static_cast<std::uint64_t>(file.status.st_size);
    json result;
    result["path"] = toStrictUtf8(file.relativePath);
    result["sanitized"] = content != raw;
    result["content"] = std::move(content);
    result["bytesRead"] = raw.size();
    result["totalBytes"] = totalBytes;
    result["truncated"] = totalBytes > nextOffset;
    result["nextOffsetBytes"] = nextOffset;
    return result;
}

json statPath(const WorkspaceRegistry& workspaces, const json& arguments) {
    const auto resolved = resolveExisting(workspaces, arguments);
    if (!resolved.ok) return failure(resolved.error);

    std::error_code error;
    const auto status = RootDirectory(resolved.rootPath).status(resolved.relativePath, error);
    if (!status) throw std::system_error(error, "cannot look at the path");
    json result{{"path", toStrictUtf8(resolved.relativePath)},
                {"exists", true},
                {"isDirectory", S_ISDIR(status->st_mode)},
                {"isFile", S_ISREG(status->st_mode)},
                {"isSymlink", resolved.namesLink}};
    if (S_ISREG(status->st_mode)) result["sizeBytes"] = status->st_size;
    return result;
}

}  // namespace qm
