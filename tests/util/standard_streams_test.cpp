#include "util/standard_streams.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "util/log.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using testing::EndsWith;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

/// A pipe of two pages as standard output while it lives.
class OutputPipe {
public:
    OutputPipe() : before_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)) {
        std::fflush(stdout);
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        readEnd_.reset(ends[0]);
        const UniqueFd writeEnd(ends[1]);
        EXPECT_GT(::fcntl(writeEnd.get(), F_SETPIPE_SZ, 8192), 0);
        EXPECT_EQ(::dup2(writeEnd.get(), STDOUT_FILENO), STDOUT_FILENO);
    }
    ~OutputPipe() { ::dup2(before_.get(), STDOUT_FILENO); }
    OutputPipe(const OutputPipe&) = delete;
    OutputPipe& operator=(const OutputPipe&) = delete;

    bool full() const {
        pollfd event{STDOUT_FILENO, POLLOUT, 0};
        return ::poll(&event, 1, 0) == 0;
    }

    std::string takeAll() const {
        std::string text;
        std::array<char, 4096> piece{};
        pollfd event{readEnd_.get(), POLLIN, 0};
        while (::poll(&event, 1, 0) == 1) {
            const ssize_t count = ::read(readEnd_.get(), piece.data(), piece.size());
            if (count <= 0) break;
            text.append(piece.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

    void closeReader() { readEnd_.reset(); }

private:
    UniqueFd before_;
    UniqueFd readEnd_;
};

TEST(PrintText, WritesTheTextAsItIsAndAtOnce) {
    testing::internal::CaptureStdout();

    printText("\n[host] loaded \xE6\x96\x87...");
    printText("");

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n[host] loaded \xE6\x96\x87...");
}

TEST(PrintText, CutsNothing) {
    const std::string text(100000, 'x');
    testing::internal::CaptureStdout();

    printText(text);

    EXPECT_EQ(testing::internal::GetCapturedStdout(), text);
}

TEST(PrintText, WaitsForASlowReader) {
    const OutputPipe output;
    const std::string text(20000, 'x');
    std::string read;
    {
        const std::jthread writer([&] { printText(text); });
        const auto end = Clock::now() + std::chrono::seconds(20);
        while (read.size() < text.size() && Clock::now() < end)
            read += output.takeAll();
    }
    EXPECT_EQ(read, text);
}

TEST(PrintText, DropsWhatNobodyReadsWithoutWaitingForEachTextAnew) {
    const OutputPipe output;
    const auto start = Clock::now();

    for (int i = 0; i < 1000; ++i)
        printText("unread line " + std::to_string(i) + "\n");

    // A wait for each text would take more than three minutes.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_TRUE(output.full());
    const std::string kept = output.takeAll();
    EXPECT_THAT(kept, StartsWith("unread line 0\nunread line 1\n"));
    EXPECT_THAT(kept, EndsWith("\n")) << "a short text is written whole or not at all";
}

TEST(PrintText, IsThereAgainOnceSomebodyReads) {
    const OutputPipe output;
    while (!output.full())
        printText("unread line\n");
    printText("lost\n");

    output.takeAll();
    printText("read\n");

    EXPECT_EQ(output.takeAll(), "read\n");
}

TEST(PrintText, ALogLineThatNobodyReadsIsInTheRing) {
    const OutputPipe output;
    while (!output.full())
        printText("unread line\n");

    log(LogLevel::Warn, "not printed");

    EXPECT_THAT(recentLogLines(1), testing::ElementsAre(EndsWith("] WARN  not printed")));
    EXPECT_THAT(output.takeAll(), testing::Not(testing::HasSubstr("not printed")));
}

TEST(PrintText, IsLostWithoutAReader) {
    OutputPipe output;
    output.closeReader();
    const auto before = std::signal(SIGPIPE, SIG_IGN);

    printText("nobody will ever read this\n");

    std::signal(SIGPIPE, before);
    EXPECT_EQ(errno, EPIPE);
}

/// Ends the process with 0 if `fd` is open on /dev/null.
[[noreturn]] void exitByWhetherOnNull(int fd) {
    std::array<char, 64> target{};
    const auto link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = ::readlink(link.c_str(), target.data(), target.size());
    ::_exit(size > 0 && std::string(target.data(), static_cast<std::size_t>(size)) == "/dev/null" ? 0 : 1);
}

TEST(MissingStandardStreams, AreOpenedOnNullAndTheOthersStay) {
    for (const int missing : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        EXPECT_EXIT(
            {
                for (int fd = 0; fd <= 2; ++fd)
                    ::close(fd);
                openMissingStandardStreams();
                exitByWhetherOnNull(missing);
            },
            testing::ExitedWithCode(0), "");
    }
    EXPECT_EXIT(
        {
            ::dup2(::open("/dev/zero", O_RDWR | O_CLOEXEC), STDOUT_FILENO);
            openMissingStandardStreams();
            exitByWhetherOnNull(STDOUT_FILENO);
        },
        testing::ExitedWithCode(1), "");
}

}  // namespace
}  // namespace qm
