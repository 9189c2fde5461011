#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "device/checkpoint_service.h"
#include "device/workspace_registry.h"
#include "support/temporary_directory.h"
#include "util/json.h"

namespace qm::test {

/// Every regular file below a directory and its content.
using Tree = std::map<std::string, std::string>;

inline Tree readTree(const std::filesystem::path& root) {
    Tree tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_symlink() || !entry.is_regular_file()) continue;
        tree[entry.path().lexically_relative(root).string()] = readFile(entry.path());
    }
    return tree;
}

/// A workspace and a data directory side by side in a temporary directory.
class CheckpointTest : public testing::Test {
protected:
    CheckpointTest() {
        std::filesystem::create_directory(workspace_.hostPath);
        std::filesystem::create_directory(dataDir_);
    }

    std::filesystem::path inWorkspace(const std::string& path) const { return workspace_.hostPath / path; }
    std::filesystem::path store() const { return dataDir_ / "checkpoints"; }

    void put(const std::string& path, std::string_view content) const { writeFile(inWorkspace(path), content); }

    /// Takes a checkpoint that must succeed, and returns its id.
    std::string checkpoint(CheckpointService& service) const {
        const json result = service.create(workspace_, "");
        EXPECT_FALSE(result.contains("error")) << dumpJson(result);
        return stringMember(result, "checkpoint");
    }
    std::string checkpoint() { return checkpoint(service_); }

    json manifest(const std::string& id) const { return json::parse(readFile(store() / id / "manifest.json")); }

    /// The ids of the directories in the store.
    std::vector<std::string> stored() const {
        std::vector<std::string> ids;
        for (const auto& entry : std::filesystem::directory_iterator(store()))
            ids.push_back(entry.path().filename());
        std::sort(ids.begin(), ids.end());
        return ids;
    }

    /// The change of `path` in a result of diff(), or null.
    static json changeOf(const json& result, const std::string& path) {
        for (const auto& change : result.at("changes")) {
            if (change.at("path") == path) return change;
        }
        return {};
    }

    TemporaryDirectory directory_;
    std::filesystem::path dataDir_ = directory_ / "data";
    Workspace workspace_{"ws_12345678", "work", directory_ / "work", WorkspacePermission::READ_WRITE};
    CheckpointService service_{dataDir_};
};

}  // namespace qm::test
