#include "runtime/in_memory_agent_event_store.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "runtime/journal_fixture.h"

namespace qm::runtime {
namespace {

using test::appendFailure;
using test::makeEvent;
using test::makeEvents;
using test::sequencesOf;

TEST(InMemoryAgentEventStore, AnUnknownSessionHasNoEvents) {
    InMemoryAgentEventStore store;
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_TRUE(store.read("", 0).empty());
}

TEST(InMemoryAgentEventStore, EventsAreNumberedOnwards) {
    InMemoryAgentEventStore store;
    EXPECT_EQ(sequencesOf(store.append("s1", 0, makeEvents("s1", 2))), (std::vector<std::uint64_t>{1, 2}));
    EXPECT_EQ(sequencesOf(store.append("s1", 2, makeEvents("s1", 1))), (std::vector<std::uint64_t>{3}));
    EXPECT_EQ(sequencesOf(store.append("s2", 0, makeEvents("s2", 1))), (std::vector<std::uint64_t>{1}));
    EXPECT_EQ(sequencesOf(store.read("s1", 0)), (std::vector<std::uint64_t>{1, 2, 3}));
}

TEST(InMemoryAgentEventStore, AReadStartsBehindASequence) {
    InMemoryAgentEventStore store;
    store.append("s1", 0, makeEvents("s1", 3));
    EXPECT_EQ(sequencesOf(store.read("s1", 2)), (std::vector<std::uint64_t>{3}));
    EXPECT_TRUE(store.read("s1", 3).empty());
    EXPECT_TRUE(store.read("s1", UINT64_MAX).empty());
}

TEST(InMemoryAgentEventStore, NoEventsAreNoAppend) {
    InMemoryAgentEventStore store;
    EXPECT_TRUE(store.append("s1", 7, {}).empty());
    EXPECT_TRUE(store.read("s1", 0).empty());
}

TEST(InMemoryAgentEventStore, WhatCannotBeAppendedIsRefusedWhole) {
    InMemoryAgentEventStore store;
    store.append("s1", 0, makeEvents("s1", 2));

    EXPECT_EQ(appendFailure<std::invalid_argument>(store, "", 0, makeEvents("", 1)), "sessionId must not be blank");
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 1, makeEvents("s1", 1)),
              "agent event append conflict: expected 1, actual 2");
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s2", 1, makeEvents("s2", 1)),
              "agent event append conflict: expected 1, actual 0");
    EXPECT_EQ(appendFailure<std::invalid_argument>(store, "s1", 2, {makeEvent("s1"), makeEvent("s2")}),
              "cannot append an event for another session");
    auto numbered = makeEvents("s1", 2);
    numbered[1].sequence = 4;
    EXPECT_EQ(appendFailure<std::invalid_argument>(store, "s1", 2, numbered),
              "event sequence must be assigned by the store");
    EXPECT_EQ(store.read("s1", 0).size(), 2U);
}

}  // namespace
}  // namespace qm::runtime
