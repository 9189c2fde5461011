#pragma once

#include "runtime/agent_records.h"
#include "runtime/session_snapshot.h"

namespace qm::runtime {

/// Folds one event into a snapshot: the single definition of what a snapshot is, used live and on replay.
///
/// Throws a std::exception, and leaves the snapshot as it was, if the event can't follow what the snapshot holds:
/// journal and program disagree then. The checks come in this order: "unsupported agent event protocol version",
/// "event belongs to another session", "agent event sequence is not contiguous", and those of the event's own type.
/// A snapshot without a session takes the event's.
///
/// A payload member that is absent or of another JSON type reads as its default; an integer out of the field's range
/// as the nearest one in it.
void applyEvent(SessionSnapshot& snapshot, const AgentEvent& event);

}  // namespace qm::runtime
