#pragma once

#include <nlohmann/json.hpp>

namespace qm::runtime {

/// `payload` with U+FFFD in place of what isn't UTF-8 in its strings and keys. What comes from a process or a server
/// may be cut inside a character, and the journal takes strict UTF-8 only.
nlohmann::json withValidUtf8(nlohmann::json payload);

}  // namespace qm::runtime
