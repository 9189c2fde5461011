#include "device/filesystem_capabilities.h"

#include <array>
#include <utility>

#include "capabilities/capability_registry.h"
#include "device/filesystem_handlers.h"
#include "device/workspace_registry.h"
#include "util/json.h"

namespace qm {
namespace {

constexpr const char* kReadOnly = "READ_ONLY";
constexpr const char* kWrite = "WRITE";

struct Entry {
    const char* name;
    const char* displayName;
    const char* effect;
    const char* description;
    json (*handler)(const WorkspaceRegistry& workspaces, const json& arguments);
    json (*parameters)();
};

json property(const char* type) {
    return json{{"type", type}};
}

json property(const char* type, const char* description) {
    return json{{"type", type}, {"description", description}};
}

json workspaceProperty() {
    return property("string", "Workspace handle from list_workspaces (never a host path).");
}

json pathProperty() {
    return property("string", "Path relative to the workspace root, e.g. src/main.cpp. '..' is rejected.");
}

json noParameters() {
    return json{{"type", "object"}, {"properties", json::object()}};
}

json schema(json properties, std::vector<const char*> required) {
    return json{{"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(required)}};
}

json listDirectoryParameters() {
    return schema({{"workspace", workspaceProperty()}, {"path", pathProperty()}}, {"workspace"});
}

json readFileParameters() {
    return schema({{"workspace", workspaceProperty()},
                   {"path", pathProperty()},
                   {"offsetBytes", property("integer")},
                   {"maxBytes", property("integer")}},
                  {"workspace", "path"});
}

json writeFileParameters() {
    return schema({{"workspace", workspaceProperty()},
                   {"path", pathProperty()},
                   {"content", property("string", "Full new file content.")},
                   {"append", property("boolean")}},
                  {"workspace", "path", "content"});
}

json pathParameters() {
    return schema({{"workspace", workspaceProperty()}, {"path", pathProperty()}}, {"workspace", "path"});
}

json findFilesParameters() {
    return schema({{"workspace", workspaceProperty()},
                   {"pattern", property("string", "Filename glob, e.g. *.cpp")},
                   {"path", property("string", "Optional subdirectory to search under.")}},
                  {"workspace", "pattern"});
}

constexpr std::array<Entry, 7> kEntries{{
    {"list_workspaces", "列出工作区", kReadOnly,
     "List the workspaces this device exposes. Returns opaque handles to use with the file and command capabilities.",
     listWorkspaces, noParameters},
    {"list_directory", "列出目录", kReadOnly, "List entries of a directory inside a workspace.", listDirectory,
     listDirectoryParameters},
    {"read_file", "读取文件", kReadOnly,
     "Read a UTF-8 text file inside a workspace. Large files are truncated; use offsetBytes to continue.", readFile,
     readFileParameters},
    {"write_file", "写入文件", kWrite, "Create or overwrite a text file inside a workspace. Requires READ_WRITE.",
     writeFile, writeFileParameters},
    {"make_directory", "创建目录", kWrite,
     "Create a directory (including parents) inside a workspace. Requires READ_WRITE.", makeDirectory, pathParameters},
    {"stat_path", "查看文件信息", kReadOnly, "Return type and size of a path inside a workspace.", statPath,
     pathParameters},
    {"find_files", "查找文件", kReadOnly,
     "Recursively find files whose name matches a glob (* and ?) inside a workspace subtree.", findFiles,
     findFilesParameters},
}};

}  // namespace

void registerFilesystemCapabilities(CapabilityRegistry& registry, WorkspaceRegistry& workspaces) {
    for (const auto& entry : kEntries) {
        CapabilityDef definition;
        definition.name = entry.name;
        definition.displayName = entry.displayName;
        definition.description = entry.description;
        definition.parameters = entry.parameters();
        definition.effect = entry.effect;
        definition.handler = [handler = entry.handler, &workspaces](const json& arguments) {
            return handler(workspaces, arguments);
        };
        registry.registerCapability(std::move(definition));
    }
}

}  // namespace qm
