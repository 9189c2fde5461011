#include "device/canonical_path.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>
#include <vector>

#include "device/kernel_open.h"

namespace qm {
namespace {

/// What the kernel allows in one look-up before it speaks of a loop.
constexpr int kMaxLinks = 40;

/// Walks a path component by component, as the kernel would, but goes on where it would say that nothing is there.
class LinkFollower {
public:
    LinkFollower(std::string_view base, std::string_view path) : path_(base == "/" ? std::string_view() : base) {
        texts_.push_back({std::string(path), 0});
    }

    CanonicalPath run() {
        CanonicalPath result;
        while (!error_ && takeComponent())
            step();
        if (!error_ && wantsDirectory_ && (missing_ > 0 || !directory_)) {
            path_ += '/';
            ++missing_;
        }
        result.path = path_.empty() ? "/" : std::move(path_);
        result.missing = missing_;
        result.namesLink = namesLink_;
        result.error = error_;
        return result;
    }

private:
    /// A text that is being walked: the path as given at the bottom, the targets of links above it.
    struct Text {
        std::string characters;
        std::size_t position;
    };

    /// Puts the next component that isn't "." into `component_`; false at the end of all texts. A text that ends in "/"
    /// or "/." demands a directory.
    bool takeComponent() {
        while (!texts_.empty()) {
            Text& text = texts_.back();
            while (text.position < text.characters.size()) {
                const std::size_t end = std::min(text.characters.find('/', text.position), text.characters.size());
                component_.assign(text.characters, text.position, end - text.position);
                text.position = end + 1;
                if (component_.empty() || component_ == ".") {
                    wantsDirectory_ = true;
                    continue;
                }
                wantsDirectory_ = end + 1 == text.characters.size();
                isLastGiven_ = texts_.size() == 1 && end == text.characters.size();
                return true;
            }
            texts_.pop_back();
        }
        return false;
    }

    void step() {
        if (component_ == "..") return goUp();
        path_ += '/';
        path_ += component_;
        if (missing_ > 0 || !directory_) {
            ++missing_;
            return;
        }
        struct stat status {};
        if (::lstat(path_.c_str(), &status) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) {
                ++missing_;
            } else {
                fail(errno);
            }
            return;
        }
        if (S_ISLNK(status.st_mode)) return enterLink();
        directory_ = S_ISDIR(status.st_mode);
    }

    /// Where the way leads through something that doesn't exist there is no parent to go to.
    void goUp() {
        if (missing_ > 0) return fail(ENOENT);
        if (!directory_) return fail(ENOTDIR);
        path_.resize(path_.empty() ? 0 : path_.rfind('/'));
    }

    void enterLink() {
        if (isLastGiven_) namesLink_ = true;
        if (++links_ > kMaxLinks) return fail(ELOOP);
        std::array<char, PATH_MAX> target;
        const ssize_t length = ::readlink(path_.c_str(), target.data(), target.size());
        if (length < 0) return fail(errno);
        if (static_cast<std::size_t>(length) == target.size()) return fail(ENAMETOOLONG);
        const bool absolute = length > 0 && target[0] == '/';
        path_.resize(absolute ? 0 : path_.rfind('/'));
        // A "/" behind the link holds for what it leads to.
        std::string text(target.data(), static_cast<std::size_t>(length));
        if (wantsDirectory_) text += '/';
        texts_.push_back({std::move(text), 0});
    }

    void fail(int number) { error_ = {number, std::generic_category()}; }

    std::string path_;  ///< Canonical as far as it exists; empty stands for the root directory.
    std::vector<Text> texts_;
    std::string component_;
    bool directory_ = true;  ///< What `path_` names is a directory; not kept up once components are missing.
    bool wantsDirectory_ = false;
    bool isLastGiven_ = false;
    bool namesLink_ = false;
    std::size_t missing_ = 0;
    int links_ = 0;
    std::error_code error_;
};

}  // namespace

CanonicalPath followLinks(std::string_view base, std::string_view path) {
    CanonicalPath refused;
    if (path.find('\0') != std::string_view::npos) {
        refused.error = std::make_error_code(std::errc::invalid_argument);
        return refused;
    }
    if (base.size() + 1 + path.size() >= PATH_MAX) {
        refused.error = std::make_error_code(std::errc::filename_too_long);
        return refused;
    }
    return LinkFollower(base, path).run();
}

bool isPlainAbsolute(std::string_view path) {
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return false;
    if (path == "/") return true;
    while (!path.empty()) {
        path.remove_prefix(1);
        const std::string_view component = path.substr(0, path.find('/'));
        if (component.empty() || component == "." || component == "..") return false;
        path.remove_prefix(component.size());
    }
    return true;
}

bool existsAsCanonical(std::string_view path) {
    if (!isPlainAbsolute(path)) return false;
    return static_cast<bool>(openat2(AT_FDCWD, std::string(path).c_str(), O_PATH, 0, RESOLVE_NO_SYMLINKS));
}

bool isWithin(std::string_view root, std::string_view path) {
    if (root == "/") return path.starts_with('/');
    return path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/');
}

std::string_view relativeTo(std::string_view root, std::string_view path) {
    if (root != "/") path.remove_prefix(root.size());
    if (path.starts_with('/')) path.remove_prefix(1);
    return path;
}

std::string joinBelow(std::string_view root, std::string_view path) {
    std::string joined(root);
    if (path.empty()) return joined;
    if (!joined.ends_with('/')) joined += '/';
    return joined += path;
}

}  // namespace qm
