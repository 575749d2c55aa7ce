// Audio inputs of the oku command: files libsndfile reads, raw PCM from files,
// FIFOs or standard input, and how their frames are handed to the library.
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

// The sampling rates the command accepts from an input: the library's own input
// rates are handed over as they are, any other is resampled with libsoxr first.
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
    // The length the file's header declares, in frames, or -1 when it declares
    // none (see Declared in input.cpp); compared with FramesRead at the end.
    long long Declared() const { return _declared; }

protected:
    long _rate = 0;
    int _channels = 1;
    SampleKind _kind = SampleKind::Int;
    int _subtype = 0;
    long long _frames = -1;
    long long _framesRead = 0;
    long long _declared = -1;
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

// What the library is handed: a chunk of frames, interleaved, as 16-bit
// samples or as floats of full scale -1 to 1 (one of the two pointers is set).
struct Chunk {
    const short* shorts = nullptr;
    const float* floats = nullptr;
    std::size_t frames = 0;
};

// How an input's frames reach the library. At one of the library's input
// rates they go as the file holds them: 16-bit PCM as 16-bit samples, every
// other encoding as floats (integers scaled by 2^-31, exactly as libsndfile
// reads them as floats), all channels interleaved; the library mixes and
// converts. Another rate is first resampled with libsoxr (every channel, in
// floats) to the nearest analysis rate; NaN and infinities are then taken as
// 0 here, and counted, before they could spread through the resampler.
class LibraryFeed {
public:
    LibraryFeed(const Source& source, double chunkMs);
    ~LibraryFeed();
    LibraryFeed(const LibraryFeed&) = delete;
    LibraryFeed& operator=(const LibraryFeed&) = delete;

    // The rate the library's handle is opened with, and how the input gets there.
    int Rate() const { return _rate; }
    int Channels() const { return _channels; }
    bool Floats() const { return _floats; }
    bool Resampled() const { return _soxr != nullptr; }
    // Frames of the input rate to read at a time, so that a live input is
    // handed on as soon as a chunk of it has arrived.
    std::size_t BlockFrames() const { return _blockFrames; }

    void Push(const Block& block);
    // The end of the input: lets the resampler give out what it holds.
    void Finish();
    // The next chunk of ChunkFrames() frames, or after Finish whatever is left
    // (fewer); false when there is not enough (or nothing left). Valid until
    // the next call.
    bool Take(Chunk& chunk);
    std::size_t ChunkFrames() const { return _chunkFrames; }

    // A position the library gives (frames at Rate()) as a frame of the input,
    // never past the frames read so far.
    long long InputFrame(long long position, long long framesRead) const;
    // NaN or infinite samples taken as 0 before resampling.
    long long NonFinite() const { return _nonFinite; }

private:
    void Resample(const float* in, std::size_t frames);

    int _channels;
    long _inputRate;
    int _rate;
    bool _floats;
    SampleKind _kind;
    std::size_t _chunkFrames;
    std::size_t _blockFrames;
    soxr* _soxr = nullptr;
    bool _finished = false;
    long long _nonFinite = 0;
    std::vector<short> _shorts;  // frames waiting, when the library takes 16-bit samples
    std::vector<float> _out;     // frames waiting, when it takes floats
    std::vector<float> _in;      // a block as floats, for libsoxr
    std::size_t _taken = 0;      // samples already handed out
};

}  // namespace okutool

#endif
