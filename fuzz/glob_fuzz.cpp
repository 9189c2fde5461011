// The matcher gives the answers of the plainest one there is, which tries every length for every "*".

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "device/glob.h"
#include "util/text.h"

namespace {

/// One row for each prefix of the pattern: which prefixes of the name it matches.
bool matchesPlainly(std::string_view pattern, std::string_view name) {
    std::vector<bool> reached(name.size() + 1, false);
    reached[0] = true;
    for (const char wanted : pattern) {
        std::vector<bool> next(name.size() + 1, false);
        if (wanted == '*') next[0] = reached[0];
        for (std::size_t i = 0; i < name.size(); ++i) {
            const bool isSlash = name[i] == '/';
            if (wanted == '*') {
                next[i + 1] = reached[i + 1] || (next[i] && !isSlash);
            } else if (wanted == '?') {
                next[i + 1] = reached[i] && !isSlash;
            } else {
                next[i + 1] = reached[i] && wanted == name[i];
            }
        }
        reached = next;
    }
    return reached[name.size()];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The first line is the pattern, the rest the name.
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string_view pattern = input.substr(0, input.find('\n'));
    const std::string_view name = input.substr(std::min(pattern.size() + 1, size));

    const bool expected = matchesPlainly(qm::toLowerAscii(pattern), qm::toLowerAscii(name));
    if (qm::Glob(pattern).matches(name) != expected) std::abort();
    return 0;
}
