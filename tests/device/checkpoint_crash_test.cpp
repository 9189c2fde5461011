#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "device/checkpoint_fixture.h"
#include "support/wait_until.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;

class CheckpointCrash : public CheckpointTest {
protected:
    /// Runs `work` in another process and kills that as soon as `reached` says so, or lets it end.
    static void killDuring(const std::function<void()>& work, const std::function<bool()>& reached) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            work();
            _exit(0);
        }
        bool ended = false;
        EXPECT_TRUE(waitUntil([&] {
            ended = waitpid(child, nullptr, WNOHANG) == child;
            return ended || reached();
        }));
        if (ended) return;
        EXPECT_EQ(kill(child, SIGKILL), 0);
        EXPECT_EQ(waitpid(child, nullptr, 0), child);
    }

    std::size_t blobsInStore() const {
        std::size_t count = 0;
        std::error_code ignored;
        for (const auto& checkpoint : fs::directory_iterator(store(), ignored)) {
            const fs::directory_iterator blobs(checkpoint.path() / "blobs", ignored);
            count += static_cast<std::size_t>(std::distance(begin(blobs), end(blobs)));
        }
        return count;
    }

    bool everyOperationWorks() {
        const json created = service_.create(workspace_, "after");
        const std::string id = stringMember(created, "checkpoint");
        const json newest = service_.diff(workspace_, "");
        return !created.contains("error") && newest.value("checkpoint", "") == id && newest.at("changeCount") == 0 &&
               !service_.restore(workspace_, id).contains("error");
    }
};

TEST_F(CheckpointCrash, AKillDuringCreationLeavesAStoreThatEveryOperationStillReads) {
    constexpr std::size_t kFiles = 150;
    for (std::size_t count = 0; count < kFiles; ++count) {
        put("dir/file" + std::to_string(count), std::string(count * 100, 'x') + std::to_string(count));
    }
    const std::string first = checkpoint();
    put("changed", "since");

    for (std::size_t round = 0; round < 12; ++round) {
        const std::size_t stop = blobsInStore() + 1 + round * kFiles / 11;
        killDuring([&] { service_.create(workspace_, ""); }, [&] { return blobsInStore() >= stop; });

        const json latest = service_.diff(workspace_, "");
        ASSERT_FALSE(latest.contains("error")) << dumpJson(latest);
        ASSERT_FALSE(service_.diff(workspace_, latest.at("checkpoint")).contains("error"));
        ASSERT_TRUE(everyOperationWorks()) << "round " << round;
    }
}

TEST_F(CheckpointCrash, AKillDuringPruningLeavesNoCheckpointListedWithoutItsBlobs) {
    constexpr std::size_t kFiles = 300;
    constexpr std::size_t kRounds = 5;
    CheckpointService service(dataDir_, {.retained = 1});
    for (std::size_t count = 0; count < kFiles; ++count)
        put("file" + std::to_string(count), std::to_string(count));
    for (std::size_t round = 0; round < kRounds; ++round) {
        const fs::path oldest = store() / checkpoint(service) / "blobs";
        const auto blobs = [&] {
            std::error_code ignored;
            const fs::directory_iterator entries(oldest, ignored);
            return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
        };
        const std::size_t stop = kFiles - 1 - round * kFiles / kRounds;
        killDuring([&] { service.create(workspace_, ""); }, [&] { return blobs() <= stop; });

        for (const auto& id : CheckpointStore(store()).idsOfWorkspace(workspace_.id)) {
            const json whole = manifest(id);
            for (const auto& file : whole.at("files"))
                ASSERT_TRUE(fs::exists(store() / id / "blobs" / stringMember(file, "sha256"))) << id;
        }
    }
    EXPECT_TRUE(everyOperationWorks());
}

TEST_F(CheckpointCrash, AKillDuringARestoreLeavesAWorkspaceThatTheNextRestoreRepairs) {
    constexpr int kFiles = 200;
    const auto content = [](int count) { return std::string(3000, 'o') + std::to_string(count); };
    for (int count = 0; count < kFiles; ++count)
        put("dir/file" + std::to_string(count), content(count));
    const Tree before = readTree(workspace_.hostPath);
    const std::string id = checkpoint();

    for (int round = 0; round < 8; ++round) {
        for (int count = 0; count < kFiles; ++count)
            put("dir/file" + std::to_string(count), "changed");
        put("added", "x");
        const std::string watched = "dir/file" + std::to_string(10 + round * 10);
        killDuring([&] { service_.restore(workspace_, id); },
                   [&] { return fs::file_size(inWorkspace(watched)) > 3000; });

        // Whatever was reached, every file is either the old or the new one, and the store is whole.
        for (int count = 0; count < kFiles; ++count) {
            const std::string now = readFile(inWorkspace("dir/file" + std::to_string(count)));
            ASSERT_TRUE(now == "changed" || now == content(count));
        }
        ASSERT_FALSE(service_.diff(workspace_, id).contains("error"));
        ASSERT_EQ(service_.restore(workspace_, id).at("verified"), true);
        ASSERT_EQ(readTree(workspace_.hostPath), before);
    }
    EXPECT_TRUE(everyOperationWorks());
}

TEST_F(CheckpointCrash, ADirectoryWithoutAManifestIsSkippedAndNeverRemoved) {
    put("a", "1");
    writeFile(store() / "ck_unfinished/blobs/incoming", "part");
    writeFile(store() / "ck_unfinished/manifest.json.part", "{\"files\":[");
    writeFile(store() / "stray", "a file");
    fs::create_directory_symlink(workspace_.hostPath, store() / "ck_link000000");

    for (int count = 0; count < 12; ++count)
        checkpoint();

    EXPECT_EQ(readFile(store() / "ck_unfinished/blobs/incoming"), "part");
    EXPECT_EQ(stored().size(), 8U + 3U);
    EXPECT_EQ(service_.diff(workspace_, "ck_unfinished"),
              json({{"error", "checkpoint 不存在或已被清理：ck_unfinished"}}));
    EXPECT_EQ(readFile(inWorkspace("a")), "1");
}

}  // namespace
}  // namespace qm::test
