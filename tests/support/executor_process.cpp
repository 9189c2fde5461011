#include "support/executor_process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "util/unique_fd.h"

namespace qm::test {

namespace {

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throwErrno("pipe2");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::vector<std::string> environmentOf(const ProcessSetup& setup) {
    std::map<std::string, std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& name : setup.unset) {
        variables.erase(name);
    }
    for (const auto& [name, value] : setup.environment) {
        variables[name] = value;
    }
    std::vector<std::string> lines;
    lines.reserve(variables.size());
    for (const auto& [name, value] : variables) {
        lines.push_back(std::string(name).append("=").append(value));
    }
    return lines;
}

/// The null-terminated array of pointers that execve() takes; valid as long as `strings`.
std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (auto& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// What the child does between fork and exec: async-signal-safe calls only, everything prepared before.
struct ChildPlan {
    const char* program;
    char* const* arguments;
    char* const* environment;
    const char* workingDirectory;
    int input = -1;  ///< -1: standard streams are set up already.
    int output = -1;
    int error = -1;

    [[noreturn]] void run() const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (const int signal : {SIGINT, SIGTERM, SIGPIPE, SIGHUP}) {
            std::signal(signal, SIG_DFL);
        }
        const bool streams = input < 0 || (dup2(input, 0) == 0 && dup2(output, 1) == 1 && dup2(error, 2) == 2);
        // The peers' library doesn't make its sockets close-on-exec: a listener that lived on in the child would never
        // refuse a connection.
        close_range(3, ~0U, 0);
        if (streams && (workingDirectory == nullptr || chdir(workingDirectory) == 0)) {
            execve(program, arguments, environment);
        }
        _exit(127);
    }
};

/// Text that one thread appends to and others wait on.
class Transcript {
public:
    void append(std::string_view text) {
        {
            const std::lock_guard lock(mutex_);
            text_ += text;
        }
        changed_.notify_all();
    }

    std::string text() const {
        const std::lock_guard lock(mutex_);
        return text_;
    }

    bool waitFor(std::string_view wanted, std::size_t times, std::chrono::milliseconds limit) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return occurrences(wanted) >= times; });
    }

private:
    std::size_t occurrences(std::string_view wanted) const {
        std::size_t count = 0;
        for (auto at = text_.find(wanted); at != std::string::npos; at = text_.find(wanted, at + wanted.size())) {
            ++count;
        }
        return count;
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::string text_;
};

/// Appends what can be read to `transcript`; false at the end of the stream.
bool readSome(int fd, Transcript& transcript) {
    std::array<char, 16384> buffer{};
    const auto count = read(fd, buffer.data(), buffer.size());
    if (count > 0) transcript.append({buffer.data(), static_cast<std::size_t>(count)});
    // A pseudo-terminal whose other side is closed fails with EIO instead of ending.
    return count > 0 || (count < 0 && (errno == EINTR || errno == EAGAIN));
}

std::string readProcFile(pid_t pid, const char* name) {
    std::ifstream stream("/proc/" + std::to_string(pid) + "/" + name);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::size_t statusField(pid_t pid, std::string_view field) {
    std::istringstream lines(readProcFile(pid, "status"));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(field)) return std::stoul(line.substr(field.size()));
    }
    return 0;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const ExitStatus& status) {
    if (status.signal != 0) return stream << "killed by signal " << status.signal;
    return stream << "exit status " << status.code;
}

struct ExecutorProcess::Impl {
    void start(const ProcessSetup& setup) {
        // Writing to a program that has ended already must fail the test, not kill it.
        std::signal(SIGPIPE, SIG_IGN);
        std::vector<std::string> arguments{setup.program.string()};
        arguments.insert(arguments.end(), setup.arguments.begin(), setup.arguments.end());
        auto environment = environmentOf(setup);
        const auto argumentPointers = pointersTo(arguments);
        const auto environmentPointers = pointersTo(environment);
        ChildPlan plan{setup.program.c_str(), argumentPointers.data(), environmentPointers.data(),
                       setup.workingDirectory.empty() ? nullptr : setup.workingDirectory.c_str()};
        if (setup.input == ProcessSetup::Input::Terminal) {
            startOnTerminal(plan);
        } else {
            startOnPipes(plan, setup.input == ProcessSetup::Input::Pipe);
        }
        pidfd.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
        if (!pidfd) throwErrno("pidfd_open");
        stopReading = makePipe();
        reader = std::jthread([this] { readOutput(); });
    }

    void startOnTerminal(const ChildPlan& plan) {
        int master = -1;
        pid = forkpty(&master, nullptr, nullptr, nullptr);
        if (pid < 0) throwErrno("forkpty");
        if (pid == 0) plan.run();
        fcntl(master, F_SETFD, FD_CLOEXEC);
        input.reset(master);
        output.reset(fcntl(master, F_DUPFD_CLOEXEC, 0));
        terminal = true;
    }

    void startOnPipes(ChildPlan plan, bool withInput) {
        auto out = makePipe();
        auto err = makePipe();
        Pipe in;
        if (withInput) {
            in = makePipe();
        } else {
            in.readEnd.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
        plan.input = in.readEnd.get();
        plan.output = out.writeEnd.get();
        plan.error = err.writeEnd.get();
        pid = fork();
        if (pid < 0) throwErrno("fork");
        if (pid == 0) plan.run();
        input = std::move(in.writeEnd);
        output = std::move(out.readEnd);
        error = std::move(err.readEnd);
    }

    /// The reader's thread: until both streams have ended, or the object is about to go.
    void readOutput() {
        std::array<pollfd, 3> watched{pollfd{output.get(), POLLIN, 0}, pollfd{error.get(), POLLIN, 0},
                                      pollfd{stopReading.readEnd.get(), POLLIN, 0}};
        while (watched[0].fd >= 0 || watched[1].fd >= 0) {
            if (poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) break;
            if (watched[2].revents != 0) break;
            if (watched[0].revents != 0 && !readSome(watched[0].fd, outputText)) watched[0].fd = -1;
            if (watched[1].revents != 0 && !readSome(watched[1].fd, errorText)) watched[1].fd = -1;
        }
        {
            const std::lock_guard lock(mutex);
            outputEnded = true;
        }
        ended.notify_all();
    }

    bool waitForEndOfOutput(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex);
        return ended.wait_for(lock, limit, [this] { return outputEnded; });
    }

    /// Reaps the process if it has ended.
    void reap() {
        int raw = 0;
        if (status || waitpid(pid, &raw, WNOHANG) != pid) return;
        status = WIFSIGNALED(raw) ? ExitStatus{0, WTERMSIG(raw)} : ExitStatus{WEXITSTATUS(raw), 0};
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error("waited in vain for " + what + "; output:\n" + outputText.text() +
                                 "\nstandard error:\n" + errorText.text());
    }

    pid_t pid = -1;
    bool terminal = false;
    UniqueFd pidfd;
    UniqueFd input;
    UniqueFd output;
    UniqueFd error;
    Pipe stopReading;
    std::optional<ExitStatus> status;
    Transcript outputText;
    Transcript errorText;
    std::mutex mutex;
    std::condition_variable ended;
    bool outputEnded = false;
    std::jthread reader;
};

ExecutorProcess::ExecutorProcess(const ProcessSetup& setup) : impl_(std::make_unique<Impl>()) {
    impl_->start(setup);
}

ExecutorProcess::~ExecutorProcess() {
    impl_->reap();
    if (!impl_->status) {
        kill(impl_->pid, SIGKILL);
        waitpid(impl_->pid, nullptr, 0);
    }
    impl_->stopReading.writeEnd.reset();
}

pid_t ExecutorProcess::pid() const {
    return impl_->pid;
}

void ExecutorProcess::sendSignal(int signal) {
    impl_->reap();
    if (impl_->status) throw std::runtime_error("the process has ended before it could be sent a signal");
    if (kill(impl_->pid, signal) != 0) throwErrno("kill");
}

std::string ExecutorProcess::output() const {
    return impl_->outputText.text();
}

std::string ExecutorProcess::errorOutput() const {
    return impl_->errorText.text();
}

void ExecutorProcess::waitForOutput(std::string_view text, std::size_t times, std::chrono::milliseconds limit) const {
    if (!impl_->outputText.waitFor(text, times, limit)) {
        impl_->fail("\"" + std::string(text) + "\", " + std::to_string(times) + " times");
    }
}

void ExecutorProcess::type(std::string_view text) {
    while (!text.empty()) {
        const auto written = write(impl_->input.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) throwErrno("write to the process's input");
        if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void ExecutorProcess::closeInput() {
    impl_->input.reset();
}

bool ExecutorProcess::terminalEchoes() const {
    termios mode{};
    // On the controlling side too, this reads the mode that the program sees and sets.
    if (!impl_->terminal || tcgetattr(impl_->output.get(), &mode) != 0) throwErrno("tcgetattr");
    return (mode.c_lflag & ECHO) != 0;
}

ExitStatus ExecutorProcess::waitForExit(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    pollfd watched{impl_->pidfd.get(), POLLIN, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        ready = poll(&watched, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) impl_->fail("the end of the process");
    impl_->reap();
    // A child of the program may still hold its output; what it prints isn't the program's any more.
    impl_->waitForEndOfOutput(std::chrono::seconds(5));
    return impl_->status.value();
}

bool ExecutorProcess::isRunning() const {
    impl_->reap();
    return !impl_->status;
}

std::size_t ExecutorProcess::residentKiB() const {
    return statusField(impl_->pid, "VmRSS:");
}

std::size_t ExecutorProcess::threadCount() const {
    return statusField(impl_->pid, "Threads:");
}

std::size_t ExecutorProcess::descriptorCount() const {
    std::error_code error;
    std::filesystem::directory_iterator entries("/proc/" + std::to_string(impl_->pid) + "/fd", error);
    if (error) return 0;
    return static_cast<std::size_t>(std::distance(entries, std::filesystem::directory_iterator()));
}

std::chrono::milliseconds ExecutorProcess::cpuTime() const {
    const auto stat = readProcFile(impl_->pid, "stat");
    const auto afterName = stat.rfind(')');
    if (afterName == std::string::npos) return {};
    std::istringstream fields(stat.substr(afterName + 1));
    std::string skipped;
    // After the name: state and ten more fields, then user and system time.
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    long long user = 0;
    long long system = 0;
    fields >> user >> system;
    return std::chrono::milliseconds((user + system) * 1000 / sysconf(_SC_CLK_TCK));
}

}  // namespace qm::test
