#include "capabilities/invocation_ledger.h"

#include <atomic>
#include <limits>
#include <thread>

#include "capabilities/blocked_thread.h"
#include "support/pch.h"
#include "support/run_on_threads.h"
#include "support/wait_until.h"
#include "util/json.h"

namespace qm {
namespace {

using KeyState = InvocationLedger::KeyState;
using TurnAnswer = InvocationLedger::TurnAnswer;

constexpr std::int64_t kNow = 1'700'000'000'000;
constexpr std::int64_t kTtl = 3'600'000;

/// A key as it sorts: "k000" to "k999".
std::string numbered(const char* prefix, int number) {
    const std::string digits = std::to_string(number);
    return prefix + std::string(3 - digits.size(), '0') + digits;
}

void complete(InvocationLedger& ledger, const std::string& key, std::int64_t nowMs = kNow) {
    ASSERT_EQ(ledger.claimKey(key, nowMs).state, KeyState::New);
    ledger.storeResult(key, {{"of", key}}, nowMs);
}

void makeCheckpoint(InvocationLedger& ledger, const Turn& turn) {
    const auto claim = ledger.claimTurn(turn);
    ASSERT_EQ(claim.answer, TurnAnswer::Granted);
    ledger.confirmTurn(*claim.checkpoint);
}

TEST(InvocationLedger, ItsLimitsAreTwoHundredAndFiftySixKeysOneHourAndSixtyFourRuns) {
    const InvocationLimits limits;

    EXPECT_EQ(limits.maxEntries, 256U);
    EXPECT_EQ(limits.entryTtlMs, 3'600'000U);
    EXPECT_EQ(limits.maxTurnRuns, 64U);
}

TEST(InvocationLedger, AKeyIsNewThenInFlightThenDoneWithItsResult) {
    InvocationLedger ledger;

    EXPECT_EQ(ledger.claimKey("k", kNow).state, KeyState::New);
    EXPECT_EQ(ledger.claimKey("k", kNow).state, KeyState::InFlight);
    ledger.storeResult("k", {{"answer", 42}}, kNow);
    const auto claim = ledger.claimKey("k", kNow);

    EXPECT_EQ(claim.state, KeyState::Done);
    EXPECT_EQ(*claim.result, json({{"answer", 42}}));
}

TEST(InvocationLedger, ANullResultIsAResult) {
    InvocationLedger ledger;
    ledger.claimKey("k", kNow);

    ledger.storeResult("k", nullptr, kNow);

    EXPECT_EQ(ledger.claimKey("k", kNow).state, KeyState::Done);
}

TEST(InvocationLedger, AReleasedKeyIsNewAgain) {
    InvocationLedger ledger;
    ledger.claimKey("k", kNow);

    ledger.releaseKey("k");

    EXPECT_EQ(ledger.claimKey("k", kNow).state, KeyState::New);
}

TEST(InvocationLedger, ReleasingACompletedOrUnknownKeyDoesNothing) {
    InvocationLedger ledger;
    complete(ledger, "k");

    ledger.releaseKey("k");
    ledger.releaseKey("unknown");

    EXPECT_EQ(ledger.claimKey("k", kNow).state, KeyState::Done);
}

TEST(InvocationLedger, StoringAResultBringsBackAKeyThatHasGone) {
    InvocationLedger ledger;

    ledger.storeResult("k", "late", kNow);

    EXPECT_EQ(ledger.claimKey("k", kNow).state, KeyState::Done);
}

TEST(InvocationLedger, ACompletedKeyLivesForOneHourAfterItsLastUse) {
    InvocationLedger ledger;
    complete(ledger, "k");

    EXPECT_EQ(ledger.claimKey("k", kNow + kTtl).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("k", kNow + 2 * kTtl).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("k", kNow + 3 * kTtl + 1).state, KeyState::New);
}

TEST(InvocationLedger, AClockThatStepsBackwardsExpiresCompletedKeys) {
    InvocationLedger ledger;
    complete(ledger, "k");

    EXPECT_EQ(ledger.claimKey("k", kNow - 1).state, KeyState::New);
}

TEST(InvocationLedger, TheExtremesOfTheClockAreNoOverflow) {
    InvocationLedger ledger;
    complete(ledger, "k", std::numeric_limits<std::int64_t>::min());

    EXPECT_EQ(ledger.claimKey("k", std::numeric_limits<std::int64_t>::max()).state, KeyState::New);
}

TEST(InvocationLedger, AKeyInFlightNeverExpires) {
    InvocationLedger ledger;
    ledger.claimKey("k", kNow);

    EXPECT_EQ(ledger.claimKey("k", kNow + 100 * kTtl).state, KeyState::InFlight);
    EXPECT_EQ(ledger.claimKey("k", kNow - 1).state, KeyState::InFlight);
}

TEST(InvocationLedger, TwoHundredAndFiftySixCompletedKeysAreAllRemembered) {
    InvocationLedger ledger;
    for (int number = 0; number < 256; ++number)
        complete(ledger, numbered("k", number), kNow + number);

    EXPECT_EQ(ledger.claimKey("k000", kNow + 256).state, KeyState::Done);
}

TEST(InvocationLedger, OfTwoHundredAndFiftySevenTheOneUnusedForLongestIsForgotten) {
    InvocationLedger ledger;
    for (int number = 0; number < 257; ++number)
        complete(ledger, numbered("k", number), kNow + number);

    EXPECT_EQ(ledger.claimKey("k001", kNow + 257).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("k000", kNow + 257).state, KeyState::New);
}

TEST(InvocationLedger, AUseCountsNotTheAge) {
    InvocationLedger ledger({.maxEntries = 2});
    complete(ledger, "a", kNow);
    complete(ledger, "b", kNow + 1);
    ledger.claimKey("a", kNow + 2);

    complete(ledger, "c", kNow + 3);

    EXPECT_EQ(ledger.claimKey("a", kNow + 4).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("c", kNow + 4).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("b", kNow + 4).state, KeyState::New);
}

TEST(InvocationLedger, OfKeysUsedAtTheSameTimeTheSmallestGoesFirst) {
    InvocationLedger ledger({.maxEntries = 2});
    ledger.storeResult("c", 1, kNow);
    ledger.storeResult("a", 1, kNow);
    ledger.storeResult("b", 1, kNow);

    EXPECT_EQ(ledger.claimKey("b", kNow).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("c", kNow).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("a", kNow).state, KeyState::New);
}

TEST(InvocationLedger, EverythingBeyondTheLimitGoesAtOnce) {
    InvocationLedger ledger({.maxEntries = 2});
    for (int number = 0; number < 10; ++number)
        ledger.storeResult(numbered("k", number), 1, kNow + number);

    EXPECT_EQ(ledger.claimKey("k008", kNow + 10).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("k009", kNow + 10).state, KeyState::Done);
    EXPECT_EQ(ledger.claimKey("k007", kNow + 10).state, KeyState::New);
}

TEST(InvocationLedger, KeysInFlightAreNeverForgottenHoweverManyTheyAre) {
    InvocationLedger ledger;
    for (int number = 0; number < 300; ++number) {
        ASSERT_EQ(ledger.claimKey(numbered("k", number), kNow).state, KeyState::New);
    }

    for (int number = 0; number < 300; ++number) {
        EXPECT_EQ(ledger.claimKey(numbered("k", number), kNow).state, KeyState::InFlight) << number;
    }
}

TEST(InvocationLedger, KeysInFlightCountAgainstTheLimitAndPushCompletedOnesOut) {
    InvocationLedger ledger({.maxEntries = 2});
    complete(ledger, "done");
    ledger.claimKey("a", kNow);
    ledger.claimKey("b", kNow);

    EXPECT_EQ(ledger.claimKey("done", kNow).state, KeyState::New);
}

TEST(InvocationLedger, OfManyThreadsThatClaimOneKeyOneGetsIt) {
    InvocationLedger ledger;
    std::atomic<int> claimed = 0;

    test::runOnThreads(64, [&](std::size_t) {
        if (ledger.claimKey("k", kNow).state == KeyState::New) ++claimed;
    });

    EXPECT_EQ(claimed, 1);
}

TEST(TurnLedger, ATurnIsGrantedOnceForEachWorkspace) {
    InvocationLedger ledger;

    makeCheckpoint(ledger, {"run", 1, "ws_a"});

    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
    makeCheckpoint(ledger, {"run", 1, "ws_b"});
    makeCheckpoint(ledger, {"other run", 1, "ws_a"});
    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, AnotherRoundOfTheRunForgetsTheFormerOne) {
    InvocationLedger ledger;
    makeCheckpoint(ledger, {"run", 1, "ws_a"});

    makeCheckpoint(ledger, {"run", 2, "ws_a"});

    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::Granted);
}

TEST(TurnLedger, RoundZeroIsATurnLikeAnyOther) {
    InvocationLedger ledger;

    makeCheckpoint(ledger, {"run", 0, "ws_a"});

    EXPECT_EQ(ledger.claimTurn({"run", 0, "ws_a"}).answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, AWithdrawnTurnCanBeClaimedAgain) {
    InvocationLedger ledger;
    const auto claim = ledger.claimTurn({"run", 1, "ws_a"});

    ledger.withdrawTurn(*claim.checkpoint);

    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::Granted);
}

TEST(TurnLedger, WithdrawingATurnOfAFormerRoundLeavesTheCurrentOneAlone) {
    InvocationLedger ledger;
    const auto former = ledger.claimTurn({"run", 1, "ws_a"});
    makeCheckpoint(ledger, {"run", 2, "ws_a"});

    ledger.withdrawTurn(*former.checkpoint);

    EXPECT_EQ(ledger.claimTurn({"run", 2, "ws_a"}).answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, WithdrawingATurnThatWasClaimedAnewMeanwhileLeavesTheNewClaimAlone) {
    InvocationLedger ledger;
    const auto first = ledger.claimTurn({"run", 1, "ws_a"});
    makeCheckpoint(ledger, {"run", 2, "ws_a"});
    const auto again = ledger.claimTurn({"run", 1, "ws_a"});
    ASSERT_EQ(again.answer, TurnAnswer::Granted);

    ledger.withdrawTurn(*first.checkpoint);

    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}, stopped.get_token()).answer, TurnAnswer::Cancelled);
    ledger.confirmTurn(*again.checkpoint);
    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, SixtyFourRunsAreRemembered) {
    InvocationLedger ledger;
    for (int run = 0; run < 64; ++run)
        makeCheckpoint(ledger, {numbered("run", run), 1, "ws_a"});

    for (int run = 0; run < 64; ++run) {
        EXPECT_EQ(ledger.claimTurn({numbered("run", run), 1, "ws_a"}).answer, TurnAnswer::AlreadyMade) << run;
    }
}

TEST(TurnLedger, TheSixtyFifthRunPushesOutTheFirstInKeyOrder) {
    InvocationLedger ledger;
    for (int run = 0; run < 65; ++run)
        makeCheckpoint(ledger, {numbered("run", run), 1, "ws_a"});

    for (int run = 1; run < 65; ++run) {
        EXPECT_EQ(ledger.claimTurn({numbered("run", run), 1, "ws_a"}).answer, TurnAnswer::AlreadyMade) << run;
    }
    EXPECT_EQ(ledger.claimTurn({"run000", 1, "ws_a"}).answer, TurnAnswer::Granted);
}

TEST(TurnLedger, ARunThatIsFirstInKeyOrderItselfPushesOutTheSecond) {
    InvocationLedger ledger({.maxTurnRuns = 2});
    makeCheckpoint(ledger, {"b", 1, "ws_a"});
    makeCheckpoint(ledger, {"c", 1, "ws_a"});

    makeCheckpoint(ledger, {"a", 1, "ws_a"});

    EXPECT_EQ(ledger.claimTurn({"a", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
    EXPECT_EQ(ledger.claimTurn({"c", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
    EXPECT_EQ(ledger.claimTurn({"b", 1, "ws_a"}).answer, TurnAnswer::Granted);
}

/// A claim on a thread of its own, of a turn that somebody else's claim holds up.
class WaitingClaim {
public:
    WaitingClaim(InvocationLedger& ledger, Turn turn)
        : thread_([this, &ledger, turn = std::move(turn)](const std::stop_token& stop) {
              id_ = test::currentThreadId();
              claim_ = ledger.claimTurn(turn, stop);
          }) {
        EXPECT_TRUE(test::waitUntil([&] { return id_ != 0 && test::isBlocked(id_); }));
    }

    void cancel() { thread_.request_stop(); }

    InvocationLedger::TurnClaim outcome() {
        thread_.join();
        return claim_;
    }

private:
    std::atomic<pid_t> id_ = 0;
    InvocationLedger::TurnClaim claim_;
    std::jthread thread_;
};

TEST(TurnLedger, AClaimWaitsForTheCheckpointThatAnotherIsMaking) {
    InvocationLedger ledger;
    const auto first = ledger.claimTurn({"run", 1, "ws_a"});
    WaitingClaim second(ledger, {"run", 1, "ws_a"});

    ledger.confirmTurn(*first.checkpoint);

    EXPECT_EQ(second.outcome().answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, AClaimThatWaitedForAFailedCheckpointIsGrantedAnew) {
    InvocationLedger ledger;
    const auto first = ledger.claimTurn({"run", 1, "ws_a"});
    WaitingClaim second(ledger, {"run", 1, "ws_a"});

    ledger.withdrawTurn(*first.checkpoint);

    EXPECT_EQ(second.outcome().answer, TurnAnswer::Granted);
}

TEST(TurnLedger, ACancelledClaimStopsWaiting) {
    InvocationLedger ledger;
    const auto first = ledger.claimTurn({"run", 1, "ws_a"});
    WaitingClaim second(ledger, {"run", 1, "ws_a"});

    second.cancel();

    EXPECT_EQ(second.outcome().answer, TurnAnswer::Cancelled);
    ledger.confirmTurn(*first.checkpoint);
    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, AnotherWorkspaceOfTheSameTurnIsNotHeldUp) {
    InvocationLedger ledger;
    const auto first = ledger.claimTurn({"run", 1, "ws_a"});

    makeCheckpoint(ledger, {"run", 1, "ws_b"});

    ledger.confirmTurn(*first.checkpoint);
    EXPECT_EQ(ledger.claimTurn({"run", 1, "ws_a"}).answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, AWaitingClaimLearnsTheOutcomeThoughItsRunHasBeenForgotten) {
    InvocationLedger ledger({.maxTurnRuns = 1});
    const auto first = ledger.claimTurn({"a", 1, "ws_a"});
    WaitingClaim second(ledger, {"a", 1, "ws_a"});
    makeCheckpoint(ledger, {"b", 1, "ws_a"});

    ledger.confirmTurn(*first.checkpoint);

    EXPECT_EQ(second.outcome().answer, TurnAnswer::AlreadyMade);
}

TEST(TurnLedger, AWaitingClaimLearnsTheOutcomeThoughItsRunIsInAnotherRound) {
    InvocationLedger ledger;
    const auto first = ledger.claimTurn({"run", 1, "ws_a"});
    WaitingClaim second(ledger, {"run", 1, "ws_a"});
    makeCheckpoint(ledger, {"run", 2, "ws_a"});

    ledger.withdrawTurn(*first.checkpoint);

    EXPECT_EQ(second.outcome().answer, TurnAnswer::Granted);
}

TEST(TurnLedger, OfManyThreadsThatClaimOneTurnOneMakesTheCheckpointAndNoneGoesOnBefore) {
    InvocationLedger ledger;
    std::atomic<int> granted = 0;
    std::atomic<bool> made = false;
    std::atomic<bool> early = false;

    test::runOnThreads(64, [&](std::size_t) {
        const auto claim = ledger.claimTurn({"run", 1, "ws_a"});
        if (claim.answer != TurnAnswer::Granted) {
            if (!made) early = true;
            return;
        }
        ++granted;
        std::this_thread::yield();
        made = true;
        ledger.confirmTurn(*claim.checkpoint);
    });

    EXPECT_EQ(granted, 1);
    EXPECT_FALSE(early);
}

}  // namespace
}  // namespace qm
