#include "capabilities/capability_def.h"

#include "util/json.h"

namespace qm {

json registrationEntry(const CapabilityDef& definition) {
    return {
        {"capabilityId", definition.name},
        {"name", definition.name},
        {"displayName", definition.displayName},
        {"description", definition.description},
        {"scope", definition.scope},
        {"effect", definition.effect},
        {"parameters", definition.parameters},
        {"outputSchema", definition.outputSchema},
        {"sourceType", definition.sourceType},
        {"sourceId", definition.sourceId},
        {"sourceName", definition.sourceName},
        {"sourceCapabilityName", definition.sourceCapabilityName},
        {"definitionVersion", definition.definitionVersion},
    };
}

}  // namespace qm
