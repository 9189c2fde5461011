#include "core/register_message.h"

#include <utility>

#include "util/json.h"
#include "util/version.h"

namespace qm {
namespace {

json protocolFeatures(bool heavy) {
    json features = {"capability-policy-v1", "model-generate-v1", "process-plugin-v2", "device-extensions-v1",
                     "app-market-v1",        "local-market-v1",   "agent-runtime-v1",  "agent-runtime-v2"};
    if (heavy) features.push_back("model-input-parts-v1");
    return features;
}

}  // namespace

json registerMessage(const Settings& settings, const ModelState& model,
                     const CapabilityRegistry::Snapshot& capabilities, json extensions) {
    const std::string mode(canonicalMode(settings.mode));
    json entries = json::array();
    for (const CapabilityDef& definition : *capabilities)
        entries.push_back(registrationEntry(definition));
    return {
        {"type", "register"},
        {"agentId", settings.nodeId},
        {"name", settings.name},
        {"description", settings.description},
        {"version", kVersion},
        {"url", ""},  // The executor can't be called back; the protocol wants the key.
        {"mode", mode},
        {"modelSource", model.source},
        {"maxTaskRounds", model.maxTaskRounds},
        {"protocolFeatures", protocolFeatures(mode == "HEAVY")},
        {"capabilities", std::move(entries)},
        {"extensions", std::move(extensions)},
    };
}

}  // namespace qm
