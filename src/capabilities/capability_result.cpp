#include "capabilities/capability_result.h"

#include <utility>

#include "util/json.h"

namespace qm {

json failure(std::string text) {
    return json{{"error", std::move(text)}};
}

}  // namespace qm
