#include "device/system_probes.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>

#include "device/refused_system_calls.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"

namespace qm {
namespace {

using test::TemporaryDirectory;
using test::writeFile;

class FakeProc : public ::testing::Test {
protected:
    void meminfo(std::string_view text) { writeFile(proc / "meminfo", text); }
    void statm(std::string_view text) { writeFile(proc / "self/statm", text); }
    void stat(std::string_view text) { writeFile(proc / "stat", text); }

    TemporaryDirectory proc;
};

TEST(SystemProbes, TheSystemIsLinux) {
    EXPECT_EQ(osName(), "Linux");
}

TEST(SystemProbes, TheArchitectureOfAarch64IsCalledArm64) {
    EXPECT_EQ(architectureName("aarch64"), "arm64");
    EXPECT_EQ(architectureName("x86_64"), "x86_64");
    EXPECT_EQ(architectureName("riscv64"), "riscv64");
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    EXPECT_EQ(architecture(), architectureName(names.machine));
}

TEST(SystemProbes, TheHostNameIsThatOfTheKernel) {
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    EXPECT_EQ(hostName(), names.nodename);
}

TEST(SystemProbes, AKernelThatDoesntSayItsNamesLeavesThemUnknown) {
    test::withRefusedCalls({{SYS_uname, EPERM}}, [] {
        EXPECT_EQ(architecture(), "unknown");
        EXPECT_EQ(hostName(), std::nullopt);
        EXPECT_EQ(osName(), "Linux");
    });
}

TEST(SystemProbes, ThereIsAtLeastOneProcessor) {
    EXPECT_GE(processorCount(), 1U);
}

TEST_F(FakeProc, AMemoryFieldIsTheNumberOfItsLine) {
    meminfo(
        "MemTotal:       16316412 kB\nMemFree:         1000 kB\nMemAvailable:    8000000 kB\nHugePages_Total:  0\n");
    EXPECT_EQ(memoryFieldKb("MemTotal", proc.path()), 16316412);
    EXPECT_EQ(memoryFieldKb("MemFree", proc.path()), 1000);
    EXPECT_EQ(memoryFieldKb("MemAvailable", proc.path()), 8000000);
    EXPECT_EQ(memoryFieldKb("HugePages_Total", proc.path()), 0);
}

TEST_F(FakeProc, AnAbsentMemoryFieldIsMinusOne) {
    EXPECT_EQ(memoryFieldKb("MemTotal", proc.path()), -1);
    meminfo("");
    EXPECT_EQ(memoryFieldKb("MemTotal", proc.path()), -1);
    meminfo("XMemTotal: 5 kB\nMemTotalX: 6 kB\nNone");
    EXPECT_EQ(memoryFieldKb("MemTotal", proc.path()), -1);
    EXPECT_EQ(memoryFieldKb("Mem", proc.path()), -1);
    EXPECT_EQ(memoryFieldKb("None", proc.path()), -1);
}

TEST_F(FakeProc, MemoryIsCountedInBytes) {
    meminfo("MemTotal: 1000 kB\nMemAvailable: 400 kB\n");
    EXPECT_EQ(totalMemoryBytes(proc.path()), 1024000U);
    EXPECT_EQ(usedMemoryBytes(proc.path()), 614400U);
}

TEST_F(FakeProc, WithoutMemAvailableNothingIsUsedAndTheTotalStaysRight) {
    meminfo("MemTotal: 1000 kB\nMemFree: 400 kB\n");
    EXPECT_EQ(usedMemoryBytes(proc.path()), 0U);
    EXPECT_EQ(totalMemoryBytes(proc.path()), 1024000U);
}

TEST_F(FakeProc, FiguresThatCannotBeTrueCountAsUnknown) {
    meminfo("MemTotal: 0 kB\nMemAvailable: 0 kB\n");
    EXPECT_EQ(totalMemoryBytes(proc.path()), 0U);
    EXPECT_EQ(usedMemoryBytes(proc.path()), 0U);
    meminfo("MemTotal: -5 kB\nMemAvailable: 1 kB\n");
    EXPECT_EQ(totalMemoryBytes(proc.path()), 0U);
    EXPECT_EQ(usedMemoryBytes(proc.path()), 0U);
    meminfo("MemTotal: 5 kB\nMemAvailable: -1 kB\n");
    EXPECT_EQ(usedMemoryBytes(proc.path()), 0U);
    meminfo("MemTotal: 5 kB\nMemAvailable: 6 kB\n");
    EXPECT_EQ(usedMemoryBytes(proc.path()), 0U);
    meminfo("MemTotal: many kB\n");
    EXPECT_EQ(totalMemoryBytes(proc.path()), 0U);
}

TEST_F(FakeProc, AFigureBeyondTheRangeStaysWithinIt) {
    meminfo("MemTotal: 99999999999999999999 kB\nMemAvailable: 0 kB\n");
    EXPECT_EQ(totalMemoryBytes(proc.path()), std::uint64_t{INT64_MAX} / 1024 * 1024);
    EXPECT_EQ(usedMemoryBytes(proc.path()), std::uint64_t{INT64_MAX} / 1024 * 1024);
}

TEST_F(FakeProc, TheResidentSizeIsTheSecondNumberInPages) {
    statm("100 7 3 1 0 2 0\n");
    EXPECT_EQ(residentBytes(proc.path()), 7U * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)));
}

TEST_F(FakeProc, AResidentSizeThatCannotBeReadIsZero) {
    EXPECT_EQ(residentBytes(proc.path()), 0U);
    for (const auto* const text : {"", "100", "100 ", "x 5", "100 x"}) {
        statm(text);
        EXPECT_EQ(residentBytes(proc.path()), 0U) << text;
    }
}

TEST_F(FakeProc, TheCpuSampleIsTheFirstEightColumnsWithIdleAndWaitingAsIdle) {
    stat("cpu  1 20 300 4000 50000 600000 7000000 80000000 900000000 1000000000\ncpu0 9 9 9 9 9 9 9 9 9 9\n");
    const auto sample = cpuSample(proc.path());
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->totalTicks, 87654321U);
    EXPECT_EQ(sample->idleTicks, 54000U);
}

TEST_F(FakeProc, ColumnsThatAnOldKernelLacksCountAsZero) {
    stat("intr 5\ncpu  1 20 300 4000\ncpu0 9 9 9 9\n");
    const auto sample = cpuSample(proc.path());
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->totalTicks, 4321U);
    EXPECT_EQ(sample->idleTicks, 4000U);
}

TEST_F(FakeProc, WithoutTheLineOrItsIdleColumnThereIsNoSample) {
    EXPECT_FALSE(cpuSample(proc.path()));
    for (const auto* const text : {"", "cpu0 1 2 3 4 5 6 7 8\n", "cpu", "cpu  1 2 3\n4 5\n", "cpu  x 2 3 4\n"}) {
        stat(text);
        EXPECT_FALSE(cpuSample(proc.path())) << text;
    }
}

TEST(SystemProbes, TheProcessAndTheClockTickOn) {
    const auto first = cpuSample();
    ASSERT_TRUE(first);
    std::atomic<std::uint64_t> work{0};
    EXPECT_TRUE(test::waitUntil([&] {
        for (int i = 0; i < 100000; ++i)
            ++work;
        const auto now = cpuSample();
        return now && now->processTicks > first->processTicks && now->timeTicks > first->timeTicks &&
               now->totalTicks > first->totalTicks;
    }));
}

TEST(SystemProbes, TheMachineItselfHasMemoryAndThisProcessTakesSome) {
    EXPECT_GT(totalMemoryBytes(), std::uint64_t{16} << 20);
    EXPECT_LT(usedMemoryBytes(), totalMemoryBytes());
    EXPECT_GT(residentBytes(), 0U);
    EXPECT_LT(residentBytes(), totalMemoryBytes());
}

TEST(SystemProbes, TheDiskIsThatOfThePath) {
    const TemporaryDirectory directory;
    struct statvfs status {};
    ASSERT_EQ(::statvfs(directory.path().c_str(), &status), 0);
    EXPECT_EQ(diskSpace(directory.path()).totalBytes, std::uint64_t{status.f_blocks} * status.f_frsize);
    EXPECT_GT(diskSpace(directory.path()).totalBytes, 0U);
    EXPECT_LE(diskSpace(directory.path()).usableBytes, diskSpace(directory.path()).totalBytes);
}

TEST(SystemProbes, AnEmptyPathIsTheWorkingDirectoryAndAMissingOneHasNoSpace) {
    EXPECT_EQ(diskSpace("").totalBytes, diskSpace(".").totalBytes);
    EXPECT_GT(diskSpace("").totalBytes, 0U);
    EXPECT_EQ(diskSpace("/no/such/path").totalBytes, 0U);
    EXPECT_EQ(diskSpace("/no/such/path").usableBytes, 0U);
}

}  // namespace
}  // namespace qm
