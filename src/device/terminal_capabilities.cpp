#include "device/terminal_capabilities.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <limits>
#include <utility>

#include "capabilities/capability_arguments.h"
#include "capabilities/capability_registry.h"
#include "device/terminal_request.h"
#include "device/terminal_service.h"
#include "runtime/tool_invocation.h"
#include "util/clock.h"
#include "util/json.h"

namespace qm {
namespace {

using runtime::ToolInvocation;

void addError(json& result, const char* text, const char* code) {
    result["error"] = text;
    result["errorCode"] = code;
}

json failure(const char* text, const char* code) {
    json result = json::object();
    addError(result, text, code);
    return result;
}

void addCancellation(json& result) {
    addError(result, "task cancellation terminated the process tree", "TASK_CANCELLED");
}

/// Narrows the time limit to what the invocation has left; false if nothing is left.
bool limitToDeadline(ProcessOptions& options, std::int64_t deadlineAtMs) {
    if (deadlineAtMs <= 0) return true;
    const std::int64_t left = deadlineAtMs - wallClockMs();
    if (left <= 0) return false;
    options.timeoutMs = static_cast<std::int32_t>(std::min<std::int64_t>(options.timeoutMs, left));
    return true;
}

json startInBackground(TerminalService& terminal, TerminalRequest request, const std::string& owner) {
    const std::string id =
        terminal.start(std::move(request.options), std::move(request.workspace), std::move(request.command), owner);
    return {{"commandId", id}, {"state", "RUNNING"}, {"note", "Poll with command_output or wait_command."}};
}

json runAndHandOff(TerminalService& terminal, TerminalRequest request, const ToolInvocation& invocation) {
    const SandboxMode mode = request.options.sandbox.mode;
    const std::string id = terminal.start(std::move(request.options), std::move(request.workspace),
                                          std::move(request.command), invocation.taskId);
    terminal.waitFor(id, handOffMs(std::getenv("QM_SYNC_HANDOFF_MS")), invocation.stopToken, invocation.taskId);
    const bool cancelled = invocation.stopToken.stop_requested();
    // Raised after the wait gave up, the token has killed nothing yet.
    if (cancelled) terminal.kill(id, invocation.taskId);

    CommandSnapshot command = terminal.snapshot(id, 0, invocation.taskId);
    json result = std::move(command.record);
    result["sandbox"] = sandboxModeText(mode);
    if (!command.running && mode != SandboxMode::OFF && result["exitCode"] == 126) {
        addError(result, "沙箱未能施加，命令没有执行（不是命令本身失败）", "SANDBOX_UNAVAILABLE");
    }
    if (cancelled) {
        addCancellation(result);
    } else if (command.running) {
        result["note"] =
            "Still running and handed back as a background command. It has already started - do NOT run it again. Read "
            "its output with command_output, or wait_command, or stop it with kill_command.";
    }
    return result;
}

json runCommand(const WorkspaceRegistry& workspaces, TerminalService& terminal, const ToolInvocation& invocation) {
    TerminalRequest request = prepareTerminalRequest(invocation.arguments, workspaces);
    if (!request.error.empty()) return {{"error", request.error}};
    const std::uint64_t outputBytes = std::max(invocation.stdoutBytes, invocation.stderrBytes);
    if (outputBytes != 0) request.options.maxOutputBytes = outputBytes;
    if (!limitToDeadline(request.options, invocation.deadlineAtMs)) {
        return failure("capability deadline expired", "DEADLINE_EXCEEDED");
    }
    if (invocation.stopToken.stop_requested()) {
        return failure("task was cancelled before process start", "TASK_CANCELLED");
    }
    if (boolArgument(invocation.arguments, "background", false)) {
        return startInBackground(terminal, std::move(request), invocation.taskId);
    }
    return runAndHandOff(terminal, std::move(request), invocation);
}

json commandOutput(TerminalService& terminal, const ToolInvocation& invocation) {
    return terminal
        .snapshot(textArgument(invocation.arguments, "commandId"),
                  integerArgument(invocation.arguments, "offsetBytes", 0), invocation.taskId)
        .record;
}

json waitCommand(TerminalService& terminal, const ToolInvocation& invocation) {
    const std::string& id = textArgument(invocation.arguments, "commandId");
    terminal.waitFor(id, waitLimitMs(invocation.arguments), invocation.stopToken, invocation.taskId);
    const bool cancelled = invocation.stopToken.stop_requested();
    if (cancelled) terminal.kill(id, invocation.taskId);

    CommandSnapshot command = terminal.snapshot(id, 0, invocation.taskId);
    json result = std::move(command.record);
    // A command that ended after the wait gave up is told as what the same result shows it to be.
    if (command.known) result["finished"] = !command.running;
    if (cancelled) addCancellation(result);
    return result;
}

json killCommand(TerminalService& terminal, const ToolInvocation& invocation) {
    const std::string& id = textArgument(invocation.arguments, "commandId");
    if (!terminal.kill(id, invocation.taskId)) return terminal.snapshot(id, 0, invocation.taskId).record;
    return {{"commandId", id}, {"ok", true}};
}

json textProperty(const char* description) {
    return {{"type", "string"}, {"description", description}};
}

json objectSchema(json properties, const char* required) {
    return {{"type", "object"}, {"properties", std::move(properties)}, {"required", json::array({required})}};
}

json runCommandSchema() {
    json sandbox = textProperty(
        "Kernel-enforced restriction for this command. OFF (default) keeps current behaviour. WORKSPACE allows writes "
        "only inside the workspace and blocks network access; READ_ONLY also forbids writing. Linux only - other "
        "platforms refuse rather than pretend. Note /tmp stays writable so ordinary commands work.");
    sandbox["enum"] = {"OFF", "WORKSPACE", "READ_ONLY"};
    return objectSchema(
        {{"workspace", textProperty("Workspace handle from list_workspaces.")},
         {"command", textProperty("Command line run through the system shell.")},
         {"args",
          {{"type", "array"},
           {"items", {{"type", "string"}}},
           {"description", "Alternative to command: exec argv directly, no shell."}}},
         {"cwd", textProperty("Working directory relative to the workspace root.")},
         {"timeoutMs", {{"type", "integer"}}},
         {"background", {{"type", "boolean"}}},
         {"env",
          {{"type", "object"}, {"description", "Extra environment variables (credential-looking names are dropped)."}}},
         {"sandbox", std::move(sandbox)}},
        "workspace");
}

json commandSchema(const char* integerProperty) {
    json properties = {{"commandId", {{"type", "string"}}}};
    if (integerProperty != nullptr) properties[integerProperty] = {{"type", "integer"}};
    return objectSchema(std::move(properties), "commandId");
}

CapabilityDef definition(const char* name, const char* displayName, const char* effect, const char* description,
                         json parameters, std::function<json(const ToolInvocation&)> run) {
    CapabilityDef def;
    def.name = name;
    def.displayName = displayName;
    def.effect = effect;
    def.description = description;
    def.parameters = std::move(parameters);
    // Without a context: no owner, no deadline, nothing to stop it, and the default budgets.
    def.handler = [name, run](const json& arguments) {
        ToolInvocation invocation;
        invocation.name = name;
        invocation.arguments = arguments;
        return run(invocation);
    };
    def.invocationHandler = std::move(run);
    return def;
}

}  // namespace

void registerTerminalCapabilities(CapabilityRegistry& registry, WorkspaceRegistry& workspaces,
                                  TerminalService& terminal) {
    registry.registerCapability(definition(
        "run_command", "执行命令", "EXTERNAL_SIDE_EFFECT",
        "Run a shell command inside a workspace. Set background=true to keep it running and poll with command_output. "
        "No interactive TTY: commands that need input will fail instead of hanging.",
        runCommandSchema(),
        [&](const ToolInvocation& invocation) { return runCommand(workspaces, terminal, invocation); }));
    registry.registerCapability(
        definition("command_output", "读取命令输出", "READ_ONLY",
                   "Read the current state and output of a background command.", commandSchema("offsetBytes"),
                   [&](const ToolInvocation& invocation) { return commandOutput(terminal, invocation); }));
    registry.registerCapability(
        definition("wait_command", "等待命令结束", "READ_ONLY",
                   "Wait until a background command finishes or the timeout elapses.", commandSchema("timeoutMs"),
                   [&](const ToolInvocation& invocation) { return waitCommand(terminal, invocation); }));
    registry.registerCapability(
        definition("kill_command", "终止命令", "EXTERNAL_SIDE_EFFECT",
                   "Terminate a background command and its whole process tree. Idempotent.", commandSchema(nullptr),
                   [&](const ToolInvocation& invocation) { return killCommand(terminal, invocation); }));
}

}  // namespace qm
