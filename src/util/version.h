#pragma once

namespace qm {

/// The program's version as it stands in the usage text, in `register` messages and in metrics.
inline constexpr char kVersion[] = "3.0.1-native";

}  // namespace qm
