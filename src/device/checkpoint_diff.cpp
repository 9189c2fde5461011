#include "device/checkpoint_diff.h"

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "device/text_diff.h"
#include "util/json.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr std::size_t kMaxListedChanges = 500;
constexpr std::size_t kDiffBudgetBytes = 49152;

/// The whole of a small file; nothing if it can't be read or is longer than a diff takes.
std::optional<std::string> readSmallFile(int fd) {
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0) return std::nullopt;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    return size <= kMaxDiffInputBytes ? readAt(fd, 0, size) : std::nullopt;
}

/// `text` as JSON gives it out: results are stored where only UTF-8 is taken.
std::string asJsonText(std::string text) {
    return json::parse(dumpJson(std::move(text))).get<std::string>();
}

class Comparison {
public:
    Comparison(const CheckpointTree& tree, const CheckpointManifest& manifest, const CheckpointBlobs& blobs,
               std::span<char> buffer)
        : tree_(tree), blobs_(blobs), buffer_(buffer) {
        for (const auto& file : manifest.files)
            known_.try_emplace(file.path, Known{&file, false});
    }

    CheckpointDiff run(const CheckpointTree::Walk& walk, const CheckpointManifest& manifest) {
        for (const auto& path : walk.files)
            comparePresent(path);
        for (const auto& file : manifest.files) {
            if (known_.at(file.path).seen) continue;
            add({{"path", file.path}, {"status", "deleted"}, {"beforeSizeBytes", file.sizeBytes}});
        }
        return std::move(diff_);
    }

private:
    struct Known {
        const CheckpointFile* file;
        bool seen;
    };

    void comparePresent(const std::string& path) {
        const auto file = tree_.openFile(path);
        if (file.missing) return;  // Gone since the walk.
        const auto known = known_.find(path);
        if (known == known_.end()) {
            add({{"path", path}, {"status", "added"}, {"afterSizeBytes", file.sizeBytes}});
            return;
        }
        known->second.seen = true;
        const CheckpointFile& before = *known->second.file;
        const auto after =
            file.fd ? fingerprintFile(file.fd.get(), file.sizeBytes, buffer_) : std::optional<Fingerprint>();
        if (after && equalsIgnoreCase(after->sha256, before.sha256)) return;
        addModified(before, file.fd.get(), after ? after->sizeBytes : file.sizeBytes);
    }

    void addModified(const CheckpointFile& before, int afterFd, std::uint64_t afterSize) {
        json change = {{"path", before.path},
                       {"status", "modified"},
                       {"beforeSizeBytes", before.sizeBytes},
                       {"afterSizeBytes", afterSize}};
        // A change that isn't listed takes nothing from the budget of those that are.
        if (!listIsFull() && budget_ > 0 && before.captured) {
            if (auto text = textOfChange(before, afterFd)) change["diff"] = *std::move(text);
        }
        add(std::move(change));
    }

    std::optional<std::string> textOfChange(const CheckpointFile& before, int afterFd) {
        const auto newText = readSmallFile(afterFd);
        if (!newText) return std::nullopt;
        const auto oldText = readSmallFile(blobs_.open(before.sha256).get());
        if (!oldText) return std::nullopt;
        auto text = textDiff(before.path, *oldText, *newText);
        if (!text) return std::nullopt;
        text = asJsonText(std::move(*text));
        if (text->size() > budget_) {
            diff_.diffTruncated = true;
            return std::nullopt;
        }
        budget_ -= text->size();
        return text;
    }

    bool listIsFull() const { return diff_.changes.size() >= kMaxListedChanges; }

    void add(json change) {
        ++diff_.changeCount;
        if (listIsFull()) {
            diff_.listTruncated = true;
        } else {
            diff_.changes.push_back(std::move(change));
        }
    }

    const CheckpointTree& tree_;
    const CheckpointBlobs& blobs_;
    std::span<char> buffer_;
    std::unordered_map<std::string_view, Known> known_;
    std::size_t budget_ = kDiffBudgetBytes;
    CheckpointDiff diff_;
};

}  // namespace

CheckpointDiff diffCheckpoint(const CheckpointTree& tree, const CheckpointTree::Walk& walk,
                              const CheckpointManifest& manifest, const CheckpointBlobs& blobs,
                              std::span<char> buffer) {
    return Comparison(tree, manifest, blobs, buffer).run(walk, manifest);
}

}  // namespace qm
