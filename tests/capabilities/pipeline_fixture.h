#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "capabilities/invocation_pipeline.h"
#include "support/pch.h"
#include "support/temporary_directory.h"
#include "util/json.h"

namespace qm::test {

/// A pipeline over registries of its own, with a clock that stands still and a checkpoint service that takes notes.
class PipelineTest : public testing::Test {
protected:
    static constexpr std::int64_t kNow = 1'700'000'000'000;

    PipelineTest() { workspaces_.load(); }

    /// Opens a new directory and returns its handle. The label is the directory's name.
    std::string openWorkspace(WorkspacePermission permission = WorkspacePermission::READ_WRITE) {
        const auto path = directory_ / ("workspace" + std::to_string(++workspaceCount_));
        std::filesystem::create_directories(path);
        const auto added = workspaces_.add(path.string(), "", permission);
        EXPECT_EQ(added.error, "");
        return added.workspace.value().id;
    }

    /// Registers a capability whose result is {"ran": true, "arguments": ...}.
    void define(const std::string& name, const json& required = json::array(), const std::string& effect = "WRITE") {
        define(
            name,
            [](const json& arguments) {
                return json{{"ran", true}, {"arguments", arguments}};
            },
            required, effect);
    }

    void define(const std::string& name, std::function<json(const json&)> handler, const json& required = json::array(),
                const std::string& effect = "WRITE") {
        CapabilityDef definition;
        definition.name = name;
        definition.parameters = {{"type", "object"}, {"required", required}};
        definition.effect = effect;
        definition.handler = [this, handler = std::move(handler)](const json& arguments) {
            ++handlerRuns_;
            return handler(arguments);
        };
        registry_.registerCapability(std::move(definition));
    }

    static runtime::ToolInvocation call(const std::string& name, json arguments = json::object()) {
        runtime::ToolInvocation invocation;
        invocation.name = name;
        invocation.arguments = std::move(arguments);
        return invocation;
    }

    json checkpoint(const Workspace& workspace, const std::string& label) {
        const std::lock_guard lock(checkpointMutex_);
        checkpoints_.push_back(workspace.id + ": " + label);
        return checkpointResult_;
    }

    TemporaryDirectory directory_;
    WorkspaceRegistry workspaces_{directory_ / "data"};
    CapabilityRegistry registry_;
    DisabledCapabilities disabled_;
    std::atomic<int> handlerRuns_ = 0;
    std::atomic<std::int64_t> now_ = kNow;
    std::mutex checkpointMutex_;
    std::vector<std::string> checkpoints_;
    json checkpointResult_ = {{"checkpoint", "ck_1"}};
    InvocationPipeline pipeline_{
        registry_,
        workspaces_,
        disabled_,
        [this](const Workspace& workspace, const std::string& label) { return checkpoint(workspace, label); },
        InvocationLimits{},
        [this] { return now_.load(); }};

private:
    int workspaceCount_ = 0;
};

}  // namespace qm::test
