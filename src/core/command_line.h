#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/settings.h"
#include "util/endpoints.h"

namespace qm {

/// What the command line asks for.
struct CommandLine {
    /// The defaults, overwritten by what was typed; see overlaySettings().
    Settings overrides;
    std::filesystem::path dataDir;  ///< Empty: the default data directory.
    std::string publicUrl = endpoints::kAccountSiteUrl;
    std::string email;
    bool login = false;
    bool serve = false;
    bool status = false;
    bool save = false;
};

/// A command line that ends the process: what to print on standard output, and the exit status.
struct CommandLineExit {
    std::string output;
    int status = 0;
};

/// Reads the arguments (without the program's name) from the first one on; touches nothing but them.
std::variant<CommandLine, CommandLineExit> parseCommandLine(const std::vector<std::string>& arguments);

/// The text behind --help.
std::string usageText();

/// Lays what was typed over the loaded settings. Gateway, description and mode count only where they differ, as typed,
/// from the defaults: "--mode LIGHT" can't turn a saved HEAVY back. Token and name count where they aren't empty.
void overlaySettings(Settings& settings, const Settings& overrides);

}  // namespace qm
