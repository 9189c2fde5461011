#pragma once

#include <string>
#include <string_view>

#include "capabilities/capability_registry.h"
#include "device/filesystem_capabilities.h"
#include "util/json.h"
#include "workspace_fixture.h"

namespace qm::test {

/// One workspace and the file capabilities on it, called as the pipeline calls them.
class FilesystemTest : public WorkspaceTest {
protected:
    FilesystemTest() { registerFilesystemCapabilities(capabilities, registry); }

    json call(std::string_view name, const json& arguments) const {
        for (const auto& definition : *capabilities.snapshot()) {
            if (definition.name == name) return definition.handler(arguments);
        }
        ADD_FAILURE() << "no capability " << name;
        return nullptr;
    }

    /// The text of the failure, empty for a success.
    std::string error(std::string_view name, const json& arguments) const {
        return stringMember(call(name, arguments), "error");
    }

    CapabilityRegistry capabilities;
};

}  // namespace qm::test
