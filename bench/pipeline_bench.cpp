// What the admission pipeline costs beside the handler that it calls, and what a look at the table costs.
#include <benchmark/benchmark.h>

#include <string>

#include "capabilities/invocation_pipeline.h"
#include "support/temporary_directory.h"
#include "util/json.h"

namespace qm {
namespace {

constexpr int kTableSize = 40;

/// A table of the size a well-equipped device has; "target" stands at its end, where the look-up is slowest.
void fillTable(CapabilityRegistry& registry) {
    for (int number = 0; number <= kTableSize; ++number) {
        CapabilityDef definition;
        definition.name = number == kTableSize ? "target" : "capability_" + std::to_string(number);
        definition.displayName = "A capability";
        definition.description = "Does something in a workspace and reports what became of it.";
        definition.parameters = {{"type", "object"},
                                 {"properties", {{"workspace", {{"type", "string"}}}, {"path", {{"type", "string"}}}}},
                                 {"required", json::array({"path"})}};
        definition.effect = "WRITE";
        definition.handler = [](const json& arguments) { return json{{"size", arguments.size()}}; };
        registry.registerCapability(std::move(definition));
    }
}

class PipelineBench : public benchmark::Fixture {
public:
    PipelineBench() {
        workspaces_.load();
        const auto opened = workspaces_.add(directory_.path().string(), "", WorkspacePermission::READ_WRITE);
        handle_ = opened.workspace.value().id;
        fillTable(registry_);
    }

protected:
    runtime::ToolInvocation call() const {
        runtime::ToolInvocation invocation;
        invocation.name = "target";
        invocation.arguments = {{"path", "a"}};
        return invocation;
    }

    test::TemporaryDirectory directory_;
    WorkspaceRegistry workspaces_{directory_ / "data"};
    std::string handle_;
    CapabilityRegistry registry_;
    DisabledCapabilities disabled_;
    InvocationPipeline pipeline_{registry_, workspaces_, disabled_,
                                 [](const Workspace&, const std::string&) { return json::object(); }};
};

/// The limit: the handler called with nothing in front of it.
BENCHMARK_F(PipelineBench, BareHandler)(benchmark::State& state) {
    const auto table = registry_.snapshot();
    for (auto _ : state) {
        const auto invocation = call();
        benchmark::DoNotOptimize(table->back().handler(invocation.arguments));
    }
}

BENCHMARK_F(PipelineBench, Invoke)(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(pipeline_.invoke(call()));
}

BENCHMARK_F(PipelineBench, InvokeInAWorkspaceAndTurn)(benchmark::State& state) {
    for (auto _ : state) {
        auto invocation = call();
        invocation.workspace = handle_;
        invocation.access = "write";
        invocation.runId = "run_1";
        invocation.round = 1;
        benchmark::DoNotOptimize(pipeline_.invoke(std::move(invocation)));
    }
}

/// Each call has a new key, so that the ledger is full and forgets one each time.
BENCHMARK_F(PipelineBench, InvokeWithANewKey)(benchmark::State& state) {
    std::uint64_t number = 0;
    for (auto _ : state) {
        auto invocation = call();
        invocation.idempotencyKey = "key_" + std::to_string(++number);
        benchmark::DoNotOptimize(pipeline_.invoke(std::move(invocation)));
    }
}

BENCHMARK_F(PipelineBench, InvokeFromJson)(benchmark::State& state) {
    const json context = {{"taskId", "task_1"},
                          {"access", "write"},
                          {"workspace", {{"id", handle_}}},
                          {"budgets", {{"stdoutBytes", 1000}}}};
    for (auto _ : state)
        benchmark::DoNotOptimize(pipeline_.invoke("target", {{"path", "a"}}, context));
}

BENCHMARK_F(PipelineBench, Snapshot)(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(registry_.snapshot());
}

BENCHMARK_F(PipelineBench, Register)(benchmark::State& state) {
    const CapabilityDef definition = registry_.snapshot()->back();
    for (auto _ : state)
        registry_.registerCapability(definition);
}

}  // namespace
}  // namespace qm

BENCHMARK_MAIN();
