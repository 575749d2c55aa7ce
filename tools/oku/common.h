// What both subcommands need: the input being run, the library's handles,
// and the loop that reads an input and hands it to the library in chunks.
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

// An input opened for a run: its source, and how its frames reach the library.
struct OpenedInput {
    std::unique_ptr<Source> source;
    std::unique_ptr<LibraryFeed> feed;
};

// Opens an input as the options say (raw or not) and, unless --quiet, notes
// on standard error what is done to bring it to the library's analysis rate.
OpenedInput OpenInput(const std::string& name, const Options& options);

// Throws InputError with the library's message unless status is OKU_OK.
void Check(int status);

// The name an input gives its segment files: the file name without folder and
// extension, "stdin" for standard input.
std::string BaseName(const std::string& input);

// The end of an input: InputError when nothing was read; a warning when the
// frames decoded differ from the length its header declares; a note of the
// NaN and infinite samples read as 0 (nonfinite, as the handle counted them).
void CheckInputEnd(const std::string& name, const Source& source, long long nonfinite);

// The summary's fields of every command about the input and its way into the
// library: its channels, the sample type handed over, who resampled it, and
// the frames decoded and declared.
void SetInputFields(Record& summary, const Source& source, const LibraryFeed& feed, long long nonfinite);

// Reads the input to its end: every block of original frames goes to onBlock,
// then to the library's feed, whose chunks go to onChunk (the last may be
// shorter). A live input is handed on as it arrives.
void Stream(Source& source, LibraryFeed& feed, bool progress, const std::string& name,
            const std::function<void(const Block&)>& onBlock, const std::function<void(const Chunk&)>& onChunk);

}  // namespace okutool

#endif
