#pragma once

#include <cstdint>
#include <string>

namespace qm {

/// How a run of a process ended and what it wrote.
struct ProcessResult {
    bool started = false;    ///< The fork succeeded. A program that can't be executed has started and exits with 127.
    bool timedOut = false;   ///< The time limit passed and the process group was killed.
    bool cancelled = false;  ///< A kill was asked for before the run was over.
    std::int32_t exitCode = -1;  ///< Exit status of the first process; 128 plus the signal number if a signal ended it.
    std::string stdoutText;      ///< UTF-8 by the rule of sanitizeUtf8().
    std::string stderrText;      ///< UTF-8 by the rule of sanitizeUtf8().
    bool truncated = false;      ///< Some output of either stream was dropped.
    std::int64_t durationMs = 0;
    std::string executedAs;  ///< "/bin/sh -c" or "direct exec (no shell)".
    std::string error;       ///< Why it did not start.
};

}  // namespace qm
