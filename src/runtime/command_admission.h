#pragma once

#include "runtime/agent_records.h"
#include "runtime/event_drafts.h"
#include "runtime/session_snapshot.h"

namespace qm::runtime {

/// Decides on a command by the state of the session and adds the events that it causes to `drafts`. A command that is
/// refused throws a std::exception whose text is the rejection's; what `drafts` holds then means nothing.
void admitCommand(const AgentCommand& command, const SessionSnapshot& snapshot, EventDrafts& drafts);

}  // namespace qm::runtime
