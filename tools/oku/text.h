// Text helpers of the oku command: numbers for people, and strings made safe
// for JSON and CSV.
#ifndef OKU_TOOL_TEXT_H
#define OKU_TOOL_TEXT_H

#include <string>

namespace okutool {

// A number as a person writes it: no trailing zeros, no exponent for the
// numbers the command deals in ("0", "0.5", "10000", "1e+300" only when huge).
std::string Num(double x);

// A number with a fixed count of decimals, for records ("0.860").
std::string Fixed(double x, int decimals);

// The text of errno, for messages.
std::string ErrnoText(int error);

// s as valid UTF-8: every byte that does not begin or belong to a well-formed
// sequence is replaced by U+FFFD, so that JSON output stays valid whatever
// bytes a file name holds.
std::string ValidUtf8(const std::string& s);

// A JSON string literal (quotes included) of ValidUtf8(s).
std::string JsonString(const std::string& s);

// A CSV field: ValidUtf8(s), quoted when it holds a comma, a quote or a line break.
std::string CsvField(const std::string& s);

}  // namespace okutool

#endif
