// What both subcommands need: the input being run, the library's handles,
// and the loop that reads, converts and chunks an input.
#ifndef OKU_TOOL_COMMON_H
#define OKU_TOOL_COMMON_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "input.h"
#include "options.h"
#include "output.h"
#include "records.h"

struct oku_vad;
struct oku_agc;

namespace okutool {

// One input of the run and where its results go.
struct InputSlot {
    std::string name;
    int index = 0;
    int count = 1;
    bool live = false;  // a single stream: a record also when speech starts
};

struct Run {
    const Options& options;
    const FilePlan& plan;
};

// Each throws InputError or OutputError for a problem with the input or one of
// its outputs; records go to the writer.
void RunVad(const InputSlot& slot, const Run& run, Writer& writer);
void RunAgc(const InputSlot& slot, const Run& run, Writer& writer);

// The library's handles, released on destruction.
struct VadDeleter {
    void operator()(oku_vad* v) const;
};
struct AgcDeleter {
    void operator()(oku_agc* a) const;
};
using VadHandle = std::unique_ptr<oku_vad, VadDeleter>;
using AgcHandle = std::unique_ptr<oku_agc, AgcDeleter>;

// An input opened for a run: its source, the rate it is analysed at (its own
// when the library takes it, else the nearest one), and its converter.
struct OpenedInput {
    std::unique_ptr<Source> source;
    int rate = 0;
    std::unique_ptr<Converter> converter;
};

// Opens an input as the options say (raw or not) and notes on standard error
// what is done to bring it to the library (mixing down, resampling).
OpenedInput OpenInput(const std::string& name, const Options& options);

// Throws InputError with the library's message unless status is OKU_OK.
void Check(int status);

// Samples per library call for a chunk length in ms, rounded as the library
// rounds them for every front end; InputError for a chunk of no sample.
std::size_t ChunkSamples(double chunkMs, int rate);

// The name an input gives its segment files: the file name without folder and
// extension, "stdin" for standard input.
std::string BaseName(const std::string& input);

// Says how many samples were NaN or infinite (read as 0), if any.
void NoteNonFinite(const std::string& name, long long count);

// Reads the input to its end: every block of original frames goes to onBlock,
// then the converted samples to onChunk in chunks of chunkSamples (the last may
// be shorter). A live input is handed on as it arrives.
void Stream(Source& source, Converter& converter, std::size_t chunkSamples, bool progress, const std::string& name,
            const std::function<void(const Block&)>& onBlock,
            const std::function<void(const std::vector<short>&)>& onChunk);

}  // namespace okutool

#endif
