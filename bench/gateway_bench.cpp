// A session with a gateway, measured from the gateway's side: the round trip of a capability beside a bare echo through
// the same peer, and the real program's start, memory and idle time.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "capabilities/capability_registry.h"
#include "capabilities/core_capabilities.h"
#include "core/executor_core.h"
#include "device/checkpoint_service.h"
#include "device/terminal_service.h"
#include "device/workspace_registry.h"
#include "net/ws_connection.h"
#include "support/executor_process.h"
#include "support/gateway_peer.h"
#include "support/temporary_directory.h"
#include "util/json.h"

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

double secondsOf(const auto& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

/// Sends every message straight back.
class EchoExecutor {
public:
    explicit EchoExecutor(const std::string& url)
        : connection_(WsConnection::connect(url, "/ws/executor", "token")), thread_([this] {
              std::string text;
              while (connection_->receive(&text))
                  connection_->sendText(text);
          }) {}
    ~EchoExecutor() {
        connection_->close();
        thread_.join();
    }

private:
    std::shared_ptr<WsConnection> connection_;
    std::thread thread_;
};

Settings settingsFor(const std::string& url) {
    Settings settings;
    settings.gatewayUrl = url;
    settings.executorToken = "token";
    return settings;
}

/// The two alternate, so that a machine that slows down slows both. At most 2 times the echo is the aim.
void executeRoundTrip(benchmark::State& state) {
    test::GatewayPeer echoGateway;
    const EchoExecutor echo(echoGateway.url());
    echoGateway.waitForSessions(1);

    test::GatewayPeer gateway;
    test::TemporaryDirectory directory;
    CapabilityRegistry registry;
    WorkspaceRegistry workspaces(directory.path());
    registerCoreCapabilities(registry, "bench");
    TerminalService terminal;
    CheckpointService checkpoints(directory.path());
    ExecutorCore core(settingsFor(gateway.url()), registry, workspaces, terminal, checkpoints, directory.path());
    std::thread loop([&] { core.run(); });
    gateway.waitForRegister();

    const json call = {{"type", "execute"}, {"capabilityId", "device_time"}};
    // As long as the longer of the two frames of a call.
    const json message = {{"type", "executeResult"}, {"padding", std::string(120, 'x')}};
    std::vector<double> calls;
    std::vector<double> echoes;
    for (auto _ : state) {
        echoes.push_back(secondsOf([&] { echoGateway.request(message); }));
        calls.push_back(secondsOf([&] { benchmark::DoNotOptimize(gateway.request(call)); }));
        state.SetIterationTime(calls.back());
    }
    state.counters["echo_us"] = median(echoes) * 1e6;
    state.counters["execute_us"] = median(calls) * 1e6;
    state.counters["ratio_to_echo"] = median(calls) / median(echoes);
    core.stop();
    loop.join();
}
BENCHMARK(executeRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

test::ProcessSetup executorFor(const test::GatewayPeer& gateway, const test::TemporaryDirectory& directory) {
    test::ProcessSetup setup;
    setup.program = QM_EXECUTOR_BINARY;
    setup.arguments = {"--data-dir", directory.path().string(), "--gateway", gateway.url(), "--token", "token"};
    return setup;
}

/// From the start of the process to its `register` frame; aims: 50 ms, and 12 MiB of resident memory after it.
void startToRegister(benchmark::State& state) {
    test::GatewayPeer gateway;
    test::TemporaryDirectory directory;
    std::size_t residentKiB = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        test::ExecutorProcess executor(executorFor(gateway, directory));
        gateway.waitForRegister();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        gateway.request({{"type", "openModelFolder"}});
        residentKiB = std::max(residentKiB, executor.residentKiB());
        executor.sendSignal(SIGTERM);
        executor.waitForExit();
    }
    state.counters["resident_MiB"] = static_cast<double>(residentKiB) / 1024;
}
BENCHMARK(startToRegister)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

/// A minute with a session and nothing to do; the aim is under 0.02 s of processor time.
void idleMinute(benchmark::State& state) {
    test::GatewayPeer gateway;
    test::TemporaryDirectory directory;
    test::ExecutorProcess executor(executorFor(gateway, directory));
    gateway.waitForRegister();
    gateway.request({{"type", "openModelFolder"}});
    for (auto _ : state) {
        const auto before = executor.cpuTime();
        std::this_thread::sleep_for(std::chrono::seconds(60));
        state.counters["cpu_s"] = std::chrono::duration<double>(executor.cpuTime() - before).count();
    }
}
BENCHMARK(idleMinute)->UseRealTime()->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
}  // namespace qm

BENCHMARK_MAIN();
