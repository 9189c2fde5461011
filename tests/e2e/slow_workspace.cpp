#include "e2e/slow_workspace.h"

#include "support/temporary_directory.h"

namespace qm::test {

void makeSlowToSearch(const std::filesystem::path& directory, int entries) {
    // The kernel follows 40 links for one path, and a link holds 4095 bytes; this many cost a millisecond or so.
    constexpr int kLinks = 16;
    constexpr std::size_t kLongestTarget = 4095;
    const std::string detour = "d/../";

    std::filesystem::create_directory(directory / "d");
    std::filesystem::path last = "end";
    writeFile(directory / last, "");
    for (int i = 0; i < kLinks; ++i) {
        std::string target;
        while (target.size() + detour.size() + last.string().size() <= kLongestTarget) {
            target += detour;
        }
        const std::string name = ".way" + std::to_string(i);
        std::filesystem::create_symlink(target + last.string(), directory / name);
        last = name;
    }
    for (int i = 0; i < entries; ++i) {
        std::filesystem::create_symlink(last, directory / ("slow" + std::to_string(i)));
    }
}

}  // namespace qm::test
