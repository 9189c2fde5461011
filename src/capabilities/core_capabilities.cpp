#include "capabilities/core_capabilities.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "device/system_probes.h"
#include "util/clock.h"
#include "util/json.h"

namespace qm {
namespace {

std::string formatTime(const char* format, const std::tm& time) {
    std::array<char, 64> buffer{};
    return {buffer.data(), std::strftime(buffer.data(), buffer.size(), format, &time)};
}

std::string localTimeText(std::time_t seconds) {
    // localtime_r() alone keeps the zone of its first call; a device may travel while the daemon runs.
    tzset();
    std::tm time{};
    localtime_r(&seconds, &time);
    const auto hours = static_cast<int>(time.tm_gmtoff / 3600);
    const auto minutes = static_cast<int>(std::labs(time.tm_gmtoff % 3600) / 60);
    std::array<char, 96> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%s%+03d:%02d", formatTime("%Y-%m-%dT%H:%M:%S", time).c_str(), hours,
                  minutes);
    return buffer.data();
}

std::string utcTimeText(std::time_t seconds) {
    std::tm time{};
    gmtime_r(&seconds, &time);
    return formatTime("%Y-%m-%dT%H:%M:%SZ", time);
}

json systemInfo(const std::string& version) {
    const auto host = hostName();
    json info = {
        {"os", osName()},
        {"device", host.value_or("device")},
        {"arch", architecture()},
        {"cpuCores", processorCount()},
        {"memoryTotalBytes", totalMemoryBytes()},
        {"memoryUsedBytes", usedMemoryBytes()},
        {"executor", "quillmarsh-native"},
        {"executorVersion", version},
    };
    if (host) info["hostname"] = *host;
    return info;
}

CapabilityDef readOnlyWithoutArguments(std::string name, std::string displayName, std::string description) {
    CapabilityDef definition;
    definition.name = std::move(name);
    definition.displayName = std::move(displayName);
    definition.description = std::move(description);
    definition.parameters = {{"type", "object"}, {"properties", json::object()}};
    definition.effect = "READ_ONLY";
    return definition;
}

}  // namespace

json deviceTime(std::int64_t epochMs) {
    // Rounded down, so that moments before 1970 belong to the second in which they lie.
    const auto seconds = static_cast<std::time_t>(epochMs / 1000 - (epochMs % 1000 < 0 ? 1 : 0));
    return {{"localTime", localTimeText(seconds)}, {"utcTime", utcTimeText(seconds)}, {"epochMillis", epochMs}};
}

void registerCoreCapabilities(CapabilityRegistry& registry, std::string version) {
    auto systemInfoDefinition = readOnlyWithoutArguments(
        "system_info", "系统信息",
        "Report this device's operating system, CPU cores, memory and executor runtime information.");
    systemInfoDefinition.handler = [version = std::move(version)](const json&) { return systemInfo(version); };
    registry.registerCapability(std::move(systemInfoDefinition));

    auto deviceTimeDefinition = readOnlyWithoutArguments(
        "device_time", "设备时间", "Report this device's current local time, UTC time and timezone offset.");
    deviceTimeDefinition.handler = [](const json&) { return deviceTime(wallClockMs()); };
    registry.registerCapability(std::move(deviceTimeDefinition));
}

}  // namespace qm
