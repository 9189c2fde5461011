#include "devgateway/commands.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace qm::devgateway {

using nlohmann::json;

namespace {

constexpr std::chrono::seconds kReplyLimit{120};
/// Longer than the 60 s that an executor waits after it was rejected.
constexpr std::chrono::seconds kWaitLimit{90};

constexpr std::string_view kBlanks = " \t\r";

/// Takes the next word off `rest`.
std::string_view takeWord(std::string_view& rest) {
    const auto start = std::min(rest.find_first_not_of(kBlanks), rest.size());
    const auto end = std::min(rest.find_first_of(kBlanks, start), rest.size());
    const auto word = rest.substr(start, end - start);
    rest.remove_prefix(end);
    return word;
}

std::string_view trimmed(std::string_view text) {
    const auto start = text.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

/// The JSON values that stand one after another in `text`, separated by blanks. A value ends where it first parses and
/// a blank or the end follows, which is unambiguous for objects, arrays and strings.
std::vector<json> parseValues(std::string_view text) {
    std::vector<json> values;
    text = trimmed(text);
    while (!text.empty()) {
        json value = json::value_t::discarded;
        std::size_t end = 0;
        while (value.is_discarded() && end < text.size()) {
            end = std::min(text.find_first_of(kBlanks, end + 1), text.size());
            value = json::parse(text.substr(0, end), nullptr, false);
        }
        if (value.is_discarded()) throw std::runtime_error("this is no JSON: " + std::string(text));
        values.push_back(std::move(value));
        text = trimmed(text.substr(end));
    }
    return values;
}

std::string_view requireWord(std::string_view& rest, const char* what) {
    const auto word = takeWord(rest);
    if (word.empty()) throw std::runtime_error(std::string("missing: ") + what);
    return word;
}

}  // namespace

struct Commands::Command {
    std::string_view name;
    std::string_view usage;
    std::string_view help;
    void (Commands::*handler)(std::string_view rest);
};

const Commands::Command* Commands::table(std::size_t& count) {
    static constexpr Command kTable[] = {
        {"execute", "execute <capability> [<arguments> [<invocation>]]", "invoke a capability; both are JSON objects",
         &Commands::execute},
        {"metrics", "metrics", "ask for a snapshot of the device", &Commands::metrics},
        {"policy", "policy sync [<capability>...] | disable <capability> | enable <capability>",
         "replace the set of disabled capabilities, or change one", &Commands::policy},
        {"validate", "validate <capability>", "ask to validate arguments", &Commands::validate},
        {"resolve", "resolve <capability>", "ask for a resolution tool", &Commands::resolve},
        {"request", "request <message>", "send any JSON object with a fresh requestId and wait for the reply",
         &Commands::request},
        {"raw", "raw <text>", "send the text as one frame, as it stands", &Commands::raw},
        {"ping", "ping [<payload>]", "send a ping and wait for its pong", &Commands::ping},
        {"reject", "reject [<reason>]", "refuse the registration and close the session", &Commands::reject},
        {"close", "close [<code> [<reason>]]", "end the session with a close frame", &Commands::close},
        {"drop", "drop", "end the session with a TCP reset", &Commands::drop},
        {"wait", "wait session | end | <type>", "wait for a new session, an end, or a message of this type",
         &Commands::wait},
        {"expect", "expect <pointer> [<value>]",
         "fail unless the last message waited for has this JSON pointer, with this value", &Commands::expect},
        {"help", "help", "show this list", &Commands::showHelp},
        {"quit", "quit", "end the gateway", nullptr},
    };
    count = std::size(kTable);
    return kTable;
}

std::string Commands::help() {
    std::string text;
    std::size_t count = 0;
    const auto* commands = table(count);
    for (std::size_t i = 0; i < count; ++i) {
        text += "  " + std::string(commands[i].usage) + "\n      " + std::string(commands[i].help) + "\n";
    }
    text.pop_back();
    return text;
}

bool Commands::run(std::string_view line) {
    std::string_view rest = line;
    const auto name = takeWord(rest);
    if (name.empty() || name.front() == '#') return true;
    std::size_t count = 0;
    const auto* commands = table(count);
    const auto* command =
        std::find_if(commands, commands + count, [&](const auto& entry) { return entry.name == name; });
    if (command == commands + count) throw std::runtime_error("unknown command: " + std::string(name) + ", try: help");
    if (command->handler == nullptr) return false;
    (this->*command->handler)(trimmed(rest));
    return true;
}

void Commands::ask(json message, const std::string& shown) {
    console_.sent(shown);
    lastReply_ = gateway_.request(std::move(message), kReplyLimit);
}

void Commands::execute(std::string_view rest) {
    const std::string capability(requireWord(rest, "the capability"));
    const auto values = parseValues(rest);
    if (values.size() > 2) throw std::runtime_error("too many values: arguments and invocation are all there is");
    json message{{"type", "execute"}, {"capabilityId", capability}};
    if (!values.empty()) message["args"] = values[0];
    if (values.size() == 2) message["invocation"] = values[1];
    ask(std::move(message), "execute " + capability + " " + std::string(trimmed(rest)));
}

void Commands::metrics(std::string_view) {
    ask({{"type", "metricsRequest"}}, "metricsRequest");
}

void Commands::policy(std::string_view rest) {
    const auto action = requireWord(rest, "sync, enable or disable");
    if (action == "sync") {
        json disabled = json::array();
        for (auto word = takeWord(rest); !word.empty(); word = takeWord(rest)) {
            disabled.push_back(word);
        }
        console_.sent("capabilityPolicySync " + disabled.dump());
        return gateway_.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", disabled}});
    }
    if (action != "enable" && action != "disable") throw std::runtime_error("policy takes sync, enable or disable");
    const std::string capability(requireWord(rest, "the capability"));
    ask({{"type", "capabilityPolicyUpdate"}, {"capabilityId", capability}, {"enabled", action == "enable"}},
        "capabilityPolicyUpdate " + std::string(action) + " " + capability);
}

void Commands::validate(std::string_view rest) {
    const std::string capability(requireWord(rest, "the capability"));
    ask({{"type", "validateCapabilityArgs"}, {"capabilityId", capability}}, "validateCapabilityArgs " + capability);
}

void Commands::resolve(std::string_view rest) {
    const std::string capability(requireWord(rest, "the capability"));
    ask({{"type", "resolutionToolExecute"}, {"capabilityId", capability}}, "resolutionToolExecute " + capability);
}

void Commands::request(std::string_view rest) {
    auto message = json::parse(rest, nullptr, false);
    if (!message.is_object()) throw std::runtime_error("a request is a JSON object");
    ask(std::move(message), std::string(rest));
}

void Commands::raw(std::string_view rest) {
    console_.sent(rest);
    gateway_.sendText(std::string(rest));
}

void Commands::ping(std::string_view rest) {
    console_.sent("ping " + std::string(rest));
    gateway_.sendPing(std::string(rest));
    gateway_.waitForPong(rest, kReplyLimit);
    console_.say("  <- pong " + std::string(rest));
}

void Commands::reject(std::string_view rest) {
    json message{{"type", "registerRejected"}};
    if (!rest.empty()) message["reason"] = rest;
    console_.sent(message.dump());
    gateway_.send(message);
    gateway_.close();
}

void Commands::close(std::string_view rest) {
    const std::string code(takeWord(rest));
    if (code.find_first_not_of("0123456789") != std::string::npos || code.size() > 4) {
        throw std::runtime_error("a close code is a number such as 1000");
    }
    const std::string reason(trimmed(rest));
    console_.sent("close " + code + " " + reason);
    gateway_.close(code.empty() ? std::uint16_t{1000} : static_cast<std::uint16_t>(std::stoi(code)), reason);
}

void Commands::drop(std::string_view) {
    console_.sent("TCP reset");
    gateway_.drop();
}

void Commands::wait(std::string_view rest) {
    const auto what = requireWord(rest, "session, end or a message type");
    if (what == "session") return gateway_.waitForSessions(gateway_.sessionCount() + 1, kWaitLimit);
    if (what == "end") {
        gateway_.waitForEnd(gateway_.sessionCount(), kWaitLimit);
        return;
    }
    lastReply_ = gateway_.waitForType(what, kWaitLimit).message;
}

void Commands::expect(std::string_view rest) {
    const std::string pointerText(requireWord(rest, "a JSON pointer such as /result/path"));
    const auto values = parseValues(rest);
    const json::json_pointer pointer(pointerText);
    if (!lastReply_.contains(pointer)) {
        throw std::runtime_error("expected " + pointerText + " in\n" + shortened(lastReply_));
    }
    const auto& actual = lastReply_.at(pointer);
    if (!values.empty() && actual != values.front()) {
        throw std::runtime_error("expected " + pointerText + " to be " + values.front().dump() + ", but it is\n" +
                                 shortened(actual));
    }
    console_.good(pointerText + (values.empty() ? " is there" : " is " + values.front().dump()));
}

void Commands::showHelp(std::string_view) {
    console_.say(help());
}

}  // namespace qm::devgateway
