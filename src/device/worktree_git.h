#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "device/process_control.h"
#include "device/process_result.h"

namespace qm {

/// One call of git.
struct GitCall {
    std::filesystem::path directory;     ///< Where it runs.
    std::vector<std::string> arguments;  ///< Behind "git".
    std::int32_t timeoutMs = 0;
    std::filesystem::path gitDirectory{};           ///< Empty: git looks for it, from `directory` upward.
    std::filesystem::path commonDirectory{};        ///< The repository that `gitDirectory` is a linked tree's part of.
    std::vector<std::filesystem::path> writable{};  ///< Directories that git may change, and what it starts.
};

/// Runs git where agents may have written: a repository's configuration can name programs (filters above all) that git
/// starts. Wherever the kernel has the means to hold a sandboxed command to its limits, git and all that it starts are
/// therefore held to theirs: no network, and no writing but in the call's `writable`, "/tmp" and "/dev". On every
/// kernel inherited `GIT_` variables are dropped and hooks and file system monitors switched off, and untracked files
/// and changed submodules show in `status`, whatever the repository's own configuration says. Any thread, several at
/// once.
class WorktreeGit {
public:
    /// `trees`: absolute directory of all trees. Git never takes a repository above it for that of a tree.
    explicit WorktreeGit(std::filesystem::path trees) : trees_(std::move(trees)) {}

    /// Runs git to its end or time limit. Blocks.
    ProcessResult run(const GitCall& call) const;

    /// Kills every git that runs, with what it started, and lets later calls fail at once.
    void shutdown();
    bool isShutDown() const;

    static bool succeeded(const ProcessResult& result);

    /// What to tell about a run that didn't succeed: `label` and the reason, as far as there is one.
    static std::string failureText(std::string_view label, const ProcessResult& result);

private:
    class Run;

    const std::filesystem::path trees_;
    mutable std::mutex mutex_;  ///< Guards what follows; never held while git runs.
    mutable std::set<std::shared_ptr<ProcessControl>> running_;
    bool isShutDown_ = false;
};

}  // namespace qm
