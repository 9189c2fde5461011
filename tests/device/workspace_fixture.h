#pragma once

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "device/workspace_registry.h"
#include "support/temporary_directory.h"

namespace qm::test {

/// Makes the calling thread meet the permissions of files, which the superuser is above. Ends with the scope.
class AsOrdinaryUser {
public:
    AsOrdinaryUser() : before_(::setfsuid(geteuid() == 0 ? kNobody : geteuid())) {}
    ~AsOrdinaryUser() { ::setfsuid(static_cast<uid_t>(before_)); }
    AsOrdinaryUser(const AsOrdinaryUser&) = delete;
    AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

private:
    static constexpr uid_t kNobody = 65534;
    int before_;
};

/// A registry with one workspace, `root`, beside a directory `outside` that nothing may reach.
class WorkspaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(root);
        std::filesystem::create_directory(outside);
        // So that an ordinary user gets as far as the files whose permissions a test sets.
        ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
        const auto added = registry.add(root.native(), "Label", WorkspacePermission::FULL);
        ASSERT_TRUE(added.workspace) << added.error;
        id = added.workspace->id;
    }

    ResolvedPath resolve(std::string_view path, ResolveMode mode = ResolveMode::MustExist) const {
        return registry.resolve(id, path, mode);
    }

    TemporaryDirectory directory;
    std::filesystem::path root = directory / "root";
    std::filesystem::path outside = directory / "outside";
    WorkspaceRegistry registry{directory / "data"};
    std::string id;
};

}  // namespace qm::test
