#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "capabilities/capability_registry.h"
#include "core/executor_core.h"
#include "device/checkpoint_service.h"
#include "device/terminal_service.h"
#include "device/workspace_registry.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/json.h"
#include "util/log.h"

namespace qm::test {

/// An hour: a wait that only an interruption ends within a test.
inline constexpr std::chrono::hours kNeverEnds{1};

/// Waits of an hour everywhere.
inline CoreTiming patientTiming() {
    CoreTiming timing;
    timing.standaloneWait = timing.unconfiguredWait = timing.reconnectWait = timing.rejectedWait = kNeverEnds;
    timing.heartbeatPeriod = kNeverEnds;
    return timing;
}

/// As patientTiming(), but a lost session is followed by the next at once.
inline CoreTiming eagerTiming() {
    CoreTiming timing = patientTiming();
    timing.reconnectWait = std::chrono::milliseconds(1);
    return timing;
}

inline Settings settingsFor(const std::string& gatewayUrl) {
    Settings settings;
    settings.gatewayUrl = gatewayUrl;
    settings.executorToken = "token";
    settings.nodeId = "node";
    settings.name = "box";
    return settings;
}

/// A capability that does nothing.
inline CapabilityDef capability(const std::string& name) {
    CapabilityDef definition;
    definition.name = name;
    definition.effect = "READ_ONLY";
    definition.handler = [](const json&) { return json::object(); };
    return definition;
}

inline bool logged(std::string_view text) {
    for (const std::string& line : recentLogLines(300)) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

/// An ExecutorCore with its surroundings, whose connection loop runs on a thread of its own once start() is called.
class RunningCore {
public:
    explicit RunningCore(Settings settings, CoreTiming timing = patientTiming())
        : core(std::make_unique<ExecutorCore>(std::move(settings), registry, workspaces, terminal, checkpoints,
                                              directory.path(), timing)) {
        core->setLocalEventSink([this](std::string_view event, const json& data) { take(event, data); });
    }

    ~RunningCore() { stop(); }

    void start() {
        thread_ = std::thread([this] {
            loopThread_ = ::gettid();
            core->run();
        });
    }

    /// Ends the loop and waits for it.
    void stop() {
        if (core) core->stop();
        if (thread_.joinable()) thread_.join();
    }

    /// The states that status events have shown, in their order.
    std::vector<std::string> states() const {
        const std::lock_guard lock(mutex_);
        return states_;
    }

    /// Whether `state` has been shown `count` times.
    bool waitForState(const std::string& state, std::ptrdiff_t count = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kGenerousLimit,
                                 [&] { return std::count(states_.begin(), states_.end(), state) >= count; });
    }

    /// Waits until the loop has gone to sleep some more times: where its waits are short, rounds have gone by.
    bool waitForRounds() {
        const auto before = loopSleeps();
        return waitUntil([&] { return loopSleeps() >= before + 5; });
    }

    TemporaryDirectory directory;
    CapabilityRegistry registry;
    WorkspaceRegistry workspaces{directory.path()};
    TerminalService terminal;
    CheckpointService checkpoints{directory.path()};
    std::unique_ptr<ExecutorCore> core;

private:
    void take(std::string_view event, const json& data) {
        if (event != "status") return;
        const std::lock_guard lock(mutex_);
        states_.push_back(data.at("state").get<std::string>());
        changed_.notify_all();
    }

    /// How often the kernel has seen the loop's thread wait for something.
    long loopSleeps() const {
        std::istringstream status(readFile("/proc/self/task/" + std::to_string(loopThread_) + "/status"));
        const std::string key = "voluntary_ctxt_switches:";
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with(key)) return std::stol(line.substr(key.size()));
        }
        return 0;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> states_;
    std::atomic<pid_t> loopThread_ = 0;
    std::thread thread_;
};

}  // namespace qm::test
