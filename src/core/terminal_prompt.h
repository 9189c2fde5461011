#pragma once

#include <string>
#include <string_view>

namespace qm {

/// Writes `text` to standard output and reads one line from standard input, without the line's end; the end of the
/// input counts as a line's end.
///
/// With `hidden`, and a terminal on standard input, the echo is off during the read; the terminal's mode is put back
/// afterwards, also when a signal ends the process meanwhile or as long as one stops it. Signals that were ignored stay
/// so. Main thread only, before any other thread exists.
std::string promptLine(std::string_view text, bool hidden);

}  // namespace qm
