// oku: settings parsed from a parameter string of "Key=Value" entries separated by ';'.
#ifndef OKU_PARAMETERS_H
#define OKU_PARAMETERS_H

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace oku {

// A map from key text to value text with typed reads.
//
// Grammar: the string is cut at every ';' into entries, each entry at every '='
// into pieces; empty entries and empty pieces do not exist, so ";;a==1;" holds
// one entry (a, 1). An entry must have exactly two pieces, key and value, or the
// whole string is rejected with std::invalid_argument("Invalid format"). The
// first occurrence of a key wins. There is no quoting, escaping or trimming: a
// blank is an ordinary character.
//
// Values stay text and are converted at every read with one formatted stream
// extraction (default flags and locale). Trailing characters after a number are
// ignored ("42abc" reads as 42); a value without a number at its start throws
// "Invalid format". Unsigned reads follow the stream's own rule for a leading
// '-' (the value wraps); the library only reads non-negative counts that way.
class Parameters : public std::map<std::string, std::string> {
public:
    Parameters() = default;

    explicit Parameters(const std::string& keyValuePairs)
    {
        std::vector<std::string> entries;
        std::vector<std::string> pieces;
        Split(entries, keyValuePairs, ";");
        for (const std::string& entry : entries) {
            Split(pieces, entry, "=");
            if (pieces.size() != 2)
                throw std::invalid_argument("Invalid format");
            insert(value_type(pieces[0], pieces[1]));  // keeps the first occurrence
        }
    }

    // Throws "Key not found" when the key is absent, "Invalid format" when the
    // value does not convert to T.
    template <typename T>
    const T Get(const std::string& key) const
    {
        const_iterator it = find(key);
        if (it == end())
            throw std::invalid_argument("Key not found");
        std::istringstream is(it->second);
        T value{};
        is >> value;
        if (is.fail())  // fail() covers badbit too; eof is deliberately not examined
            throw std::invalid_argument("Invalid format");
        return value;
    }

    // Returns defaultValue only when the key is absent: a malformed value still throws.
    template <typename T>
    const T Get(const std::string& key, T defaultValue) const
    {
        if (!Exists(key))
            return defaultValue;
        return Get<T>(key);
    }

    template <typename T>
    void Set(const std::string& key, T x)
    {
        std::ostringstream os;
        os << x;
        (*this)[key] = os.str();
    }

    bool Exists(const std::string& key) const { return find(key) != end(); }

private:
    // Fills strVec with the non-empty runs of str between characters of separators.
    static void Split(std::vector<std::string>& strVec, const std::string& str,
                      const std::string& separators)
    {
        strVec.clear();
        std::string::size_type pos = 0;
        for (;;) {
            pos = str.find_first_not_of(separators, pos);
            if (pos == std::string::npos)
                return;
            std::string::size_type pos2 = str.find_first_of(separators, pos);
            strVec.push_back(str.substr(pos, pos2 == std::string::npos ? std::string::npos : pos2 - pos));
            pos = pos2;
        }
    }
};

}  // namespace oku

#endif
