#include <string>
#include <utility>

#include "core/gateway_dispatch.h"
#include "core/gateway_services.h"
#include "util/log.h"

namespace qm {
namespace {

void collectMetrics(const GatewayHost& host, GatewayRequest&& request) {
    host.detachGuarded("metrics", [services = host.services, settings = host.settings(), request = std::move(request)] {
        request.reply("metricsResult", "data", services->metrics.collect(settings));
    });
}

void refuseJarPlugin(const GatewayHost&, GatewayRequest&& request) {
    request.reply("installPluginAck", "data",
                  {{"ok", false},
                   {"error",
                    "JAR plugins are not supported by the native executor; the new plugin system arrives with "
                    "Plugin API v2"}});
}

void refuseModelFolder(const GatewayHost&, GatewayRequest&& request) {
    request.reply("folderOpenResult", "data",
                  {{"ok", false}, {"error", "private model folders arrive with the GGUF runtime (M2b)"}});
}

void takeRejection(const GatewayHost& host, GatewayRequest&& request) {
    host.markRejected();
    log(LogLevel::Error, "网关拒绝注册（60s 后重试）: " + stringMember(request.frame, "reason", "设备位配额已满"));
}

}  // namespace

const std::vector<GatewayCommand>& deviceCommands() {
    static const std::vector<GatewayCommand> commands{
        {"metricsRequest", collectMetrics},       {"installPlugin", refuseJarPlugin},
        {"installPluginStart", refuseJarPlugin},  {"installPluginChunk", refuseJarPlugin},
        {"installPluginCommit", refuseJarPlugin}, {"openModelFolder", refuseModelFolder},
        {"registerRejected", takeRejection},
    };
    return commands;
}

}  // namespace qm
