// SIGTERM while git works for a worktree: neither git nor what it started outlives the program.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "e2e/executor_home.h"
#include "support/wait_until.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;

constexpr char kWorkspace[] = "ws_test0001";

/// Whether any process but `except` was started with `variable` in its environment and still runs.
bool anyoneHas(const std::string& variable, pid_t except) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos || name == std::to_string(except)) continue;
        std::ifstream stream(entry.path() / "environ", std::ios::binary);
        const std::string environment((std::istreambuf_iterator<char>(stream)), {});
        if (environment.find(variable) != std::string::npos) return true;
    }
    return false;
}

TEST(WorktreeStop, EndsGitAndWhatItStarted) {
    ExecutorHome home;
    home.addWorkspace(kWorkspace);
    const fs::path programs = home.home() / "bin";
    writeFile(programs / "git",
              "#!/bin/sh\nsleep 601 &\n: > '" + (home.home() / "arrived").string() + "'\nsleep 602\n");
    ASSERT_EQ(chmod((programs / "git").c_str(), 0755), 0);
    const std::string mark = "QM_TEST_WORKTREE=" + home.home().string();
    GatewayPeer gateway;
    auto setup = home.against(gateway);
    setup.environment["PATH"] = programs.string() + ":" + getenv("PATH");
    setup.environment["QM_TEST_WORKTREE"] = home.home().string();
    ExecutorProcess executor(setup);
    gateway.waitForRegister();
    gateway.send({{"type", "execute"}, {"capabilityId", "create_worktree"}, {"args", {{"workspace", kWorkspace}}}});
    ASSERT_TRUE(waitUntil([&] { return fs::exists(home.home() / "arrived"); })) << executor.output();
    ASSERT_TRUE(anyoneHas(mark, executor.pid()));

    expectOrderlyStop(executor);

    EXPECT_TRUE(waitUntil([&] { return !anyoneHas(mark, executor.pid()); }));
}

}  // namespace
}  // namespace qm::test
