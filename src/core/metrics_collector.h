#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "capabilities/capability_registry.h"
#include "core/settings.h"
#include "device/system_probes.h"
#include "util/clock.h"
#include "util/json_fwd.h"

namespace qm {

/// Percentages from 0 to 100 with one decimal.
struct CpuLoad {
    double systemPct = 0;
    double processPct = 0;
};

/// The load between two samples on `cores` processors; a counter that went backwards counts as one that stood still.
CpuLoad cpuLoad(const CpuSample& before, const CpuSample& now, unsigned cores);

/// Answers the gateway's request for metrics. There is no sampling thread: load is what happened between two requests,
/// and the first one reports none.
class MetricsCollector {
public:
    using CpuSampler = std::function<std::optional<CpuSample>()>;

    /// `registry` must outlive the collector. Uptime counts from here.
    MetricsCollector(
        const CapabilityRegistry& registry, std::string version, ClockMs clock = wallClockMs,
        CpuSampler sampler = [] { return cpuSample(); });

    /// A snapshot of the device. Any thread.
    json collect(const Settings& settings);

private:
    CpuLoad sampleLoad(unsigned cores);

    const CapabilityRegistry& registry_;
    const std::string version_;
    const ClockMs clock_;
    const CpuSampler sampler_;
    const std::int64_t startedAtMs_;
    std::mutex sampleMutex_;
    std::optional<CpuSample> previous_;
};

}  // namespace qm
