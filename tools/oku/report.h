// Output records of the oku command in text, JSON Lines or CSV.
#ifndef OKU_TOOL_REPORT_H
#define OKU_TOOL_REPORT_H

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "options.h"

namespace okutool {

// One output record: a type ("segment", "start", "meter", "decision", "summary")
// and named fields in a fixed order.
struct Record {
    struct Field {
        std::string name;
        std::string text;  // formatted value
        bool quoted;       // a string in JSON
    };
    std::string type;
    std::vector<Field> fields;

    Record& Add(const std::string& name, double value, int decimals);
    Record& Add(const std::string& name, long long value);
    Record& Add(const std::string& name, const std::string& value);
    Record& Add(const std::string& name, bool value);
    const std::string* Get(const std::string& name) const;
};

// Formats records of one input. Text lines are aligned per record type; JSON
// Lines carry the file name in every record; CSV rows follow one header for
// the whole run (see CsvHeader).
class Writer {
public:
    // command: "vad" or "agc". out: where lines go. immediate: print and flush
    // every line at once (live input) instead of collecting them in out.
    Writer(Format format, const std::string& command, const std::string& file, std::string* out, bool immediate);
    void Write(const Record& r);
    void Text(const std::string& line);  // a free text line (text format only)

private:
    void Emit(const std::string& line);
    Format _format;
    std::string _command;
    std::string _file;
    std::vector<std::string> _headed;  // text: record types whose column header was printed
    std::string* _out;
    bool _immediate;
};

// The CSV header of a command, naming every column any of its records uses.
std::string CsvHeader(const std::string& command);

// Writes text to stdout under a lock shared by all threads.
void PrintOut(const std::string& text, bool flush);
// Writes one line to stderr under the same lock.
void PrintErr(const std::string& line);

// A progress bar on stderr for long inputs, when stderr is a terminal.
class Progress {
public:
    Progress(const std::string& name, long long total, bool enabled);
    ~Progress();
    void Update(long long done);

private:
    std::string _name;
    long long _total;
    bool _enabled;
    int _shown = -1;
};

}  // namespace okutool

#endif
