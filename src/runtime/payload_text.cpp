#include "runtime/payload_text.h"

#include <algorithm>
#include <string>

#include "util/json.h"
#include "util/utf8.h"

namespace qm::runtime {
namespace {

bool hasOnlyValidUtf8(const json& value) {
    if (value.is_string()) return isValidUtf8(value.get_ref<const std::string&>());
    if (value.is_array()) return std::all_of(value.begin(), value.end(), hasOnlyValidUtf8);
    if (!value.is_object()) return true;
    const auto& members = value.get_ref<const json::object_t&>();
    return std::all_of(members.begin(), members.end(),
                       [](const auto& member) { return isValidUtf8(member.first) && hasOnlyValidUtf8(member.second); });
}

}  // namespace

json withValidUtf8(json payload) {
    if (hasOnlyValidUtf8(payload)) return payload;
    return json::parse(dumpJson(payload));
}

}  // namespace qm::runtime
