#include "capabilities/core_capabilities.h"

#include <sys/syscall.h>

#include <cerrno>
#include <cstdlib>

#include "device/refused_system_calls.h"
#include "device/system_probes.h"
#include "support/pch.h"
#include "util/clock.h"
#include "util/json.h"

namespace qm {
namespace {

/// 2021-03-04T05:06:07.089Z
constexpr std::int64_t kMoment = 1'614'834'367'089;

class DeviceTime : public testing::Test {
protected:
    ~DeviceTime() override {
        unsetenv("TZ");
        tzset();
    }

    static std::string localTimeIn(const char* zone, std::int64_t epochMs = kMoment) {
        setenv("TZ", zone, 1);
        return deviceTime(epochMs).at("localTime");
    }
};

TEST_F(DeviceTime, ReportsTheMomentInThreeForms) {
    setenv("TZ", "XXX-5:45", 1);

    EXPECT_EQ(deviceTime(kMoment), json::parse(R"({"localTime": "2021-03-04T10:51:07+05:45",
        "utcTime": "2021-03-04T05:06:07Z", "epochMillis": 1614834367089})"));
}

TEST_F(DeviceTime, AMachineAtUtcReportsAnOffsetOfPlusZero) {
    EXPECT_EQ(localTimeIn("UTC0"), "2021-03-04T05:06:07+00:00");
}

TEST_F(DeviceTime, TheMinutesOfANegativeOffsetAreNotNegative) {
    EXPECT_EQ(localTimeIn("XXX3:30"), "2021-03-04T01:36:07-03:30");
}

TEST_F(DeviceTime, AWholeNegativeOffsetHasItsSign) {
    EXPECT_EQ(localTimeIn("XXX8"), "2021-03-03T21:06:07-08:00");
}

TEST_F(DeviceTime, AnOffsetOfTwoDigitHoursKeepsItsWidth) {
    EXPECT_EQ(localTimeIn("XXX-14"), "2021-03-04T19:06:07+14:00");
}

TEST_F(DeviceTime, TheSignBelongsToTheHoursSoThatLessThanOneBehindUtcPrintsPlus) {
    EXPECT_EQ(localTimeIn("XXX0:30"), "2021-03-04T04:36:07+00:30");
}

TEST_F(DeviceTime, AChangedZoneIsSeenByTheNextCall) {
    EXPECT_EQ(localTimeIn("XXX-1"), "2021-03-04T06:06:07+01:00");
    EXPECT_EQ(localTimeIn("XXX-2"), "2021-03-04T07:06:07+02:00");
}

TEST_F(DeviceTime, SummerTimeIsPartOfTheOffset) {
    constexpr auto zone = "CET-1CEST,M3.5.0,M10.5.0/3";
    EXPECT_EQ(localTimeIn(zone, 1'614'834'367'089), "2021-03-04T06:06:07+01:00");
    EXPECT_EQ(localTimeIn(zone, 1'625'378'767'000), "2021-07-04T08:06:07+02:00");
}

TEST_F(DeviceTime, AMomentBeforeTheEpochBelongsToTheSecondItLiesIn) {
    EXPECT_EQ(deviceTime(-1).at("utcTime"), "1969-12-31T23:59:59Z");
    EXPECT_EQ(deviceTime(-1000).at("utcTime"), "1969-12-31T23:59:59Z");
    EXPECT_EQ(deviceTime(0).at("utcTime"), "1970-01-01T00:00:00Z");
}

class CoreCapabilities : public testing::Test {
protected:
    CoreCapabilities() { registerCoreCapabilities(registry_, "9.8.7-test"); }

    const CapabilityDef& definition(std::size_t index) const { return registry_.snapshot()->at(index); }

    CapabilityRegistry registry_;
};

TEST_F(CoreCapabilities, AreTwoReadOnlyOnesWithoutArguments) {
    ASSERT_EQ(registry_.snapshot()->size(), 2U);
    const json emptySchema = {{"type", "object"}, {"properties", json::object()}};
    for (std::size_t index : {0U, 1U}) {
        EXPECT_EQ(definition(index).effect, "READ_ONLY");
        EXPECT_EQ(definition(index).parameters, emptySchema);
        EXPECT_EQ(definition(index).outputSchema, json::object());
        EXPECT_EQ(definition(index).provider, "builtin");
        EXPECT_EQ(definition(index).scope, "DEVICE");
        EXPECT_EQ(definition(index).sourceType, "NATIVE");
        EXPECT_EQ(definition(index).definitionVersion, "v1-native");
    }
}

TEST_F(CoreCapabilities, SystemInfoIsDescribed) {
    EXPECT_EQ(definition(0).name, "system_info");
    EXPECT_EQ(definition(0).displayName, "系统信息");
    EXPECT_EQ(definition(0).description,
              "Report this device's operating system, CPU cores, memory and executor runtime information.");
}

TEST_F(CoreCapabilities, DeviceTimeIsDescribed) {
    EXPECT_EQ(definition(1).name, "device_time");
    EXPECT_EQ(definition(1).displayName, "设备时间");
    EXPECT_EQ(definition(1).description, "Report this device's current local time, UTC time and timezone offset.");
}

TEST_F(CoreCapabilities, SystemInfoReportsTheDeviceAndTheProgram) {
    const json info = definition(0).handler(json::object());

    const auto host = hostName();
    ASSERT_TRUE(host.has_value());
    EXPECT_EQ(info.at("hostname"), *host);
    EXPECT_EQ(info.at("device"), *host);
    EXPECT_EQ(info.at("os"), "Linux");
    EXPECT_EQ(info.at("arch"), architecture());
    EXPECT_EQ(info.at("cpuCores"), processorCount());
    EXPECT_EQ(info.at("memoryTotalBytes"), totalMemoryBytes());
    EXPECT_GT(info.at("memoryUsedBytes").get<std::uint64_t>(), 0U);
    EXPECT_LE(info.at("memoryUsedBytes").get<std::uint64_t>(), totalMemoryBytes());
    EXPECT_EQ(info.at("executor"), "quillmarsh-native");
    EXPECT_EQ(info.at("executorVersion"), "9.8.7-test");
    EXPECT_EQ(info.size(), 9U);
}

TEST_F(CoreCapabilities, SystemInfoWithoutAHostNameNamesADevice) {
    test::withRefusedCalls({{SYS_uname, EPERM}}, [this] {
        const json info = definition(0).handler(json::object());

        EXPECT_FALSE(info.contains("hostname"));
        EXPECT_EQ(info.at("device"), "device");
        EXPECT_EQ(info.at("arch"), "unknown");
    });
}

TEST_F(CoreCapabilities, DeviceTimeReportsNow) {
    const auto before = wallClockMs();
    const json result = definition(1).handler(json::object());
    const auto after = wallClockMs();

    EXPECT_GE(result.at("epochMillis").get<std::int64_t>(), before);
    EXPECT_LE(result.at("epochMillis").get<std::int64_t>(), after);
    EXPECT_EQ(result, deviceTime(result.at("epochMillis")));
}

}  // namespace
}  // namespace qm
