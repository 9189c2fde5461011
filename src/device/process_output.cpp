#include "device/process_output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

namespace qm {
namespace {

/// In a process started without standard streams a pipe may get their numbers, and a child's streams would be put on
/// top of it.
UniqueFd aboveStandardStreams(UniqueFd fd) {
    if (fd.get() > STDERR_FILENO) return fd;
    return UniqueFd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

}  // namespace

bool ProcessOutput::open() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    readEnd_ = aboveStandardStreams(std::move(readEnd));
    writeEnd_ = aboveStandardStreams(std::move(writeEnd));
    // The flag belongs to one end of the pipe: the child's writes still block.
    return readEnd_ && writeEnd_ && ::fcntl(readEnd_.get(), F_SETFL, O_RDONLY | O_NONBLOCK) == 0;
}

void ProcessOutput::read(std::span<char> buffer) {
    readOnce(buffer);
}

void ProcessOutput::drain(std::span<char> buffer) {
    int waiting = 0;
    if (!ended() && ::ioctl(readEnd_.get(), FIONREAD, &waiting) == 0) {
        auto left = static_cast<std::size_t>(std::max(waiting, 0));
        while (left > 0 && !ended()) {
            const std::size_t count = readOnce(buffer.first(std::min(left, buffer.size())));
            if (count == 0) break;
            left -= count;
        }
    }
    readEnd_.reset();
}

/// Number of bytes; 0 if there was nothing, or the pipe has ended.
std::size_t ProcessOutput::readOnce(std::span<char> buffer) {
    const ssize_t count = ::read(readEnd_.get(), buffer.data(), buffer.size());
    if (count > 0) {
        keep({buffer.data(), static_cast<std::size_t>(count)});
        return static_cast<std::size_t>(count);
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) readEnd_.reset();
    return 0;
}

void ProcessOutput::keep(std::string_view chunk) {
    const std::uint64_t room = maxBytes_ - bytes_.size();
    if (chunk.size() > room) truncated_ = true;
    bytes_.append(chunk.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(room, chunk.size()))));
}

}  // namespace qm
