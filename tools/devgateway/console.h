#pragma once

#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "support/gateway_peer.h"

namespace qm::devgateway {

/// Everything that the tool prints, readable for people: what executors do, what is sent to them, and the prompt.
/// Colours and the prompt's line are used on a terminal only. Any thread.
class Console {
public:
    Console();

    /// A line of the tool itself.
    void say(std::string_view text);
    /// The heading of a step.
    void heading(std::string_view text);
    /// Something that was checked and is as it should be.
    void good(std::string_view text);
    /// Something that is wrong; on standard error.
    void bad(std::string_view text);
    /// A message that goes to the executor.
    void sent(std::string_view text);
    /// A connection, a message or an end, as it happens.
    void event(const test::GatewayEvent& event);

    /// Shows the prompt; it comes back after every line printed until hidePrompt().
    void showPrompt();
    /// After a line was entered.
    void hidePrompt();

private:
    void print(std::string_view colour, std::string_view text);
    void printFrame(std::size_t session, const nlohmann::json& message);

    const bool terminal_;
    std::mutex mutex_;
    bool promptShown_ = false;
};

/// `value` indented, cut after `lines` lines with a note of how many are left out.
std::string shortened(const nlohmann::json& value, std::size_t lines = 30);

}  // namespace qm::devgateway
