// A workspace whose recorded directory leads through a symbolic link.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;

TEST(LinkedWorkspace, IsWrittenInATurnAndTakenBack) {
    const ExecutorHome home;
    std::filesystem::create_directories(home.home() / "real/work");
    std::filesystem::create_directory_symlink("real", home.home() / "link");
    const auto recorded = (home.home() / "link/work").string();
    home.writeDataFile(
        "workspaces.json",
        json{{"workspaces",
              {{{"id", "ws_linked01"}, {"label", "linked"}, {"hostPath", recorded}, {"permission", "READ_WRITE"}}}}}
            .dump());
    writeFile(home.home() / "real/work/a.txt", "old\n");
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();
    const json workspace{{"workspace", "ws_linked01"}};

    json write = workspace;
    write.update({{"path", "a.txt"}, {"content", "new\n"}});
    const auto written = gateway.execute("write_file", write, {{"runId", "run_1"}, {"round", 0}});
    ASSERT_FALSE(written.contains("error")) << written;
    const auto changes = gateway.execute("show_changes", workspace);
    ASSERT_EQ(changes.value("changeCount", 0), 1) << changes;
    json restore = workspace;
    restore["checkpoint"] = changes.at("checkpoint");
    const auto restored = gateway.execute("restore_checkpoint", restore);

    EXPECT_EQ(restored.at("verified"), true) << restored;
    EXPECT_EQ(readFile(home.home() / "real/work/a.txt"), "old\n");
}

}  // namespace
}  // namespace qm::test
