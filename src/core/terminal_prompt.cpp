#include "core/terminal_prompt.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace qm {
namespace {

/// What the handlers below switch between; only valid while an EchoOff lives.
termios savedMode;
termios hiddenMode;

/// Runs on a signal that ends the process: the terminal must not stay without echo.
void restoreModeAndDie(int signalNumber) {
    tcsetattr(STDIN_FILENO, TCSANOW, &savedMode);
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    sigaction(signalNumber, &usual, nullptr);
    raise(signalNumber);
}

/// Runs on a signal that stops the process: whoever uses the terminal meanwhile finds its echo on.
void restoreModeWhileStopped(int signalNumber) {
    const int savedErrno = errno;
    tcsetattr(STDIN_FILENO, TCSANOW, &savedMode);
    struct sigaction usual = {};
    struct sigaction handled = {};
    usual.sa_handler = SIG_DFL;
    sigaction(signalNumber, &usual, &handled);
    raise(signalNumber);
    // Where signals are held back while a handler runs, this one has its effect only now.
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, signalNumber);
    pthread_sigmask(SIG_UNBLOCK, &raised, nullptr);
    // Here the process has been continued.
    sigaction(signalNumber, &handled, nullptr);
    tcsetattr(STDIN_FILENO, TCSANOW, &hiddenMode);
    errno = savedErrno;
}

/// Switches the terminal's echo off for its lifetime; does nothing where standard input is no terminal.
class EchoOff {
public:
    EchoOff() {
        if (isatty(STDIN_FILENO) == 0 || tcgetattr(STDIN_FILENO, &savedMode) != 0) return;
        active_ = true;
        hiddenMode = savedMode;
        hiddenMode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            handle(kSignals[i].number, kSignals[i].handler, previous_[i]);
        // TCSADRAIN keeps what was typed ahead, where TCSAFLUSH would throw it away.
        tcsetattr(STDIN_FILENO, TCSADRAIN, &hiddenMode);
    }

    ~EchoOff() {
        if (!active_) return;
        tcsetattr(STDIN_FILENO, TCSADRAIN, &savedMode);
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            sigaction(kSignals[i].number, &previous_[i], nullptr);
        // The user's own Enter wasn't echoed.
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }

    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    struct Handling {
        int number;
        void (*handler)(int);
    };
    static constexpr std::array<Handling, 5> kSignals{{{SIGINT, restoreModeAndDie},
                                                       {SIGTERM, restoreModeAndDie},
                                                       {SIGHUP, restoreModeAndDie},
                                                       {SIGQUIT, restoreModeAndDie},
                                                       {SIGTSTP, restoreModeWhileStopped}}};

    /// A signal that the starter of the process had it ignore, as nohup does, stays ignored.
    static void handle(int number, void (*handler)(int), struct sigaction& previous) {
        sigaction(number, nullptr, &previous);
        if (previous.sa_handler == SIG_IGN) return;
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = SA_NODEFER;  // So that a handler can raise the signal itself.
        sigaction(number, &action, nullptr);
    }

    bool active_ = false;
    std::array<struct sigaction, kSignals.size()> previous_{};
};

/// Byte by byte from the descriptor: what stands behind the line stays there for the next prompt.
std::string readLine() {
    std::string line;
    for (;;) {
        char character = '\0';
        const ssize_t count = ::read(STDIN_FILENO, &character, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0 || character == '\n') break;
        line += character;
    }
    while (line.ends_with('\r') || line.ends_with('\n'))
        line.pop_back();
    return line;
}

}  // namespace

std::string promptLine(std::string_view text, bool hidden) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    if (!hidden) return readLine();
    const EchoOff echoOff;
    return readLine();
}

}  // namespace qm
