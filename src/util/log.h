#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qm {

enum class LogLevel { Debug, Info, Warn, Error };

/// Writes "[HH:MM:SS] LEVEL message" to standard output like printText(), and keeps it in the ring of recent lines,
/// even if nobody reads the output. Each control character becomes a space, so a message is always one line. A line
/// takes at most 1023 bytes; the rest is cut. Any thread, never throws.
void log(LogLevel level, std::string_view message) noexcept;

/// The newest lines of the log, at most `count` of at most 300, oldest first, each valid UTF-8. Any thread.
std::vector<std::string> recentLogLines(std::size_t count);

}  // namespace qm
