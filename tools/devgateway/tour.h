#pragma once

#include "devgateway/console.h"
#include "support/gateway_peer.h"

namespace qm::devgateway {

/// Waits for an executor and leads through what a gateway and an executor do together, checking every answer. Needs a
/// workspace on the executor in which commands may run, and leaves one file in it; the executor must hand commands back
/// after at most 2 s (QM_SYNC_HANDOFF_MS). Throws std::runtime_error at the first answer that isn't as it should be.
void playTour(test::GatewayPeer& gateway, Console& console);

}  // namespace qm::devgateway
