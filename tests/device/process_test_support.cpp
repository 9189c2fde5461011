#include "device/process_test_support.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <utility>

#include "support/wait_until.h"

namespace qm::test {

ProcessOptions shell(std::string command) {
    ProcessOptions options;
    options.command = std::move(command);
    options.timeoutMs = 60'000;
    return options;
}

ProcessOptions program(std::vector<std::string> args) {
    ProcessOptions options = shell("");
    options.args = std::move(args);
    return options;
}

pid_t forkProcess(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    int status = 99;
    try {
        const int returned = body();
        if (!::testing::Test::HasFailure()) status = returned;
    } catch (...) {
        status = 99;
    }
    ::_exit(status);
}

int statusOfForked(const std::function<int()>& body) {
    return awaitEnd(forkProcess(body));
}

pid_t pidIn(const std::filesystem::path& file) {
    pid_t pid = 0;
    // Only a line that is whole holds the whole number.
    EXPECT_TRUE(waitUntil([&] {
        std::ifstream stream(file);
        std::string line;
        if (!std::getline(stream, line) || stream.eof()) return false;
        pid = static_cast<pid_t>(std::stol(line));
        return true;
    })) << file;
    return pid;
}

OrphanAdoption::OrphanAdoption() {
    EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
}

OrphanAdoption::~OrphanAdoption() {
    EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0), 0);
}

int awaitEnd(pid_t child) {
    int status = 0;
    pid_t ended = 0;
    // A process becomes this one's child only once its old parent has gone.
    EXPECT_TRUE(waitUntil([&] {
        ended = ::waitpid(child, &status, WNOHANG);
        return ended > 0;
    }));
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

EnvironmentKept::EnvironmentKept() {
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        before_.emplace_back(*variable);
    }
}

EnvironmentKept::~EnvironmentKept() {
    ::clearenv();
    for (const std::string& variable : before_) {
        const std::size_t end = variable.find('=');
        ::setenv(variable.substr(0, end).c_str(), variable.substr(end + 1).c_str(), 1);
    }
}

std::string statusField(const std::string& status, const std::string& name) {
    const std::size_t begin = status.find("\n" + name + ":\t");
    if (begin == std::string::npos) return "(no such line)";
    const std::size_t value = begin + name.size() + 3;
    return status.substr(value, status.find('\n', value) - value);
}

}  // namespace qm::test
