// Runs of processes beside the bare system calls that they stand for.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "against_bare_process.h"
#include "device/run_process.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

constexpr std::array<const char*, 4> kBareTrue{"/bin/sh", "-c", "true", nullptr};
constexpr std::uint64_t kOutputBytes = 64ULL << 20;
constexpr std::array<const char*, 6> kProducer{"/bin/dd",    "if=/dev/zero", "bs=65536",
                                               "count=1024", "status=none",  nullptr};

ProcessOptions shellTrue(SandboxMode mode) {
    ProcessOptions options;
    options.command = "true";
    options.sandbox = planSandbox(mode, "/tmp");
    return options;
}

void require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(what);
}

/// Wanted: far below 2 ms "over_ms".
void shellTrueOverBareForkAndExec(benchmark::State& state) {
    const ProcessOptions options = shellTrue(SandboxMode::OFF);
    const auto control = std::make_shared<ProcessControl>();
    bench::runOverLimit(
        state, [&] { require(runProcess(options, control).exitCode == 0, "true failed"); },
        [] { bench::runBareProcess(kBareTrue.data()); });
}
BENCHMARK(shellTrueOverBareForkAndExec)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(500);

/// Wanted: at most 1 ms "over_ms".
void sandboxedShellTrueOverPlainOne(benchmark::State& state) {
    const ProcessOptions sandboxed = shellTrue(SandboxMode::WORKSPACE);
    const ProcessOptions plain = shellTrue(SandboxMode::OFF);
    bench::runOverLimit(
        state, [&] { require(runProcess(sandboxed).exitCode == 0, "true failed"); },
        [&] { require(runProcess(plain).exitCode == 0, "true failed"); });
}
BENCHMARK(sandboxedShellTrueOverPlainOne)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(500);

/// The same program's output read into one buffer and forgotten.
void readBare() {
    std::array<int, 2> ends{};
    require(::pipe2(ends.data(), O_CLOEXEC) == 0, "no pipe");
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(writeEnd.get(), STDOUT_FILENO);
        ::execv(kProducer[0], const_cast<char* const*>(kProducer.data()));
        ::_exit(127);
    }
    writeEnd.reset();
    static std::array<char, 65'536> buffer;
    std::uint64_t total = 0;
    for (ssize_t count = 0; (count = ::read(readEnd.get(), buffer.data(), buffer.size())) > 0;) {
        total += static_cast<std::uint64_t>(count);
    }
    require(::waitpid(child, nullptr, 0) == child && total == kOutputBytes, "output is missing");
}

/// Wanted: at least 1 GB/s "bestGB/s", and no more memory than the caps ask for ("grown_kib").
void sixtyFourMebibytesThroughTheCaps(benchmark::State& state) {
    ProcessOptions options;
    options.args.assign(kProducer.begin(), kProducer.end() - 1);
    rusage before{};
    ::getrusage(RUSAGE_SELF, &before);
    bench::runOverLimit(
        state,
        [&] {
            const ProcessResult result = runProcess(options);
            require(result.truncated && result.stdoutText.size() == options.maxOutputBytes, "wrong output");
        },
        readBare);
    rusage after{};
    ::getrusage(RUSAGE_SELF, &after);
    state.counters["bestGB/s"] = static_cast<double>(kOutputBytes) / state.counters["best_own_ms"] / 1e6;
    state.counters["grown_kib"] = static_cast<double>(after.ru_maxrss - before.ru_maxrss);
}
BENCHMARK(sixtyFourMebibytesThroughTheCaps)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(40);

}  // namespace
}  // namespace qm

BENCHMARK_MAIN();
