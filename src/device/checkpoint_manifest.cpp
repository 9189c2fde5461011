#include "device/checkpoint_manifest.h"

#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <utility>

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

/// Takes a manifest from the parser's events, without the detour of a document: a list of thousands of files is read
/// each time that a workspace is compared with it.
class ManifestReader : public json::json_sax_t {
public:
    /// Nothing unless the events were those of a manifest.
    std::optional<CheckpointManifest> take() {
        if (!hasFiles_ || hasBadFile_) return std::nullopt;
        return std::move(manifest_);
    }

    bool null() override { return other(); }
    bool number_float(double /*value*/, const std::string& /*text*/) override { return other(); }
    bool binary(json::binary_t& /*value*/) override { return other(); }

    bool boolean(bool value) override {
        if (isOfFile()) {
            if (key_ == "captured") manifest_.files.back().captured = value;
        } else if (isOfManifest()) {
            if (key_ == "complete") manifest_.complete = value;
            if (key_ == "clipped") manifest_.clipped = value;
        }
        return other();
    }

    bool number_integer(std::int64_t value) override {
        if (isOfFile()) {
            if (key_ == "sizeBytes")
                manifest_.files.back().sizeBytes = static_cast<std::uint64_t>(std::max<std::int64_t>(value, 0));
        } else if (isOfManifest()) {
            if (key_ == "createdAtMs") manifest_.createdAtMs = value;
            if (key_ == "createdAtNs") manifest_.createdAtNs = value;
        }
        return other();
    }

    bool number_unsigned(std::uint64_t value) override {
        return value > std::uint64_t{std::numeric_limits<std::int64_t>::max()}
                   ? other()
                   : number_integer(static_cast<std::int64_t>(value));
    }

    bool string(std::string& value) override {
        if (std::string* member = textMember()) *member = std::move(value);
        return other();
    }

    bool start_object(std::size_t /*size*/) override {
        if (depth_ == 0) isObject_ = true;
        if (inFiles_ && depth_ == kFilesDepth) manifest_.files.emplace_back();
        ++depth_;
        return true;
    }

    bool key(std::string& name) override {
        if (isOfFile() || isOfManifest()) key_ = std::move(name);
        return true;
    }

    bool end_object() override {
        --depth_;
        if (inFiles_ && depth_ == kFilesDepth && !isInnerPath(manifest_.files.back().path)) hasBadFile_ = true;
        return true;
    }

    bool start_array(std::size_t /*size*/) override {
        other();
        if (isOfManifest() && key_ == "files") inFiles_ = hasFiles_ = true;
        ++depth_;
        return true;
    }

    bool end_array() override {
        --depth_;
        if (depth_ == kManifestDepth) inFiles_ = false;
        return true;
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const json::exception& /*cause*/) override {
        return false;
    }

private:
    // Open objects and lists around a value of the manifest itself, around an element of `files`, and in such an
    // element.
    static constexpr int kManifestDepth = 1;
    static constexpr int kFilesDepth = 2;
    static constexpr int kFileDepth = 3;

    bool isOfManifest() const { return isObject_ && depth_ == kManifestDepth; }
    bool isOfFile() const { return inFiles_ && depth_ == kFileDepth; }

    /// Where a text of this place belongs; null if it is passed over.
    std::string* textMember() {
        if (isOfFile()) {
            if (key_ == "path") return &manifest_.files.back().path;
            if (key_ == "sha256") return &manifest_.files.back().sha256;
        } else if (isOfManifest()) {
            if (key_ == "id") return &manifest_.id;
            if (key_ == "workspaceId") return &manifest_.workspaceId;
            if (key_ == "label") return &manifest_.label;
            if (key_ == "gitHead") return &manifest_.gitHead;
        }
        return nullptr;
    }

    /// Ends every event of a value that is no object: among the files there may be none.
    bool other() {
        if (inFiles_ && depth_ == kFilesDepth) hasBadFile_ = true;
        return true;
    }

    CheckpointManifest manifest_;
    std::string key_;  ///< Of the value that comes next, where it matters.
    int depth_ = 0;
    bool isObject_ = false;
    bool inFiles_ = false;
    bool hasFiles_ = false;
    bool hasBadFile_ = false;
};

std::optional<CheckpointSummary> summaryOf(std::string_view text) {
    auto manifest = parseManifest(text);
    if (!manifest) return std::nullopt;
    constexpr std::int64_t kNsPerMs = 1'000'000;
    constexpr std::int64_t kMaxMs = std::numeric_limits<std::int64_t>::max() / kNsPerMs;
    const std::int64_t fromMs = std::clamp(manifest->createdAtMs, -kMaxMs, kMaxMs) * kNsPerMs;
    return CheckpointSummary{std::move(manifest->workspaceId),
                             manifest->createdAtNs > 0 ? manifest->createdAtNs : fromMs};
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
    ManifestReader reader;
    return json::sax_parse(text, &reader) ? reader.take() : std::nullopt;
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
