#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "util/json.h"

namespace qm {

class WsConnection;
struct GatewayHost;

/// One frame of the gateway on its way to a handler.
struct GatewayRequest {
    json frame;                                ///< An object; a handler may take parts out of it.
    std::string requestId;                     ///< Empty if the frame has none.
    std::shared_ptr<WsConnection> connection;  ///< The session that brought it, and the only one a reply may go to.

    /// Sends {"type", "requestId", key: value}; lost if the session is gone. Any thread.
    void reply(std::string_view type, std::string_view key, json value) const;
};

/// Runs on the thread that reads the session: long work goes through GatewayHost::detachGuarded.
using GatewayHandler = void (*)(const GatewayHost& host, GatewayRequest&& request);

struct GatewayCommand {
    std::string_view type;
    GatewayHandler handle;
};

/// The tables of frame types, one a subject.
const std::vector<GatewayCommand>& capabilityCommands();
const std::vector<GatewayCommand>& deviceCommands();

/// Reads one frame and hands it to its handler. A frame of an unknown type is logged and sends nothing. Throws
/// std::exception for a text that is no JSON object.
void dispatchGatewayFrame(const GatewayHost& host, const std::string& text,
                          const std::shared_ptr<WsConnection>& connection);

}  // namespace qm
