// The records the oku command prints, and their three formats: aligned text
// for people, JSON Lines and CSV for programs.
#ifndef OKU_TOOL_RECORDS_H
#define OKU_TOOL_RECORDS_H

#include <functional>
#include <string>
#include <vector>

namespace okutool {

enum class Format { Text, Json, Csv };

enum class RecordType { Segment, Start, Meter, VadSummary, Decision, AgcSummary, Error };

// The record's name in the output ("segment", "summary", ...).
const char* TypeName(RecordType type);

// The fields of a record type, in output order. The summaries' counts are
// named after the library's names of assessments and control types.
const std::vector<std::string>& Fields(RecordType type);

// One record: a value for each field of its type, set by name. A field left
// unset is not part of the record (the segment's clip without --split): JSON
// and text leave it out, CSV leaves its column empty. A null field is part of
// it with no value (a length the file does not declare): JSON null, CSV
// empty, text "-".
class Record {
public:
    explicit Record(RecordType type);
    Record& Set(const std::string& field, double value, int decimals);
    Record& Set(const std::string& field, long long value);
    Record& Set(const std::string& field, const std::string& value);
    Record& Set(const std::string& field, bool value);
    Record& SetNull(const std::string& field);

    RecordType Type() const { return _type; }
    const std::string& Value(std::size_t i) const { return _values[i]; }
    bool Quoted(std::size_t i) const { return _kind[i] == Kind::Text; }
    bool IsSet(std::size_t i) const { return _kind[i] != Kind::Unset; }
    bool IsNull(std::size_t i) const { return _kind[i] == Kind::Null; }

private:
    enum class Kind : unsigned char { Unset, Null, Number, Text };
    std::size_t Index(const std::string& field) const;
    RecordType _type;
    std::vector<std::string> _values;
    std::vector<Kind> _kind;
};

// Formats the records of one input into lines and hands each to emit. Text
// output prints a column header whenever the record type changes and the
// summary as key=value pairs; JSON Lines records carry the file name; CSV rows
// follow the one header of the command (CsvHeader). Error records are for
// programs: text output leaves them to the message on standard error.
class Writer {
public:
    using Emit = std::function<void(const std::string& line)>;
    Writer(Format format, bool agc, const std::string& file, Emit emit);
    void Write(const Record& r);
    // A free line for people (text format only), e.g. "== FILE" before each of several inputs.
    void Note(const std::string& line);

private:
    Format _format;
    bool _agc;
    std::string _file;
    Emit _emit;
    bool _headed = false;
    RecordType _last = RecordType::Segment;
};

// The CSV header line of a command: file, type, then every field of its records.
std::string CsvHeader(bool agc);

}  // namespace okutool

#endif
