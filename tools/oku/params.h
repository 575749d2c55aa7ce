// Checking a --params string before any input is processed.
#ifndef OKU_TOOL_PARAMS_H
#define OKU_TOOL_PARAMS_H

#include <string>
#include <vector>

namespace okutool {

// Checks the parameter string for `command` ("vad" or "agc"): its grammar, the
// value of every key the service reads, and the settings the service rejects.
// Throws UsageError naming the problem; returns warnings (unknown keys, keys
// without effect) for stderr.
std::vector<std::string> CheckParams(const std::string& command, const std::string& params);

}  // namespace okutool

#endif
