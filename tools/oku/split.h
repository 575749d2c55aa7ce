// --split: each speech segment of an input written to its own WAV file as the
// segment closes, in the input's own sample format, with bounded memory.
#ifndef OKU_TOOL_SPLIT_H
#define OKU_TOOL_SPLIT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "input.h"
#include "output.h"

namespace okutool {

class SegmentWriter {
public:
    // Files go to dir as BASE-NNN-START.wav (speech16k-001-0.860s.wav). The
    // last historySeconds of audio are kept, so that a segment can begin where
    // the analyzer dates its start, before the moment it was recognised.
    SegmentWriter(const std::string& dir, const std::string& base, const Source& source, const FilePlan& plan,
                  double historySeconds);
    ~SegmentWriter();

    // Every block of original frames, in order.
    void Feed(const Block& block);
    // A segment starts at original frame `frame` (startS seconds into the input).
    void Start(long long frame, double startS);
    // The open segment ends before original frame `frame`.
    void End(long long frame);
    // The end of the input: an open segment ends with the last frame.
    void Finish();

    // The name of a segment file (BASE-NNN-START.wav), for the run's checks.
    static std::string FileName(const std::string& base, int index, double startS);

private:
    void WriteUpTo(long long frame);

    std::string _dir, _base;
    const FilePlan& _plan;
    int _channels, _rate, _subtype;
    bool _float;
    long long _capacity;        // frames the ring holds
    std::vector<std::int32_t> _ints;
    std::vector<float> _floats;
    long long _fed = 0;         // frames fed so far
    int _count = 0;             // segments started
    std::unique_ptr<WavWriter> _open;
    long long _written = 0;     // next frame to write to the open segment
};

}  // namespace okutool

#endif
