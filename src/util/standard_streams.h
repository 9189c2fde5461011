#pragma once

#include <string_view>

namespace qm {

/// Opens those of the descriptors 0, 1 and 2 that the process was started without on /dev/null. Otherwise the next
/// file or socket would get such a number and be taken for standard output. Before anything else is opened.
void openMissingStandardStreams();

/// Writes `text` to standard output at once, beside the buffer of stdio; texts of several threads never mix. Waits at
/// most some 200 ms for a reader that doesn't read: the rest is then dropped, and so is everything until it reads
/// again. Any thread.
void printText(std::string_view text) noexcept;

}  // namespace qm
