// Checking a --params string before any input is processed.
#ifndef OKU_TOOL_PARAMS_H
#define OKU_TOOL_PARAMS_H

#include <string>
#include <vector>

namespace okutool {

// Checks the parameter string for the analyzer (agc false) or the gain control
// with the library: its grammar, the value of every key the service reads, and
// the settings the service refuses. Throws UsageError naming the problem;
// returns warnings (keys the service does not read) for standard error.
std::vector<std::string> CheckParams(bool agc, const std::string& params);

}  // namespace okutool

#endif
