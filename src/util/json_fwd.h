#pragma once

#include <nlohmann/json_fwd.hpp>

namespace qm {

/// The JSON value that all subsystems exchange. Object keys are kept sorted.
using json = nlohmann::json;

}  // namespace qm
