#pragma once

#include <string_view>

#include "runtime/agent_records.h"
#include "runtime/event_drafts.h"
#include "runtime/input_buffers.h"
#include "runtime/session_snapshot.h"

namespace qm::runtime {

/// Decides on a report of the runtime by the state of the session and adds the events that it causes to `drafts`.
/// Returns the words of the rejection, then `drafts` holds nothing, or an empty text. The payload must be an object.
/// Whether the report is about the current run and turn has been tested before.
std::string_view admitUpdate(const RuntimeUpdate& update, const SessionSnapshot& snapshot, const InputBuffers& buffers,
                             EventDrafts& drafts);

/// Whether the run may complete in its present state, apart from pending input: the words of the rejection or nothing.
std::string_view whyRunCannotComplete(const SessionSnapshot& snapshot);
inline constexpr std::string_view kActiveChildTasks = "active child tasks require an explicit task join";

}  // namespace qm::runtime
