#include "core/startup.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <variant>

#include "capabilities/capability_registry.h"
#include "capabilities/core_capabilities.h"
#include "core/account_sign_in.h"
#include "core/command_line.h"
#include "core/executor_core.h"
#include "core/settings_store.h"
#include "core/signal_thread.h"
#include "core/terminal_prompt.h"
#include "device/checkpoint_capabilities.h"
#include "device/checkpoint_service.h"
#include "device/filesystem_capabilities.h"
#include "device/process_host.h"
#include "device/sandbox.h"
#include "device/terminal_capabilities.h"
#include "device/terminal_service.h"
#include "device/workspace_registry.h"
#include "device/worktree_capabilities.h"
#include "device/worktree_service.h"
#include "util/clock.h"
#include "util/log.h"
#include "util/standard_streams.h"
#include "util/version.h"

namespace qm {
namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

/// Signs in and saves what came of it; the exit status if the process must end now.
std::optional<int> signIn(const CommandLine& line, const SettingsStore& store, Settings& settings) {
    const std::string email = line.email.empty() ? promptLine("邮箱: ", false) : line.email;
    const std::string password = promptLine("密码: ", true);
    const AccountLoginResult result = AccountSignIn().loginWithPassword(line.publicUrl, email, password,
                                                                        settings.nodeId, settings.name, settings.mode);
    if (!result.ok) {
        std::printf("%s\n", result.error.c_str());
        return kFailure;
    }
    // Connection and authMode stay as they were loaded: a sign-in on the command line doesn't mark the settings as an
    // account's.
    settings.executorToken = result.token;
    settings.gatewayUrl = result.gatewayUrl;
    std::string error;
    if (!store.save(settings, &error)) {
        std::printf("登录成功但保存失败: %s\n", error.c_str());
        return kFailure;
    }
    const std::string who = result.email.empty() ? "(account)" : result.email;
    const std::string displayName = result.displayName.empty() ? "" : " / " + result.displayName;
    std::printf("登录成功: %s%s\n设备凭据已保存到 %s\n", who.c_str(), displayName.c_str(),
                store.dataDirectory().c_str());
    return std::nullopt;
}

std::optional<int> saveSettings(const SettingsStore& store, const Settings& settings) {
    std::string error;
    if (!store.save(settings, &error)) {
        std::printf("failed to save settings: %s\n", error.c_str());
        return kFailure;
    }
    std::printf("settings saved to %s\n", store.dataDirectory().c_str());
    return std::nullopt;
}

void printStatus(const SettingsStore& store, const Settings& settings) {
    const std::string token = settings.executorToken.empty() ? "(not configured)" : maskedToken(settings.executorToken);
    std::printf("data dir : %s\n", store.dataDirectory().c_str());
    std::printf("gateway  : %s\n", settings.gatewayUrl.c_str());
    std::printf("mode     : %s\n", settings.mode.c_str());
    std::printf("name     : %s\n", settings.name.c_str());
    std::printf("nodeId   : %s\n", settings.nodeId.c_str());
    std::printf("token    : %s\n", token.c_str());
}

void printTokenHint() {
    std::printf(
        "no executor token configured.\n"
        "run: qm-executor --login-password        (sign in with your account)\n"
        "  or qm-executor --gateway <url> --token <token> --save\n"
        "  or qm-executor --serve                   (idle until configured)\n");
}

void logStart(const std::filesystem::path& dataDirectory, const Settings& settings) {
    std::string line = "qm-executor ";
    line.append(kVersion).append(" starting: data directory=").append(dataDirectory.string());
    log(LogLevel::Info, line.append(", agentId=").append(settings.nodeId));
    std::error_code ignored;
    if (!std::filesystem::is_directory(dataDirectory, ignored) || access(dataDirectory.c_str(), W_OK | X_OK) != 0) {
        log(LogLevel::Warn, "data directory is not writable, nothing will be kept: " + dataDirectory.string());
    }
}

/// Ends the process around threads that are still at work: what they use must not be destroyed under them.
[[noreturn]] void endWithoutTeardown() {
    std::_Exit(kSuccess);
}

/// The run phase: builds the services, runs until a stop, and takes everything down in reverse order.
int serve(const Settings& settings, const std::filesystem::path& dataDirectory) {
    // From here on output goes around the buffer of stdio, and nothing may be left in it.
    std::fflush(stdout);
    SignalThread::blockSignals();
    prepareProcessHost();
    logStart(dataDirectory, settings);
    logSandboxSupport();

    WorkspaceRegistry workspaces(dataDirectory);
    workspaces.load();
    TerminalService terminal;
    CheckpointService checkpoints(dataDirectory);
    WorktreeService worktrees(dataDirectory, workspaces);
    worktrees.reload();
    worktrees.prune(wallClockMs());
    CapabilityRegistry registry;
    registerCoreCapabilities(registry, kVersion);
    registerFilesystemCapabilities(registry, workspaces);
    registerTerminalCapabilities(registry, workspaces, terminal);
    registerCheckpointCapabilities(registry, workspaces, checkpoints);
    registerWorktreeCapabilities(registry, worktrees);

    auto core = std::make_unique<ExecutorCore>(settings, registry, workspaces, terminal, checkpoints, dataDirectory);
    const std::shared_ptr<const DetachedTasks> inFlight = core->detachedTasks();
    SignalThread signals(*core);
    core->run();
    signals.forgetCore();
    worktrees.shutdown();
    core.reset();
    if (inFlight->count() > 0) endWithoutTeardown();
    return kSuccess;
}

}  // namespace

int runProgram(const std::vector<std::string>& arguments) {
    openMissingStandardStreams();
    // A peer that goes away, or a file that may not grow, is an error value of a write, never the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);

    const auto parsed = parseCommandLine(arguments);
    if (const auto* end = std::get_if<CommandLineExit>(&parsed)) {
        std::fputs(end->output.c_str(), stdout);
        return end->status;
    }
    const CommandLine& line = std::get<CommandLine>(parsed);
    const SettingsStore store(line.dataDir.empty() ? defaultDataDirectory() : line.dataDir);
    Settings settings = store.load();
    overlaySettings(settings, line.overrides);

    std::optional<int> ended;
    if (line.login) {
        ended = signIn(line, store, settings);
    } else if (line.save) {
        ended = saveSettings(store, settings);
    }
    if (ended) return *ended;
    if (line.status) {
        printStatus(store, settings);
        return kSuccess;
    }
    if (settings.executorToken.empty() && !line.serve) {
        printTokenHint();
        return kUsage;
    }
    return serve(settings, store.dataDirectory());
}

}  // namespace qm
