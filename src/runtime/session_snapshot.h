#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "runtime/agent_types.h"

namespace qm::runtime {

/// The run's view of one child task.
struct ChildTaskRecord {
    std::string taskId;
    std::string parentTaskId;
    std::string objective;
    std::string origin;
    std::string workspace;
    std::string access;  ///< "none", "read" or "write".
    ChildTaskState state = ChildTaskState::Queued;
    std::int32_t depth = 0;  ///< The first level of child tasks has depth 2.
    std::int32_t maxRounds = 0;
    std::int32_t rounds = 0;
    std::int64_t timeoutMs = 0;
    std::int64_t createdAtMs = 0;
    std::int64_t startedAtMs = 0;
    std::int64_t finishedAtMs = 0;
    std::uint64_t completionSequence = 0;  ///< Of the event that ended the task; 0 until then.
    bool cancellationRequested = false;
    std::string result;
    std::string error;
};

/// The model's call that waits for child tasks. There is none if joinId is empty.
struct PendingTaskJoin {
    std::string joinId;
    std::string callId;
    std::string policy;  ///< "all", "any", "idle" or "condition".
    std::vector<std::string> taskIds;
    std::int32_t minSucceeded = 0;
    std::int64_t timeoutMs = 0;
};

/// The fold of all facts of one session.
struct SessionSnapshot {
    std::string sessionId;
    std::string runId;
    std::string turnId;
    std::string objective;
    RunState state = RunState::Idle;
    std::uint64_t lastSequence = 0;
    std::uint64_t queuedInputs = 0;
    std::uint64_t bufferedInterjections = 0;
    bool cancellationRequested = false;
    std::string pendingUserRequestId;
    std::string pendingApprovalId;
    std::map<std::string, ChildTaskRecord> childTasks;
    PendingTaskJoin pendingTaskJoin;
};

/// True if any child task's state is not terminal.
bool hasActiveChildTask(const SessionSnapshot& snapshot);

}  // namespace qm::runtime
