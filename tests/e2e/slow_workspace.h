#pragma once

#include <filesystem>
#include <string>

namespace qm::test {

/// Fills `directory` so that finding files in it keeps a processor busy for several seconds and can't be answered from
/// a cache: every entry is a symbolic link to a file at the end of the longest way that the kernel will follow.
void makeSlowToSearch(const std::filesystem::path& directory, int entries = 4000);

}  // namespace qm::test
