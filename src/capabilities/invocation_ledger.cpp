#include "capabilities/invocation_ledger.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>
#include <vector>

namespace qm {

/// One automatic checkpoint from its claim on. Those who wait for it share it, because the record of its run may have
/// moved to another round, or be gone, before the outcome is known. Guarded by the ledger's mutex.
struct InvocationLedger::Checkpoint {
    enum class State { Pending, Made, Failed };

    Turn turn;
    State state = State::Pending;
};

InvocationLedger::InvocationLedger(InvocationLimits limits) : limits_(limits) {}

InvocationLedger::KeyClaim InvocationLedger::claimKey(const std::string& key, std::int64_t nowMs) {
    const std::lock_guard lock(mutex_);
    prune(nowMs);
    const auto [position, isNew] = entries_.try_emplace(key);
    Entry& entry = position->second;
    if (!isNew && !entry.result) return {KeyState::InFlight, nullptr};
    entry.touchedAtMs = nowMs;
    if (isNew) return {KeyState::New, nullptr};
    return {KeyState::Done, entry.result};
}

void InvocationLedger::releaseKey(const std::string& key) {
    const std::lock_guard lock(mutex_);
    const auto position = entries_.find(key);
    if (position != entries_.end() && !position->second.result) entries_.erase(position);
}

void InvocationLedger::storeResult(const std::string& key, json result, std::int64_t nowMs) {
    auto shared = std::make_shared<const json>(std::move(result));
    const std::lock_guard lock(mutex_);
    entries_[key] = {std::move(shared), nowMs};
}

void InvocationLedger::prune(std::int64_t nowMs) {
    std::erase_if(entries_, [&](const auto& item) {
        const Entry& entry = item.second;
        // Unsigned, so that a clock stepping backwards expires entries instead of keeping them for as long as it
        // stepped.
        const auto age = static_cast<std::uint64_t>(nowMs) - static_cast<std::uint64_t>(entry.touchedAtMs);
        return entry.result && age > limits_.entryTtlMs;
    });
    if (entries_.size() > limits_.maxEntries) pruneOldest(entries_.size() - limits_.maxEntries);
}

void InvocationLedger::pruneOldest(std::size_t excess) {
    std::vector<decltype(entries_)::const_iterator> completed;
    completed.reserve(entries_.size());
    for (auto position = entries_.cbegin(); position != entries_.cend(); ++position) {
        if (position->second.result) completed.push_back(position);
    }
    const auto count = static_cast<std::ptrdiff_t>(std::min(excess, completed.size()));
    const auto end = completed.begin() + count;
    std::partial_sort(completed.begin(), end, completed.end(), [](const auto& left, const auto& right) {
        return std::tie(left->second.touchedAtMs, left->first) < std::tie(right->second.touchedAtMs, right->first);
    });
    std::for_each(completed.begin(), end, [&](const auto& position) { entries_.erase(position); });
}

InvocationLedger::TurnClaim InvocationLedger::claimTurn(const Turn& turn, const std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    for (;;) {
        TurnRun& run = turnRuns_[turn.runId];
        if (run.round != turn.round) {
            run.round = turn.round;
            run.workspaces.clear();
        }
        std::shared_ptr<Checkpoint>& slot = run.workspaces[turn.workspace];
        if (!slot) {
            slot = std::make_shared<Checkpoint>(Checkpoint{turn});
            pruneRuns(turn.runId);
            return {TurnAnswer::Granted, slot};
        }
        // A share of its own: while this waits, the slot may vanish with its round or its run.
        const std::shared_ptr<Checkpoint> other = slot;
        if (!checkpointSettled_.wait(lock, stop, [&] { return other->state != Checkpoint::State::Pending; })) {
            return {TurnAnswer::Cancelled, nullptr};
        }
        if (other->state == Checkpoint::State::Made) return {TurnAnswer::AlreadyMade, nullptr};
    }
}

void InvocationLedger::pruneRuns(const std::string& currentRunId) {
    if (turnRuns_.size() <= limits_.maxTurnRuns) return;
    const auto other =
        std::find_if(turnRuns_.begin(), turnRuns_.end(), [&](const auto& item) { return item.first != currentRunId; });
    if (other != turnRuns_.end()) turnRuns_.erase(other);
}

void InvocationLedger::confirmTurn(Checkpoint& checkpoint) {
    {
        const std::lock_guard lock(mutex_);
        checkpoint.state = Checkpoint::State::Made;
    }
    checkpointSettled_.notify_all();
}

void InvocationLedger::withdrawTurn(Checkpoint& checkpoint) {
    {
        const std::lock_guard lock(mutex_);
        checkpoint.state = Checkpoint::State::Failed;
        forget(checkpoint);
    }
    checkpointSettled_.notify_all();
}

void InvocationLedger::forget(const Checkpoint& checkpoint) {
    const auto run = turnRuns_.find(checkpoint.turn.runId);
    if (run == turnRuns_.end()) return;
    auto& workspaces = run->second.workspaces;
    const auto slot = workspaces.find(checkpoint.turn.workspace);
    // The run may have been in another round and come back: the slot is another claim's then.
    if (slot != workspaces.end() && slot->second.get() == &checkpoint) workspaces.erase(slot);
}

}  // namespace qm
