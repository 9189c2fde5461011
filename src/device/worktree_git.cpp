#include "device/worktree_git.h"

#include <unistd.h>

#include <array>
#include <map>
#include <utility>

#include "device/run_process.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr std::uint64_t kMaxOutputBytes = 98'304;
constexpr std::size_t kMaxReasonBytes = 400;

/// Programs that git would start on a repository's word. A sandboxed command can write that word, and git runs outside
/// the sandbox.
constexpr std::array<std::pair<const char*, const char*>, 2> kForcedConfiguration{{
    {"core.hooksPath", "/dev/null"},
    {"core.fsmonitor", "false"},
}};

std::map<std::string, std::string> gitEnvironment(const std::filesystem::path& trees) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const auto equals = text.find('=');
        if (equals == std::string_view::npos || text.starts_with("GIT_")) continue;
        environment.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    // Stronger than every configuration file, and handed on to the git processes of submodules.
    environment["GIT_CONFIG_COUNT"] = std::to_string(kForcedConfiguration.size());
    for (std::size_t index = 0; index < kForcedConfiguration.size(); ++index) {
        const std::string number = std::to_string(index);
        environment["GIT_CONFIG_KEY_" + number] = kForcedConfiguration[index].first;
        environment["GIT_CONFIG_VALUE_" + number] = kForcedConfiguration[index].second;
    }
    environment["GIT_CEILING_DIRECTORIES"] = trees.string();
    return environment;
}

/// At most kMaxReasonBytes of `text`, with a mark if that isn't all; no character is cut in two.
std::string shortened(std::string_view text) {
    if (text.size() <= kMaxReasonBytes) return std::string(text);
    std::size_t length = kMaxReasonBytes;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
        --length;
    return std::string(text.substr(0, length)) + "…";
}

}  // namespace

ProcessResult WorktreeGit::run(const std::filesystem::path& directory, const std::vector<std::string>& arguments,
                               std::int32_t timeoutMs) const {
    ProcessOptions options;
    options.args = {"git"};
    options.args.insert(options.args.end(), arguments.begin(), arguments.end());
    options.cwd = directory;
    options.env = gitEnvironment(trees_);
    options.timeoutMs = timeoutMs;
    options.maxOutputBytes = kMaxOutputBytes;
    return runProcess(options);
}

bool WorktreeGit::succeeded(const ProcessResult& result) {
    return result.started && !result.timedOut && result.exitCode == 0;
}

std::string WorktreeGit::failureText(std::string_view label, const ProcessResult& result) {
    std::string text(label);
    if (!result.started) return text + "：无法执行 git";
    if (result.timedOut) return text + "：git 超时";
    const auto reason = trimmed(result.stderrText, " \t\r\n");
    return reason.empty() ? text : text + "：" + shortened(reason);
}

}  // namespace qm
