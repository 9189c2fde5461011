#pragma once

#include <string>
#include <string_view>

namespace qm {

/// A pattern for file names: "*" stands for any bytes but "/", "?" for one of them, all else for itself. ASCII letters
/// match in either case, whatever the locale. Immutable; any thread.
class Glob {
public:
    explicit Glob(std::string_view pattern);

    /// Whether the whole of `name` matches. No recursion and no allocation; at worst the time of the name's length
    /// times the pattern's, mostly of their sum.
    bool matches(std::string_view name) const;

private:
    std::string pattern_;  ///< In lower case, with runs of "*" as one.
};

}  // namespace qm
