#include "capabilities/capability_registry.h"

#include <atomic>
#include <thread>

#include "support/pch.h"
#include "support/run_on_threads.h"

namespace qm {
namespace {

CapabilityDef named(std::string name, std::string provider = "builtin", std::string version = "v1") {
    CapabilityDef definition;
    definition.name = std::move(name);
    definition.provider = std::move(provider);
    definition.definitionVersion = std::move(version);
    return definition;
}

/// "name@version" of each definition, in table order.
std::vector<std::string> contents(const CapabilityRegistry::Snapshot& snapshot) {
    std::vector<std::string> lines;
    for (const auto& definition : *snapshot)
        lines.push_back(definition.name + "@" + definition.definitionVersion);
    return lines;
}

TEST(CapabilityRegistry, StartsEmptyAtVersionZero) {
    const CapabilityRegistry registry;

    EXPECT_THAT(contents(registry.snapshot()), testing::IsEmpty());
    EXPECT_EQ(registry.version(), 0U);
}

TEST(CapabilityRegistry, RegistersInOrder) {
    CapabilityRegistry registry;

    registry.registerCapability(named("a"));
    registry.registerCapability(named("b"));

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("a@v1", "b@v1"));
    EXPECT_EQ(registry.version(), 2U);
}

TEST(CapabilityRegistry, ADefinitionOfTheSameNameIsReplacedAndMovesToTheEnd) {
    CapabilityRegistry registry;
    registry.registerCapability(named("a"));
    registry.registerCapability(named("b"));

    registry.registerCapability(named("a", "other", "v2"));

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("b@v1", "a@v2"));
    EXPECT_EQ(registry.version(), 3U);
}

TEST(CapabilityRegistry, NamesAreComparedByteForByte) {
    CapabilityRegistry registry;

    registry.registerCapability(named("a"));
    registry.registerCapability(named("A"));
    registry.registerCapability(named("a "));

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("a@v1", "A@v1", "a @v1"));
}

TEST(CapabilityRegistry, ReplacingAProviderRemovesItsEntriesAndAppendsTheNewOnesInTheirOrder) {
    CapabilityRegistry registry;
    registry.replaceProvider("pack", {named("p1", "pack"), named("p2", "pack")});
    registry.registerCapability(named("b"));

    registry.replaceProvider("pack", {named("p3", "pack"), named("p1", "pack", "v2")});

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("b@v1", "p3@v1", "p1@v2"));
}

TEST(CapabilityRegistry, ReplacingAProviderIsOneChangeHoweverManyDefinitionsItBrings) {
    CapabilityRegistry registry;
    int calls = 0;
    registry.setChangeListener([&] { ++calls; });

    registry.replaceProvider("pack", {named("p1", "pack"), named("p2", "pack"), named("p3", "pack")});

    EXPECT_EQ(registry.version(), 1U);
    EXPECT_EQ(calls, 1);
}

TEST(CapabilityRegistry, ReplacingAProviderThatHasNothingByNothingStillCountsAsAChange) {
    CapabilityRegistry registry;

    registry.replaceProvider("nobody", {});

    EXPECT_EQ(registry.version(), 1U);
    EXPECT_THAT(contents(registry.snapshot()), testing::IsEmpty());
}

TEST(CapabilityRegistry, ReplacingAProviderKeepsAnOlderEntryOfTheSameNameInFront) {
    CapabilityRegistry registry;
    registry.registerCapability(named("read_file", "builtin", "own"));

    registry.replaceProvider("pack", {named("read_file", "pack", "foreign")});

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("read_file@own", "read_file@foreign"));
}

TEST(CapabilityRegistry, RegisteringRemovesEveryEntryOfTheNameWhosesoeverItIs) {
    CapabilityRegistry registry;
    registry.replaceProvider("one", {named("x", "one")});
    registry.replaceProvider("two", {named("x", "two")});

    registry.registerCapability(named("x", "builtin", "v3"));

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("x@v3"));
}

TEST(CapabilityRegistry, ASnapshotNeverChanges) {
    CapabilityRegistry registry;
    registry.registerCapability(named("a"));
    const auto before = registry.snapshot();

    registry.replaceProvider("builtin", {});

    EXPECT_THAT(contents(before), testing::ElementsAre("a@v1"));
    EXPECT_THAT(contents(registry.snapshot()), testing::IsEmpty());
}

TEST(CapabilityRegistry, SnapshotsBetweenChangesAreTheSameTable) {
    CapabilityRegistry registry;
    registry.registerCapability(named("a"));

    EXPECT_EQ(registry.snapshot(), registry.snapshot());
}

TEST(CapabilityRegistry, TheListenerRunsAfterEachChangeOnTheThreadThatMadeItAndSeesIt) {
    CapabilityRegistry registry;
    std::vector<std::uint64_t> versions;
    std::thread::id thread;
    registry.setChangeListener([&] {
        versions.push_back(registry.version());
        thread = std::this_thread::get_id();
    });

    registry.registerCapability(named("a"));
    registry.replaceProvider("pack", {});

    EXPECT_THAT(versions, testing::ElementsAre(1, 2));
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST(CapabilityRegistry, TheListenerMayCallBackIntoTheRegistry) {
    CapabilityRegistry registry;
    registry.setChangeListener([&] {
        registry.setChangeListener({});
        registry.registerCapability(named("from the listener"));
    });

    registry.registerCapability(named("a"));

    EXPECT_THAT(contents(registry.snapshot()), testing::ElementsAre("a@v1", "from the listener@v1"));
    EXPECT_EQ(registry.version(), 2U);
}

TEST(CapabilityRegistry, ALaterListenerReplacesTheEarlierOne) {
    CapabilityRegistry registry;
    int first = 0;
    int second = 0;
    registry.setChangeListener([&] { ++first; });
    registry.setChangeListener([&] { ++second; });

    registry.registerCapability(named("a"));

    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST(CapabilityRegistry, WhatAReplacedHandlerOwnsMayCallBackWhenItIsDestroyed) {
    CapabilityRegistry registry;
    std::size_t seen = 99;
    auto owned = std::shared_ptr<void>(nullptr, [&](void*) { seen = registry.snapshot()->size(); });
    auto definition = named("a", "pack");
    definition.handler = [owned = std::move(owned)](const json&) { return json(); };
    registry.replaceProvider("pack", {});
    registry.registerCapability(std::move(definition));

    registry.replaceProvider("pack", {});

    EXPECT_EQ(seen, 0U);
}

TEST(CapabilityRegistry, ReadersAndWritersOnManyThreadsSeeWholeTablesOnly) {
    CapabilityRegistry registry;
    std::atomic<int> calls = 0;
    std::atomic<bool> torn = false;
    registry.setChangeListener([&] { ++calls; });
    constexpr int kChanges = 50;
    const auto change = [&](const std::string& provider) {
        for (int number = 0; number < kChanges; ++number) {
            registry.replaceProvider(provider, {named(provider + "1", provider), named(provider + "2", provider)});
        }
    };
    const auto watch = [&] {
        while (registry.version() < std::uint64_t{2} * kChanges) {
            if (registry.snapshot()->size() % 2 != 0) torn = true;
        }
    };
    const std::vector<std::function<void()>> parts = {[&] { change("one"); }, [&] { change("two"); }, watch, watch};

    test::runOnThreads(parts.size(), [&](std::size_t thread) { parts[thread](); });

    EXPECT_FALSE(torn);
    EXPECT_EQ(calls, 2 * kChanges);
    EXPECT_EQ(registry.version(), std::uint64_t{2} * kChanges);
    EXPECT_THAT(contents(registry.snapshot()),
                testing::UnorderedElementsAre("one1@v1", "one2@v1", "two1@v1", "two2@v1"));
}

}  // namespace
}  // namespace qm
