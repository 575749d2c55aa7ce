// oku: the automatic gain control and its diagnostic log.
#ifndef OKU_AGC_H
#define OKU_AGC_H

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "audiodata.h"
#include "detail/highpassfilter.h"

namespace oku {

// Proposes the next input gain from captured audio and the gain in force.
//
// It buffers audio until at least "MinUpdateIntervalMs" (120 ms) of whole 20 ms
// frames are there, filters and measures every frame, takes a pause level and
// a speech level from the tails of a sliding histogram of frame levels, follows
// speech and pauses, and raises or lowers the gain: up when the whole signal is
// too quiet, down when speech is too loud, up by one small step while speech
// stays too low. Levels are dB of mean frame power (0 to about 90.3, not dBFS);
// gains are linear factors from "LeastGain" (0.001) to 1.
//
// Numbers: levels, gains and settings are stored as float; arithmetic between
// them is done in double and the result rounded to float where it is stored.
// A frame's level is 10 log10f of its mean square taken as a float, and a
// change of d dB multiplies the gain by powf(10, d / 20).
//
// Settings: the parameter string keys of kAgcSettings (settings.h), all
// optional, with their defaults there; milliseconds become frames by
// truncating division by 20.
//
// The constructor rejects, with std::invalid_argument naming the key, settings
// that would break the gain control: "MinUpdateIntervalMs" under 20 ms;
// "MinLowerLevelSizeMs" or "MinUpperLevelSizeMs" longer (in frames) than
// "MinUpdateIntervalMs"; a "WindowSizeMs" of under one frame, over 2^24
// frames, or shorter than either minimum level size; an "SNRWindowSizeMs" that
// gives under one or over 2^24 entries; a negative "ThresholdOffsetSpeech" (it
// is the smallest ratio the SNR history keeps); "CutoffFraction" outside
// [0, 1]; "LeastGain" outside (0, 1].
//
// Not thread-safe; instances share no state (except the starting gain of the
// random test mode), so one per thread is fine.
class AGC {
public:
    using AudioData = oku::AudioData;
    using ostreamptr = std::shared_ptr<std::ostream>;

    enum State : std::int32_t { Speech = 0, Initial = 1 };

    // The last control decision.
    class ControlInfo {
    public:
        enum ControlType : std::int32_t {
            Unchanged = 0,       // no change, or still collecting audio
            PauseTooLow = 1,     // raised: pause and speech level both too low
            SpeechTooLow = 2,    // raised by one step: speech stayed below the band
            SpeechTooHigh = 3,   // lowered: speech above the band
            OperatingLimit = 4,  // a raise ended at 1.0 or a lowering at the least gain
            GainEstimate = 5     // the caller's gain was 0: a starting gain was proposed
        };

        ControlInfo() : _controlType(Unchanged), _timeMs(0), _pauseLevel(0), _speechLevel(0) {}

        ControlType GetControlType() const { return _controlType; }
        double GetTimeMs() const { return _timeMs; }
        float GetPauseLevel() const { return _pauseLevel; }
        float GetSpeechLevel() const { return _speechLevel; }

    private:
        friend class AGC;
        ControlType _controlType;
        double _timeMs;
        float _pauseLevel;
        float _speechLevel;
    };

    // The last W non-negative levels as a ring and as counts per quarter-unit
    // bin, with percentile queries from either end.
    struct Histogram {
        static const int _scaleFactor = 4;

        int _wIndex;               // values accepted since Reset, folded into [W, 2W] once full
        float _minValue;           // values below it are ignored
        std::vector<float> _window;  // the ring, W entries
        std::vector<int> _histogram; // counts per bin, B bins

        // (0, 0) builds an empty histogram to be sized by SetSize; other sizes
        // are applied as SetSize applies them.
        Histogram(int windowSize, int histogramSize);
        // Throws std::invalid_argument unless both sizes are at least 1.
        void SetSize(int windowSize, int histogramSize);
        void SetMinValue(float x) { _minValue = x; }
        void Reset();
        // Precondition: x < _minValue, or 0 <= x * 4 < B.
        void Update(float x);
        int GetNumSamples() const;
        int GetWindowSize() const { return static_cast<int>(_window.size()); }
        // The lower edge of the first bin, counted from the bottom (b true) or
        // the top, at which at least percent percent of the values held and at
        // least minSamples values are reached. Preconditions: 0 <= percent <=
        // 100, at least one value held, at least minSamples values held.
        float GetLevel(int percent, bool b, int minSamples) const;
    };

    // Throws std::invalid_argument: "Sampling rate" (8000, 11025, 16000 and
    // 22050 Hz only), "Invalid format" (malformed string or value), or a
    // message naming a rejected setting.
    AGC(const std::string& keyValuePairs, int samplingRate);

    void Reset();
    void GetInfo(ControlInfo& i) const { i = _info; }
    // Attaches a stream that receives one line per gain update; empty switches it off.
    void SetLogStream(ostreamptr os) { _logStream = std::move(os); }
    // Gain updates made since construction (Reset does not clear it): the calls
    // that measured the collected audio and decided, one log line each. A host
    // tells an update from a call that only collected audio, or from a gain
    // estimate (curGain 0), by this count changing.
    long long GetNumUpdates() const { return _numUpdates; }

    // Takes a chunk and the gain in force and returns the proposed gain, or
    // curGain itself when no update took place. A curGain of 0 asks for a
    // starting gain. Throws std::invalid_argument, changing nothing, when
    // curGain is not in [0, 1] (NaN included).
    float ComputeGain(const AudioData& a, float curGain);
    // The same for n samples at `samples` (null only when n is 0).
    float ComputeGain(const short* samples, std::size_t n, float curGain);
    // ComputeGain for many gain controls at once: newGains[i] is what
    // agcs[i]->ComputeGain on the counts[i] samples at samples[i] with
    // curGains[i] would return, with the same effect on agcs[i], while the
    // frames of all of them are filtered side by side. Gain controls of
    // different rates and chunks of different lengths (0 included) mix freely.
    // Throws std::invalid_argument, before any gain control changes, when a
    // gain control is null or appears twice, samples[i] is null with counts[i]
    // above 0, or a gain is not in [0, 1]; std::bad_alloc before any change
    // when memory for the chunks cannot be had.
    static void ComputeGainMany(AGC* const* agcs, const short* const* samples, const std::size_t* counts,
                                const float* curGains, float* newGains, std::size_t n);
    // The same on a 16-bit scale where 65535 is full gain; returns gain itself,
    // bit for bit, when the gain did not change.
    unsigned short ComputeGain(const AudioData& a, unsigned short gain);
    // The gain halfway in dB between the least gain and 1.
    float GetMedianGain() const;
    // Test mode: a random walk of one "DeltaGainDb" step per update, at most
    // maxDiffdB away from the first gain this method ever saw in the process.
    // Uses rand(), which the library never seeds. Same curGain rule as ComputeGain.
    float ComputeRandomGain(const AudioData& a, float curGain, float maxDiffdB);

    static float ComputePower(AudioData::const_iterator first, AudioData::const_iterator last);
    // Makes room, before anything changes, for a chunk of n samples, so that
    // a ComputeGain or ComputeGainMany call with a chunk of at most n samples
    // allocates nothing for its audio. Throws std::bad_alloc.
    void ReserveChunk(std::size_t n);
    // Samples reserved at construction beyond an update interval's audio:
    // chunks up to this length (about 370 ms at 22050 Hz) never grow the buffer.
    static constexpr std::size_t kReservedChunk = 8192;

    // For FindRepeat: the last repeat check that saw this gain control.
    friend std::uint64_t& RepeatMark(AGC* a) { return a->_repeatMark; }

    static float ComputeClippingFraction(AudioData::const_iterator first, AudioData::const_iterator last);
    // A host's volume (0 to bound) as a gain: the ratio in double, rounded to float.
    static float GainFromVolume(long volume, long bound);
    // A gain as a host's volume: gain times the bound as a float, formed in
    // double and truncated, so that an unchanged 40000 of 65535 comes back as
    // 39999. Held to the bound, which for bounds above 2^24 the bound as a
    // float may exceed (up to LONG_MAX).
    static long VolumeFromGain(float gain, long bound);

    static int GetFrameSizeMs() { return 20; }
    static int GetSamplesPerFrame(int samplingRate) { return GetFrameSizeMs() * samplingRate / 1000; }

private:
    // A chunk is processed in steps, so that ComputeGainMany can measure the
    // frames of many gain controls together. Collect takes the chunk; it
    // returns true when the collected audio is due for an update, and false
    // with the result in gain otherwise. For an update, every whole frame of
    // the buffer is measured (filtered, the sum of the squares of the
    // filtered samples) and its sum handed to TakeFrame in order; Decide then
    // decides on the new gain and empties the buffer.
    bool Collect(const short* samples, std::size_t n, float curGain, float& gain);
    std::size_t GetFramesCollected() const;
    void TakeFrame(double sumOfSquares);
    float Decide(float curGain);
    float ComputeGain(float curGain, float clippingFraction);
    bool DetectSpeech(float a, float b) const;
    bool DetectPause(float a, float b) const;
    float GetThreshold(float a, float b, float offset) const;
    float NewGain(float curGain, float powdB);
    float GainFuncdB(float g, float powdB) const;
    void SetInfo(ControlInfo::ControlType t, float p, float s);
    // Elapsed time for the log: whole milliseconds, wrapping at 2^32.
    unsigned int LogTimeMs() const;
    // A start time for the log: whole milliseconds before now, at least 0.
    int LogStartMs(int frames) const;

    State _state;
    double _timeMs;
    int _samplingRate;
    int _speechWindowSize;
    float _speechFraction;
    int _pauseWindowSize;
    int _minUpdateFrames;
    int _minLowerLevelFrames;
    int _minUpperLevelFrames;
    float _pauseLowerBound;
    float _curPauseLowerBound;
    float _initialPauseLowerBound;
    float _pauseUpperBound;
    float _lowerBound;
    float _upperBound;
    bool _rising;
    float _upperLevelRef;
    float _upperLevelRefDelta;
    float _cutoffFraction;
    float _interpolationWeight;
    float _thresholdOffsetSpeech;
    float _thresholdOffsetPause;
    float _thresholdUpperBound;
    float _tooLowDeltaGaindB;
    float _tooHighDeltaGaindB;
    float _deltaGaindB;
    float _leastGain;
    ControlInfo _info;
    Histogram _h;
    Histogram _snrHist;
    HighpassFilter _f;
    AudioData _audioBuffer;
    std::vector<double> _frameSums;  // the measurements of a ComputeGainMany call, reused
    ostreamptr _logStream;
    long long _numUpdates = 0;
    std::uint64_t _repeatMark = 0;
    // Sizes past which the audio buffer and the frame sums give their memory
    // back after an unusually long chunk.
    static constexpr std::size_t kBufferLimit = std::size_t{1} << 16;
    static constexpr std::size_t kSumsLimit = 4096;
};

// Writes x to the stream os holds, if any, and flushes it, so that a line cut
// short by an abnormal end is complete up to its last item. Returns os for chaining.
template <typename T>
AGC::ostreamptr& operator<<(AGC::ostreamptr& os, const T& x)
{
    if (os) {
        *os << x;
        os->flush();
    }
    return os;
}

}  // namespace oku

#endif
