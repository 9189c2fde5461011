#include "runtime/journal_batch.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <stdexcept>
#include <string>

#include "runtime/journal_fixture.h"
#include "runtime/random_json.h"
#include "support/exhaustive.h"
#include "util/json.h"
#include "util/sha256.h"

namespace qm::runtime {
namespace {

using test::failureOf;
using test::jsonOf;
using test::makeEnvelope;
using test::makeEvent;
using test::makeEvents;
using test::sealed;
using test::sequencesOf;

const std::string kInvalid = "agent journal contains an invalid batch envelope";
const std::string kMismatch = "agent journal checksum mismatch";
const std::string kDiverged = "agent journal batch sequence diverged";
const std::string kEventDiverged = "agent journal event sequence diverged";

std::string decodeFailure(const std::string& line, std::uint64_t expectedFirst = 4) {
    return failureOf<std::runtime_error>([&] { decodeJournalBatch(line, "s1", expectedFirst); });
}

json with(json object, const char* key, json value) {
    object[key] = std::move(value);
    return object;
}

json without(json object, const char* key) {
    object.erase(key);
    return object;
}

json validEnvelope() {
    return makeEnvelope("s1", 4, 2);
}

/// An envelope one of whose events has another member.
json withEvent(std::size_t index, const char* key, json value) {
    json envelope = validEnvelope();
    envelope["events"][index][key] = std::move(value);
    return envelope;
}

std::vector<AgentEvent> numbered(std::vector<AgentEvent> events, std::uint64_t first) {
    for (AgentEvent& event : events)
        event.sequence = first++;
    return events;
}

TEST(JournalBatch, ABatchIsTheCompactDumpOfItsEnvelope) {
    const std::string line = encodeJournalBatch("s1", numbered(makeEvents("s1", 2), 4));
    EXPECT_EQ(line, sealed(validEnvelope()));
    EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(JournalBatch, ABatchReadsBackAsItsEvents) {
    const auto events = numbered(makeEvents("s1", 3), 4);
    EXPECT_EQ(jsonOf(decodeJournalBatch(encodeJournalBatch("s1", events), "s1", 4)), jsonOf(events));
}

TEST(JournalBatch, AnyPayloadAndSessionIdRoundTrips) {
    std::mt19937_64 random(7);
    for (int round = 0; round < 2000; ++round) {
        const std::string sessionId = "s" + test::randomText(random);
        auto events = numbered(makeEvents(sessionId, 2), 1);
        for (AgentEvent& event : events)
            event.payload = {{"value", test::randomJson(random, 4)}};
        const std::string line = encodeJournalBatch(sessionId, events);
        EXPECT_EQ(json::parse(line).dump(), line);
        EXPECT_EQ(jsonOf(decodeJournalBatch(line, sessionId, 1)), jsonOf(events));
    }
}

TEST(JournalBatch, TextThatIsNoUtf8IsNotEncoded) {
    auto events = numbered(makeEvents("s1", 1), 1);
    events[0].payload["content"] = "\xFF";
    EXPECT_THROW(encodeJournalBatch("s1", events), json::type_error);
}

TEST(JournalBatch, AnEnvelopeThatIsNoneIsRefused) {
    const json envelope = validEnvelope();
    for (const std::string& line :
         {std::string("x"), std::string("[]"), std::string("5"), std::string("null"), std::string("{}"),
          sealed(envelope) + "}", sealed(envelope).substr(1), sealed(without(envelope, "v")),
          sealed(with(envelope, "v", 2)), sealed(with(envelope, "v", "1")), sealed(with(envelope, "v", true)),
          sealed(without(envelope, "sessionId")), sealed(with(envelope, "sessionId", "s2")),
          sealed(with(envelope, "sessionId", 1)), sealed(without(envelope, "events")),
          sealed(with(envelope, "events", json::array())), sealed(with(envelope, "events", json::object({{"a", 1}}))),
          sealed(with(envelope, "events", "events"))}) {
        EXPECT_EQ(decodeFailure(line), kInvalid) << line;
    }
}

TEST(JournalBatch, AMissingEmptyOrWrongDigestIsAMismatch) {
    const json envelope = validEnvelope();
    const json sealedValue = json::parse(sealed(envelope));
    EXPECT_EQ(decodeFailure(envelope.dump()), kMismatch);
    EXPECT_EQ(decodeFailure(with(envelope, "sha256", "").dump()), kMismatch);
    EXPECT_EQ(decodeFailure(with(envelope, "sha256", 5).dump()), kMismatch);
    EXPECT_EQ(decodeFailure(with(envelope, "sha256", std::string(64, '0')).dump()), kMismatch);
    EXPECT_EQ(decodeFailure(with(sealedValue, "lastSequence", 6).dump()), kMismatch);
    std::string upper = sealedValue["sha256"];
    for (char& digit : upper)
        digit = static_cast<char>(std::toupper(digit));
    EXPECT_EQ(decodeFailure(with(sealedValue, "sha256", upper).dump()), kMismatch);
}

TEST(JournalBatch, TheDigestCoversMembersThatAreNotKnown) {
    const json envelope = with(with(validEnvelope(), "zone", {{"a", 1}}), "about", "x");
    EXPECT_EQ(decodeJournalBatch(sealed(envelope), "s1", 4).size(), 2U);
    EXPECT_EQ(decodeFailure(with(json::parse(sealed(envelope)), "zone", {{"a", 2}}).dump()), kMismatch);
}

TEST(JournalBatch, AnotherSpellingOfTheSameEnvelopeIsRead) {
    const json value = json::parse(sealed(validEnvelope()));
    const std::string tidy = value.dump(2);
    std::string oneLine;
    for (const char character : tidy)
        oneLine += character == '\n' ? ' ' : character;
    const std::string ascii = value.dump(-1, ' ', true);
    const std::string canonical = value.dump();
    const std::string reordered =
        R"({"v":1,)" + canonical.substr(1, canonical.size() - 1 - std::string(R"(,"v":1})").size()) + "}";
    for (const std::string& line : {oneLine, ascii, reordered}) {
        ASSERT_EQ(json::parse(line), value);
        ASSERT_NE(line, canonical);
        EXPECT_EQ(jsonOf(decodeJournalBatch(line, "s1", 4)), value["events"]);
    }
}

TEST(JournalBatch, ADigestOverAnotherSpellingIsAMismatch) {
    // The digest is that of the canonical form, even if the line itself has another one.
    const std::string start =
        R"({"events":)" + validEnvelope()["events"].dump() + R"(, "firstSequence":4,"lastSequence":5,"sessionId":"s1")";
    const std::string digest = sha256Hex(start + R"(,"v":1})");
    EXPECT_EQ(decodeFailure(start + R"(,"sha256":")" + digest + R"(","v":1})"), kMismatch);
}

TEST(JournalBatch, ADigestInsideANestedObjectIsNotTheEnvelopes) {
    const std::string start = R"({"events":)" + validEnvelope()["events"].dump() +
                              R"(,"firstSequence":4,"lastSequence":5,"sessionId":"s1","v":1,"zone":{"a":1)";
    const std::string digest = sha256Hex(start + R"(,"v":1})");
    EXPECT_EQ(decodeFailure(start + R"(,"sha256":")" + digest + R"(","v":1}})"), kMismatch);
}

TEST(JournalBatch, SequencesThatDoNotFitAreDiverged) {
    const json envelope = validEnvelope();
    for (const json& value :
         {with(envelope, "firstSequence", 3), with(envelope, "firstSequence", 5), with(envelope, "firstSequence", "4"),
          with(envelope, "firstSequence", -4), with(envelope, "firstSequence", 4.0), without(envelope, "firstSequence"),
          with(envelope, "lastSequence", 3), with(envelope, "lastSequence", 4), with(envelope, "lastSequence", 6),
          with(envelope, "lastSequence", UINT64_MAX), with(envelope, "lastSequence", 5.0),
          without(envelope, "lastSequence")}) {
        EXPECT_EQ(decodeFailure(sealed(value)), kDiverged) << value;
    }
    EXPECT_EQ(decodeFailure(sealed(envelope), 1), kDiverged);
    EXPECT_EQ(decodeFailure(sealed(makeEnvelope("s1", 0, 1)), 1), kDiverged);
}

TEST(JournalBatch, EventsOfAnotherSessionOrSequenceAreDiverged) {
    EXPECT_EQ(decodeFailure(sealed(withEvent(0, "sessionId", "s2"))), kEventDiverged);
    EXPECT_EQ(decodeFailure(sealed(withEvent(0, "sequence", 5))), kEventDiverged);
    EXPECT_EQ(decodeFailure(sealed(withEvent(1, "sequence", 4))), kEventDiverged);
    EXPECT_EQ(decodeFailure(sealed(withEvent(1, "sequence", 6))), kEventDiverged);
}

TEST(JournalBatch, WhatIsNoEventIsRefusedInTheEventsWords) {
    const auto failure = [](const json& envelope) {
        return failureOf<std::invalid_argument>([&] { decodeJournalBatch(sealed(envelope), "s1", 4); });
    };
    EXPECT_EQ(failure(withEvent(1, "type", "run_begun")), "unknown agent event type: run_begun");
    EXPECT_EQ(failure(withEvent(1, "payload", 5)), "agent event payload must be an object");
    json envelope = validEnvelope();
    envelope["events"][0] = 5;
    EXPECT_EQ(failure(envelope), "agent event must be an object");
}

TEST(JournalBatch, TheEarlierOfTwoFaultsWins) {
    json envelope = with(with(withEvent(0, "sessionId", "s2"), "lastSequence", 9), "sha256", "bad");
    EXPECT_EQ(decodeFailure(with(envelope, "v", 2).dump()), kInvalid);
    EXPECT_EQ(decodeFailure(envelope.dump()), kMismatch);
    envelope.erase("sha256");
    EXPECT_EQ(decodeFailure(sealed(envelope)), kDiverged);
    EXPECT_EQ(decodeFailure(sealed(with(envelope, "lastSequence", 5))), kEventDiverged);
}

/// An event that makes the line of its batch this long.
AgentEvent eventForLineOf(std::size_t bytes) {
    AgentEvent event = makeEvent("s1");
    event.sequence = 1;
    event.payload = {{"content", ""}};
    const std::size_t overhead = encodeJournalBatch("s1", {event}).size();
    event.payload["content"] = std::string(bytes - overhead, 'x');
    return event;
}

TEST(JournalBatch, ABatchOfSixteenMebibytesIsTakenAndOneByteMoreIsNot) {
    const std::string line = encodeJournalBatch("s1", {eventForLineOf(kMaxJournalBatchBytes)});
    EXPECT_EQ(line.size(), 16'777'216U);
    EXPECT_EQ(decodeJournalBatch(line, "s1", 1).size(), 1U);

    EXPECT_EQ(
        failureOf<std::length_error>([] { encodeJournalBatch("s1", {eventForLineOf(kMaxJournalBatchBytes + 1)}); }),
        "agent journal append batch exceeds 16 MiB");
    json envelope = json::parse(line);
    envelope.erase("sha256");
    envelope["events"][0]["payload"]["content"] =
        std::string(eventForLineOf(kMaxJournalBatchBytes + 1).payload["content"]);
    const std::string tooLong = sealed(envelope);
    ASSERT_EQ(tooLong.size(), kMaxJournalBatchBytes + 1);
    EXPECT_EQ(decodeFailure(tooLong, 1), "agent journal batch exceeds 16 MiB");
}

json nested(std::size_t depth) {
    json value = json::array();
    for (std::size_t level = 1; level < depth; ++level)
        value = json::array({std::move(value)});
    return value;
}

TEST(JournalBatch, NestingIsLimitedAlikeWhenWritingAndReading) {
    // Envelope, events, event and payload stand around the value.
    constexpr std::size_t kDeepest = kMaxJsonDepth + 16 - 4;
    AgentEvent event = makeEvent("s1");
    event.sequence = 1;
    event.payload = {{"value", nested(kDeepest)}};
    EXPECT_EQ(decodeJournalBatch(encodeJournalBatch("s1", {event}), "s1", 1).size(), 1U);

    event.payload = {{"value", nested(kDeepest + 1)}};
    EXPECT_EQ(failureOf<std::length_error>([&] { encodeJournalBatch("s1", {event}); }),
              "agent journal append batch is nested too deeply");
    json envelope = makeEnvelope("s1", 4, 1);
    envelope["events"][0]["payload"] = event.payload;
    EXPECT_EQ(decodeFailure(sealed(envelope)), kInvalid);
    EXPECT_EQ(decodeFailure(std::string(1'000'000, '[')), kInvalid);
}

TEST(JournalBatch, BracketsInsideStringsAreNoNesting) {
    AgentEvent event = makeEvent("s1");
    event.sequence = 1;
    event.payload = {{"value", std::string(5000, '[') + "\\\"" + std::string(5000, '{')}};
    EXPECT_EQ(decodeJournalBatch(encodeJournalBatch("s1", {event}), "s1", 1).size(), 1U);
}

TEST(JournalBatch, EveryCutOfALineIsRefused) {
    const std::string line = sealed(validEnvelope());
    for (std::size_t length = 0; length < line.size(); ++length) {
        EXPECT_EQ(decodeFailure(line.substr(0, length)), kInvalid) << length;
    }
}

/// What must be said of a line of one batch that was changed in one place, told by its structure alone.
std::string verdictOn(const std::string& changed) {
    if (changed.find('\0') != std::string::npos) return kInvalid;
    const json value = json::parse(changed, nullptr, false);
    const bool isEnvelope = value.is_object() && value.value("v", json()) == 1 &&
                            value.value("sessionId", json()) == "s1" && value.value("events", json()).is_array();
    return isEnvelope ? kMismatch : kInvalid;
}

TEST(JournalBatch, EveryOtherValueOfEveryByteIsRefusedUnlessItSpellsTheSame) {
    json envelope = makeEnvelope("s1", 4, 1);
    envelope["events"][0]["payload"] = {{"large", 1e20}, {"escape", "\x1b"}};
    const std::string line = sealed(envelope);
    const auto respelled = [&line](const std::string& from, const std::string& to) {
        const std::size_t at = line.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return std::string(line).replace(at, from.size(), to);
    };
    const std::set<std::string> spellTheSame{respelled("\\u001b", "\\u001B"), respelled("1e+20", "1E+20"),
                                             respelled("1e+20", "1e020")};
    std::set<std::string> taken;
    for (std::size_t at = 0; at < line.size(); ++at) {
        for (int value = 0; value < 256; ++value) {
            std::string changed = line;
            changed[at] = static_cast<char>(value);
            if (changed[at] == line[at]) continue;
            if (spellTheSame.contains(changed)) {
                ASSERT_EQ(jsonOf(decodeJournalBatch(changed, "s1", 4)), envelope["events"]) << changed;
                taken.insert(std::move(changed));
                continue;
            }
            if ((256 * at + static_cast<std::size_t>(value)) % qm::test::kExhaustiveStep != 0) continue;
            ASSERT_EQ(decodeFailure(changed), verdictOn(changed)) << at << " " << value;
        }
    }
    EXPECT_EQ(taken, spellTheSame);
}

TEST(JournalBatch, ANulIsNoEndOfALine) {
    const std::string line = sealed(validEnvelope());
    const std::string nul(1, '\0');
    std::vector<std::string> lines = {line + nul, nul + line, line + nul, line + nul, line + ' ', nul};
    lines[2].append(line);
    lines[3].append("anything");
    lines[4].append(nul);
    for (const std::string& changed : lines) {
        EXPECT_EQ(decodeFailure(changed), kInvalid);
    }
}

TEST(JournalBatch, AByteOrderMarkIsNoPartOfALine) {
    EXPECT_EQ(decodeFailure("\xEF\xBB\xBF" + sealed(validEnvelope())), kInvalid);
}

TEST(JournalBatch, OfTwoMembersWithOneKeyTheLastCounts) {
    const std::string line = sealed(validEnvelope());
    const std::string doubled = R"({"v":7,"firstSequence":9,)" + line.substr(1);
    EXPECT_EQ(jsonOf(decodeJournalBatch(doubled, "s1", 4)), validEnvelope()["events"]);
}

TEST(JournalBatch, AVersionMayBeSpelledAsAFractionIfTheDigestCoversIt) {
    EXPECT_EQ(decodeJournalBatch(sealed(with(validEnvelope(), "v", 1.0)), "s1", 4).size(), 2U);
    const std::string line = sealed(validEnvelope());
    EXPECT_EQ(decodeFailure(line.substr(0, line.size() - 2) + "1.0}"), kMismatch);
}

TEST(JournalBatch, RandomBytesAreRefused) {
    std::mt19937_64 random(11);
    const std::string line = sealed(validEnvelope());
    for (int round = 0; round < 5000; ++round) {
        std::string changed = line;
        for (auto edits = 1 + random() % 4; edits > 0; --edits) {
            changed[random() % changed.size()] = static_cast<char>(random());
        }
        if (changed == line) continue;
        const std::string words = decodeFailure(changed);
        EXPECT_TRUE(words == kInvalid || words == kMismatch) << words;
    }
}

}  // namespace
}  // namespace qm::runtime
