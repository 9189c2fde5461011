#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace qm {

/// Probes of the machine through uname, statvfs and /proc. Plain functions, any thread, none throws. Those that read
/// /proc take its place as an argument so that tests give them files of their own.

/// "Linux".
std::string osName();

/// "x86_64"; "arm64" for `aarch64`; else the machine name of uname; "unknown" if that fails.
std::string architecture();
/// The mapping behind architecture().
std::string architectureName(std::string_view machine);

/// gethostname(); nothing if it fails.
std::optional<std::string> hostName();

/// Number of processors, at least 1.
unsigned processorCount();

/// Kilobytes of the line `name` ("MemTotal") of meminfo, -1 if there is none.
std::int64_t memoryFieldKb(std::string_view name, const std::filesystem::path& procRoot = "/proc");
/// Bytes; 0 if unknown.
std::uint64_t totalMemoryBytes(const std::filesystem::path& procRoot = "/proc");
std::uint64_t usedMemoryBytes(const std::filesystem::path& procRoot = "/proc");
std::uint64_t residentBytes(const std::filesystem::path& procRoot = "/proc");

/// One reading of the processor counters. All in clock ticks, but `timeTicks`, the steady time in the same unit.
struct CpuSample {
    std::uint64_t totalTicks = 0;
    std::uint64_t idleTicks = 0;  ///< Idle plus waiting for input and output.
    std::uint64_t processTicks = 0;
    std::uint64_t timeTicks = 0;
};
std::optional<CpuSample> cpuSample(const std::filesystem::path& procRoot = "/proc");

struct DiskSpace {
    std::uint64_t totalBytes = 0;
    std::uint64_t usableBytes = 0;
};
/// Both 0 on failure; an empty path means ".".
DiskSpace diskSpace(const std::filesystem::path& path);

}  // namespace qm
