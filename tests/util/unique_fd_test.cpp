#include "util/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace qm {
namespace {

int openedFd() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFd, ClosesWhatItHoldsAtItsEnd) {
    int fd = -1;
    {
        const UniqueFd owner(openedFd());
        fd = owner.get();
        EXPECT_TRUE(owner);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFd, IsEmptyUntilItIsGivenADescriptor) {
    EXPECT_FALSE(UniqueFd());
    EXPECT_FALSE(UniqueFd(-1));
    EXPECT_TRUE(UniqueFd(openedFd()));
}

TEST(UniqueFd, MovesTheDescriptorAndClosesTheOneReplaced) {
    UniqueFd first(openedFd());
    UniqueFd second(openedFd());
    const int kept = first.get();
    const int replaced = second.get();

    second = std::move(first);

    EXPECT_EQ(second.get(), kept);
    EXPECT_TRUE(isOpen(kept));
    EXPECT_FALSE(isOpen(replaced));
    EXPECT_EQ(UniqueFd(std::move(second)).get(), kept);
    EXPECT_FALSE(isOpen(kept));
}

TEST(UniqueFd, ReleaseHandsTheDescriptorOver) {
    UniqueFd owner(openedFd());
    const int fd = owner.release();

    EXPECT_FALSE(owner);
    EXPECT_TRUE(isOpen(fd));
    owner.reset(fd);
    owner.reset(fd);
    EXPECT_TRUE(isOpen(fd));
    owner.reset();
    EXPECT_FALSE(isOpen(fd));
}

}  // namespace
}  // namespace qm
