#include "options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "oku.h"
#include "text.h"

namespace okutool {

namespace {

long ParseLong(const std::string& option, const std::string& text, long min, long max)
{
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < min || v > max)
        throw UsageError(option + ": expected a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", got '" + text + "'");
    return v;
}

double ParseDouble(const std::string& option, const std::string& text, double min, double max)
{
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v) || v <= min || v > max)
        throw UsageError(option + ": expected a number above " + Num(min) + " and at most " + Num(max) +
                         ", got '" + text + "'");
    return v;
}

// The library's input rates for people: "14 input rates (8000 to 192000 Hz)".
std::string InputRates()
{
    std::size_t count = 0;
    const int* rates = oku_input_rates(&count);
    return std::to_string(count) + " input rates (" + std::to_string(rates[0]) + " to " +
           std::to_string(rates[count - 1]) + " Hz)";
}

}  // namespace

std::string HelpText(const std::string& command)
{
    const std::string common =
        "  --format text|json|csv  output for people (aligned columns), JSON Lines or CSV (default text)\n"
        "  --params \"Key=Value;...\" settings for the analyzer or the gain control\n"
        "  --plot FILE.svg         draw the run (several inputs: FILE-1.svg, FILE-2.svg, ...)\n"
        "  --jobs N                process up to N files at once (default: one per core)\n"
        "  --chunk-ms MS           audio per library call in milliseconds (default 20)\n"
        "  --raw --rate R          inputs (files, FIFOs or '-') are raw signed 16-bit little-endian\n"
        "                          PCM at R Hz, read as it arrives\n"
        "  --channels N            channels of raw input (default 1; the library mixes them)\n"
        "  --no-progress           no progress bar on stderr\n"
        "  --quiet                 no information lines on stderr (nor progress bar); warnings\n"
        "                          and errors stay\n"
        "  --help                  this text\n"
        "\nInputs are any files libsndfile reads (WAV, FLAC, Ogg, ...), MP3, or '-' for standard\n"
        "input, at their own rate and channels: the library takes its " + InputRates() + "\n"
        "itself, another rate is resampled with libsoxr first. No output ever overwrites an input.\n"
        "Exit status: 0 all inputs done, 1 an input or an output failed (an error record with\n"
        "--format json or csv; the other inputs are still processed), 2 a bad option, output name\n"
        "or parameter string (nothing is processed).\n";
    if (command == "vad")
        return "usage: oku vad [options] FILE...\n"
               "Prints the speech segments of each input and a summary of its recording conditions.\n\n"
               "  --meter                 also print every volume reading\n"
               "  --split DIR             write each speech segment to DIR as its own audio file, in the\n"
               "                          input's rate, channels and samples, as it closes; the\n"
               "                          segment record names it (clip)\n"
               "  --split-name TEMPLATE   the clip's path under DIR without extension, from {base} (the\n"
               "                          input's name), {dir} (its folder), {index}, {start}, {end}\n"
               "                          (default {base}-{index}-{start}s)\n"
               "  --split-format wav|flac the clips' format (default wav)\n"
               "  --max-segment-ms MS     cut a longer segment into the fewest equal pieces of at most MS\n" +
               common;
    if (command == "agc")
        return "usage: oku agc [options] FILE...\n"
               "Runs the gain control in a closed loop against a simulated microphone: each chunk is\n"
               "the recording times mic gain times volume / bound, and the proposed volume is applied\n"
               "to the next chunk. Prints every decision.\n\n"
               "  --bound B               largest volume, full gain (default 65535)\n"
               "  --volume V              starting volume, 0 to the bound (default half the bound)\n"
               "  --mic-gain G            microphone gain at full volume (default 1)\n"
               "  --log FILE              write the gain control's diagnostic log\n"
               "  --out FILE.wav          write the audio as the host would have captured it\n" +
               common;
    return "usage: oku vad|agc [options] FILE...\n"
           "       oku vad --help | oku agc --help | oku --version\n\n"
           "  vad   speech segments and volume readings\n"
           "  agc   gain decisions of the automatic gain control in a closed loop\n\nEvery option, output and exit status: man oku (oku.1 in the source tree).\n";
}

Request ParseOptions(int argc, char** argv, Options& o)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty())
        throw UsageError("missing command (vad or agc); try 'oku --help'");
    if (args[0] == "--version")
        return Request::Version;
    if (args[0] == "--help" || args[0] == "-h")
        return Request::Help;
    if (args[0] != "vad" && args[0] != "agc")
        throw UsageError("unknown command '" + args[0] + "'; try 'oku --help'");
    o.command = args[0];

    bool endOfOptions = false;
    bool split = false;  // an option that applies to --split
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (endOfOptions || a == "-" || a.compare(0, 2, "--") != 0) {
            o.inputs.push_back(a);
            continue;
        }
        if (a == "--") {
            endOfOptions = true;
            continue;
        }
        auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size())
                throw UsageError(a + ": missing value");
            return args[++i];
        };
        auto path = [&]() -> const std::string& {
            const std::string& p = value();
            if (p.empty())
                throw UsageError(a + ": an empty file name");
            return p;
        };
        const bool vad = o.command == "vad";
        if (a == "--help" || a == "-h") {
            return Request::Help;
        } else if (a == "--format") {
            const std::string& f = value();
            if (f == "text")
                o.format = Format::Text;
            else if (f == "json")
                o.format = Format::Json;
            else if (f == "csv")
                o.format = Format::Csv;
            else
                throw UsageError("--format: expected text, json or csv, got '" + f + "'");
        } else if (a == "--params") {
            o.params = value();
        } else if (a == "--plot") {
            o.plot = path();
        } else if (a == "--jobs") {
            o.jobs = static_cast<unsigned>(ParseLong(a, value(), 1, 1024));
        } else if (a == "--chunk-ms") {
            o.chunkMs = ParseDouble(a, value(), 0.0, 10000.0);
        } else if (a == "--raw") {
            o.raw = true;
        } else if (a == "--rate") {
            o.rawFormat.rate = ParseLong(a, value(), kMinInputRate, kMaxInputRate);
        } else if (a == "--channels") {
            o.rawFormat.channels = static_cast<int>(ParseLong(a, value(), 1, oku_max_channels()));
        } else if (a == "--no-progress") {
            o.progress = false;
        } else if (a == "--quiet") {
            o.quiet = true;
            o.progress = false;
        } else if (vad && a == "--meter") {
            o.meter = true;
        } else if (vad && a == "--split") {
            o.splitDir = path();
        } else if (vad && a == "--split-name") {
            o.splitName = value();
            split = true;
        } else if (vad && a == "--split-format") {
            const std::string& f = value();
            if (f != "wav" && f != "flac")
                throw UsageError("--split-format: expected wav or flac, got '" + f + "'");
            o.splitFlac = f == "flac";
            split = true;
        } else if (vad && a == "--max-segment-ms") {
            o.maxSegmentMs = ParseDouble(a, value(), 0.0, 1e9);
        } else if (!vad && a == "--bound") {
            o.bound = ParseLong(a, value(), 1, 2147483647L);
        } else if (!vad && a == "--volume") {
            o.volume = ParseLong(a, value(), 0, 2147483647L);
        } else if (!vad && a == "--mic-gain") {
            o.micGain = ParseDouble(a, value(), 0.0, 1e6);
        } else if (!vad && a == "--log") {
            o.logFile = path();
        } else if (!vad && a == "--out") {
            o.outFile = path();
        } else {
            throw UsageError("unknown option '" + a + "' for 'oku " + o.command + "'; try 'oku " + o.command +
                             " --help'");
        }
    }
    if (o.inputs.empty())
        throw UsageError("no input files; try 'oku " + o.command + " --help'");
    if (split && o.splitDir.empty())
        throw UsageError("--split-name and --split-format apply to --split only");
    if (o.raw && o.rawFormat.rate == 0)
        throw UsageError("--raw needs --rate R");
    if (!o.raw && (o.rawFormat.rate != 0 || o.rawFormat.channels != 1))
        throw UsageError("--rate and --channels apply to --raw input only");
    int stdinInputs = 0;
    for (const std::string& in : o.inputs)
        stdinInputs += in == "-";
    if (stdinInputs > 1)
        throw UsageError("standard input ('-') can be read only once");
    if (o.volume > o.bound)
        throw UsageError("--volume: " + std::to_string(o.volume) + " is above the bound " + std::to_string(o.bound));
    if (o.volume < 0)
        o.volume = o.bound / 2;
    return Request::Run;
}

}  // namespace okutool
