// Checkpoints against what they can't do without: a plain copy of the tree to the same disk, and the hashing of it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "against_bare_process.h"
#include "device/checkpoint_service.h"
#include "device/workspace_registry.h"
#include "support/temporary_directory.h"
#include "util/json.h"
#include "util/sha256.h"
#include "util/unique_fd.h"

namespace qm::bench {
namespace {

namespace fs = std::filesystem;

/// A workspace of files with random contents, in directories of a hundred.
class Workplace {
public:
    Workplace(int files, std::size_t fileBytes) {
        std::mt19937_64 random(1);
        for (int index = 0; index < files; ++index) {
            std::string content(fileBytes, '\0');
            for (char& byte : content)
                byte = static_cast<char>(random());
            const fs::path file =
                workspace.hostPath / ("dir" + std::to_string(index / 100)) / ("file" + std::to_string(index) + ".bin");
            test::writeFile(file, content);
            paths.push_back(file);
        }
        fs::create_directory(target);
        ::sync();
    }

    test::TemporaryDirectory directory;
    Workspace workspace{"ws_benchmark", "bench", directory / "work", WorkspacePermission::READ_WRITE};
    fs::path target = directory / "target";
    std::vector<fs::path> paths;
};

/// What a piece of work took: time on the clock, and processor time of this process and the children it waited for.
struct Cost {
    double seconds = 0;
    double cpuSeconds = 0;
};

double cpuSeconds() {
    double total = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        for (const timeval& part : {usage.ru_utime, usage.ru_stime}) {
            total += static_cast<double>(part.tv_sec) + 1e-6 * static_cast<double>(part.tv_usec);
        }
    }
    return total;
}

Cost costOf(const auto& work) {
    const auto begin = std::chrono::steady_clock::now();
    const double cpuBegin = cpuSeconds();
    work();
    const double cpu = cpuSeconds() - cpuBegin;
    return {std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), cpu};
}

double median(std::vector<Cost> costs, double Cost::*part) {
    const auto middle = costs.begin() + static_cast<std::ptrdiff_t>(costs.size() / 2);
    std::nth_element(costs.begin(), middle, costs.end(),
                     [part](const Cost& left, const Cost& right) { return left.*part < right.*part; });
    return (*middle).*part;
}

/// Runs both by turns and reports the medians in milliseconds and their ratio; the ratio of the processor times too,
/// which other work on the machine disturbs less.
template <typename Own, typename Limit, typename Between>
void compare(benchmark::State& state, const Own& own, const Limit& limit, const Between& between) {
    std::vector<Cost> ownCosts;
    std::vector<Cost> limitCosts;
    for (auto iteration : state) {
        limitCosts.push_back(costOf(limit));
        between();
        ownCosts.push_back(costOf(own));
        between();
        state.SetIterationTime(ownCosts.back().seconds);
    }
    state.counters["own_ms"] = 1e3 * median(ownCosts, &Cost::seconds);
    state.counters["limit_ms"] = 1e3 * median(limitCosts, &Cost::seconds);
    state.counters["ratio"] = median(ownCosts, &Cost::seconds) / median(limitCosts, &Cost::seconds);
    state.counters["cpu_ratio"] = median(ownCosts, &Cost::cpuSeconds) / median(limitCosts, &Cost::cpuSeconds);
    state.counters["own_cpu_ms"] = 1e3 * median(ownCosts, &Cost::cpuSeconds);
}

void mustSucceed(const json& result) {
    if (result.contains("error")) throw std::runtime_error(dumpJson(result));
}

std::size_t statusKilobytes(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":")) return std::stoul(line.substr(key.size() + 1));
    }
    throw std::runtime_error("no " + key);
}

/// By how much the resident size rises at most during `work`, in mebibytes.
double peakGrowth(const auto& work) {
    std::ofstream("/proc/self/clear_refs") << "5";
    const std::size_t before = statusKilobytes("VmRSS");
    work();
    return static_cast<double>(statusKilobytes("VmHWM") - before) / 1024;
}

/// Each file read and hashed, one after the other.
void hashAll(const std::vector<fs::path>& paths) {
    std::vector<char> buffer(262144);
    for (const auto& path : paths) {
        const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        Sha256 digest;
        for (;;) {
            const ssize_t count = ::read(fd.get(), buffer.data(), buffer.size());
            if (count < 0) throw std::runtime_error("read");
            if (count == 0) break;
            digest.update({buffer.data(), static_cast<std::size_t>(count)});
        }
        benchmark::DoNotOptimize(digest.finish());
    }
}

/// The first checkpoint of a workspace against `cp -r` of it; `state` gives the number and the size of its files.
void createAgainstCopy(benchmark::State& state) {
    const Workplace place(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    const std::string copy = place.target / "copy";
    const std::array<const char*, 5> command{"/bin/cp", "-r", place.workspace.hostPath.c_str(), copy.c_str(), nullptr};
    const auto create = [&] { mustSucceed(CheckpointService(place.target / "data").create(place.workspace, "")); };
    const auto clear = [&] {
        fs::remove_all(place.target);
        fs::create_directory(place.target);
        ::sync();
    };
    state.counters["growth_MiB"] = peakGrowth(create);
    clear();
    compare(
        state, create, [&] { runBareProcess(command.data()); }, clear);
}

/// As many checkpoints as are kept exist already, so each one removes another.
void createWithPruning(benchmark::State& state) {
    const Workplace place(2000, 20000);
    CheckpointService service(place.target);
    for (int count = 0; count < 8; ++count)
        mustSucceed(service.create(place.workspace, ""));
    for (auto iteration : state)
        mustSucceed(service.create(place.workspace, ""));
}

void diffAgainstHashing(benchmark::State& state) {
    const Workplace place(2000, 20000);
    CheckpointService service(place.target);
    mustSucceed(service.create(place.workspace, ""));
    compare(
        state, [&] { mustSucceed(service.diff(place.workspace, "")); }, [&] { hashAll(place.paths); }, [] {});
}

BENCHMARK(createAgainstCopy)
    ->ArgNames({"files", "bytes"})
    ->Args({2000, 20000})
    ->Iterations(15)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(createAgainstCopy)
    ->ArgNames({"files", "bytes"})
    ->Args({5000, 53687})
    ->Iterations(7)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(createWithPruning)->Iterations(10)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(diffAgainstHashing)->Iterations(30)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qm::bench

BENCHMARK_MAIN();
