// oku: the voice-activity analyzer and the results it queues.
#ifndef OKU_AUDIOANALYZER_H
#define OKU_AUDIOANALYZER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audiodata.h"
#include "detail/energyhistogram.h"
#include "detail/highpassfilter.h"
#include "detail/parameters.h"

namespace oku {

// Base of everything the analyzer reports. Results are immutable and shared:
// a result taken from the queue stays valid after the analyzer is destroyed.
class AnalyzerResult {
public:
    enum ResultType : std::int32_t { RT_Event = 0, RT_AudioFrame = 1, RT_VolumeMeter = 2 };

    virtual ~AnalyzerResult() = default;
    virtual ResultType GetType() const = 0;
};

using AnalyzerResultPtr = std::shared_ptr<AnalyzerResult>;

// Speech started or ended. AboveVOR always comes right before SpeechStart and
// BelowVOR right before SpeechEnd, with the same time.
class AnalyzerEvent : public AnalyzerResult {
public:
    enum EventTag : std::int32_t { SpeechStart = 0, SpeechEnd = 1, BelowVOR = 2, AboveVOR = 3 };

    AnalyzerEvent(double timeMs, EventTag tag) : _timeMs(timeMs), _tag(tag) {}

    ResultType GetType() const override { return RT_Event; }
    EventTag GetTag() const { return _tag; }
    // Milliseconds from the start of the analyzer's current run; always a frame boundary.
    double GetTimeMs() const { return _timeMs; }

private:
    double _timeMs;
    EventTag _tag;
};

// One reading per chunk that completed at least one frame.
class AnalyzerVolumeMeter : public AnalyzerResult {
public:
    enum Info : std::int32_t { OK = 0, TooNoisy = 1, TooSoft = 2, TooLoud = 3 };

    AnalyzerVolumeMeter(Info info, double volumedBFS, double volume, double snrVolumePct,
                        double timeMs, bool isSpeechState)
        : _info(info), _volumedBFS(volumedBFS), _volume(volume), _snrVolumePct(snrVolumePct),
          _timeMs(timeMs), _isSpeechState(isSpeechState)
    {
    }

    ResultType GetType() const override { return RT_VolumeMeter; }
    Info GetInfo() const { return _info; }
    // Speech over noise as a percentage of the full SNR scale: at most 100, 0 in a pause,
    // negative in speech when the loudest frame lies below the noise level plus offset.
    double GetSNRVolumePct() const { return _snrVolumePct; }
    // Peak level in dBFS with a limited rate of fall, -90.309 to 0.
    double GetVolumedBFS() const { return _volumedBFS; }
    // The peak level mapped linearly from -90.309 dBFS (a peak of at most one
    // quantisation step) to 0 dBFS (full scale) onto 0 to 100 percent.
    double GetVolumedBFSPct() const;
    // Raw peak absolute sample value, 0 to 32768.
    double GetVolume() const { return _volume; }
    // The raw peak as a percentage of full scale (32768 is 100 percent).
    double GetVolumePct() const { return _volume / 32768.0 * 100.0; }
    // End of the last frame measured, in ms from the start of the current run.
    double GetTimeMs() const { return _timeMs; }
    bool IsSpeechState() const { return _isSpeechState; }

private:
    Info _info;
    double _volumedBFS;
    double _volume;
    double _snrVolumePct;
    double _timeMs;
    bool _isSpeechState;
};

// One frame of audio as it arrived (before filtering), flagged as inside or
// outside a speech segment. The samples are empty when the analyzer was built
// without frame data; the last frame emitted by Flush may be short.
class AnalyzerAudioFrame : public AnalyzerResult {
public:
    AnalyzerAudioFrame(int frameIndex, bool b, const AudioData* frame)
        : _frameIndex(frameIndex), _isSpeechSegmentFrame(b)
    {
        if (frame)
            _audioFrame = *frame;
    }

    ResultType GetType() const override { return RT_AudioFrame; }
    virtual const AudioData& GetData() const { return _audioFrame; }
    virtual int GetFrameIndex() const { return _frameIndex; }
    virtual bool IsSpeechSegmentFrame() const { return _isSpeechSegmentFrame; }

private:
    AudioData _audioFrame;
    int _frameIndex;
    bool _isSpeechSegmentFrame;
};

// A result as the analyzer queues it: by value, so that queuing and taking
// results allocates nothing once the queue has its working size. GetResult
// turns it into one of the classes above; TakeResult hands it out as it is.
struct QueuedResult {
    AnalyzerResult::ResultType type = AnalyzerResult::RT_Event;
    std::int32_t tag = 0;     // AnalyzerEvent::EventTag, or AnalyzerVolumeMeter::Info for a reading
    bool speech = false;      // the reading's speech state, or the frame's speech flag
    int frameIndex = 0;       // frames only
    double timeMs = 0.0;      // events and readings
    double volumedBFS = 0.0;  // readings: level, raw peak, SNR percentage
    double volume = 0.0;
    double snrPct = 0.0;
    AudioData samples;        // frames, when the analyzer supplies frame data
};

// A first-in first-out queue of results on a growable ring. Slots keep their
// sample buffers from one use to the next, so a queue that is filled and
// drained call after call allocates nothing once it has grown to its working
// size and its slots have held a frame each.
class ResultQueue {
public:
    static constexpr std::size_t kInitialSize = 256;

    ResultQueue() : _ring(kInitialSize) {}

    bool empty() const { return _count == 0; }
    std::size_t size() const { return _count; }
    std::size_t capacity() const { return _ring.size(); }

    // The slot for a new result, at the back; its sample buffer holds
    // whatever it held before, so the caller sets every field it uses.
    QueuedResult& push_back()
    {
        if (_count == _ring.size())
            Grow();
        QueuedResult& slot = _ring[(_head + _count) % _ring.size()];
        ++_count;
        return slot;
    }

    // The oldest result, valid until the next push_back. Precondition: not empty.
    QueuedResult& front() { return _ring[_head]; }

    // Drops the oldest result; its slot keeps what it holds until a later
    // push_back reuses it. Precondition: not empty.
    void pop_front()
    {
        _head = (_head + 1) % _ring.size();
        --_count;
    }

    // Reserves every slot's sample buffer for frames of n samples.
    void ReserveSamples(std::size_t n)
    {
        for (QueuedResult& r : _ring)
            r.samples.reserve(n);
    }

private:
    void Grow()
    {
        std::vector<QueuedResult> bigger(2 * _ring.size());
        for (std::size_t i = 0; i < _ring.size(); ++i)
            bigger[i] = std::move(_ring[(_head + i) % _ring.size()]);
        _ring.swap(bigger);
        _head = 0;
    }

    std::vector<QueuedResult> _ring;
    std::size_t _head = 0;
    std::size_t _count = 0;
};

// Cuts mono 16-bit audio into frames of about 20 ms, high-pass filters and
// measures each frame, decides between speech and pause, and queues events,
// audio frames and one volume meter reading per chunk.
//
// Settings: the parameter string keys of kAnalyzerSettings (settings.h), all
// optional, with their defaults there; the last six are the energy
// histogram's, whose "WindowSize" and "MinWindowSize" are derived from the
// two histogram durations. Millisecond settings become frame counts rounded
// to the nearest frame. "EOSTimeoutMs" keeps the value in force when a later
// parameter string omits it.
//
// Settings are not range-checked, with one exception: a "HistogramWindowSizeMs"
// that gives fewer than one or more than EnergyHistogram::kMaxWindowSize frames
// is rejected with std::invalid_argument naming the key. The speech window and
// a third of the end-of-speech timeout should stay below 199 frames so that
// frames are emitted before their ring slots are reused; beyond that the flags
// of emitted frames are unreliable but memory stays safe, since a frame is never
// emitted before it has been measured.
//
// Not thread-safe; instances share no state, so one per thread is fine.
class AudioAnalyzer {
public:
    enum State : std::int32_t { Pause = 0, Speech = 1 };
    using AudioData = oku::AudioData;

    // Throws std::invalid_argument: "Sampling rate" (only 8000, 11025, 16000
    // and 22050 are supported), "Invalid format" (malformed string or value),
    // or a message naming a rejected setting.
    AudioAnalyzer(const std::string& keyValuePairs, double samplingRate, bool supplyFrameData);

    void Reset();
    void UpdateParameters(const std::string& keyValuePairs);
    void Process(const AudioData& audioData);
    // The same for n samples at `samples` (null only when n is 0).
    void Process(const short* samples, std::size_t n);
    // Process for many analyzers at once: analyzers[i] takes the counts[i]
    // samples at samples[i] exactly as its own Process call would take them,
    // in the same results, while the frames of all of them are filtered side
    // by side (faster per analyzer than one call after the other). Analyzers
    // of different rates and chunks of different lengths (0 included) mix
    // freely. Throws std::invalid_argument, before any analyzer changes, when
    // an analyzer is null or appears twice, or samples[i] is null with
    // counts[i] above 0; std::bad_alloc before any analyzer changes when
    // memory for the chunks cannot be had.
    static void ProcessMany(AudioAnalyzer* const* analyzers, const short* const* samples,
                            const std::size_t* counts, std::size_t n);
    void Flush();
    // Takes the oldest result as a new object; false when none is waiting.
    bool GetResult(AnalyzerResultPtr& p);
    // Takes the oldest result as it was queued, without allocating, or null
    // when none is waiting. The result, its samples included, stays as it is
    // until the analyzer next queues a result (Process, ProcessMany, Flush).
    const QueuedResult* TakeResult();
    // Makes room, before anything changes, for a chunk of n samples, so that
    // a Process or ProcessMany call with a chunk of at most n samples
    // allocates nothing for its audio. Throws std::bad_alloc.
    void ReserveChunk(std::size_t n);
    void SetEOSTimeout(int timeoutMs);
    // Whether frames are queued as AnalyzerAudioFrame results (on after
    // construction). A caller that never reads them switches them off to save
    // their allocation; every other result stays exactly as it is.
    void SetFrameResults(bool on) { _frameResults = on; }
    int GetEOSTimeout() const { return _eosTimeoutMs; }
    int GetSamplesPerFrame() const { return _samplesPerFrame; }
    double GetFrameSizeMs() const { return _frameSizeMs; }
    // How many frames, counted from a frame's first sample, the analyzer may
    // hold it before handing it out with its speech flag: in a pause until
    // the speech window after it has been decided, in speech until a third of
    // the end-of-speech timeout has, and at the start of a run until the noise
    // level is first computed (the histogram's minimum window). Deciding a
    // frame takes the next one, hence two frames more. Near digital silence
    // the start can wait longer, up to the 200 frames of the rings, since
    // frames under 15 dB do not count towards the histogram's window.
    int GetFrameDelay() const;

    // For FindRepeat: the last repeat check that saw this analyzer.
    friend std::uint64_t& RepeatMark(AudioAnalyzer* a) { return a->_repeatMark; }

    // Samples the audio buffer holds room for from construction on: chunks
    // up to this length (about 370 ms at 22050 Hz) never grow it.
    static constexpr std::size_t kReservedChunk = 8192;

private:
    static constexpr int kRingSize = 200;  // frames held by both rings (about 4 s)

    // A chunk is processed in three steps, so that ProcessMany can measure the
    // frames of many analyzers together: Append adds the samples to the buffer
    // and returns how many whole frames it holds; each of them is measured
    // (filtered; the sum of the squares of the filtered samples and the peak of
    // the raw ones) and handed to TakeFrame in order; EndChunk queues the
    // chunk's volume reading and drops the frames from the buffer.
    std::size_t Append(const short* samples, std::size_t n);
    void TakeFrame(AudioData::const_iterator frame, double sumOfSquares);
    void EndChunk(std::size_t frames, int peak);
    void Process(int index);
    bool DetectSpeech();
    bool DetectPause();
    // Energy in dB of a frame of `count` samples whose squares sum to sumOfSquares:
    // 10 log10 of the mean square, 0 when that is at most 1.
    double ComputeEnergy(double sumOfSquares, std::size_t count) const;
    int GetNumFrames(int ms) const;
    void GenerateEventResult(double timeMs, AnalyzerEvent::EventTag tag);
    void GenerateFrameResults(long long index);
    // Queues the frame at _frameIndex, flagged with the current state, with
    // the n samples at first when frame data is on.
    void GenerateFrameResult(AudioData::const_iterator first, std::size_t n);
    // The reading of a chunk whose whole frames hold numSamples samples with
    // the given peak (measured while the frames were filtered).
    void GenerateVolumeMeterResult(long long numSamples, int peak);
    double GenerateLeftoverFrame();
    double GetdBFS(double val) const;

    HighpassFilter _highpassFilter;
    Parameters _parameters;
    bool _supplyFrameData;
    double _standardFrameSizeMs;
    double _frameSizeMs;
    double _samplingRate;
    int _samplesPerFrame;
    int _speechWindowSize;
    double _speechWindowFraction;
    int _eosTimeoutMs;
    int _numPauseFrames;
    int _pauseCounter;
    std::vector<double> _energyWindow;
    EnergyHistogram _histogram;
    int _readIndex;
    int _writeIndex;
    int _frameIndex;
    int _speechStartIndex;
    double _prevVolumedBFS;
    double _prevSNRVolume;
    double _maxDecayRateDbPerDs;
    double _fullScaleSNR;
    double _tooNoisyLeveldBFS;
    double _tooLoudAlignmentLeveldBFS;
    double _tooSoftWindowSizeMs;
    double _tooSoftSNR;
    double _minRecordingLeveldBFS;
    State _state;
    std::vector<AudioData> _audioFrames;
    AudioData _audioBuffer;
    ResultQueue _resultDeque;  // results waiting to be taken, oldest first
    std::vector<double> _frameSums;  // the measurements of a ProcessMany call, reused
    bool _frameResults = true;
    std::uint64_t _repeatMark = 0;
};

}  // namespace oku

#endif
