#include "net/cancel_signal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace qm {
namespace {

bool readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

TEST(CancelSignal, IsNotRaisedAtFirst) {
    const CancelSignal signal;

    EXPECT_FALSE(signal.cancelled());
    EXPECT_FALSE(readable(signal.fd()));
}

TEST(CancelSignal, StaysRaisedHoweverOftenItIsRaised) {
    CancelSignal signal;

    signal.cancel();
    signal.cancel();

    EXPECT_TRUE(signal.cancelled());
    EXPECT_TRUE(readable(signal.fd()));
    EXPECT_TRUE(readable(signal.fd()));
}

TEST(CancelSignal, ItsDescriptorIsClosedInChildren) {
    const CancelSignal signal;

    EXPECT_NE(::fcntl(signal.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

}  // namespace
}  // namespace qm
