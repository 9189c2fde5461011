#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>

#include "device/run_process.h"
#include "util/json.h"

namespace qm {

/// A command at one moment.
// NOLINTNEXTLINE(bugprone-exception-escape): moving a JSON value throws nothing.
struct CommandSnapshot {
    bool known = false;  ///< There is such a command for this owner.
    bool running = false;
    json record;  ///< What is told of it; of one that isn't known, an object with `error`.
};

/// Runs agents' commands, each in the background from its first moment on a thread of its own, and keeps what became of
/// them for the life of the process. Any thread may call anything; no lock is held while a process runs or is killed.
///
/// Where an owner is given (not empty), commands of other owners don't exist.
class TerminalService {
public:
    using Runner = std::function<ProcessResult(const ProcessOptions&, const std::shared_ptr<ProcessControl>&)>;

    /// `runner` runs one process to its end; tests give their own.
    explicit TerminalService(Runner runner = runProcess);
    /// shutdown().
    ~TerminalService();
    TerminalService(const TerminalService&) = delete;
    TerminalService& operator=(const TerminalService&) = delete;

    /// Starts `options` and returns the new id, "cmd_" and 10 characters. `command` is what people are shown. Throws
    /// std::runtime_error after shutdown(), std::system_error if there is no thread and std::bad_alloc; then nothing
    /// was started.
    std::string start(ProcessOptions options, std::string workspace, std::string command, std::string ownerTaskId);

    /// Waits until the command has ended, at most `timeoutMs`. True once it runs no longer or can't be seen by this
    /// owner. A raised `stopToken` kills the command; its end is still awaited.
    bool waitFor(std::string_view id, std::int64_t timeoutMs, const std::stop_token& stopToken,
                 std::string_view ownerTaskId);

    /// Kills the command's process group if it still runs. Whether the command exists.
    bool kill(std::string_view id, std::string_view ownerTaskId);

    /// Kills every running command of the task; an empty id has none.
    void killByTask(std::string_view taskId);

    /// The command with its standard output from `offsetBytes` on (a negative one counts as 0). Output is there only
    /// once the command has ended. The record of a command that failed to start holds an `error`, too.
    CommandSnapshot snapshot(std::string_view id, std::int64_t offsetBytes, std::string_view ownerTaskId) const;

    /// All commands, ended ones too: `commandId`, `command`, `state`, `ownerTaskId`, `startedAtMs`.
    json list() const;

    /// Lets nothing start any more, kills what runs and waits until it has ended.
    void shutdown();

private:
    struct Command;
    struct State;
    static void runToEnd(const std::shared_ptr<State>& state, const std::shared_ptr<Command>& command,
                         const ProcessOptions& options);

    std::shared_ptr<State> state_;
};

}  // namespace qm
