// oku: the input path, which turns audio as devices and files deliver it
// (interleaved channels, 16-bit or float samples, any of the input rates)
// into what both services analyse: mono 16-bit samples at an analysis rate.
#ifndef OKU_INPUTPATH_H
#define OKU_INPUTPATH_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "audiodata.h"

namespace oku {

// A resampling filter: a symmetric FIR of `taps` coefficients in Q15 (32768
// is a gain of 1, the upsampling gain `up` included), run on the input with
// up - 1 zeros after each sample, of whose outputs every down-th is kept.
// Each of its `up` polyphase branches sums to exactly 32768. `rippleDb` and
// `aliasDb` are the quantised design's bounds: 0 to kPassband of the
// analysis rate's Nyquist frequency within rippleDb, and nothing that folds
// onto 0 to that Nyquist frequency above -aliasDb.
struct FirDesign {
    int up, down, taps;
    const short* h;
    double rippleDb;  // passband ripple, peak to peak, of the quantised filter
    double aliasDb;   // its least attenuation of what the decimation folds into the analysed band
};

#include "resamplerfilters.inc"

// An input rate the services take: the rate they analyse it at and the
// filters in between (none for the four analysis rates themselves).
//
// The rule: a rate of the 11025 Hz family goes to 22050 Hz (or stays at
// 11025); every other rate goes to 16000 Hz (12000 Hz, which would have to be
// raised for it, goes to 8000). 16000 Hz is the rate speech is most often
// analysed at and keeps the speech band to 8 kHz; 22050 Hz is the one
// analysis rate the 11025 Hz family reaches by halving. Every conversion is
// halvings followed by one final stage of 2:1 or 2:3 (3:1 is 2:1 then 2:3,
// half the work of one 3:1 filter as sharp).
struct InputRate {
    int hz;
    int analysisHz;
    const FirDesign* stages[4];  // in order, null after the last
};

inline constexpr InputRate kInputRates[] = {
    {8000, 8000, {}},
    {11025, 11025, {}},
    {12000, 8000, {&kUp2Down3}},
    {16000, 16000, {}},
    {22050, 22050, {}},
    {24000, 16000, {&kUp2Down3}},
    {32000, 16000, {&kDown2}},
    {44100, 22050, {&kDown2}},
    {48000, 16000, {&kHalfband, &kUp2Down3}},
    {64000, 16000, {&kHalfband, &kDown2}},
    {88200, 22050, {&kHalfband, &kDown2}},
    {96000, 16000, {&kHalfband, &kHalfband, &kUp2Down3}},
    {176400, 22050, {&kHalfband, &kHalfband, &kDown2}},
    {192000, 16000, {&kHalfband, &kHalfband, &kHalfband, &kUp2Down3}},
};
inline constexpr std::size_t kInputRateCount = sizeof kInputRates / sizeof kInputRates[0];

// The row of a rate given exactly (48000.0 matches, 48000.5 does not); null otherwise.
const InputRate* FindInputRate(double rate);

// "Sampling rate: 37800 Hz is not one of 8000, 11025, ... Hz", for a refused rate.
std::string InputRateMessage(double rate);

// The most interleaved channels an input may have.
constexpr int kMaxChannels = 64;

// The mean of `channels` 16-bit values whose sum is `sum`, rounded to the
// nearest integer, a tie to the even one (it always fits 16 bits).
inline short MeanOfChannels(long sum, int channels);

// Turns `frames` frames of interleaved samples into one mono 16-bit sample
// each, and returns the number of NaN or infinite samples met.
// - 16-bit: the mean of the frame's channels (MeanOfChannels).
// - float (full scale -1 to 1): the frame's finite samples added in single
//   precision, in channel order (a NaN or infinite sample is not audio: it
//   counts as 0, and is counted), the sum times 32768 / channels (rounded to
//   single precision), held to -32768..32767, and rounded to the nearest
//   integer, a tie to the even one (as lrint in the default rounding mode).
//   One channel: x times 32768, rounded so. Every platform gives the same
//   samples: each float operation is rounded to single precision as it is
//   written, and none is fused or reordered.
std::uint64_t MixToMono(const float* in, std::size_t frames, int channels, short* out);
std::uint64_t MixToMono(const short* in, std::size_t frames, int channels, short* out);

// out[i x outStride] for i < count: the dot product of h[0..taps) with
// x[i x stride ..], rounded from Q15 (half up) and saturated to 16 bits.
// taps is a multiple of 16. The sums are exact: the designs keep every 32-bit
// lane of the vector ways inside 32 bits, and the lanes are added in 64.
typedef void (*DotManyFn)(const short* h, const short* x, std::size_t taps, std::size_t stride, std::size_t count,
                          short* out, std::size_t outStride);

// One stage of resampling, for a run of samples: FIR filtering with the
// design's zero insertion and decimation, centred, so that output j stands
// for input instant j x down / up exactly (the filter's delay taken out).
// Before the run's first sample the input counts as zeros; Finish does the
// same after its last. Everything is reserved at construction: any number of
// samples goes through without allocation.
class FirStage {
public:
    explicit FirStage(const FirDesign& design);

    // Filters n samples; writes the outputs they complete to out (room for
    // MaxOutputs(n) samples) and returns how many.
    std::size_t Push(const short* in, std::size_t n, short* out);
    // The end of the run: writes the outputs still owed, computed with zeros
    // after the run's last sample, and starts a new run. Owed are the outputs
    // whose whole span of input lies in the run: j x down / up + down / up is
    // at most the run's length, so that no instant the analysis reports lies
    // past the input. Returns how many (at most MaxOutputs(0)).
    std::size_t Finish(short* out);
    // Starts a new run, forgetting the samples of this one.
    void Reset();

    std::size_t MaxOutputs(std::size_t n) const;
    // The input samples held back for the filter's second half.
    int Lookahead() const { return _lookahead; }

private:
    // Computes the outputs whose inputs have all arrived, up to `limit`
    // (exclusive) in the stage's output count; returns how many were written.
    std::size_t Compute(long long limit, short* out);
    void Compact();

    static constexpr std::size_t kSlice = 1024;  // input samples taken at a time

    int _up, _down, _taps, _centre;
    DotManyFn _dotMany;          // the processor's way, chosen at construction
    int _branchTaps;             // taps per polyphase branch, padded with zeros
    std::vector<short> _branches;  // up rows of _branchTaps, branch k holds h[k], h[k + up], ...
    int _lookahead;
    int _history;                // zeros standing for the samples before the run
    std::vector<short> _buffer;  // input samples from index _first of the run on
    long long _first = 0;        // run index of _buffer[0]
    std::size_t _held = 0;       // samples of _buffer in use
    long long _received = 0;     // input samples of the run so far
    long long _produced = 0;     // outputs of the run so far
};

// The whole path for one stream, created for an input rate (one of
// kInputRates) and a channel count (1 to kMaxChannels). Input at an analysis
// rate in one channel of 16-bit samples passes through untouched.
class InputPath {
public:
    // Throws RateError naming the rates for another rate, std::invalid_argument
    // for a channel count outside 1 to kMaxChannels.
    InputPath(double rate, int channels);

    int Rate() const { return _rate->hz; }
    int AnalysisRate() const { return _rate->analysisHz; }
    int Channels() const { return _channels; }
    // True when 16-bit input reaches the analysis unchanged.
    bool Passthrough() const { return _stages.empty() && _channels == 1; }

    // Converts n interleaved samples (n a whole number of frames), replacing
    // the contents of `out` with the analysis samples they complete. `out`
    // grows only when it has too little room (see ReservedOutput).
    void Convert(const short* in, std::size_t n, AudioData& out);
    void Convert(const float* in, std::size_t n, AudioData& out);
    // The end of a run: replaces `out` with the analysis samples still held
    // back, and starts a new run.
    void Finish(AudioData& out);
    // Starts a new run, dropping what is held back.
    void Reset();

    // NaN or infinite float samples met since creation.
    std::uint64_t NonFinite() const { return _nonFinite; }
    // An instant of a run in analysis samples as an instant in input frames:
    // scaled by the two rates, rounded half up. Frame boundaries give exact
    // integers, and no instant of a run lies past its last input frame
    // (Finish analyses only whole analysis samples of input).
    long long ToInputFrames(long long analysisSamples) const;
    // The time from a sample's arrival until the analysis has it, in ms: the
    // stages' held-back samples.
    double LatencyMs() const;
    // Analysis samples a chunk of n input samples can give.
    std::size_t MaxOutput(std::size_t n) const;

private:
    template <typename Sample>
    void ConvertAny(const Sample* in, std::size_t n, AudioData& out);
    // Runs n mono samples through the stages, appending the results to out.
    void Resample(const short* in, std::size_t n, AudioData& out);

    static constexpr std::size_t kSlice = 1024;  // frames mixed at a time

    const InputRate* _rate;
    int _channels;
    std::vector<FirStage> _stages;
    std::vector<short> _mono;                       // one slice, mixed
    std::vector<short> _between[3];                 // the outputs of one stage for the next
    std::uint64_t _nonFinite = 0;
};

inline short MeanOfChannels(long sum, int channels)
{
    long q = sum / channels, r = sum % channels;
    if (r < 0) {  // floor division
        r += channels;
        --q;
    }
    if (2 * r > channels || (2 * r == channels && (q & 1) != 0))
        ++q;
    return static_cast<short>(q);
}

}  // namespace oku

#endif
