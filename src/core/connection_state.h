#pragma once

#include <cstdint>

namespace qm {

/// Where the executor stands with its gateway; the numbers are the protocol's.
enum class ConnectionState : std::int32_t {
    NotConfigured = 0,  ///< No token, not standalone.
    Connecting = 1,     ///< An attempt is under way.
    Connected = 2,      ///< Session up.
    Disconnected = 3,   ///< Session lost, waiting.
    Rejected = 4,       ///< The gateway refused the registration, waiting.
    Standalone = 5,     ///< The gateway connection is switched off by the settings.
};

/// "NOT_CONFIGURED", "CONNECTING", ...; "UNKNOWN" for any other number.
constexpr const char* connectionStateName(ConnectionState state) {
    switch (state) {
        case ConnectionState::NotConfigured:
            return "NOT_CONFIGURED";
        case ConnectionState::Connecting:
            return "CONNECTING";
        case ConnectionState::Connected:
            return "CONNECTED";
        case ConnectionState::Disconnected:
            return "DISCONNECTED";
        case ConnectionState::Rejected:
            return "REJECTED";
        case ConnectionState::Standalone:
            return "STANDALONE";
    }
    return "UNKNOWN";
}

}  // namespace qm
