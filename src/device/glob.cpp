#include "device/glob.h"

#include "util/text.h"

namespace qm {

Glob::Glob(std::string_view pattern) {
    for (const char character : toLowerAscii(pattern)) {
        if (character != '*' || !pattern_.ends_with('*')) pattern_ += character;
    }
}

// Only the last "*" ever needs another try: what the earlier ones took was the least they could, and giving them more
// can only shorten what is left for the rest. A "/" matches no wildcard, so it settles everything before it.
bool Glob::matches(std::string_view name) const {
    std::size_t inPattern = 0;
    std::size_t inName = 0;
    std::size_t afterStar = std::string::npos;
    std::size_t starEnd = 0;
    while (inName < name.size() || inPattern < pattern_.size()) {
        if (inPattern < pattern_.size() && pattern_[inPattern] == '*') {
            afterStar = ++inPattern;
            starEnd = inName;
            continue;
        }
        if (inPattern < pattern_.size() && inName < name.size()) {
            const char wanted = pattern_[inPattern];
            const char found = lowerAscii(name[inName]);
            if (wanted == '?' ? found != '/' : wanted == found) {
                if (found == '/') afterStar = std::string::npos;
                ++inPattern;
                ++inName;
                continue;
            }
        }
        if (afterStar == std::string::npos || starEnd >= name.size() || name[starEnd] == '/') return false;
        inName = ++starEnd;
        inPattern = afterStar;
    }
    return true;
}

}  // namespace qm
