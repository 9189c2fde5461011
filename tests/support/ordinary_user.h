#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace qm::test {

/// Takes the superuser's rights away from the test while it lives, for tests of what may not be read or written.
/// `directory` with all it holds is given to the ordinary user before. Does nothing where the test has no such rights.
class OrdinaryUser {
public:
    explicit OrdinaryUser(const std::filesystem::path& directory) {
        if (::geteuid() != 0) return;
        giveAway(directory);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
            giveAway(entry.path());
        if (::seteuid(kNobody) != 0) throw std::system_error(errno, std::generic_category(), "seteuid");
        changed_ = true;
    }
    ~OrdinaryUser() {
        if (!changed_) return;
        EXPECT_EQ(::seteuid(0), 0);
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    static constexpr uid_t kNobody = 65534;

    static void giveAway(const std::filesystem::path& path) { EXPECT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0); }

    bool changed_ = false;
};

}  // namespace qm::test
