#include "device/system_probes.h"

#include <sys/statvfs.h>
#include <sys/times.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <thread>

#include "util/file_io.h"

namespace qm {
namespace {

constexpr std::int64_t kMaxKilobytes = std::numeric_limits<std::int64_t>::max() / 1024;

/// What follows `prefix` on the first line that begins with it, together with all later lines.
std::optional<std::string> textAfter(const std::filesystem::path& file, const std::string& prefix) {
    auto text = readRegularFile(file);
    if (!text) return std::nullopt;
    std::size_t line = 0;
    while (text->compare(line, prefix.size(), prefix) != 0) {
        line = text->find('\n', line);
        if (line == std::string::npos) return std::nullopt;
        ++line;
    }
    return text->substr(line + prefix.size());
}

std::uint64_t saturatingProduct(std::uint64_t left, std::uint64_t right) {
    std::uint64_t product = 0;
    return __builtin_mul_overflow(left, right, &product) ? std::numeric_limits<std::uint64_t>::max() : product;
}

}  // namespace

std::string osName() {
    return "Linux";
}

std::string architecture() {
    utsname names{};
    return ::uname(&names) == 0 ? architectureName(names.machine) : "unknown";
}

std::string architectureName(std::string_view machine) {
    return machine == "aarch64" ? "arm64" : std::string(machine);
}

std::optional<std::string> hostName() {
    std::array<char, 256> name{};
    // A name that is cut may come without its end; the last byte stays out of the call's reach.
    if (::gethostname(name.data(), name.size() - 1) != 0) return std::nullopt;
    return name.data();
}

unsigned processorCount() {
    return std::max(1U, std::thread::hardware_concurrency());
}

std::int64_t memoryFieldKb(std::string_view name, const std::filesystem::path& procRoot) {
    const auto value = textAfter(procRoot / "meminfo", std::string(name) + ":");
    return value ? std::strtoll(value->c_str(), nullptr, 10) : -1;
}

std::uint64_t totalMemoryBytes(const std::filesystem::path& procRoot) {
    const std::int64_t total = memoryFieldKb("MemTotal", procRoot);
    return total < 1 ? 0 : static_cast<std::uint64_t>(std::min(total, kMaxKilobytes)) * 1024;
}

std::uint64_t usedMemoryBytes(const std::filesystem::path& procRoot) {
    const std::int64_t total = memoryFieldKb("MemTotal", procRoot);
    const std::int64_t available = memoryFieldKb("MemAvailable", procRoot);
    if (total < 1 || available < 0 || available > total) return 0;
    return static_cast<std::uint64_t>(std::min(total - available, kMaxKilobytes)) * 1024;
}

std::uint64_t residentBytes(const std::filesystem::path& procRoot) {
    const auto statm = readRegularFile(procRoot / "self" / "statm");
    if (!statm) return 0;
    char* afterSize = nullptr;
    std::strtoull(statm->c_str(), &afterSize, 10);
    const std::uint64_t pages = std::strtoull(afterSize, nullptr, 10);
    const long pageBytes = ::sysconf(_SC_PAGESIZE);
    return pageBytes > 0 ? saturatingProduct(pages, static_cast<std::uint64_t>(pageBytes)) : 0;
}

std::optional<CpuSample> cpuSample(const std::filesystem::path& procRoot) {
    // user, nice, system, idle, iowait, irq, softirq, steal. What follows, guest time, is part of user and nice
    // already.
    constexpr std::size_t kColumns = 8;
    constexpr std::size_t kIdle = 3;
    constexpr std::size_t kIoWait = 4;

    const auto line = textAfter(procRoot / "stat", "cpu ");
    if (!line) return std::nullopt;
    std::array<std::uint64_t, kColumns> columns{};
    const std::string figures = line->substr(0, line->find('\n'));
    const char* position = figures.c_str();
    std::size_t count = 0;
    for (; count < kColumns; ++count) {
        char* end = nullptr;
        columns.at(count) = std::strtoull(position, &end, 10);
        if (end == position) break;
        position = end;
    }
    // Old kernels end after the fourth column; without it there is no load to speak of.
    if (count <= kIdle) return std::nullopt;

    tms processTimes{};
    const clock_t now = ::times(&processTimes);
    CpuSample sample;
    for (const auto ticks : columns)
        sample.totalTicks += ticks;
    sample.idleTicks = columns[kIdle] + columns[kIoWait];
    sample.processTicks = static_cast<std::uint64_t>(processTimes.tms_utime + processTimes.tms_stime);
    sample.timeTicks = static_cast<std::uint64_t>(now);
    return sample;
}

DiskSpace diskSpace(const std::filesystem::path& path) {
    struct statvfs status {};
    if (::statvfs(path.empty() ? "." : path.c_str(), &status) != 0) return {};
    return {saturatingProduct(status.f_blocks, status.f_frsize), saturatingProduct(status.f_bavail, status.f_frsize)};
}

}  // namespace qm
