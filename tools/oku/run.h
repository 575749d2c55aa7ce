// Running the analyzer or the gain control over one input.
#ifndef OKU_TOOL_RUN_H
#define OKU_TOOL_RUN_H

#include <string>

#include "options.h"
#include "report.h"

namespace okutool {

// Which input of how many (for plot names) and whether it is read live.
struct InputSlot {
    std::string name;
    int index = 0;
    int count = 1;
    bool live = false;  // print events as they happen (standard input, single input)
};

// Each throws InputError (or std::runtime_error) for a problem with the input;
// output goes to the writer.
void RunVad(const InputSlot& slot, const Options& options, Writer& writer);
void RunAgc(const InputSlot& slot, const Options& options, Writer& writer);

// Samples per library call for a chunk length in ms (at least one).
std::size_t ChunkSamples(double chunkMs, int rate);

// Notes on stderr what was done to bring the input to a supported format.
class Source;
void NoteConversion(const std::string& name, const Source& source);

}  // namespace okutool

#endif
