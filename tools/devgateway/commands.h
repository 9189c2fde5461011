#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "devgateway/console.h"
#include "support/gateway_peer.h"

namespace qm::devgateway {

/// The commands of the prompt and of scripts, one a line. For one thread.
class Commands {
public:
    Commands(test::GatewayPeer& gateway, Console& console) : gateway_(gateway), console_(console) {}

    /// Carries out one line; empty lines and "#" comments do nothing. False if it says to quit. Throws
    /// std::runtime_error with the reason if the line can't be understood, times out or expects something else.
    bool run(std::string_view line);

    /// What "help" prints.
    static std::string help();

private:
    struct Command;
    static const Command* table(std::size_t& count);

    void execute(std::string_view rest);
    void metrics(std::string_view rest);
    void policy(std::string_view rest);
    void validate(std::string_view rest);
    void resolve(std::string_view rest);
    void request(std::string_view rest);
    void raw(std::string_view rest);
    void ping(std::string_view rest);
    void reject(std::string_view rest);
    void close(std::string_view rest);
    void drop(std::string_view rest);
    void wait(std::string_view rest);
    void expect(std::string_view rest);
    void showHelp(std::string_view rest);

    void ask(nlohmann::json message, const std::string& shown);

    test::GatewayPeer& gateway_;
    Console& console_;
    nlohmann::json lastReply_;
};

}  // namespace qm::devgateway
