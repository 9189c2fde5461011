#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "device/process_options.h"

namespace qm::test {

/// A line for "/bin/sh -c" with a time limit that only a failing test reaches.
ProcessOptions shell(std::string command);

/// A program and its arguments, with the same limit.
ProcessOptions program(std::vector<std::string> args);

/// Calls `body` in a forked process and gives the status it returns; one that throws or fails a test gives 99. For what
/// a test can't do to its own process. No other thread may exist.
int statusOfForked(const std::function<int()>& body);

/// The same without waiting for it.
pid_t forkProcess(const std::function<int()>& body);

/// The pid that a process has written to `file`, waited for.
pid_t pidIn(const std::filesystem::path& file);

/// Makes orphaned descendants children of this process while it exists, so that their end can be awaited.
class OrphanAdoption {
public:
    OrphanAdoption();
    ~OrphanAdoption();
    OrphanAdoption(const OrphanAdoption&) = delete;
    OrphanAdoption& operator=(const OrphanAdoption&) = delete;
};

/// Waits for the end of a child; its status as in ProcessResult.
int awaitEnd(pid_t child);

/// Puts this process's environment back at its end.
class EnvironmentKept {
public:
    EnvironmentKept();
    ~EnvironmentKept();
    EnvironmentKept(const EnvironmentKept&) = delete;
    EnvironmentKept& operator=(const EnvironmentKept&) = delete;

private:
    std::vector<std::string> before_;
};

/// Value of a line such as "SigIgn" in the text of /proc/<pid>/status.
std::string statusField(const std::string& status, const std::string& name);

}  // namespace qm::test
