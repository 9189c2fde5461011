#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

#include "util/json_fwd.h"

namespace qm {

struct InvocationLimits {
    std::size_t maxEntries = 256;          ///< Idempotency keys that are remembered.
    std::uint64_t entryTtlMs = 3'600'000;  ///< How long a completed one is remembered after its last use.
    std::size_t maxTurnRuns = 64;          ///< Runs whose turn checkpoints are remembered.
};

/// What one automatic checkpoint is made for: the first change that a round of a run makes to a workspace.
struct Turn {
    std::string runId;
    std::int32_t round = 0;
    std::string workspace;
};

/// The pipeline's short-term memory: which idempotency keys are running or have a result, and which turns have their
/// checkpoint. It is lost with the process. Any thread may call anything.
class InvocationLedger {
public:
    explicit InvocationLedger(InvocationLimits limits = {});

    enum class KeyState { New, InFlight, Done };
    struct KeyClaim {
        KeyState state = KeyState::New;
        std::shared_ptr<const json> result;  ///< Set if Done.
    };

    /// Forgets what is old, then looks `key` up. New: it is the caller's from now on, who runs the invocation and ends
    /// with storeResult() or releaseKey(). Of any number of concurrent callers one gets New.
    KeyClaim claimKey(const std::string& key, std::int64_t nowMs);

    /// Forgets a key that has no result yet.
    void releaseKey(const std::string& key);

    /// Completes `key`, also one that has been forgotten meanwhile.
    void storeResult(const std::string& key, json result, std::int64_t nowMs);

    enum class TurnAnswer {
        Granted,      ///< The caller makes the checkpoint and ends with confirmTurn() or withdrawTurn().
        AlreadyMade,  ///< The checkpoint is there.
        Cancelled,    ///< `stop` was raised while another caller was still making it.
    };
    struct Checkpoint;
    struct TurnClaim {
        TurnAnswer answer = TurnAnswer::AlreadyMade;
        std::shared_ptr<Checkpoint> checkpoint;  ///< Set if Granted: what the caller settles.
    };

    /// Claims the one checkpoint of `turn`. While another caller makes it this waits for the outcome, and claims anew
    /// if there was none: nobody writes before the way back exists. A run that has moved to another round, or had to
    /// make room for others, is forgotten with the claims in it: they still settle for those who wait, but the same
    /// turn can be granted once more meanwhile.
    TurnClaim claimTurn(const Turn& turn, const std::stop_token& stop = {});

    /// The checkpoint is there; those who wait for it go on. Never throws.
    void confirmTurn(Checkpoint& checkpoint);

    /// The checkpoint failed: its turn can be claimed again, unless another claim has taken its place. Those who wait
    /// claim anew. Never throws.
    void withdrawTurn(Checkpoint& checkpoint);

private:
    struct Entry {
        std::shared_ptr<const json> result;  ///< Null while the invocation runs.
        std::int64_t touchedAtMs = 0;
    };
    struct TurnRun {
        std::int32_t round = 0;
        std::map<std::string, std::shared_ptr<Checkpoint>> workspaces;
    };

    void prune(std::int64_t nowMs);
    void pruneOldest(std::size_t excess);
    void pruneRuns(const std::string& currentRunId);
    void forget(const Checkpoint& checkpoint);

    const InvocationLimits limits_;
    std::mutex mutex_;
    std::condition_variable_any checkpointSettled_;
    std::map<std::string, Entry> entries_;
    std::map<std::string, TurnRun> turnRuns_;
};

}  // namespace qm
