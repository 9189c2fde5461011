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

/// What no repository may decide for itself. Hooks and monitors are programs that git would start on its word; the
/// last two decide whether uncommitted work is seen.
constexpr std::array<std::pair<const char*, const char*>, 4> kForcedConfiguration{{
    {"core.hooksPath", "/dev/null"},
    {"core.fsmonitor", "false"},
    {"status.showUntrackedFiles", "normal"},
    {"diff.ignoreSubmodules", "none"},
}};

std::map<std::string, std::string> gitEnvironment(const GitCall& call, const std::string& trees) {
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
    environment["GIT_OPTIONAL_LOCKS"] = "0";
    // The variable is a list, in which a path with its separator can't be told.
    if (trees.find(':') == std::string::npos) environment["GIT_CEILING_DIRECTORIES"] = trees;
    if (!call.gitDirectory.empty()) environment["GIT_DIR"] = call.gitDirectory;
    if (!call.commonDirectory.empty()) environment["GIT_COMMON_DIR"] = call.commonDirectory;
    return environment;
}

/// Git opens "/dev/null" for writing whatever it does, which READ_ONLY would refuse. A kernel without the means refuses
/// sandboxed commands as well, so that there nobody is held to anything.
SandboxPolicy sandboxOf(const GitCall& call) {
    if (!probeSandbox().filesystem) return {};
    return {SandboxMode::WORKSPACE, call.writable, true};
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

/// Keeps a run among those that shutdown() kills.
class WorktreeGit::Run {
public:
    explicit Run(const WorktreeGit& git) : git_(git) {
        const std::lock_guard lock(git_.mutex_);
        if (git_.isShutDown_) control_->kill();
        git_.running_.insert(control_);
    }
    ~Run() {
        const std::lock_guard lock(git_.mutex_);
        git_.running_.erase(control_);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    const std::shared_ptr<ProcessControl>& control() const { return control_; }

private:
    const WorktreeGit& git_;
    const std::shared_ptr<ProcessControl> control_ = std::make_shared<ProcessControl>();
};

ProcessResult WorktreeGit::run(const GitCall& call) const {
    const Run run(*this);
    if (run.control()->killRequested()) {
        ProcessResult refused;
        refused.cancelled = true;
        return refused;
    }
    ProcessOptions options;
    options.args = {"git"};
    options.args.insert(options.args.end(), call.arguments.begin(), call.arguments.end());
    options.cwd = call.directory;
    options.env = gitEnvironment(call, trees_.string());
    options.sandbox = sandboxOf(call);
    options.timeoutMs = call.timeoutMs;
    options.maxOutputBytes = kMaxOutputBytes;
    return runProcess(options, run.control());
}

void WorktreeGit::shutdown() {
    const std::lock_guard lock(mutex_);
    isShutDown_ = true;
    for (const auto& control : running_)
        control->kill();
}

bool WorktreeGit::isShutDown() const {
    const std::lock_guard lock(mutex_);
    return isShutDown_;
}

bool WorktreeGit::succeeded(const ProcessResult& result) {
    return result.started && !result.timedOut && !result.cancelled && result.exitCode == 0;
}

std::string WorktreeGit::failureText(std::string_view label, const ProcessResult& result) {
    std::string text(label);
    if (!result.started) return text + "：无法执行 git";
    if (result.timedOut) return text + "：git 超时";
    const auto reason = trimmed(result.stderrText, " \t\r\n");
    return reason.empty() ? text : text + "：" + shortened(reason);
}

}  // namespace qm
