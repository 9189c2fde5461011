#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "util/unique_fd.h"

namespace qm {

/// A pipe that takes one output stream of a child, and what came through it up to a cap. One thread at a time.
class ProcessOutput {
public:
    explicit ProcessOutput(std::uint64_t maxBytes) : maxBytes_(maxBytes) {}

    /// Makes the pipe, close-on-exec and with descriptors above 2; only reading doesn't block. False if there is none.
    bool open();

    /// -1 once the pipe has ended.
    int readEnd() const { return readEnd_.get(); }
    int writeEnd() const { return writeEnd_.get(); }
    void closeWriteEnd() { writeEnd_.reset(); }
    bool ended() const { return !readEnd_; }

    /// Takes what is there, as much as fits into `buffer`, which is used up.
    void read(std::span<char> buffer);

    /// Takes what stands in the pipe now, however fast others go on writing, and gives the pipe up.
    void drain(std::span<char> buffer);

    /// Some bytes were dropped because of the cap.
    bool truncated() const { return truncated_; }

    /// The captured bytes, as they came.
    const std::string& bytes() const { return bytes_; }

private:
    std::size_t readOnce(std::span<char> buffer);
    void keep(std::string_view chunk);

    UniqueFd readEnd_;
    UniqueFd writeEnd_;
    std::uint64_t maxBytes_;
    std::string bytes_;
    bool truncated_ = false;
};

}  // namespace qm
