#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace qm {

/// The whole content of a regular file, links followed; nothing if it can't be opened or read, or is anything else
/// (a directory, a pipe, a device). Never blocks on a pipe.
std::optional<std::string> readRegularFile(const std::filesystem::path& file);

/// Writes `content` to a regular file in place, creating it or replacing what it held; links are followed. Its
/// directory must exist. A file created here has the mode that the process's umask leaves of 0666.
///
/// False if it couldn't; the file then holds what it held before (nothing, if it is new). Only an end of the process or
/// the machine in the middle, or a disk that refuses the old bytes too, leaves a mixture.
bool writeRegularFile(const std::filesystem::path& file, std::string_view content);

/// The same for a secret: before a byte is written the file has `mode` exactly, whether it existed or not.
bool writeRegularFile(const std::filesystem::path& file, std::string_view content, mode_t mode);

}  // namespace qm
