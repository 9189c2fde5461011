// Whatever path is asked for in a workspace full of links, what comes back lies inside, and opening it never reaches
// a file outside.

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "device/canonical_path.h"
#include "device/workspace_files.h"
#include "device/workspace_registry.h"

namespace {

namespace fs = std::filesystem;

/// A workspace of short names, so that inputs meet them, beside a file that must never be opened.
class Place {
public:
    Place() {
        std::string pattern = (fs::temp_directory_path() / "qm-fuzz-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        directory_ = fs::canonical(pattern);
        const fs::path root = directory_ / "root";
        fs::create_directories(root / "a/b/c");
        fs::create_directories(directory_ / "o");
        std::ofstream(root / "f").close();
        std::ofstream(root / "a/f").close();
        std::ofstream(directory_ / "o/f").close();
        if (::stat((directory_ / "o/f").c_str(), &secret_) != 0) std::abort();
        fs::create_symlink("../o", root / "o");
        fs::create_symlink("../../../o/f", root / "a/b/s");
        fs::create_symlink("../o/n", root / "d");
        fs::create_symlink("a/b", root / "l");
        fs::create_symlink("a/n", root / "n");
        fs::create_symlink("p", root / "p");
        fs::create_symlink(root, directory_ / "o/r");
        fs::create_symlink("../../o/r/a", root / "a/r");
        registry_.emplace(directory_ / "data");
        id_ = registry_->add(root.native(), "", qm::WorkspacePermission::FULL).workspace->id;
    }
    ~Place() {
        // Only what this object made with mkdtemp().
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    void check(std::string_view path, qm::ResolveMode mode) const {
        const auto resolved = registry_->resolve(id_, path, mode);
        if (resolved.ok != resolved.error.empty()) std::abort();
        for (const auto lookUp : {qm::RootDirectory::LookUp::KernelFirst, qm::RootDirectory::LookUp::ComponentWise}) {
            const qm::RootDirectory root(directory_ / "root", lookUp);
            // A path that nobody resolved must not lead out either.
            checkOpening(root, path);
            if (resolved.ok) checkOpening(root, resolved.relativePath);
        }
        if (!resolved.ok) return;
        if (!qm::isWithin((directory_ / "root").native(), resolved.hostPath.native())) std::abort();
        if (resolved.rootPath != directory_ / "root") std::abort();
        const bool exists = fs::exists(resolved.hostPath);
        if (mode == qm::ResolveMode::MustExist && !exists) std::abort();
        if (const auto presumed = registry_->presume(id_, path)) {
            struct stat status {};
            const auto file = qm::openRegularFileWithoutLinks(presumed->hostPath, status);
            if (file && presumed->hostPath != resolved.hostPath) std::abort();
        }
    }

private:
    void checkOpening(const qm::RootDirectory& root, std::string_view path) const {
        std::error_code error;
        const auto file = root.open(path, O_PATH, error);
        if (static_cast<bool>(file) == static_cast<bool>(error)) std::abort();
        struct stat status {};
        if (file && (::fstat(file.get(), &status) != 0 || status.st_ino == secret_.st_ino)) std::abort();
    }

    fs::path directory_;
    struct stat secret_ {};
    std::optional<qm::WorkspaceRegistry> registry_;
    std::string id_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Place place;
    const std::string_view path(reinterpret_cast<const char*>(data), size);
    for (const auto mode :
         {qm::ResolveMode::MustExist, qm::ResolveMode::ParentMustExist, qm::ResolveMode::MayBeMissing}) {
        place.check(path, mode);
    }
    return 0;
}
