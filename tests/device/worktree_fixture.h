#pragma once

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "device/run_process.h"
#include "device/workspace_registry.h"
#include "device/worktree_service.h"
#include "support/temporary_directory.h"

namespace qm::test {

/// A git repository with one commit, opened as a workspace, and a data directory; git's own configuration of the user
/// and the machine is out of reach.
class WorktreeTest : public testing::Test {
protected:
    WorktreeTest() {
        setenv("HOME", directory_.path().c_str(), 1);
        setenv("GIT_CONFIG_NOSYSTEM", "1", 1);
        std::filesystem::create_directory(repository_);
        git({"init", "-q", "-b", "main"});
        writeFile(repository_ / "file", "content\n");
        git({"add", "."});
        git({"commit", "-q", "-m", "first"});
        source_ = open(repository_);
    }

    ~WorktreeTest() override {
        std::filesystem::current_path(currentPath_);
        clearenv();
        for (const auto& [name, value] : environment_)
            setenv(name.c_str(), value.c_str(), 1);
    }

    std::string open(const std::filesystem::path& directory,
                     WorkspacePermission permission = WorkspacePermission::READ_WRITE) {
        const auto added = workspaces_.add(directory.string(), "", permission);
        EXPECT_EQ(added.error, "");
        return added.workspace ? added.workspace->id : "";
    }

    /// Runs git in the repository and returns what it printed; it must succeed.
    std::string git(const std::vector<std::string>& arguments) { return gitIn(repository_, arguments); }

    static std::string gitIn(const std::filesystem::path& directory, const std::vector<std::string>& arguments) {
        ProcessOptions options;
        options.args = {"git", "-c", "user.name=Test", "-c", "user.email=test@example.org"};
        options.args.insert(options.args.end(), arguments.begin(), arguments.end());
        options.cwd = directory;
        const auto result = runProcess(options);
        EXPECT_EQ(result.exitCode, 0) << arguments.at(0) << ": " << result.stderrText;
        return result.stdoutText;
    }

    /// A tree that must come into being.
    WorktreeRecord create(WorktreeService& service) {
        auto result = service.create(source_, "", 0);
        EXPECT_TRUE(result.ok) << result.error;
        return result.record;
    }
    WorktreeRecord create() { return create(service_); }

    std::filesystem::path trees() const { return dataDir_ / "worktrees"; }

    bool nothingIsLeft() {
        std::error_code ignored;
        const bool noDirectory = !std::filesystem::exists(trees()) || std::filesystem::is_empty(trees(), ignored);
        return noDirectory && git({"branch", "--list", "quillmarsh/*"}).empty() &&
               git({"worktree", "list", "--porcelain"}).find("wt_") == std::string::npos &&
               workspaces_.list().size() == 1 && service_.list().empty();
    }

    /// Puts a program in front of the real git that runs `script` (of /bin/sh) with git's arguments. The real one is
    /// "$REAL_GIT".
    void replaceGit(const std::string& script) {
        if (getenv("REAL_GIT") == nullptr) {
            ProcessOptions which;
            which.command = "command -v git";
            std::string real = runProcess(which).stdoutText;
            real.pop_back();
            setenv("REAL_GIT", real.c_str(), 1);
            setenv("PATH", ((directory_ / "bin").string() + ":" + getenv("PATH")).c_str(), 1);
        }
        writeFile(directory_ / "bin/git", "#!/bin/sh\n" + script);
        ASSERT_EQ(chmod((directory_ / "bin/git").c_str(), 0755), 0);
    }

    static std::map<std::string, std::string> currentEnvironment() {
        std::map<std::string, std::string> variables;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string text = *entry;
            variables[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
        }
        return variables;
    }

    // Put back at the end.
    const std::map<std::string, std::string> environment_ = currentEnvironment();
    const std::filesystem::path currentPath_ = std::filesystem::current_path();
    TemporaryDirectory directory_;
    std::filesystem::path repository_ = directory_ / "repository";
    std::filesystem::path dataDir_ = directory_ / "data";
    WorkspaceRegistry workspaces_{dataDir_};
    WorktreeService service_{dataDir_, workspaces_};
    std::string source_;
};

}  // namespace qm::test
