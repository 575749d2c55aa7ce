// Audio inputs of the oku command: files and standard input, mixed down to mono
// and brought to a sampling rate the library supports.
#ifndef OKU_TOOL_INPUT_H
#define OKU_TOOL_INPUT_H

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace okutool {

// A problem with one input: reported as "oku: NAME: message", the other inputs go on.
struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The supported rate nearest to `rate` (8000, 11025, 16000 or 22050 Hz).
int NearestSupportedRate(long rate);

// Delivers an input as mono 16-bit samples at Rate(), chunk by chunk.
class Source {
public:
    virtual ~Source() = default;
    // Replaces `chunk` by the next `n` samples (fewer at the end); false when none are left.
    virtual bool Read(std::vector<short>& chunk, std::size_t n) = 0;

    int Rate() const { return _rate; }
    long OriginalRate() const { return _originalRate; }
    int Channels() const { return _channels; }
    // Length in frames at the original rate, or -1 for a stream of unknown length.
    long long OriginalFrames() const { return _originalFrames; }
    // Frames of the original consumed so far (for a progress bar).
    long long OriginalFramesRead() const { return _originalFramesRead; }
    bool Resampled() const { return _rate != _originalRate; }
    // Original, interleaved 16-bit frames [from, from + count), for cutting
    // segments; only sources that can go back (files, or inputs kept in memory).
    virtual std::vector<short> OriginalFramesAt(long long from, long long count) = 0;

protected:
    int _rate = 0;
    long _originalRate = 0;
    int _channels = 1;
    long long _originalFrames = -1;
    long long _originalFramesRead = 0;
};

// Opens a file, or standard input for "-": raw s16le at rawRate with rawChannels when
// raw is set, otherwise a whole audio file read from the stream. keepOriginal makes
// standard input remember its original frames for OriginalFramesAt.
std::unique_ptr<Source> OpenSource(const std::string& name, bool raw, long rawRate, int rawChannels,
                                   bool keepOriginal);

}  // namespace okutool

#endif
