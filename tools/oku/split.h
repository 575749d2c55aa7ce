// --split: each speech segment of an input written to its own audio file (a
// clip) as the segment closes, with the input's own samples, in bounded memory.
#ifndef OKU_TOOL_SPLIT_H
#define OKU_TOOL_SPLIT_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "input.h"
#include "output.h"

namespace okutool {

// How the clips of a run are named and written.
struct ClipOptions {
    std::string dir;       // the folder they go to
    std::string name;      // the template of a clip's path under dir, without extension
    bool flac = false;     // FLAC instead of WAV
};

// A clip's path: the template with its fields filled in, under the folder,
// with the extension of the format. The fields: {base} the input's file name
// without folder and extension ("stdin" for standard input), {dir} the
// input's folder as given, {index} the segment's number (001, 002, ...),
// {start} and {end} its times in seconds (0.860). The path is made relative
// to the folder: empty parts and "." go, so that an absolute {dir} lands
// inside it, and ".." is refused.
class ClipNames {
public:
    // Throws std::invalid_argument for a template with an unknown field, a
    // brace that opens none, or no {index} (which alone keeps the clips of one
    // input apart).
    static void CheckTemplate(const std::string& name);
    static std::string Path(const ClipOptions& clips, const std::string& input, int index, double startS,
                            double endS);
    // What every clip path of an input has in common: the path with the
    // segment's fields left as markers. Two inputs of one shape would write
    // the same clips. Throws std::invalid_argument as Path does.
    static std::string Shape(const ClipOptions& clips, const std::string& input);
};

// One clip of a segment: frames [start, end) of the input.
struct ClipPiece {
    long long start = 0, end = 0;
    int index = 0;
    double startS = 0, endS = 0;
};

class SegmentWriter {
public:
    // The last historySeconds of audio are kept, so that a segment can begin
    // where the analyzer dates its start, before the moment it was recognised.
    // Throws InputError when the format cannot hold the input's samples.
    SegmentWriter(const ClipOptions& clips, const std::string& input, const Source& source, const FilePlan& plan,
                  double historySeconds);
    ~SegmentWriter();

    // Every block of original frames, in order.
    void Feed(const Block& block);
    // A segment starts at original frame `frame`: its frames go to a
    // temporary file in the folder as they come.
    void Start(long long frame);
    // The open segment ends with the last piece's end: it becomes its pieces'
    // clips (one piece: the temporary file renamed). Returns their paths.
    std::vector<std::string> End(const std::vector<ClipPiece>& pieces);

private:
    void WriteUpTo(long long frame);
    // Writes each piece's frames from the temporary file (its first frame `first`) to its path.
    void Cut(const std::string& temp, long long first, const std::vector<ClipPiece>& pieces,
             const std::vector<std::string>& paths);
    std::string Place(const ClipPiece& piece) const;

    ClipOptions _clips;
    std::string _input;
    const FilePlan& _plan;
    int _channels, _rate, _subtype, _container;
    bool _float;
    long long _capacity;        // frames the ring holds
    std::vector<std::int32_t> _ints;
    std::vector<float> _floats;
    long long _fed = 0;         // frames fed so far
    std::unique_ptr<SoundWriter> _open;
    std::string _temp;          // the open segment's temporary file
    long long _first = 0;       // its first frame
    long long _written = 0;     // next frame to write to it
};

}  // namespace okutool

#endif
