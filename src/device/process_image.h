#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qm {

/// A program with its arguments and environment, laid out beforehand so that a child can execute it without allocating.
class ProcessImage {
public:
    using Environment = std::optional<std::map<std::string, std::string>>;

    /// `args` must not be empty; its first element is the program. `env` as in ProcessOptions.
    ProcessImage(std::vector<std::string> args, const Environment& env);
    ProcessImage(const ProcessImage&) = delete;
    ProcessImage& operator=(const ProcessImage&) = delete;

    /// Executes the program; returns only if that failed. A name without "/" is looked for along the PATH of the
    /// program's own environment, relative elements of it counting from the current directory; a file that is no binary
    /// is given to "/bin/sh". For a child between fork and exec: makes system calls only.
    void execute();

private:
    void executeFile(const char* file, char** environment);

    std::vector<std::string> args_;
    std::vector<char*> argv_;
    std::vector<char*> shellArgv_;  ///< "/bin/sh", a place for the file's path, and the arguments.
    std::vector<std::string> candidates_;
    std::vector<std::string> environmentText_;
    std::optional<std::vector<char*>> environment_;
};

}  // namespace qm
