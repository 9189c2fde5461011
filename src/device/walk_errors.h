#pragma once

#include <system_error>

namespace qm {

/// What every walk through a workspace does about a directory that it can't open or read. Returns for a failure that
/// concerns this directory only, which the walk then passes over: it may not be entered, vanished, became something
/// else, was moved out of the workspace or lies too deep. Throws std::system_error for all others, such as a disk that
/// fails or descriptors that ran out: an answer without what lies there would pass for a complete one.
void passOverOrThrow(const std::error_code& error);

}  // namespace qm
