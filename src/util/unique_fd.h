#pragma once

#include <unistd.h>

#include <utility>

namespace qm {

/// Owns one file descriptor and closes it; empty when it holds -1. Moves like a std::unique_ptr.
///
/// The result of close() isn't looked at: code that must know whether its data reached the file calls fsync() or
/// close() on release() itself.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    /// Hands the descriptor to the caller, who must close it.
    int release() { return std::exchange(fd_, -1); }

    /// Closes what is held and takes `fd` instead.
    void reset(int fd = -1) {
        if (fd_ >= 0 && fd_ != fd) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace qm
