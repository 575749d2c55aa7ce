#include "report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <sstream>

namespace okutool {

namespace {

std::mutex g_outputLock;

std::string JsonString(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
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
    if (s.find_first_of(",\"\n\r") == std::string::npos)
        return s;
    std::string out = "\"";
    for (char c : s)
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

const std::vector<std::string>& CsvColumns(const std::string& command)
{
    static const std::vector<std::string> vad = {
        "file", "type", "index", "start_s", "end_s", "duration_s", "start_sample", "end_sample", "time_s", "peak",
        "dbfs", "snr_pct", "assessment", "speech", "rate", "original_rate", "segments", "speech_s", "readings", "ok",
        "too_noisy", "too_soft", "too_loud", "peak_dbfs"};
    static const std::vector<std::string> agc = {
        "file", "type", "time_s", "volume_before", "volume_after", "control", "pause_db", "speech_db", "rate",
        "original_rate", "duration_s", "decisions", "changes", "final_volume", "unchanged", "pause_too_low",
        "speech_too_low", "speech_too_high", "operating_limit", "gain_estimate"};
    return command == "vad" ? vad : agc;
}

// Text layout: each record type prints its fields in columns of fixed width,
// wide enough for the name and for the longest name a string field may hold.
int Width(const Record::Field& f)
{
    return static_cast<int>(std::max<std::size_t>(f.name.size(), f.quoted ? 15 : 8));
}

std::string TextLine(const Record& r)
{
    std::ostringstream os;
    os << std::left << std::setw(9) << r.type;
    for (const Record::Field& f : r.fields) {
        if (r.type == "summary") {
            os << " " << f.name << "=" << f.text;
            continue;
        }
        os << " " << std::right << std::setw(Width(f)) << f.text;
    }
    return os.str();
}

std::string TextHeader(const Record& r)
{
    std::ostringstream os;
    os << std::left << std::setw(9) << "#";
    for (const Record::Field& f : r.fields)
        os << " " << std::right << std::setw(Width(f)) << f.name;
    return os.str();
}

}  // namespace

Record& Record::Add(const std::string& name, double value, int decimals)
{
    std::ostringstream os;
    os << std::fixed << std::setprecision(decimals) << value;
    fields.push_back({name, os.str(), false});
    return *this;
}

Record& Record::Add(const std::string& name, long long value)
{
    fields.push_back({name, std::to_string(value), false});
    return *this;
}

Record& Record::Add(const std::string& name, const std::string& value)
{
    fields.push_back({name, value, true});
    return *this;
}

Record& Record::Add(const std::string& name, bool value)
{
    fields.push_back({name, value ? "true" : "false", false});
    return *this;
}

const std::string* Record::Get(const std::string& name) const
{
    for (const Field& f : fields)
        if (f.name == name)
            return &f.text;
    return nullptr;
}

Writer::Writer(Format format, const std::string& command, const std::string& file, std::string* out,
               bool immediate)
    : _format(format), _command(command), _file(file), _out(out), _immediate(immediate)
{
}

void Writer::Emit(const std::string& line)
{
    if (_immediate)
        PrintOut(line + "\n", true);
    else
        *_out += line + "\n";
}

void Writer::Text(const std::string& line)
{
    if (_format == Format::Text)
        Emit(line);
}

void Writer::Write(const Record& r)
{
    switch (_format) {
    case Format::Text: {
        if (r.type != "summary" && std::find(_headed.begin(), _headed.end(), r.type) == _headed.end()) {
            Emit(TextHeader(r));
            _headed.push_back(r.type);
        }
        Emit(TextLine(r));
        break;
    }
    case Format::Json: {
        std::string line = "{\"file\":" + JsonString(_file) + ",\"type\":" + JsonString(r.type);
        for (const Record::Field& f : r.fields)
            line += "," + JsonString(f.name) + ":" + (f.quoted ? JsonString(f.text) : f.text);
        Emit(line + "}");
        break;
    }
    case Format::Csv: {
        // Columns are looked up by name: a record fills its own, the others stay empty.
        std::string line;
        for (const std::string& column : CsvColumns(_command)) {
            if (&column != &CsvColumns(_command).front())
                line += ",";
            if (column == "file")
                line += CsvField(_file);
            else if (column == "type")
                line += r.type;
            else if (const std::string* v = r.Get(column))
                line += CsvField(*v);
        }
        Emit(line);
        break;
    }
    }
}

std::string CsvHeader(const std::string& command)
{
    std::string line;
    for (const std::string& c : CsvColumns(command))
        line += (line.empty() ? "" : ",") + c;
    return line + "\n";
}

void PrintOut(const std::string& text, bool flush)
{
    std::lock_guard<std::mutex> lock(g_outputLock);
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (flush)
        std::fflush(stdout);
}

void PrintErr(const std::string& line)
{
    std::lock_guard<std::mutex> lock(g_outputLock);
    std::fprintf(stderr, "%s\n", line.c_str());
}

Progress::Progress(const std::string& name, long long total, bool enabled)
    : _name(name), _total(total), _enabled(enabled && total > 0 && ::isatty(2))
{
}

Progress::~Progress()
{
    if (_enabled && _shown >= 0) {
        std::lock_guard<std::mutex> lock(g_outputLock);
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    }
}

void Progress::Update(long long done)
{
    if (!_enabled)
        return;
    const int percent = static_cast<int>(std::min<long long>(100, done * 100 / _total));
    if (percent == _shown)
        return;
    _shown = percent;
    const int filled = percent / 4;
    std::lock_guard<std::mutex> lock(g_outputLock);
    std::fprintf(stderr, "\r[%s%s] %3d%% %s", std::string(static_cast<std::size_t>(filled), '#').c_str(),
                 std::string(static_cast<std::size_t>(25 - filled), '.').c_str(), percent, _name.c_str());
    std::fflush(stderr);
}

}  // namespace okutool
