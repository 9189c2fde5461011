#include "device/terminal_request.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "capabilities/capability_arguments.h"
#include "device/workspace_registry.h"
#include "util/json.h"
#include "util/text.h"

namespace qm {
namespace {

using Environment = std::map<std::string, std::string>;

constexpr std::int64_t kDefaultTimeoutMs = 120'000;
constexpr std::int64_t kMinTimeoutMs = 1'000;
constexpr std::int64_t kMaxTimeoutMs = 600'000;
constexpr std::int64_t kDefaultHandOffMs = 20'000;
constexpr std::int64_t kDefaultWaitMs = 60'000;
constexpr std::int64_t kMinWaitMs = 100;
constexpr std::int64_t kMaxWaitMs = 600'000;
constexpr std::string_view kSurroundingSpace = " \t\r\n";

/// All that a shell needs of the executor's environment; nothing else of it reaches an agent.
constexpr std::array kInheritedVariables{"PATH", "HOME",   "SHELL", "LANG",   "LC_ALL",
                                         "TERM", "TMPDIR", "USER",  "LOGNAME"};

/// Parts of names in small letters; a caller's variable whose name holds one in any case is dropped.
constexpr std::array<std::string_view, 5> kCredentialMarks{"token", "secret", "password", "apikey", "api_key"};

bool looksLikeCredential(std::string_view name) {
    const std::string lower = toLowerAscii(name);
    return std::any_of(kCredentialMarks.begin(), kCredentialMarks.end(),
                       [&lower](std::string_view mark) { return lower.find(mark) != std::string::npos; });
}

Environment buildEnvironment(const json& arguments) {
    Environment environment;
    for (const char* name : kInheritedVariables) {
        if (const char* value = std::getenv(name)) environment[name] = value;
    }
    for (const auto& [name, value] : objectMember(arguments, "env").items()) {
        if (value.is_string() && !looksLikeCredential(name)) environment[name] = value.get<std::string>();
    }
    return environment;
}

std::vector<std::string> textElements(const json& array) {
    std::vector<std::string> texts;
    for (const json& element : array) {
        if (element.is_string()) texts.push_back(element.get<std::string>());
    }
    return texts;
}

TerminalRequest refusal(std::string error) {
    TerminalRequest request;
    request.error = std::move(error);
    return request;
}

}  // namespace

std::int64_t handOffMs(const char* setting) {
    const std::int64_t value = setting == nullptr ? 0 : std::strtoll(setting, nullptr, 10);
    return value < 1 ? kDefaultHandOffMs : value;
}

std::int64_t waitLimitMs(const json& arguments) {
    return std::clamp(integerArgument(arguments, "timeoutMs", kDefaultWaitMs), kMinWaitMs, kMaxWaitMs);
}

TerminalRequest prepareTerminalRequest(const json& arguments, const WorkspaceRegistry& workspaces,
                                       const std::function<SandboxProbe()>& probe) {
    TerminalRequest request;
    request.workspace = textArgument(arguments, "workspace");
    const auto workspace = workspaces.find(request.workspace);
    if (!workspace) return refusal(workspaces.resolve(request.workspace, "", ResolveMode::MustExist).error);
    std::string denied = WorkspaceRegistry::requirePermission(*workspace, WorkspacePermission::EXECUTE);
    if (!denied.empty()) return refusal(std::move(denied));
    ResolvedPath cwd = workspaces.resolve(request.workspace, textArgument(arguments, "cwd"), ResolveMode::MustExist);
    if (!cwd.ok) return refusal(std::move(cwd.error));

    ProcessOptions& options = request.options;
    options.cwd = std::move(cwd.hostPath);
    options.command = trimmed(textArgument(arguments, "command"), kSurroundingSpace);
    options.args = textElements(arrayMember(arguments, "args"));
    if (options.command.empty() && options.args.empty()) return refusal("必须提供 command 或 args");

    const SandboxMode mode = parseSandboxMode(textArgument(arguments, "sandbox"));
    if (mode != SandboxMode::OFF) {
        const SandboxProbe support = probe();
        if (!support.filesystem && !support.network) return refusal("本设备无法强制沙箱：" + support.detail);
    }
    options.sandbox = planSandbox(mode, workspace->hostPath);
    options.env = buildEnvironment(arguments);
    options.timeoutMs = static_cast<std::int32_t>(
        std::clamp(integerArgument(arguments, "timeoutMs", kDefaultTimeoutMs), kMinTimeoutMs, kMaxTimeoutMs));
    request.command = options.command.empty() ? options.args.front() : options.command;
    return request;
}

}  // namespace qm
