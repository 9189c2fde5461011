#pragma once

#include <string>
#include <vector>

namespace qm {

/// The program behind main(): reads the command line, serves the one-shot actions, and otherwise runs the executor
/// until it is told to stop. Returns the exit status.
int runProgram(const std::vector<std::string>& arguments);

}  // namespace qm
