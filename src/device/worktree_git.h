#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "device/process_result.h"

namespace qm {

/// Runs git where agents may have written: inherited `GIT_` variables are dropped, and whatever a repository's own
/// configuration says, no hook and no file system monitor is started. Any thread, several at once.
class WorktreeGit {
public:
    /// `trees`: absolute directory of all trees. Git never takes a repository above it for that of a tree.
    explicit WorktreeGit(std::filesystem::path trees) : trees_(std::move(trees)) {}

    /// Runs "git" with `arguments` in `directory`, for at most `timeoutMs`. Blocks.
    ProcessResult run(const std::filesystem::path& directory, const std::vector<std::string>& arguments,
                      std::int32_t timeoutMs) const;

    static bool succeeded(const ProcessResult& result);

    /// What to tell about a run that didn't succeed: `label` and the reason, as far as there is one.
    static std::string failureText(std::string_view label, const ProcessResult& result);

private:
    std::filesystem::path trees_;
};

}  // namespace qm
