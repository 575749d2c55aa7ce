// Command-line options of the oku command.
#ifndef OKU_TOOL_OPTIONS_H
#define OKU_TOOL_OPTIONS_H

#include <stdexcept>
#include <string>
#include <vector>

#include "input.h"
#include "records.h"

namespace okutool {

// Exit statuses.
enum ExitStatus { kExitOk = 0, kExitInputFailed = 1, kExitUsage = 2 };

struct Options {
    std::string command;              // "vad" or "agc"
    std::vector<std::string> inputs;  // file names; "-" is standard input
    Format format = Format::Text;
    std::string params;               // parameter string for the analyzer or gain control
    unsigned jobs = 0;                // 0: one per core
    bool raw = false;                 // inputs are raw s16le PCM in rawFormat
    RawFormat rawFormat;
    double chunkMs = 20.0;            // audio per library call
    bool progress = true;
    bool quiet = false;               // no information lines (nor progress bar) on stderr
    std::string plot;                 // SVG file pattern; empty: none
    // vad
    bool meter = false;
    std::string splitDir;             // empty: none
    std::string splitName = "{base}-{index}-{start}s";  // clip path under splitDir, without extension
    bool splitFlac = false;           // FLAC clips instead of WAV
    double maxSegmentMs = 0;          // 0: segments are not cut
    // agc
    long bound = 65535;
    long volume = -1;                 // -1: half the bound
    double micGain = 1.0;
    std::string logFile;              // empty: none
    std::string outFile;              // empty: none

    bool Agc() const { return command == "agc"; }
};

// A usage error: printed as one line, exit status 2, nothing processed.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the command line asks for besides a run.
enum class Request { Run, Help, Version };

// Parses argv; throws UsageError on a bad option or value.
Request ParseOptions(int argc, char** argv, Options& options);

std::string HelpText(const std::string& command);

}  // namespace okutool

#endif
