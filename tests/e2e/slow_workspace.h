#pragma once

#include <filesystem>
#include <string>

namespace qm::test {

/// Fills `directory` so that finding files in it keeps a processor busy for seconds and can't be answered from
/// a cache: every entry is a symbolic link to a file at the end of a very long way through other links.
void makeSlowToSearch(const std::filesystem::path& directory, int entries = 520);

}  // namespace qm::test
