#include "e2e/executor_home.h"

#include <gtest/gtest.h>

#include <csignal>

namespace qm::test {

using nlohmann::json;

ProcessSetup ExecutorHome::setup(std::vector<std::string> arguments) const {
    ProcessSetup setup;
    setup.program = QM_EXECUTOR_BINARY;
    setup.arguments = std::move(arguments);
    setup.environment = {{"HOME", home().string()}, {"TZ", "UTC"}};
    setup.unset = {"PLATFORM_EXECUTOR_DATA_DIR", "SSL_CERT_FILE", "SSL_CERT_DIR"};
    setup.workingDirectory = home();
    return setup;
}

ProcessSetup ExecutorHome::against(const GatewayPeer& gateway, std::vector<std::string> more) const {
    std::vector<std::string> arguments{"--gateway", gateway.url(), "--token", kToken};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return setup(std::move(arguments));
}

ProcessSetup ExecutorHome::prepared(const std::string& preparation, ProcessSetup setup) {
    std::vector<std::string> arguments{"-c", preparation + "\nexec \"$0\" \"$@\"", setup.program.string()};
    arguments.insert(arguments.end(), setup.arguments.begin(), setup.arguments.end());
    setup.program = "/bin/sh";
    setup.arguments = std::move(arguments);
    return setup;
}

FinishedRun ExecutorHome::run(std::vector<std::string> arguments) const {
    return runToEnd(setup(std::move(arguments)));
}

FinishedRun ExecutorHome::runToEnd(const ProcessSetup& setup) {
    ExecutorProcess process(setup);
    const auto status = process.waitForExit();
    return {status, process.output(), process.errorOutput()};
}

std::filesystem::path ExecutorHome::addWorkspace(const std::string& id, const std::string& permission) {
    auto path = home() / "workspaces" / id;
    std::filesystem::create_directories(path);
    workspaces_.push_back(
        {{"id", id}, {"label", "label of " + id}, {"hostPath", path.string()}, {"permission", permission}});
    writeDataFile("workspaces.json", json{{"workspaces", workspaces_}}.dump(2));
    return path;
}

void expectOrderlyStop(ExecutorProcess& executor) {
    executor.sendSignal(SIGTERM);
    EXPECT_EQ(executor.waitForExit(kStopLimit), (ExitStatus{.code = 0, .signal = 0}))
        << executor.output() << executor.errorOutput();
}

}  // namespace qm::test
