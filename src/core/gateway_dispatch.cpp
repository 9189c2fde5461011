#include "core/gateway_dispatch.h"

#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "net/ws_connection.h"
#include "util/log.h"

namespace qm {
namespace {

using HandlerIndex = std::unordered_map<std::string_view, GatewayHandler>;

const HandlerIndex& handlerIndex() {
    static const HandlerIndex index = [] {
        HandlerIndex handlers;
        for (const auto* table : {&capabilityCommands(), &deviceCommands()}) {
            for (const GatewayCommand& command : *table)
                handlers.emplace(command.type, command.handle);
        }
        return handlers;
    }();
    return index;
}

}  // namespace

void GatewayRequest::reply(std::string_view type, std::string_view key, json value) const {
    json message = {{"type", type}, {"requestId", requestId}};
    message[std::string(key)] = std::move(value);
    connection->sendText(dumpJson(message));
}

void dispatchGatewayFrame(const GatewayHost& host, const std::string& text,
                          const std::shared_ptr<WsConnection>& connection) {
    GatewayRequest request{parseJson(text), {}, connection};
    if (!request.frame.is_object()) throw std::invalid_argument("the frame is not a JSON object");
    request.requestId = stringMember(request.frame, "requestId");
    const std::string type = stringMember(request.frame, "type");
    const auto handler = handlerIndex().find(type);
    if (handler == handlerIndex().end()) {
        log(LogLevel::Debug, "unknown command type: " + type);
        return;
    }
    handler->second(host, std::move(request));
}

}  // namespace qm
