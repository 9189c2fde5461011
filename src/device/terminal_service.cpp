#include "device/terminal_service.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "util/clock.h"
#include "util/json.h"
#include "util/random_id.h"

namespace qm {
namespace {

constexpr std::size_t kIdLength = 10;
constexpr char kRunning[] = "RUNNING";

const char* endState(const ProcessResult& result) {
    if (!result.started) return "FAILED";
    if (result.cancelled) return "KILLED";
    return result.timedOut ? "TIMEOUT" : "EXITED";
}

CommandSnapshot unknownCommand(std::string_view id) {
    CommandSnapshot unknown;
    unknown.record = {{"error", "未知的 commandId：" + std::string(id)}};
    return unknown;
}

/// The exception that is being handled, in words; empty if there is no memory even for these.
std::string currentFailure() noexcept {
    try {
        try {
            throw;
        } catch (const std::exception& failure) {
            return std::string("process host failure: ") + failure.what();
        } catch (...) {
            return "unknown process host failure";
        }
    } catch (...) {
        return {};
    }
}

std::chrono::steady_clock::time_point deadlineAfter(std::int64_t timeoutMs) {
    constexpr std::int64_t kLongest = std::numeric_limits<std::int32_t>::max();
    return std::chrono::steady_clock::now() +
           std::chrono::milliseconds(std::clamp<std::int64_t>(timeoutMs, 0, kLongest));
}

}  // namespace

/// `state` and `result` change once, under the service's mutex; the rest doesn't change.
struct TerminalService::Command {
    std::string id;
    std::string command;
    std::string workspace;
    std::string ownerTaskId;
    std::int64_t startedAtMs = wallClockMs();
    std::shared_ptr<ProcessControl> control = std::make_shared<ProcessControl>();
    std::string state = kRunning;
    ProcessResult result;
    std::condition_variable_any ended;

    bool running() const { return state == kRunning; }
};

/// Shared with every command's thread, because the last of them may still be on its way out when the service goes.
struct TerminalService::State {
    Runner runner;
    mutable std::mutex mutex;
    std::condition_variable idle;
    std::map<std::string, std::shared_ptr<Command>, std::less<>> commands;
    std::int32_t activeCount = 0;  ///< Threads that still run a command.
    std::atomic<bool> stopping{false};

    void requireRunning() const {
        if (stopping.load()) throw std::runtime_error("process host is shutting down");
    }

    /// Null if there is none for this owner. The mutex must be held.
    std::shared_ptr<Command> find(std::string_view id, std::string_view ownerTaskId) const {
        const auto found = commands.find(id);
        if (found == commands.end()) return nullptr;
        return ownerTaskId.empty() || found->second->ownerTaskId == ownerTaskId ? found->second : nullptr;
    }

    /// Kills all running commands that `chosen` takes.
    void killRunning(const std::function<bool(const Command&)>& chosen) {
        std::vector<std::shared_ptr<ProcessControl>> controls;
        {
            const std::lock_guard lock(mutex);
            for (const auto& [id, command] : commands) {
                if (command->running() && chosen(*command)) controls.push_back(command->control);
            }
        }
        for (const auto& control : controls)
            control->kill();
    }
};

TerminalService::TerminalService(Runner runner) : state_(std::make_shared<State>()) {
    state_->runner = std::move(runner);
}

TerminalService::~TerminalService() {
    shutdown();
}

std::string TerminalService::start(ProcessOptions options, std::string workspace, std::string command,
                                   std::string ownerTaskId) {
    state_->requireRunning();
    const auto record = std::make_shared<Command>();
    record->command = std::move(command);
    record->workspace = std::move(workspace);
    record->ownerTaskId = std::move(ownerTaskId);
    {
        const std::lock_guard lock(state_->mutex);
        state_->requireRunning();
        do {
            record->id = randomId("cmd_", kIdLength);
        } while (!state_->commands.emplace(record->id, record).second);
        ++state_->activeCount;
    }
    try {
        std::thread(&TerminalService::runToEnd, state_, record, std::move(options)).detach();
    } catch (...) {
        const std::lock_guard lock(state_->mutex);
        state_->commands.erase(record->id);
        if (--state_->activeCount == 0) state_->idle.notify_all();
        throw;
    }
    return record->id;
}

void TerminalService::runToEnd(const std::shared_ptr<State>& state, const std::shared_ptr<Command>& command,
                               const ProcessOptions& options) {
    ProcessResult result;
    try {
        result = state->runner(options, command->control);
    } catch (...) {
        result = ProcessResult();
        result.error = currentFailure();
    }
    {
        const std::lock_guard lock(state->mutex);
        command->state = endState(result);
        command->result = std::move(result);
        if (--state->activeCount == 0) state->idle.notify_all();
    }
    command->ended.notify_all();
}

bool TerminalService::waitFor(std::string_view id, std::int64_t timeoutMs, const std::stop_token& stopToken,
                              std::string_view ownerTaskId) {
    const auto deadline = deadlineAfter(timeoutMs);
    const auto state = state_;
    std::unique_lock lock(state->mutex);
    const auto command = state->find(id, ownerTaskId);
    if (!command) return true;
    const auto hasEnded = [&command] { return !command->running(); };

    const bool ended = command->ended.wait_until(lock, stopToken, deadline, hasEnded);
    if (ended || !stopToken.stop_requested()) return ended;
    lock.unlock();
    command->control->kill();
    lock.lock();
    return command->ended.wait_until(lock, deadline, hasEnded);
}

bool TerminalService::kill(std::string_view id, std::string_view ownerTaskId) {
    std::shared_ptr<ProcessControl> control;
    {
        const std::lock_guard lock(state_->mutex);
        const auto command = state_->find(id, ownerTaskId);
        if (!command) return false;
        if (command->running()) control = command->control;
    }
    if (control) control->kill();
    return true;
}

void TerminalService::killByTask(std::string_view taskId) {
    if (taskId.empty()) return;
    state_->killRunning([taskId](const Command& command) { return command.ownerTaskId == taskId; });
}

CommandSnapshot TerminalService::snapshot(std::string_view id, std::int64_t offsetBytes,
                                          std::string_view ownerTaskId) const {
    const std::lock_guard lock(state_->mutex);
    const auto command = state_->find(id, ownerTaskId);
    if (!command) return unknownCommand(id);

    const ProcessResult& result = command->result;
    const auto offset = static_cast<std::uint64_t>(std::max<std::int64_t>(offsetBytes, 0));
    CommandSnapshot snapshot;
    snapshot.known = true;
    snapshot.running = command->running();
    snapshot.record = {
        {"commandId", command->id},
        {"command", command->command},
        {"state", command->state},
        {"exitCode", result.exitCode},
        {"stdout", offset < result.stdoutText.size() ? result.stdoutText.substr(offset) : std::string()},
        {"stderr", result.stderrText},
        {"truncated", result.truncated},
        {"durationMs", result.durationMs},
        {"executedAs", result.executedAs},
        {"nextOffsetBytes", result.stdoutText.size()},
    };
    if (!result.error.empty()) snapshot.record["error"] = result.error;
    return snapshot;
}

json TerminalService::list() const {
    json commands = json::array();
    const std::lock_guard lock(state_->mutex);
    for (const auto& [id, command] : state_->commands) {
        commands.push_back({{"commandId", id},
                            {"command", command->command},
                            {"state", command->state},
                            {"ownerTaskId", command->ownerTaskId},
                            {"startedAtMs", command->startedAtMs}});
    }
    return commands;
}

void TerminalService::shutdown() {
    if (!state_->stopping.exchange(true)) {
        state_->killRunning([](const Command&) { return true; });
    }
    std::unique_lock lock(state_->mutex);
    state_->idle.wait(lock, [this] { return state_->activeCount == 0; });
}

}  // namespace qm
