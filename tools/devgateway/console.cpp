#include "devgateway/console.h"

#include <unistd.h>

#include <iostream>
#include <sstream>

namespace qm::devgateway {

using nlohmann::json;

namespace {

constexpr std::string_view kPlain;
constexpr std::string_view kBold = "\x1b[1m";
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kGreen = "\x1b[32m";
constexpr std::string_view kBlue = "\x1b[34m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kReset = "\x1b[0m";
constexpr std::string_view kClearLine = "\r\x1b[K";
constexpr std::string_view kPrompt = "gateway> ";

std::string text(const json& object, const char* key) {
    const auto member = object.find(key);
    return member != object.end() && member->is_string() ? member->get<std::string>() : "(none)";
}

std::string indented(const std::string& block) {
    std::string result;
    std::istringstream lines(block);
    for (std::string line; std::getline(lines, line);) {
        result += "     " + line + "\n";
    }
    if (!result.empty()) result.pop_back();
    return result;
}

/// The names of a register message's capabilities, a few on each line.
std::string capabilityNames(const json& message) {
    constexpr std::size_t kLineLength = 90;
    std::string names;
    std::size_t lineStart = 0;
    for (const auto& capability : message.value("capabilities", json::array())) {
        const auto name = text(capability, "name");
        if (names.size() + name.size() - lineStart > kLineLength) {
            names += "\n             ";
            lineStart = names.size();
        }
        names += " " + name;
    }
    return names;
}

std::string registration(const json& message) {
    return "register: " + text(message, "name") + " (" + text(message, "agentId") + ")\n" + "     version      " +
           text(message, "version") + ", mode " + text(message, "mode") + "\n" + "     description  " +
           text(message, "description") + "\n" + "     capabilities" + capabilityNames(message);
}

}  // namespace

std::string shortened(const json& value, std::size_t lines) {
    auto full = value.dump(2, ' ', false, json::error_handler_t::replace);
    std::size_t at = 0;
    for (std::size_t i = 0; i < lines; ++i) {
        at = full.find('\n', at);
        if (at == std::string::npos) return full;
        ++at;
    }
    std::size_t left = 1;
    for (auto next = full.find('\n', at); next != std::string::npos; next = full.find('\n', next + 1)) {
        ++left;
    }
    return full.substr(0, at) + "... " + std::to_string(left) + " more lines";
}

Console::Console() : terminal_(isatty(STDOUT_FILENO) == 1) {}

void Console::say(std::string_view text) {
    print(kPlain, text);
}

void Console::heading(std::string_view text) {
    print(kBold, "\n" + std::string(text));
}

void Console::good(std::string_view text) {
    print(kGreen, "  ok " + std::string(text));
}

void Console::bad(std::string_view text) {
    const std::lock_guard lock(mutex_);
    std::cout << std::flush;
    std::cerr << (terminal_ ? kRed : kPlain) << text << (terminal_ ? kReset : kPlain) << std::endl;
}

void Console::sent(std::string_view text) {
    print(kBlue, "  -> " + std::string(text));
}

void Console::event(const test::GatewayEvent& event) {
    const auto session = "session " + std::to_string(event.session);
    switch (event.kind) {
        case test::GatewayEvent::Kind::Refused:
            return print(kYellow, "  -- refused an executor: " + event.text);
        case test::GatewayEvent::Kind::Opened:
            return print(kYellow, "  -- " + session + " opened, executor at " + event.text);
        case test::GatewayEvent::Kind::Ended:
            return print(kYellow, "  -- " + session + " ended: " + event.text);
        case test::GatewayEvent::Kind::Frame:
            return printFrame(event.session, *event.message);
    }
}

void Console::printFrame(std::size_t session, const json& message) {
    if (!message.is_object()) return print(kRed, "  <- session " + std::to_string(session) + " sent no JSON object");
    const auto type = text(message, "type");
    if (type == "heartbeat") return print(kDim, "  <- heartbeat");
    if (type == "register") return print(kPlain, "  <- " + registration(message));
    // Of a reply only its content is of interest, which stands beside these two members.
    json content = message;
    content.erase("type");
    content.erase("requestId");
    print(kPlain, "  <- " + type + "\n" + indented(shortened(content.size() == 1 ? content.front() : content)));
}

void Console::showPrompt() {
    const std::lock_guard lock(mutex_);
    promptShown_ = terminal_;
    if (promptShown_) std::cout << kPrompt << std::flush;
}

void Console::hidePrompt() {
    const std::lock_guard lock(mutex_);
    promptShown_ = false;
}

void Console::print(std::string_view colour, std::string_view text) {
    const std::lock_guard lock(mutex_);
    if (promptShown_) std::cout << kClearLine;
    if (terminal_ && !colour.empty()) {
        std::cout << colour << text << kReset << '\n';
    } else {
        std::cout << text << '\n';
    }
    if (promptShown_) std::cout << kPrompt;
    std::cout << std::flush;
}

}  // namespace qm::devgateway
