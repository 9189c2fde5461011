#include "core/metrics_collector.h"

#include <atomic>
#include <cmath>
#include <filesystem>

#include "support/pch.h"
#include "support/run_on_threads.h"
#include "support/temporary_directory.h"
#include "util/json.h"

namespace qm {
namespace {

constexpr std::int64_t kStart = 1'700'000'000'000;

TEST(CpuLoad, IsTheShareOfTicksThatWereNotIdle) {
    const CpuLoad load = cpuLoad({.totalTicks = 1000, .idleTicks = 500}, {.totalTicks = 1200, .idleTicks = 650}, 4);

    EXPECT_EQ(load.systemPct, 25.0);
    EXPECT_EQ(load.processPct, 0.0);
}

TEST(CpuLoad, OfTheProcessIsItsShareOfAllCores) {
    const CpuSample before{.processTicks = 10, .timeTicks = 1000};
    const CpuSample now{.processTicks = 60, .timeTicks = 1100};

    EXPECT_EQ(cpuLoad(before, now, 1).processPct, 50.0);
    EXPECT_EQ(cpuLoad(before, now, 4).processPct, 12.5);
    EXPECT_EQ(cpuLoad(before, now, 0).processPct, 50.0);
}

TEST(CpuLoad, HasOneDecimal) {
    EXPECT_EQ(cpuLoad({}, {.totalTicks = 3, .idleTicks = 2}, 1).systemPct, 33.3);
    EXPECT_EQ(cpuLoad({}, {.totalTicks = 3, .idleTicks = 1}, 1).systemPct, 66.7);
    EXPECT_EQ(cpuLoad({}, {.processTicks = 1, .timeTicks = 3}, 1).processPct, 33.3);
    EXPECT_EQ(cpuLoad({}, {.totalTicks = 10000, .idleTicks = 9996}, 1).systemPct, 0.0);
    EXPECT_EQ(cpuLoad({}, {.totalTicks = 10000, .idleTicks = 9995}, 1).systemPct, 0.1);
}

TEST(CpuLoad, IsNeverAboveAHundred) {
    const CpuLoad load = cpuLoad({}, {.totalTicks = 10, .processTicks = 50, .timeTicks = 10}, 1);

    EXPECT_EQ(load.systemPct, 100.0);
    EXPECT_EQ(load.processPct, 100.0);
}

TEST(CpuLoad, IsNeverBelowZeroThoughMoreTicksWereIdleThanPassed) {
    EXPECT_EQ(cpuLoad({}, {.totalTicks = 10, .idleTicks = 20}, 1).systemPct, 0.0);
}

TEST(CpuLoad, IsZeroWhereNothingPassed) {
    const CpuSample sample{.totalTicks = 1000, .idleTicks = 500, .processTicks = 10, .timeTicks = 100};

    const CpuLoad load = cpuLoad(sample, sample, 1);

    EXPECT_EQ(load.systemPct, 0.0);
    EXPECT_EQ(load.processPct, 0.0);
}

TEST(CpuLoad, ACounterThatWentBackwardsStoodStill) {
    const CpuSample before{.totalTicks = 1000, .idleTicks = 500, .processTicks = 10, .timeTicks = 100};

    const CpuLoad idleBack =
        cpuLoad(before, {.totalTicks = 1100, .idleTicks = 400, .processTicks = 5, .timeTicks = 200}, 1);
    EXPECT_EQ(idleBack.systemPct, 100.0);
    EXPECT_EQ(idleBack.processPct, 0.0);

    const CpuLoad totalBack =
        cpuLoad(before, {.totalTicks = 900, .idleTicks = 600, .processTicks = 20, .timeTicks = 50}, 1);
    EXPECT_EQ(totalBack.systemPct, 0.0);
    EXPECT_EQ(totalBack.processPct, 0.0);
}

class MetricsCollectorTest : public testing::Test {
protected:
    json collect() { return collector_.collect(settings_); }

    CapabilityRegistry registry_;
    Settings settings_;
    std::int64_t now_ = kStart;
    std::optional<CpuSample> sample_ =
        CpuSample{.totalTicks = 1000, .idleTicks = 900, .processTicks = 5, .timeTicks = 100};
    MetricsCollector collector_{registry_, "9.8.7-test", [this] { return now_; }, [this] { return sample_; }};
};

TEST_F(MetricsCollectorTest, ASnapshotHasTheSevenKeysOfTheGateway) {
    const json snapshot = collect();

    std::vector<std::string> keys;
    for (const auto& item : snapshot.items())
        keys.push_back(item.key());
    EXPECT_THAT(
        keys, testing::UnorderedElementsAre("node", "uptimeMs", "cpu", "memory", "disk", "capabilities", "timestamp"));
}

TEST_F(MetricsCollectorTest, TheNodeIsThatOfTheSettingsAndTheProgramsVersion) {
    settings_.name = "box";
    settings_.nodeId = "node-1";
    settings_.description = "A box";
    settings_.executorToken = "secret";

    EXPECT_EQ(collect().at("node"), json::parse(R"({"name": "box", "nodeId": "node-1", "description": "A box",
                                                    "version": "9.8.7-test"})"));
}

TEST_F(MetricsCollectorTest, UptimeCountsFromTheConstruction) {
    EXPECT_EQ(collect().at("uptimeMs"), 0);
    now_ = kStart + 12'345;

    const json snapshot = collect();

    EXPECT_EQ(snapshot.at("uptimeMs"), 12'345);
    EXPECT_EQ(snapshot.at("timestamp"), kStart + 12'345);
}

TEST_F(MetricsCollectorTest, TheFirstRequestReportsNoLoad) {
    EXPECT_EQ(collect().at("cpu"),
              json({{"systemLoadPct", 0.0}, {"processLoadPct", 0.0}, {"cores", processorCount()}}));
}

TEST_F(MetricsCollectorTest, ALaterRequestReportsTheLoadSinceTheOneBefore) {
    collect();
    sample_ = CpuSample{.totalTicks = 1200, .idleTicks = 1050, .processTicks = 5, .timeTicks = 200};
    EXPECT_EQ(collect().at("cpu").at("systemLoadPct"), 25.0);

    sample_ = CpuSample{
        .totalTicks = 1300, .idleTicks = 1050, .processTicks = 5 + 50ULL * processorCount(), .timeTicks = 300};
    const json cpu = collect().at("cpu");

    EXPECT_EQ(cpu.at("systemLoadPct"), 100.0);
    EXPECT_EQ(cpu.at("processLoadPct"), 50.0);
}

TEST_F(MetricsCollectorTest, ASampleThatFailedReportsNoLoadAndIsNotCompared) {
    sample_.reset();
    EXPECT_EQ(collect().at("cpu").at("systemLoadPct"), 0.0);
    sample_ = CpuSample{.totalTicks = 1000, .idleTicks = 900};
    EXPECT_EQ(collect().at("cpu").at("systemLoadPct"), 0.0);
    sample_.reset();
    EXPECT_EQ(collect().at("cpu").at("systemLoadPct"), 0.0);

    sample_ = CpuSample{.totalTicks = 1100, .idleTicks = 950};
    EXPECT_EQ(collect().at("cpu").at("systemLoadPct"), 50.0);
}

TEST_F(MetricsCollectorTest, MemoryIsTheMachinesAndTheHeapIsTheProcesssResidentSize) {
    const json memory = collect().at("memory");

    EXPECT_EQ(memory.size(), 4U);
    EXPECT_EQ(memory.at("totalBytes"), totalMemoryBytes());
    EXPECT_EQ(memory.at("jvmHeapMaxBytes"), totalMemoryBytes());
    EXPECT_GT(memory.at("usedBytes").get<std::uint64_t>(), 0U);
    EXPECT_LE(memory.at("usedBytes").get<std::uint64_t>(), totalMemoryBytes());
    EXPECT_GT(memory.at("jvmHeapUsedBytes").get<std::uint64_t>(), 0U);
    EXPECT_LT(memory.at("jvmHeapUsedBytes").get<std::uint64_t>(), totalMemoryBytes());
}

TEST_F(MetricsCollectorTest, TheDiskIsThatOfTheWorkingDirectory) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path("/proc");
    const json ofProc = collect().at("disk");
    const test::TemporaryDirectory directory;
    std::filesystem::current_path(directory.path());
    const json ofDirectory = collect().at("disk");
    std::filesystem::current_path(before);

    EXPECT_EQ(ofProc, json({{"totalBytes", 0}, {"usableBytes", 0}}));
    EXPECT_EQ(ofDirectory.size(), 2U);
    EXPECT_EQ(ofDirectory.at("totalBytes"), diskSpace(directory.path()).totalBytes);
    EXPECT_GT(ofDirectory.at("totalBytes").get<std::uint64_t>(), 0U);
    EXPECT_LE(ofDirectory.at("usableBytes"), ofDirectory.at("totalBytes"));
}

TEST_F(MetricsCollectorTest, CapabilitiesAreTheIdsOfTheTableInItsOrder) {
    EXPECT_EQ(collect().at("capabilities"), json::array());
    for (const char* name : {"write_file", "read_file"}) {
        CapabilityDef definition;
        definition.name = name;
        registry_.registerCapability(definition);
    }

    EXPECT_EQ(collect().at("capabilities"), json({"write_file", "read_file"}));
}

TEST(MetricsCollector, TheRealCountersGiveLoadsWithinRangeAndWithOneDecimal) {
    CapabilityRegistry registry;
    MetricsCollector collector(registry, "9.8.7-test");
    collector.collect({});

    const json cpu = collector.collect({}).at("cpu");

    for (const char* key : {"systemLoadPct", "processLoadPct"}) {
        const double load = cpu.at(key);
        EXPECT_GE(load, 0.0) << key;
        EXPECT_LE(load, 100.0) << key;
        EXPECT_EQ(load, std::round(load * 10) / 10) << key;
    }
}

TEST(MetricsCollector, RequestsFromManyThreadsCompareEachSampleWithTheOneBefore) {
    CapabilityRegistry registry;
    std::uint64_t ticks = 0;  // Guarded by the collector: samples are taken one at a time.
    MetricsCollector collector(
        registry, "9.8.7-test", [] { return kStart; },
        [&] {
            ticks += 10;
            return CpuSample{.totalTicks = 2 * ticks, .idleTicks = ticks};
        });
    std::atomic<int> halves = 0;

    test::runOnThreads(8, [&](std::size_t) {
        for (int request = 0; request < 10; ++request) {
            if (collector.collect({}).at("cpu").at("systemLoadPct") == 50.0) ++halves;
        }
    });

    EXPECT_EQ(halves, 79);
}

}  // namespace
}  // namespace qm
