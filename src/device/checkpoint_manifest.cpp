#include "device/checkpoint_manifest.h"

#include <sys/stat.h>

#include <algorithm>
#include <limits>

#include "device/checkpoint_file_io.h"
#include "util/json.h"

namespace qm {
namespace {

/// The list of files as it begins and ends in a manifest: neither text can stand anywhere else in one, because a
/// quotation mark within a JSON string has a backslash before it.
constexpr std::string_view kFilesBegin = R"("files":[)";
constexpr std::string_view kFilesEnd = R"(],"gitHead":)";
/// Before the list stand two flags and two times; behind it short texts and a label that is seldom long.
constexpr std::size_t kEndBytes = 4096;

/// A path that a checkpoint may name: relative, every component a name, and nothing of the repository's own directory.
bool isInnerPath(std::string_view path) {
    if (path.find('\0') != std::string_view::npos || path == ".git" || path.starts_with(".git/")) return false;
    for (;;) {
        const auto end = path.find('/');
        const auto component = path.substr(0, end);
        if (component.empty() || component == "." || component == "..") return false;
        if (end == std::string_view::npos) return true;
        path.remove_prefix(end + 1);
    }
}

CheckpointFile parseFile(const json& entry) {
    CheckpointFile file;
    file.path = stringMember(entry, "path");
    file.sizeBytes = static_cast<std::uint64_t>(std::max<std::int64_t>(integerMember(entry, "sizeBytes", 0), 0));
    file.sha256 = stringMember(entry, "sha256");
    file.captured = boolMember(entry, "captured", false);
    return file;
}

std::optional<CheckpointSummary> summaryOf(std::string_view text) {
    const json manifest = json::parse(text, nullptr, false);
    const json* files = findMember(manifest, "files");
    if (files == nullptr || !files->is_array()) return std::nullopt;
    CheckpointSummary summary;
    summary.workspaceId = stringMember(manifest, "workspaceId");
    summary.sortKey = integerMember(manifest, "createdAtNs", 0);
    if (summary.sortKey <= 0) {
        constexpr std::int64_t kNsPerMs = 1'000'000;
        constexpr std::int64_t kMaxMs = std::numeric_limits<std::int64_t>::max() / kNsPerMs;
        summary.sortKey = std::clamp(integerMember(manifest, "createdAtMs", 0), -kMaxMs, kMaxMs) * kNsPerMs;
    }
    return summary;
}

/// A manifest of `size` bytes without what its list of files holds; nothing if the ends of the list aren't found.
std::optional<std::string> textWithoutFiles(int fd, std::uint64_t size) {
    if (size < 2 * kEndBytes) return std::nullopt;
    const auto head = readAt(fd, 0, kEndBytes);
    const auto tail = readAt(fd, size - kEndBytes, kEndBytes);
    if (!head || !tail) return std::nullopt;
    const auto begin = head->find(kFilesBegin);
    const auto end = tail->rfind(kFilesEnd);
    if (begin == std::string::npos || end == std::string::npos) return std::nullopt;
    return head->substr(0, begin + kFilesBegin.size()) + tail->substr(end);
}

}  // namespace

std::string manifestText(const CheckpointManifest& manifest) {
    json files = json::array();
    for (const auto& file : manifest.files) {
        files.push_back(
            {{"path", file.path}, {"sizeBytes", file.sizeBytes}, {"sha256", file.sha256}, {"captured", file.captured}});
    }
    return dumpJson({{"id", manifest.id},
                     {"workspaceId", manifest.workspaceId},
                     {"label", manifest.label},
                     {"createdAtMs", manifest.createdAtMs},
                     {"createdAtNs", manifest.createdAtNs},
                     {"complete", manifest.complete},
                     {"clipped", manifest.clipped},
                     {"gitHead", manifest.gitHead},
                     {"files", std::move(files)}});
}

std::optional<CheckpointManifest> parseManifest(std::string_view text) {
    const json object = json::parse(text, nullptr, false);
    const json* files = findMember(object, "files");
    if (files == nullptr || !files->is_array()) return std::nullopt;
    CheckpointManifest manifest;
    manifest.id = stringMember(object, "id");
    manifest.workspaceId = stringMember(object, "workspaceId");
    manifest.label = stringMember(object, "label");
    manifest.createdAtMs = integerMember(object, "createdAtMs", 0);
    manifest.createdAtNs = integerMember(object, "createdAtNs", 0);
    manifest.complete = boolMember(object, "complete", false);
    manifest.clipped = boolMember(object, "clipped", false);
    manifest.gitHead = stringMember(object, "gitHead");
    manifest.files.reserve(files->size());
    for (const json& entry : *files) {
        manifest.files.push_back(parseFile(entry));
        if (!isInnerPath(manifest.files.back().path)) return std::nullopt;
    }
    return manifest;
}

std::optional<CheckpointSummary> readManifestSummary(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) return std::nullopt;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (const auto ends = textWithoutFiles(fd, size)) {
        if (auto summary = summaryOf(*ends)) return summary;
    }
    const auto whole = readAt(fd, 0, size);
    return whole ? summaryOf(*whole) : std::nullopt;
}

}  // namespace qm
