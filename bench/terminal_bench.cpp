// Commands through the admission pipeline beside a bare shell, and many of them at once.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "against_bare_process.h"
#include "capabilities/capability_registry.h"
#include "capabilities/disabled_capabilities.h"
#include "capabilities/invocation_pipeline.h"
#include "device/process_host.h"
#include "device/terminal_capabilities.h"
#include "device/terminal_service.h"
#include "device/workspace_registry.h"
#include "support/temporary_directory.h"
#include "util/json.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using std::chrono::steady_clock;

constexpr std::array<const char*, 4> kBareTrue{"/bin/sh", "-c", "true", nullptr};

/// The terminal's capabilities on one workspace.
class Terminal {
public:
    Terminal() {
        id_ = workspaces_.add(root_.path().native(), "bench", WorkspacePermission::EXECUTE).workspace.value().id;
        registerTerminalCapabilities(registry_, workspaces_, service_);
    }

    void runTrue(const char* sandbox) {
        const json result = pipeline_.invoke(
            "run_command", {{"workspace", id_}, {"command", "true"}, {"sandbox", sandbox}}, json::object());
        if (result.value("exitCode", -1) != 0) throw std::runtime_error(dumpJson(result));
    }

private:
    test::TemporaryDirectory root_;
    test::TemporaryDirectory data_;
    WorkspaceRegistry workspaces_{data_.path()};
    std::string id_;
    CapabilityRegistry registry_;
    DisabledCapabilities disabled_;
    TerminalService service_;
    InvocationPipeline pipeline_{registry_, workspaces_, disabled_, {}};
};

/// Wanted: at most 2 ms "over_ms".
void runCommandOverBareForkAndExec(benchmark::State& state) {
    Terminal terminal;
    bench::runOverLimit(
        state, [&] { terminal.runTrue("OFF"); }, [] { bench::runBareProcess(kBareTrue.data()); });
}
BENCHMARK(runCommandOverBareForkAndExec)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(500);

/// Wanted: at most 1 ms "over_ms".
void sandboxedRunCommandOverPlainOne(benchmark::State& state) {
    Terminal terminal;
    bench::runOverLimit(
        state, [&] { terminal.runTrue("WORKSPACE"); }, [&] { terminal.runTrue("OFF"); });
}
BENCHMARK(sandboxedRunCommandOverPlainOne)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(500);

std::size_t entriesOf(const char* directory) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
}

ProcessOptions shell(std::string command) {
    ProcessOptions options;
    options.command = std::move(command);
    return options;
}

/// A pipe with a name, into which commands write a line each.
class NamedPipe {
public:
    NamedPipe() : path_(directory_ / "pipe") {
        if (::mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
        // With a writer of its own it never ends between two commands.
        fd_.reset(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
    }
    const std::string& path() const { return path_.native(); }

    void awaitLines(std::size_t count) const {
        std::array<char, 64> buffer{};
        while (count > 0) {
            const ssize_t got = ::read(fd_.get(), buffer.data(), std::min(count, buffer.size()));
            if (got <= 0) throw std::runtime_error("nothing came through the pipe");
            count -= static_cast<std::size_t>(got);
        }
    }

private:
    test::TemporaryDirectory directory_;
    std::filesystem::path path_;
    UniqueFd fd_;
};

double millisecondsSince(steady_clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(steady_clock::now() - begin).count();
}

/// Wanted: at most 1 s "until_last_runs_ms", and nothing in "threads_left" and "descriptors_left".
void fiveHundredCommandsInFlight(benchmark::State& state) {
    constexpr std::size_t kCommands = 500;
    prepareProcessHost();
    for (auto iteration : state) {
        const NamedPipe running;
        const std::size_t threads = entriesOf("/proc/self/task");
        const std::size_t descriptors = entriesOf("/proc/self/fd");
        TerminalService terminal;
        const ProcessOptions options = shell("echo > " + running.path() + "; exec sleep 60");

        const auto begin = steady_clock::now();
        for (std::size_t index = 0; index < kCommands; ++index)
            terminal.start(options, "ws", "sleep", "");
        state.counters["until_last_started_ms"] = millisecondsSince(begin);
        running.awaitLines(kCommands);
        state.counters["until_last_runs_ms"] = millisecondsSince(begin);

        terminal.shutdown();
        state.counters["descriptors_left"] =
            static_cast<double>(entriesOf("/proc/self/fd")) - static_cast<double>(descriptors);
        while (entriesOf("/proc/self/task") > threads)
            std::this_thread::yield();
        state.counters["threads_left"] =
            static_cast<double>(entriesOf("/proc/self/task")) - static_cast<double>(threads);
    }
}
BENCHMARK(fiveHundredCommandsInFlight)->Unit(benchmark::kMillisecond)->Iterations(3);

/// Wanted: at most 2 s.
void shutdownWithTwoHundredCommands(benchmark::State& state) {
    constexpr std::size_t kCommands = 200;
    prepareProcessHost();
    for (auto iteration : state) {
        const NamedPipe running;
        TerminalService terminal;
        const ProcessOptions options = shell("echo > " + running.path() + "; sleep 60 & sleep 60");
        for (std::size_t index = 0; index < kCommands; ++index)
            terminal.start(options, "ws", "sleep", "");
        running.awaitLines(kCommands);

        const auto begin = steady_clock::now();
        terminal.shutdown();
        state.SetIterationTime(millisecondsSince(begin) / 1000);
    }
}
BENCHMARK(shutdownWithTwoHundredCommands)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace qm

BENCHMARK_MAIN();
