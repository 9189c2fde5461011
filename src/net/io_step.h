#pragma once

#include <cstddef>
#include <string>

namespace qm {

/// Outcome of one non-blocking operation on a connection.
struct IoStep {
    enum class Kind {
        Done,       ///< `bytes` were moved
        Ended,      ///< the peer ended its stream in good order
        WaitRead,   ///< nothing moved; try again once the socket is readable
        WaitWrite,  ///< nothing moved; try again once the socket is writable
        Failed,     ///< the connection is of no use any more; `reason` says why
    };

    Kind kind = Kind::Failed;
    std::size_t bytes = 0;
    std::string reason;
};

}  // namespace qm
