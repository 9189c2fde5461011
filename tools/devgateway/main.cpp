// qm-devgateway: a gateway for development. Accepts executors on loopback, shows what they send, and drives them from
// a prompt, a script or the guided tour.

#include <csignal>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "devgateway/commands.h"
#include "devgateway/console.h"
#include "devgateway/tour.h"
#include "support/gateway_peer.h"

namespace qm::devgateway {
namespace {

constexpr std::string_view kUsage =
    "usage: qm-devgateway [options]\n"
    "\n"
    "Listens on 127.0.0.1 and serves executors at /ws/executor. Without --tour and --script it shows a prompt.\n"
    "\n"
    "  --port <number>     port to listen on (default: a free one, which is printed)\n"
    "  --port-file <file>  write the port there once it listens\n"
    "  --token <token>     refuse executors with another token (default: any token will do)\n"
    "  --tour              play the guided tour with the first executor that connects\n"
    "  --script <file>     run the commands of a file, \"-\" for standard input; ends at the first failure\n"
    "  --stay              show the prompt after the tour or the script\n"
    "  --help              show this help\n"
    "\n"
    "Commands of the prompt and of scripts:\n";

struct Options {
    std::uint16_t port = 0;
    std::string portFile;
    std::string token;
    std::string script;
    bool tour = false;
    bool stay = false;
    bool help = false;
};

std::uint16_t parsePort(const std::string& text) {
    constexpr unsigned long kHighestPort = 65535;
    const bool digits = !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos;
    const auto port = digits ? std::stoul(text) : kHighestPort + 1;
    if (port > kHighestPort) throw std::invalid_argument("no port: " + text);
    return static_cast<std::uint16_t>(port);
}

Options parseOptions(int count, char** arguments) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string name = arguments[i];
        const auto value = [&]() -> std::string {
            if (i + 1 == count) throw std::invalid_argument("missing value for " + name);
            return arguments[++i];
        };
        if (name == "--port") {
            options.port = parsePort(value());
        } else if (name == "--port-file") {
            options.portFile = value();
        } else if (name == "--token") {
            options.token = value();
        } else if (name == "--script") {
            options.script = value();
        } else if (name == "--tour") {
            options.tour = true;
        } else if (name == "--stay") {
            options.stay = true;
        } else if (name == "--help" || name == "-h") {
            options.help = true;
        } else {
            throw std::invalid_argument("unknown option: " + name);
        }
    }
    return options;
}

/// Every line of the script; the first failure is thrown, with its place.
void runScript(const std::string& name, Commands& commands) {
    std::ifstream file;
    if (name != "-") file.open(name);
    std::istream& lines = name == "-" ? std::cin : file;
    if (!lines) throw std::runtime_error("cannot read " + name);
    std::size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        try {
            if (!commands.run(line)) return;
        } catch (const std::exception& error) {
            throw std::runtime_error(name + ":" + std::to_string(number) + ": " + error.what());
        }
    }
}

/// Until "quit" or the end of standard input; failures are only shown.
void runPrompt(Commands& commands, Console& console) {
    console.say("Type a command; help shows them all, quit ends.");
    for (;;) {
        console.showPrompt();
        std::string line;
        const bool more = static_cast<bool>(std::getline(std::cin, line));
        console.hidePrompt();
        if (!more) return;
        try {
            if (!commands.run(line)) return;
        } catch (const std::exception& error) {
            console.bad(error.what());
        }
    }
}

void serve(const Options& options, Console& console) {
    test::GatewayPeerOptions peerOptions;
    peerOptions.port = options.port;
    peerOptions.token = options.token;
    peerOptions.onEvent = [&console](const test::GatewayEvent& event) { console.event(event); };
    test::GatewayPeer gateway(std::move(peerOptions));
    console.say("gateway at " + gateway.url());
    if (!options.portFile.empty()) {
        std::ofstream file(options.portFile);
        file << gateway.port() << '\n';
        if (!file.flush()) throw std::runtime_error("cannot write " + options.portFile);
    }

    Commands commands(gateway, console);
    if (options.tour) playTour(gateway, console);
    if (!options.script.empty()) runScript(options.script, commands);
    if (options.stay || (!options.tour && options.script.empty())) runPrompt(commands, console);
}

int run(int count, char** arguments) {
    std::signal(SIGPIPE, SIG_IGN);
    Console console;
    try {
        const auto options = parseOptions(count, arguments);
        if (options.help) {
            console.say(std::string(kUsage) + Commands::help());
            return 0;
        }
        serve(options, console);
        return 0;
    } catch (const std::invalid_argument& error) {
        console.bad(error.what() + std::string("\n\n") + std::string(kUsage) + Commands::help());
        return 2;
    } catch (const std::exception& error) {
        console.bad(error.what());
        return 1;
    }
}

}  // namespace
}  // namespace qm::devgateway

int main(int count, char** arguments) {
    return qm::devgateway::run(count, arguments);
}
