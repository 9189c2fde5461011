#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stop_token>
#include <string>

namespace qm::runtime {

/// Budgets that apply when a caller sets none; a caller can only lower them.
inline constexpr std::uint64_t kDefaultResultBytes = 49152;
inline constexpr std::uint64_t kDefaultStreamBytes = 98304;

/// The context of one execution of a capability.
struct ToolInvocation {
    std::string idempotencyKey;  ///< Empty disables deduplication.
    std::string name;            ///< The capability to run.
    nlohmann::json arguments;
    std::string sessionId;
    std::string runId;              ///< Keys the turn checkpoint.
    std::string taskId;             ///< Task that owns the invocation.
    std::string workspace;          ///< Workspace handle that the task was admitted to; empty means no admission check.
    std::string access = "none";    ///< "none", "read" or "write".
    std::int32_t round = -1;        ///< Turn number in the run; negative disables the turn checkpoint.
    std::int64_t deadlineAtMs = 0;  ///< Wall-clock milliseconds; zero or negative means no deadline.
    std::uint64_t resultBytes = kDefaultResultBytes;
    std::uint64_t stdoutBytes = kDefaultStreamBytes;
    std::uint64_t stderrBytes = kDefaultStreamBytes;
    std::stop_token stopToken;  ///< Raised when the owning task is cancelled.
};

}  // namespace qm::runtime
