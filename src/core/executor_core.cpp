#include "core/executor_core.h"

#include <exception>
#include <utility>

#include "capabilities/capability_registry.h"
#include "core/gateway_dispatch.h"
#include "core/register_message.h"
#include "core/status_record.h"
#include "device/checkpoint_service.h"
#include "device/terminal_service.h"
#include "device/workspace_registry.h"
#include "net/cancel_signal.h"
#include "net/ws_connection.h"
#include "util/json.h"
#include "util/log.h"

namespace qm {
namespace {

constexpr char kGatewayPath[] = "/ws/executor";

/// The model of a device on which none is configured.
ModelState modelState() {
    return {};
}

TurnCheckpointer turnCheckpointer(CheckpointService& checkpoints) {
    return [&checkpoints](const Workspace& workspace, const std::string& label) {
        return checkpoints.create(workspace, label);
    };
}

}  // namespace

ExecutorCore::ExecutorCore(Settings settings, CapabilityRegistry& registry, WorkspaceRegistry& workspaces,
                           TerminalService& terminal, CheckpointService& checkpoints,
                           const std::filesystem::path& dataDir, CoreTiming timing)
    : timing_(timing),
      registry_(registry),
      workspaces_(workspaces),
      terminal_(terminal),
      settings_(std::move(settings)),
      settingsStore_(dataDir),
      services_(std::make_shared<GatewayServices>(registry, workspaces, turnCheckpointer(checkpoints))),
      tasks_(std::make_shared<DetachedTasks>()),
      statusEvents_([this](ConnectionState state) { pushEvent("status", statusIn(state)); }) {
    host_.services = services_;
    host_.settings = [this] { return settingsCopy(); };
    host_.detachGuarded = [this](const char* name, std::function<void()> task) { tasks_->run(name, std::move(task)); };
    host_.markRejected = [this] { rejected_ = true; };
    host_.stopToken = stopSource_.get_token();
    registry_.setChangeListener([this] { capabilitiesChanged(); });
}

ExecutorCore::~ExecutorCore() {
    registry_.setChangeListener({});
    stop();
    terminal_.shutdown();
    tasks_->waitUntilIdle(timing_.drainLimit);
}

void ExecutorCore::run() {
    while (loop_.running()) {
        loop_.beginRound();
        const Settings settings = settingsCopy();
        if (settings.isStandalone()) {
            statusEvents_.setState(ConnectionState::Standalone);
            loop_.waitFor(timing_.standaloneWait);
            continue;
        }
        if (settings.executorToken.empty()) {
            statusEvents_.setState(ConnectionState::NotConfigured);
            loop_.waitFor(timing_.unconfiguredWait);
            continue;
        }
        statusEvents_.setState(ConnectionState::Connecting);
        connectOnce(settings);
        if (!loop_.running()) break;
        const bool rejected = rejected_;
        statusEvents_.setState(rejected ? ConnectionState::Rejected : ConnectionState::Disconnected);
        loop_.waitFor(rejected ? timing_.rejectedWait : timing_.reconnectWait);
    }
    log(LogLevel::Info, "executor stopped");
}

void ExecutorCore::connectOnce(const Settings& settings) {
    log(LogLevel::Info, "connecting to gateway: " + settings.gatewayUrl + kGatewayPath);
    try {
        if (const auto connection = openConnection(settings)) serveAndClose(connection);
    } catch (const std::exception& failure) {
        // No descriptor or no thread to be had: as good as no connection, and the next round may have more luck.
        dropConnection();
        log(LogLevel::Warn, std::string("gateway connection failed: ") + failure.what());
    }
}

std::shared_ptr<WsConnection> ExecutorCore::openConnection(const Settings& settings) {
    const auto attempt = std::make_shared<CancelSignal>();
    {
        const std::lock_guard lock(connectionMutex_);
        attempt_ = attempt;
    }
    // Whoever interrupted before the signal stood there couldn't raise it.
    if (loop_.interrupted()) attempt->cancel();
    std::string error;
    auto connection = WsConnection::connect(settings.gatewayUrl, kGatewayPath, settings.executorToken, &error, attempt);
    if (!connection) log(LogLevel::Warn, "gateway connection failed: " + error);
    const std::lock_guard lock(connectionMutex_);
    attempt_.reset();
    connection_ = connection;
    return connection;
}

void ExecutorCore::serveAndClose(const std::shared_ptr<WsConnection>& connection) {
    rejected_ = false;
    // A stop or a reconnect request between the end of the attempt and the storing of the connection met neither.
    if (!loop_.interrupted()) {
        statusEvents_.setState(ConnectionState::Connected);
        serveConnection(connection);
    }
    dropConnection();
    log(LogLevel::Warn, "gateway connection closed");
    if (const auto& reason = connection->peerClose()) {
        log(LogLevel::Info, "gateway close code " + std::to_string(reason->code) + ", reason: " + reason->reason);
    }
}

void ExecutorCore::dropConnection() {
    std::shared_ptr<WsConnection> connection;
    {
        const std::lock_guard lock(connectionMutex_);
        attempt_.reset();
        session_.reset();
        connection.swap(connection_);
    }
    if (connection) connection->close();
}

void ExecutorCore::serveConnection(const std::shared_ptr<WsConnection>& connection) {
    const auto session = std::make_shared<GatewaySession>(connection, [this] { return announcement(); });
    {
        const std::lock_guard lock(connectionMutex_);
        session_ = session;
    }
    session->announce();
    const Settings settings = settingsCopy();
    log(LogLevel::Info, "connected & registered: agentId=" + settings.nodeId + ", mode=" + settings.mode +
                            ", capabilities=" + std::to_string(registry_.snapshot()->size()));
    session->serve([this, &connection](const std::string& text) { handleCommand(text, connection); },
                   timing_.heartbeatPeriod);
}

void ExecutorCore::handleCommand(const std::string& text, const std::shared_ptr<WsConnection>& connection) {
    dispatchGatewayFrame(host_, text, connection);
}

void ExecutorCore::stop() {
    interruptGateway([this] { loop_.stop(); });
    stopSource_.request_stop();
}

void ExecutorCore::requestReconnect() {
    interruptGateway([this] { loop_.requestReconnect(); });
}

void ExecutorCore::interruptGateway(const std::function<void()>& interruptLoop) {
    std::shared_ptr<CancelSignal> attempt;
    std::shared_ptr<WsConnection> connection;
    {
        // Under one lock, so that what is ended belongs to the round that was interrupted. Otherwise the loop could
        // begin the next round in between, and that round's session would be ended by a request it has served.
        const std::lock_guard lock(connectionMutex_);
        interruptLoop();
        attempt = attempt_;
        connection = connection_;
    }
    if (attempt) attempt->cancel();
    if (connection) connection->close();
}

bool ExecutorCore::changeSettings(const std::function<void(Settings&)>& change, std::string* error) {
    bool saved = false;
    {
        const std::lock_guard saving(saveMutex_);
        Settings changed = settingsCopy();
        change(changed);
        {
            const std::lock_guard lock(settingsMutex_);
            settings_ = changed;
        }
        saved = settingsStore_.save(changed, error);
    }
    requestReconnect();
    return saved;
}

Settings ExecutorCore::settingsCopy() const {
    const std::lock_guard lock(settingsMutex_);
    return settings_;
}

json ExecutorCore::status() const {
    return statusIn(statusEvents_.state());
}

json ExecutorCore::statusIn(ConnectionState state) const {
    return statusRecord({state, settingsCopy(), modelState(), registry_.snapshot()->size(), workspaces_.list().size()});
}

void ExecutorCore::setLocalEventSink(LocalEventSink sink) {
    const std::lock_guard lock(eventSinkMutex_);
    eventSink_ = std::move(sink);
}

void ExecutorCore::pushEvent(std::string_view event, const json& data) const {
    LocalEventSink sink;
    {
        const std::lock_guard lock(eventSinkMutex_);
        sink = eventSink_;
    }
    if (sink) sink(event, data);
}

void ExecutorCore::capabilitiesChanged() {
    const std::uint64_t version = registry_.version();
    log(LogLevel::Info, "capabilities changed (version " + std::to_string(version) + "), re-registering");
    std::shared_ptr<GatewaySession> session;
    {
        const std::lock_guard lock(connectionMutex_);
        session = session_;
    }
    if (session) session->capabilitiesChanged(version);
    statusEvents_.recordChanged();
}

GatewaySession::Announcement ExecutorCore::announcement() const {
    std::uint64_t version = 0;
    CapabilityRegistry::Snapshot capabilities;
    // A table that is newer than the version sent with it would be announced once more.
    do {
        version = registry_.version();
        capabilities = registry_.snapshot();
    } while (registry_.version() != version);
    return {dumpJson(registerMessage(settingsCopy(), modelState(), capabilities, json::array())), version};
}

}  // namespace qm
