#include "core/command_line.h"

#include <array>
#include <functional>

#include "util/text.h"
#include "util/version.h"

namespace qm {
namespace {

struct ValueOption {
    std::string_view name;
    void (*store)(CommandLine& line, const std::string& value);
};

struct FlagOption {
    std::string_view name;
    bool CommandLine::*flag;
};

constexpr std::array<ValueOption, 8> kValueOptions{{
    {"--gateway", [](CommandLine& line, const std::string& value) { line.overrides.gatewayUrl = value; }},
    {"--token", [](CommandLine& line, const std::string& value) { line.overrides.executorToken = value; }},
    {"--name", [](CommandLine& line, const std::string& value) { line.overrides.name = value; }},
    {"--description", [](CommandLine& line, const std::string& value) { line.overrides.description = value; }},
    {"--mode", [](CommandLine& line, const std::string& value) { line.overrides.mode = value; }},
    {"--data-dir", [](CommandLine& line, const std::string& value) { line.dataDir = value; }},
    {"--email", [](CommandLine& line, const std::string& value) { line.email = value; }},
    {"--public-url", [](CommandLine& line, const std::string& value) { line.publicUrl = value; }},
}};

constexpr std::array<FlagOption, 4> kFlagOptions{{
    {"--save", &CommandLine::save},
    {"--status", &CommandLine::status},
    {"--login-password", &CommandLine::login},
    {"--serve", &CommandLine::serve},
}};

template <typename Option, std::size_t size>
const Option* findOption(const std::array<Option, size>& options, std::string_view name) {
    for (const Option& option : options) {
        if (option.name == name) return &option;
    }
    return nullptr;
}

}  // namespace

std::string usageText() {
    std::string text;
    text.append("Quillmarsh native executor ").append(kVersion).append(" (Linux, headless)\n");
    text.append("usage: qm-executor [options]\n");
    text.append("  --gateway <url>       gateway base url, e.g. ").append(endpoints::kDefaultGatewayUrl).append("\n");
    text.append(
        "  --token <token>       executor token\n"
        "  --name <name>         device display name\n"
        "  --description <text>  device description\n"
        "  --mode <LIGHT|HEAVY>  executor mode\n"
        "  --data-dir <path>     data directory (default $HOME/.platform-executor)\n"
        "  --save                persist the provided settings and continue\n"
        "  --status              print effective settings and exit\n"
        "  --login-password      sign in with email + password and enroll\n"
        "  --email <email>       email for --login-password (else prompted)\n"
        "  --serve               keep running while unconfigured\n");
    text.append("  --public-url <url>    account site (default ").append(endpoints::kAccountSiteUrl).append(")\n");
    text.append("  --help                show this help\n");
    return text;
}

std::variant<CommandLine, CommandLineExit> parseCommandLine(const std::vector<std::string>& arguments) {
    CommandLine line;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& name = arguments[i];
        if (name == "--help" || name == "-h") return CommandLineExit{usageText(), 0};
        if (const auto* option = findOption(kFlagOptions, name)) {
            line.*(option->flag) = true;
        } else if (const auto* valueOption = findOption(kValueOptions, name)) {
            if (i + 1 == arguments.size()) return CommandLineExit{"missing value for " + name + "\n", 2};
            valueOption->store(line, arguments[++i]);
        } else {
            return CommandLineExit{"unknown option: " + name + "\n" + usageText(), 2};
        }
    }
    return line;
}

void overlaySettings(Settings& settings, const Settings& overrides) {
    const Settings defaults;
    if (overrides.gatewayUrl != defaults.gatewayUrl) settings.gatewayUrl = overrides.gatewayUrl;
    if (overrides.description != defaults.description) settings.description = overrides.description;
    if (overrides.mode != defaults.mode) settings.mode = canonicalMode(overrides.mode);
    if (!overrides.executorToken.empty()) settings.executorToken = overrides.executorToken;
    if (!overrides.name.empty()) settings.name = overrides.name;
    settings.gatewayUrl = withoutTrailingSlashes(settings.gatewayUrl);
}

}  // namespace qm
