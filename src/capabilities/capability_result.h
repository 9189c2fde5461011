#pragma once

#include <string>

#include "util/json_fwd.h"

namespace qm {

/// The result of a capability that failed: {"error": text}.
json failure(std::string text);

}  // namespace qm
