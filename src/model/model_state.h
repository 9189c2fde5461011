#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace qm {

/// What the executor tells others about its model; the defaults are those of a device without a configured one.
struct ModelState {
    std::string source = "REMOTE_API";
    std::string modelName;
    nlohmann::json capabilities = nlohmann::json::object();
    bool imageSupported = false;
    bool ready = false;
    std::int32_t maxTaskRounds = 0;  ///< 0: no limit of its own.

    /// Whether the model is one of the gateway's.
    bool followsGateway() const { return source == "GATEWAY_SHARED" || source == "GATEWAY_ACCOUNT"; }
};

}  // namespace qm
