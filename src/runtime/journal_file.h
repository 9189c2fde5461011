#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>

#include "util/unique_fd.h"

namespace qm::runtime {

/// How long a call waits for a journal's lock by default. Stores hold it for one call only; a program that keeps it
/// must not stop the sessions of this one.
inline constexpr std::chrono::milliseconds kJournalLockPatience{3000};

/// The file of one session's journal, open for as long as the object lives, and locked against other stores, in this
/// process or another. On a file system that has no locks only the mutex of a store keeps its own calls in order. One
/// thread at a time.
class JournalFile {
public:
    enum class Access { Read, Append };

    /// Opens an existing file; nothing if there is none. Throws std::runtime_error "cannot inspect agent journal: " and
    /// the system's message, or "cannot open agent journal for reading"; if another still holds the lock after
    /// `lockPatience`, this or "cannot open agent journal for append", as `access` says.
    static std::optional<JournalFile> open(const std::filesystem::path& path, Access access,
                                           std::chrono::milliseconds lockPatience);

    /// Opens the file for append, creating it with mode 0600 if it isn't there. Throws std::runtime_error "cannot open
    /// agent journal for append", also if another still holds the lock after `lockPatience`.
    static JournalFile create(const std::filesystem::path& path, std::chrono::milliseconds lockPatience);

    /// Reads the next bytes; returns their number, 0 at the end. Throws std::runtime_error "cannot open agent journal
    /// for reading".
    std::size_t read(std::span<char> into);

    /// The next read starts at the first byte again.
    void rewind() { offset_ = 0; }

    /// Cuts the file to its first `size` bytes. Throws std::runtime_error "cannot repair agent journal crash tail: "
    /// and the system's message.
    void cutTail(std::uint64_t size);

    /// Writes `bytes` at the end by one write, all of them or nothing. Throws std::runtime_error "cannot open agent
    /// journal for append" or "cannot flush agent journal append".
    void append(std::string_view bytes);

private:
    explicit JournalFile(UniqueFd fd) : fd_(std::move(fd)) {}

    UniqueFd fd_;
    std::uint64_t offset_ = 0;
    int appendError_ = 0;  ///< Why a file that was opened for append can only be read.
};

}  // namespace qm::runtime
