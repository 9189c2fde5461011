// find_files: the names in a subtree that match a pattern.

#include <fcntl.h>
#include <sys/stat.h>

#include <system_error>
#include <utility>

#include "capabilities/capability_arguments.h"
#include "capabilities/capability_result.h"
#include "device/filesystem_handlers.h"
#include "device/glob.h"
#include "device/tree_walk.h"
#include "device/workspace_files.h"
#include "device/workspace_registry.h"
#include "util/json.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::size_t kMaxMatches = 500;
constexpr std::size_t kMaxVisitedEntries = 20000;

/// A link to a file counts as a file; only of those whose name matches does anyone ask where they lead.
bool isMatchingFile(const TreeWalk::Entry& entry, const Glob& glob) {
    if (entry.type != EntryType::File && entry.type != EntryType::Symlink) return false;
    if (!glob.matches(entry.name)) return false;
    if (entry.type == EntryType::File) return true;
    struct stat status {};
    return ::fstatat(entry.directory, entry.name.data(), &status, 0) == 0 && S_ISREG(status.st_mode);
}

json collectMatches(UniqueFd start, const Glob& glob, const std::string& prefix) {
    json matches = json::array();
    TreeWalk walk(std::move(start));
    for (std::size_t visited = 0; visited < kMaxVisitedEntries && matches.size() < kMaxMatches; ++visited) {
        const auto* const entry = walk.next();
        if (entry == nullptr) break;
        if (!isMatchingFile(*entry, glob)) continue;
        std::string path = prefix;
        path += entry->path;
        matches.push_back(toStrictUtf8(path));
    }
    return matches;
}

}  // namespace

json findFiles(const WorkspaceRegistry& workspaces, const json& arguments) {
    const auto resolved = workspaces.resolve(textArgument(arguments, "workspace"), textArgument(arguments, "path"),
                                             ResolveMode::MustExist);
    if (!resolved.ok) return failure(resolved.error);
    const std::string& pattern = textArgument(arguments, "pattern");
    if (pattern.empty()) return failure("pattern 不能为空");

    std::error_code error;
    UniqueFd start = RootDirectory(resolved.rootPath).open(resolved.relativePath, O_RDONLY | O_DIRECTORY, error);
    if (error == std::errc::not_a_directory) return failure("不是目录");
    json matches = json::array();
    // Directories that may not be entered are passed over, the first one like any other.
    if (start) {
        const std::string prefix = resolved.relativePath.empty() ? std::string() : resolved.relativePath + "/";
        matches = collectMatches(std::move(start), Glob(pattern), prefix);
    } else if (error != std::errc::permission_denied) {
        throw std::system_error(error, "cannot open the directory");
    }
    const bool truncated = matches.size() == kMaxMatches;
    return json{{"matches", std::move(matches)}, {"truncated", truncated}};
}

}  // namespace qm
