#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/wait_until.h"

namespace qm::test {

/// How a process ended.
struct ExitStatus {
    int code = 0;    ///< Meaningful if signal is 0.
    int signal = 0;  ///< The signal that killed it, or 0.

    bool operator==(const ExitStatus&) const = default;
};

/// For test messages.
std::ostream& operator<<(std::ostream& stream, const ExitStatus& status);

struct ProcessSetup {
    enum class Input { Empty, Pipe, Terminal };

    std::filesystem::path program;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;  ///< Added to the test's own.
    std::vector<std::string> unset;                  ///< Variables of the test's own that are taken away.
    std::filesystem::path workingDirectory;          ///< Empty: the test's own.
    /// Terminal: standard input, output and error are one new pseudo-terminal, the controlling one of a new session.
    Input input = Input::Empty;
};

/// A program under test: started at construction, killed and waited for at destruction, its output collected.
///
/// One thread of the object reads what the program prints; the methods are for the test's thread. Methods that wait
/// throw std::runtime_error with the output so far when their limit passes.
class ExecutorProcess {
public:
    explicit ExecutorProcess(const ProcessSetup& setup);
    ~ExecutorProcess();
    ExecutorProcess(const ExecutorProcess&) = delete;
    ExecutorProcess& operator=(const ExecutorProcess&) = delete;

    pid_t pid() const;
    void sendSignal(int signal);

    /// Everything printed so far; with a terminal standard error is part of it.
    std::string output() const;
    std::string errorOutput() const;
    /// Waits until `text` has been printed `times` times.
    void waitForOutput(std::string_view text, std::size_t times = 1,
                       std::chrono::milliseconds limit = kGenerousLimit) const;

    /// Writes to the program's input; only with Input::Pipe and Input::Terminal.
    void type(std::string_view text);
    void closeInput();
    /// Whether the terminal echoes what is typed; only with Input::Terminal.
    bool terminalEchoes() const;

    /// Waits for the end of the process and of its output.
    ExitStatus waitForExit(std::chrono::milliseconds limit = kGenerousLimit);
    bool isRunning() const;

    // From /proc; 0 if the process is gone.
    std::size_t residentKiB() const;
    std::size_t threadCount() const;
    std::size_t descriptorCount() const;
    /// User and system time used so far.
    std::chrono::milliseconds cpuTime() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qm::test
