#pragma once

#include <functional>
#include <memory>
#include <stop_token>
#include <utility>

#include "capabilities/disabled_capabilities.h"
#include "capabilities/invocation_pipeline.h"
#include "core/metrics_collector.h"
#include "core/settings.h"
#include "util/version.h"

namespace qm {

/// What the commands of the gateway work on. Shared with the threads that carry them out, which may outlive the core
/// for a moment at the end of the process; the registries behind it belong to the entry point and live longer still.
struct GatewayServices {
    GatewayServices(const CapabilityRegistry& registry, const WorkspaceRegistry& workspaces,
                    TurnCheckpointer checkpointer)
        : pipeline(registry, workspaces, policy, std::move(checkpointer)), metrics(registry, kVersion) {}

    DisabledCapabilities policy;  ///< Read by the pipeline, hence before it.
    InvocationPipeline pipeline;
    MetricsCollector metrics;
};

/// What a command may ask of the core itself; only valid on the thread that reads the session.
struct GatewayHost {
    std::shared_ptr<GatewayServices> services;
    std::function<Settings()> settings;
    /// Runs a task on a thread that nobody waits for; what it throws is logged.
    std::function<void(const char* name, std::function<void()> task)> detachGuarded;
    /// The gateway refused this executor: the next wait is the long one.
    std::function<void()> markRejected;
    /// Raised when the core stops.
    std::stop_token stopToken;
};

}  // namespace qm
