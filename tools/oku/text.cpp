#include "text.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace okutool {

std::string Num(double x)
{
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.12g", x);
    return buf;
}

std::string Fixed(double x, int decimals)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, x);
    return buf;
}

std::string ErrnoText(int error) { return std::strerror(error); }

std::string ValidUtf8(const std::string& s)
{
    static const char kReplacement[] = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(s.size());
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const std::size_t n = s.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = p[i];
        std::size_t len = 0;
        unsigned int min = 0, cp = 0;
        if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2, min = 0x80, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3, min = 0x800, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4, min = 0x10000, cp = c & 0x07;
        }
        bool ok = len > 0 && i + len <= n;
        for (std::size_t k = 1; ok && k < len; ++k) {
            ok = (p[i + k] & 0xC0) == 0x80;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
        ok = ok && cp >= min && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
        if (ok) {
            out.append(s, i, len);
            i += len;
        } else {
            out += kReplacement;
            ++i;
        }
    }
    return out;
}

std::string JsonString(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : ValidUtf8(s)) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string CsvField(const std::string& s)
{
    const std::string v = ValidUtf8(s);
    if (v.find_first_of(",\"\n\r") == std::string::npos)
        return v;
    std::string out = "\"";
    for (char c : v)
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

}  // namespace okutool
