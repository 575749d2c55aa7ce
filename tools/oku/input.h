// Audio inputs of the oku command: files libsndfile reads, raw PCM from files,
// FIFOs or standard input, and their conversion to what the library takes.
#ifndef OKU_TOOL_INPUT_H
#define OKU_TOOL_INPUT_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct soxr;

namespace okutool {

// A problem with one input: reported as "oku: NAME: message"; the other inputs go on.
struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The sampling rates the command accepts from an input (it resamples them).
const long kMinInputRate = 1000;
const long kMaxInputRate = 768000;

// How a source holds its original samples: as libsndfile's ints (the sample in
// the top bits: lossless for every integer format) or as floats (float, double
// and lossy formats, lossless for float).
enum class SampleKind { Int, Float };

// A block of original frames, interleaved; one of the two pointers is set.
struct Block {
    const std::int32_t* ints = nullptr;
    const float* floats = nullptr;
    std::size_t frames = 0;
};

class Source {
public:
    virtual ~Source() = default;
    // The next block of at most maxFrames original frames; a live input returns
    // what has arrived (at least one frame). False at the end.
    virtual bool Read(Block& block, std::size_t maxFrames) = 0;

    long Rate() const { return _rate; }
    int Channels() const { return _channels; }
    SampleKind Kind() const { return _kind; }
    // libsndfile's subtype of the original samples (SF_FORMAT_PCM_16, SF_FORMAT_FLOAT, ...).
    int Subtype() const { return _subtype; }
    // Length in frames, or -1 when not known beforehand.
    long long Frames() const { return _frames; }
    long long FramesRead() const { return _framesRead; }

protected:
    long _rate = 0;
    int _channels = 1;
    SampleKind _kind = SampleKind::Int;
    int _subtype = 0;
    long long _frames = -1;
    long long _framesRead = 0;
};

// Raw input: signed 16-bit little-endian PCM at `rate` with `channels`.
struct RawFormat {
    long rate = 0;
    int channels = 1;
};

// Opens an input: "-" is standard input. Without raw, any file libsndfile
// reads (an unseekable one, such as a pipe, is first kept in an unlinked
// temporary file, since not every format can be read in one pass); with raw,
// the bytes as they arrive, from a file, a FIFO or standard input.
std::unique_ptr<Source> OpenSource(const std::string& name, const RawFormat* raw);

// Turns original frames into mono 16-bit samples at a supported rate: samples
// that are NaN or infinite count as 0 (and are counted), channels are
// averaged, another rate is resampled with libsoxr. Mono 16-bit input at a
// supported rate passes through unchanged.
class Converter {
public:
    Converter(const Source& source, int outRate);
    ~Converter();
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    void Push(const Block& block);
    // The end of the input: lets the resampler give out what it holds.
    void Finish();
    // Takes exactly n converted samples into chunk, or after Finish whatever is
    // left (fewer); false when there is not enough (or nothing left).
    bool Take(std::vector<short>& chunk, std::size_t n);

    long long NonFinite() const { return _nonFinite; }
    bool Exact() const { return _exact; }

private:
    void Resample(const float* in, std::size_t count);
    void Append(const float* samples, std::size_t count);

    int _channels;
    SampleKind _kind;
    bool _exact;
    bool _finished = false;
    soxr* _soxr = nullptr;
    long long _nonFinite = 0;
    std::vector<float> _mono;
    std::vector<short> _out;
    std::size_t _taken = 0;  // samples of _out already taken
};

}  // namespace okutool

#endif
