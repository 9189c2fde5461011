#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "util/json_fwd.h"

namespace qm::runtime {
struct ToolInvocation;
}

namespace qm {

/// Definition of one capability; a value that is copied freely. Field order and names are the protocol's.
struct CapabilityDef {
    std::string name;  ///< Unique key, compared byte for byte; sent as `capabilityId` too.
    std::string displayName;
    std::string description;
    std::map<std::string, std::string> descriptions;
    json parameters;                     ///< JSON Schema of the arguments.
    json outputSchema = json::object();  ///< Schema of the result, for the gateway only.
    std::string scope = "DEVICE";        ///< "DEVICE" or "SHARED".
    std::string provider = "builtin";    ///< Owner of the entry, the unit of bulk replacement.
    std::string sourceType = "NATIVE";
    std::string sourceId = "native";
    std::string sourceName = "Native capabilities";
    std::string sourceCapabilityName;
    std::string definitionVersion = "v1-native";
    std::string effect = "UNKNOWN";  ///< Anything but "READ_ONLY" counts as mutating.
    std::function<json(const json& arguments)> handler;
    /// Takes precedence over `handler` when both are set.
    std::function<json(const runtime::ToolInvocation&)> invocationHandler;
};

/// The definition as it stands in the `capabilities` array of a `register` message.
json registrationEntry(const CapabilityDef& definition);

}  // namespace qm
