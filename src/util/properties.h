#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace qm {

/// Reads the classical properties format: `key=value` lines, "#" and "!" comments, backslash escapes, continued lines.
/// Never fails: every input has a reading. Of two equal keys the last wins. Keys and values come out as UTF-8.
std::map<std::string, std::string> parseProperties(std::string_view text);

/// The same for a file; one that can't be read is empty.
std::map<std::string, std::string> readPropertiesFile(const std::filesystem::path& file);

/// One "key=value" line with its line feed, escaped so that the file holds ASCII only.
std::string propertiesLine(std::string_view key, std::string_view value);

}  // namespace qm
