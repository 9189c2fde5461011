#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <string_view>

#include "core/connection_state.h"
#include "core/gateway_services.h"
#include "core/gateway_session.h"
#include "core/loop_control.h"
#include "core/settings.h"
#include "core/settings_store.h"
#include "core/status_events.h"
#include "util/detached_tasks.h"
#include "util/json_fwd.h"

namespace qm {

class CancelSignal;
class CapabilityRegistry;
class CheckpointService;
class TerminalService;
class WorkspaceRegistry;
class WsConnection;

/// The waits of the connection loop. The defaults are the program's; tests shorten them.
struct CoreTiming {
    std::chrono::milliseconds standaloneWait{3000};
    std::chrono::milliseconds unconfiguredWait{2000};
    std::chrono::milliseconds reconnectWait{5000};
    std::chrono::milliseconds rejectedWait{60000};
    std::chrono::milliseconds heartbeatPeriod{10000};
    /// How long destruction waits for work in flight; the process must be gone 2 s after a signal.
    std::chrono::milliseconds drainLimit{1500};
};

/// The centre of the process: keeps one session with the gateway at a time, shows it what the device can do, and
/// answers what it asks. While there is no session everything local goes on.
///
/// run() belongs to one thread; all other public methods may be called from any thread. Locks are held for memory only,
/// never while calling out.
class ExecutorCore {
public:
    /// Gets events for the local user interface; called with no lock held.
    using LocalEventSink = std::function<void(std::string_view event, const json& data)>;

    /// The registries and services belong to the caller and outlive the core and its detachedTasks().
    ExecutorCore(Settings settings, CapabilityRegistry& registry, WorkspaceRegistry& workspaces,
                 TerminalService& terminal, CheckpointService& checkpoints, const std::filesystem::path& dataDir,
                 CoreTiming timing = {});
    /// Stops, ends all commands of the terminal, and waits a limited time for work in flight; see detachedTasks(). No
    /// other thread may change the capability table meanwhile.
    ~ExecutorCore();
    ExecutorCore(const ExecutorCore&) = delete;
    ExecutorCore& operator=(const ExecutorCore&) = delete;

    /// The connection loop; returns after stop().
    void run();

    /// Ends run() from whatever it does, and asks invocations in flight to end. Any number of times.
    void stop();

    /// Starts a new round at once: ends the session, an attempt to connect, or a wait.
    void requestReconnect();

    /// Changes the settings, saves them, and starts a new round with them. On false they are changed in memory but not
    /// on disk, and `error`, if given, says why.
    bool changeSettings(const std::function<void(Settings&)>& change, std::string* error = nullptr);

    /// One session on `connection`, until it ends; part of run().
    void serveConnection(const std::shared_ptr<WsConnection>& connection);

    /// Carries out one frame that came on `connection`. Throws std::exception for a text that is no JSON object.
    void handleCommand(const std::string& text, const std::shared_ptr<WsConnection>& connection);

    /// The status as the local interface shows it.
    json status() const;

    /// Empty removes it.
    void setLocalEventSink(LocalEventSink sink);

    /// Work on threads that nobody joins. What is still running once the core is gone uses the registries and services
    /// only; their owner must not destroy them before it ends.
    std::shared_ptr<const DetachedTasks> detachedTasks() const { return tasks_; }

private:
    Settings settingsCopy() const;
    json statusIn(ConnectionState state) const;
    void pushEvent(std::string_view event, const json& data) const;
    void connectOnce(const Settings& settings);
    std::shared_ptr<WsConnection> openConnection(const Settings& settings);
    void serveAndClose(const std::shared_ptr<WsConnection>& connection);
    void dropConnection();
    void interruptGateway(const std::function<void()>& interruptLoop);
    void capabilitiesChanged();
    GatewaySession::Announcement announcement() const;

    const CoreTiming timing_;
    CapabilityRegistry& registry_;
    WorkspaceRegistry& workspaces_;
    TerminalService& terminal_;

    mutable std::mutex settingsMutex_;
    Settings settings_;
    std::mutex saveMutex_;  ///< Held over change and save together, so that the newest settings reach the disk last.
    SettingsStore settingsStore_;

    std::shared_ptr<GatewayServices> services_;
    std::shared_ptr<DetachedTasks> tasks_;
    GatewayHost host_;

    mutable std::mutex eventSinkMutex_;
    LocalEventSink eventSink_;
    StatusEvents statusEvents_;

    LoopControl loop_;
    std::stop_source stopSource_;  ///< Raised with the stop of loop_, for invocations in flight.
    std::atomic<bool> rejected_{false};

    std::mutex connectionMutex_;                ///< Held to read or swap the pointers below, nothing else.
    std::shared_ptr<CancelSignal> attempt_;     ///< Set while connecting.
    std::shared_ptr<WsConnection> connection_;  ///< Set while a session is up, and so is the next.
    std::shared_ptr<GatewaySession> session_;
};

}  // namespace qm
