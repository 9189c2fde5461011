#include "core/metrics_collector.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "util/json.h"

namespace qm {
namespace {

std::uint64_t increase(std::uint64_t before, std::uint64_t now) {
    return now > before ? now - before : 0;
}

/// `part` of `whole`, which isn't 0, in percent with one decimal.
double percentage(double part, double whole) {
    return std::clamp(std::round(part / whole * 1000) / 10, 0.0, 100.0);
}

json capabilityIds(const CapabilityRegistry& registry) {
    json ids = json::array();
    for (const CapabilityDef& definition : *registry.snapshot())
        ids.push_back(definition.name);
    return ids;
}

}  // namespace

CpuLoad cpuLoad(const CpuSample& before, const CpuSample& now, unsigned cores) {
    const auto total = static_cast<double>(increase(before.totalTicks, now.totalTicks));
    const auto idle = static_cast<double>(increase(before.idleTicks, now.idleTicks));
    const auto process = static_cast<double>(increase(before.processTicks, now.processTicks));
    const auto time = static_cast<double>(increase(before.timeTicks, now.timeTicks));
    CpuLoad load;
    if (total > 0) load.systemPct = percentage(total - idle, total);
    if (time > 0) load.processPct = percentage(process, std::max(1U, cores) * time);
    return load;
}

MetricsCollector::MetricsCollector(const CapabilityRegistry& registry, std::string version, ClockMs clock,
                                   CpuSampler sampler)
    : registry_(registry),
      version_(std::move(version)),
      clock_(std::move(clock)),
      sampler_(std::move(sampler)),
      startedAtMs_(clock_()) {}

json MetricsCollector::collect(const Settings& settings) {
    const std::int64_t now = clock_();
    const unsigned cores = processorCount();
    const CpuLoad load = sampleLoad(cores);
    const std::uint64_t totalMemory = totalMemoryBytes();
    const DiskSpace disk = diskSpace(".");
    return {
        {"node",
         {{"name", settings.name},
          {"nodeId", settings.nodeId},
          {"description", settings.description},
          {"version", version_}}},
        {"uptimeMs", now - startedAtMs_},
        {"cpu", {{"systemLoadPct", load.systemPct}, {"processLoadPct", load.processPct}, {"cores", cores}}},
        // The gateway's schema names a heap: here it is the resident size, and its limit the machine's memory.
        {"memory",
         {{"totalBytes", totalMemory},
          {"usedBytes", usedMemoryBytes()},
          {"jvmHeapUsedBytes", residentBytes()},
          {"jvmHeapMaxBytes", totalMemory}}},
        {"disk", {{"totalBytes", disk.totalBytes}, {"usableBytes", disk.usableBytes}}},
        {"capabilities", capabilityIds(registry_)},
        {"timestamp", now},
    };
}

CpuLoad MetricsCollector::sampleLoad(unsigned cores) {
    const std::lock_guard lock(sampleMutex_);
    const auto sample = sampler_();
    if (!sample) return {};
    const CpuLoad load = previous_ ? cpuLoad(*previous_, *sample, cores) : CpuLoad{};
    previous_ = sample;
    return load;
}

}  // namespace qm
