#pragma once

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "support/executor_process.h"
#include "support/gateway_peer.h"
#include "support/temporary_directory.h"

namespace qm::test {

/// How long the program may take to end after a signal.
inline constexpr std::chrono::milliseconds kStopLimit{QM_STOP_LIMIT_MS};

/// The token that the tests' executors present.
inline constexpr char kToken[] = "test-token-0123456789";

/// What a program that ran to its end left behind.
struct FinishedRun {
    ExitStatus status;
    std::string output;
    std::string errorOutput;
};

/// A user's home directory for the program under test, with the data directory where the program expects it.
class ExecutorHome {
public:
    std::filesystem::path home() const { return directory_.path(); }
    std::filesystem::path dataDirectory() const { return home() / ".platform-executor"; }

    /// The program with `arguments`, in an environment where HOME is this one and nothing else names a data directory.
    ProcessSetup setup(std::vector<std::string> arguments) const;
    /// The same with the gateway and the tests' token in front of `more`.
    ProcessSetup against(const GatewayPeer& gateway, std::vector<std::string> more = {}) const;

    /// The same program, started by a shell that carries out `preparation` first: limits, redirections, traps.
    static ProcessSetup prepared(const std::string& preparation, ProcessSetup setup);

    /// Runs the program with `arguments` until it ends.
    FinishedRun run(std::vector<std::string> arguments) const;
    static FinishedRun runToEnd(const ProcessSetup& setup);

    /// Makes a directory and enters it in the table of workspaces, which the program reads when it starts.
    std::filesystem::path addWorkspace(const std::string& id, const std::string& permission = "READ_WRITE");

    /// Files of the data directory.
    std::string dataFile(std::string_view name) const { return readFile(dataDirectory() / name); }
    void writeDataFile(std::string_view name, std::string_view content) const {
        writeFile(dataDirectory() / name, content);
    }

private:
    TemporaryDirectory directory_;
    nlohmann::json workspaces_ = nlohmann::json::array();
};

/// Sends SIGTERM and expects the orderly end: status 0 within the limit.
void expectOrderlyStop(ExecutorProcess& executor);

}  // namespace qm::test
