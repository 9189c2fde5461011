#include "runtime/journal_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace qm::runtime {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr ::mode_t kFileMode = 0600;

template <typename Call>
auto retried(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

UniqueFd openFile(const std::filesystem::path& path, int flags) {
    return UniqueFd(retried([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, kFileMode); }));
}

/// Waits for other stores; false if the lock is still held elsewhere after `patience`. The kernel has no wait with a
/// limit, so a lock that is held is asked for again in growing steps. A file system without locks does without.
bool lock(const UniqueFd& fd, int operation, milliseconds patience) {
    constexpr microseconds kLongestStep{5'000};
    const auto end = steady_clock::now() + patience;
    for (microseconds step{50};; step = std::min(2 * step, kLongestStep)) {
        if (retried([&] { return ::flock(fd.get(), operation | LOCK_NB); }) == 0 || errno != EWOULDBLOCK) return true;
        if (steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(step);
    }
}

std::string message(int error) {
    return std::generic_category().message(error);
}

bool isAbsent(int error) {
    return error == ENOENT || error == ENOTDIR;
}

/// False if there is no such file.
bool isThere(const std::filesystem::path& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        if (isAbsent(errno)) return false;
        throw std::runtime_error("cannot inspect agent journal: " + message(errno));
    }
    // Opening a pipe or a device could block or have effects of its own.
    if (!S_ISREG(status.st_mode)) throw std::runtime_error("cannot open agent journal for reading");
    return true;
}

/// True if the file was deleted between its opening and its locking.
bool isDeleted(const UniqueFd& fd) {
    struct stat status {};
    return ::fstat(fd.get(), &status) == 0 && status.st_nlink == 0;
}

}  // namespace

std::optional<JournalFile> JournalFile::open(const std::filesystem::path& path, Access access,
                                             milliseconds lockPatience) {
    while (isThere(path)) {
        JournalFile file{UniqueFd()};
        if (access == Access::Append) {
            file.fd_ = openFile(path, O_RDWR | O_APPEND);
            if (!file.fd_) file.appendError_ = errno;
        }
        if (!file.fd_) file.fd_ = openFile(path, O_RDONLY);
        if (!file.fd_ && isAbsent(errno)) continue;
        if (!file.fd_) throw std::runtime_error("cannot open agent journal for reading");
        const bool isForAppend = access == Access::Append;
        if (!lock(file.fd_, isForAppend ? LOCK_EX : LOCK_SH, lockPatience)) {
            throw std::runtime_error(isForAppend ? "cannot open agent journal for append"
                                                 : "cannot open agent journal for reading");
        }
        if (!isDeleted(file.fd_)) return file;
    }
    return std::nullopt;
}

JournalFile JournalFile::create(const std::filesystem::path& path, milliseconds lockPatience) {
    while (true) {
        JournalFile file(openFile(path, O_RDWR | O_APPEND | O_CREAT));
        if (!file.fd_ || !lock(file.fd_, LOCK_EX, lockPatience)) {
            throw std::runtime_error("cannot open agent journal for append");
        }
        if (!isDeleted(file.fd_)) return file;
    }
}

std::size_t JournalFile::read(std::span<char> into) {
    const ::ssize_t count =
        retried([&] { return ::pread(fd_.get(), into.data(), into.size(), static_cast<::off_t>(offset_)); });
    if (count < 0) throw std::runtime_error("cannot open agent journal for reading");
    offset_ += static_cast<std::uint64_t>(count);
    return static_cast<std::size_t>(count);
}

void JournalFile::cutTail(std::uint64_t size) {
    int error = appendError_;
    if (error == 0 && retried([&] { return ::ftruncate(fd_.get(), static_cast<::off_t>(size)); }) != 0) error = errno;
    if (error != 0) throw std::runtime_error("cannot repair agent journal crash tail: " + message(error));
}

void JournalFile::append(std::string_view bytes) {
    if (appendError_ != 0) throw std::runtime_error("cannot open agent journal for append");
    struct stat status {};
    // Some file systems tell only when a descriptor is closed that the bytes found no room. A second descriptor is
    // closed for that, so that the file is still open and locked when it has to be cut.
    UniqueFd reporter(::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
    if (!reporter || ::fstat(fd_.get(), &status) != 0) {
        throw std::runtime_error("cannot open agent journal for append");
    }
    const ::ssize_t count = retried([&] { return ::write(fd_.get(), bytes.data(), bytes.size()); });
    const bool isWhole = count >= 0 && static_cast<std::size_t>(count) == bytes.size();
    if (isWhole && ::close(reporter.release()) == 0) return;
    // Nothing of a batch must stay; if even the cut fails, a part of one is a tail that the next append repairs.
    if (count > 0) retried([&] { return ::ftruncate(fd_.get(), status.st_size); });
    throw std::runtime_error("cannot flush agent journal append");
}

}  // namespace qm::runtime
