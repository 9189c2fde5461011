#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace qm::test {

/// A new empty directory below the system's one for temporary files; removed with its content at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// Canonical, absolute.
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Writes `content` to `file`, creating the directories above it.
void writeFile(const std::filesystem::path& file, std::string_view content);

/// The whole content; fails the test if the file can't be read.
std::string readFile(const std::filesystem::path& file);

}  // namespace qm::test
