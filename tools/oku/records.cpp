#include "records.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "oku.h"
#include "text.h"

namespace okutool {

namespace {

// The library's names of an enumeration, from 0 up to the first unknown value.
std::vector<std::string> LibraryNames(const char* (*name)(int))
{
    std::vector<std::string> names;
    for (int i = 0; name(i); ++i)
        names.emplace_back(name(i));
    return names;
}

std::vector<std::string> Join(std::vector<std::string> a, const std::vector<std::string>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The summary fields about an input's way into the library (SetInputFields).
std::vector<std::string> InputFields()
{
    return {"channels", "sample_type", "resampler", "frames", "declared_frames"};
}

// The columns of a command: every field of its record types, in order of first use.
std::vector<std::string> Columns(const std::vector<RecordType>& types)
{
    std::vector<std::string> columns = {"file", "type"};
    for (RecordType t : types)
        for (const std::string& f : Fields(t))
            if (std::find(columns.begin(), columns.end(), f) == columns.end())
                columns.push_back(f);
    return columns;
}

const std::vector<std::string>& CsvColumns(bool agc)
{
    static const std::vector<std::string> vad =
        Columns({RecordType::Segment, RecordType::Start, RecordType::Meter, RecordType::VadSummary, RecordType::Error});
    static const std::vector<std::string> gain =
        Columns({RecordType::Decision, RecordType::AgcSummary, RecordType::Error});
    return agc ? gain : vad;
}

// Text columns: wide enough for the field's name and for its longest value.
int Width(const std::string& field, bool quoted)
{
    return static_cast<int>(std::max<std::size_t>(field.size(), quoted ? 15 : 8));
}

}  // namespace

const char* TypeName(RecordType type)
{
    switch (type) {
    case RecordType::Segment:
        return "segment";
    case RecordType::Start:
        return "start";
    case RecordType::Meter:
        return "meter";
    case RecordType::Decision:
        return "decision";
    case RecordType::Error:
        return "error";
    case RecordType::VadSummary:
    case RecordType::AgcSummary:
        break;
    }
    return "summary";
}

const std::vector<std::string>& Fields(RecordType type)
{
    static const std::vector<std::string> segment = {"index",        "start_s",    "end_s", "duration_s",
                                                     "start_sample", "end_sample", "clip"};
    static const std::vector<std::string> start = {"index", "start_s", "start_sample"};
    // "dbfs" is the old name of "level_dbfs", kept in its place for readers of earlier records.
    static const std::vector<std::string> meter = {"time_s",     "peak",   "dbfs", "snr_pct",
                                                   "assessment", "speech", "level_dbfs"};
    static const std::vector<std::string> vadSummary =
        Join(Join({"rate", "original_rate", "duration_s", "segments", "speech_s", "readings"},
                  LibraryNames(oku_assessment_name)),
             Join({"peak", "peak_dbfs", "nonfinite_samples"}, InputFields()));
    static const std::vector<std::string> decision = {"time_s",  "volume_before", "volume_after",
                                                      "control", "pause_db",      "speech_db"};
    static const std::vector<std::string> agcSummary =
        Join(Join({"rate", "original_rate", "duration_s", "decisions", "changes", "final_volume"},
                  LibraryNames(oku_agc_control_name)),
             Join({"nonfinite_samples"}, InputFields()));
    static const std::vector<std::string> error = {"message"};
    switch (type) {
    case RecordType::Segment:
        return segment;
    case RecordType::Start:
        return start;
    case RecordType::Meter:
        return meter;
    case RecordType::VadSummary:
        return vadSummary;
    case RecordType::Decision:
        return decision;
    case RecordType::Error:
        return error;
    case RecordType::AgcSummary:
        break;
    }
    return agcSummary;
}

Record::Record(RecordType type) : _type(type), _values(Fields(type).size()), _kind(Fields(type).size(), Kind::Unset)
{
}

std::size_t Record::Index(const std::string& field) const
{
    const std::vector<std::string>& fields = Fields(_type);
    const auto it = std::find(fields.begin(), fields.end(), field);
    if (it == fields.end())
        throw std::logic_error(std::string(TypeName(_type)) + " records have no field " + field);
    return static_cast<std::size_t>(it - fields.begin());
}

Record& Record::Set(const std::string& field, double value, int decimals)
{
    const std::size_t i = Index(field);
    _values[i] = Fixed(value, decimals);
    _kind[i] = Kind::Number;
    return *this;
}

Record& Record::Set(const std::string& field, long long value)
{
    const std::size_t i = Index(field);
    _values[i] = std::to_string(value);
    _kind[i] = Kind::Number;
    return *this;
}

Record& Record::Set(const std::string& field, const std::string& value)
{
    const std::size_t i = Index(field);
    _values[i] = value;
    _kind[i] = Kind::Text;
    return *this;
}

Record& Record::Set(const std::string& field, bool value)
{
    const std::size_t i = Index(field);
    _values[i] = value ? "true" : "false";
    _kind[i] = Kind::Number;
    return *this;
}

Record& Record::SetNull(const std::string& field)
{
    const std::size_t i = Index(field);
    _values[i].clear();
    _kind[i] = Kind::Null;
    return *this;
}

Writer::Writer(Format format, bool agc, const std::string& file, Emit emit)
    : _format(format), _agc(agc), _file(file), _emit(std::move(emit))
{
}

void Writer::Note(const std::string& line)
{
    if (_format == Format::Text)
        _emit(line);
}

void Writer::Write(const Record& r)
{
    const std::vector<std::string>& fields = Fields(r.Type());
    switch (_format) {
    case Format::Text: {
        if (r.Type() == RecordType::Error)
            break;
        const bool summary = r.Type() == RecordType::VadSummary || r.Type() == RecordType::AgcSummary;
        std::ostringstream os;
        if (!summary && (!_headed || r.Type() != _last)) {
            os << std::left << std::setw(9) << "#";
            for (std::size_t i = 0; i < fields.size(); ++i)
                if (r.IsSet(i))
                    os << " " << std::right << std::setw(Width(fields[i], r.Quoted(i))) << fields[i];
            _emit(os.str());
            os.str("");
        }
        _headed = true;
        _last = r.Type();
        os << std::left << std::setw(9) << TypeName(r.Type());
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (!r.IsSet(i))
                continue;
            const std::string& value = r.IsNull(i) ? std::string("-") : r.Value(i);
            if (summary)
                os << " " << fields[i] << "=" << value;
            else
                os << " " << std::right << std::setw(Width(fields[i], r.Quoted(i))) << value;
        }
        _emit(os.str());
        break;
    }
    case Format::Json: {
        std::string line = "{\"file\":" + JsonString(_file) + ",\"type\":" + JsonString(TypeName(r.Type()));
        for (std::size_t i = 0; i < fields.size(); ++i)
            if (r.IsSet(i))
                line += "," + JsonString(fields[i]) + ":" +
                        (r.IsNull(i) ? std::string("null") : r.Quoted(i) ? JsonString(r.Value(i)) : r.Value(i));
        _emit(line + "}");
        break;
    }
    case Format::Csv: {
        std::string line;
        bool first = true;
        for (const std::string& column : CsvColumns(_agc)) {
            if (!first)
                line += ",";
            first = false;
            if (column == "file") {
                line += CsvField(_file);
            } else if (column == "type") {
                line += TypeName(r.Type());
            } else {
                const auto it = std::find(fields.begin(), fields.end(), column);
                if (it != fields.end())
                    line += CsvField(r.Value(static_cast<std::size_t>(it - fields.begin())));
            }
        }
        _emit(line);
        break;
    }
    }
}

std::string CsvHeader(bool agc)
{
    std::string line;
    for (const std::string& c : CsvColumns(agc))
        line += (line.empty() ? "" : ",") + c;
    return line;
}

}  // namespace okutool
