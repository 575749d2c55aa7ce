#include "audioanalyzer.h"

#include "measure.h"
#include "settings.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace oku {

namespace {

// dBFS of one quantisation step, the floor of every dBFS level: 20 log10(1 / 32768).
const double kdBFSOfOneStep = 20.0 * std::log10(1.0 / 32768.0);

// Truncation toward zero that saturates instead of overflowing (NaN gives 0):
// settings are not range-checked, and a conversion must never be undefined.
int TruncateToInt(double x)
{
    if (!(x == x))
        return 0;
    if (x >= 2147483647.0)
        return INT_MAX;
    if (x <= -2147483648.0)
        return INT_MIN;
    return static_cast<int>(x);
}

}  // namespace

double AnalyzerVolumeMeter::GetVolumedBFSPct() const
{
    return (_volumedBFS - kdBFSOfOneStep) / -kdBFSOfOneStep * 100.0;
}

AudioAnalyzer::AudioAnalyzer(const std::string& keyValuePairs, double samplingRate, bool supplyFrameData)
    : _highpassFilter(samplingRate),
      _supplyFrameData(supplyFrameData),
      _standardFrameSizeMs(20.0),
      _samplingRate(samplingRate),
      _histogram(Parameters())
{
    _samplesPerFrame = static_cast<int>(_standardFrameSizeMs * samplingRate / 1000);
    _frameSizeMs = _samplesPerFrame / samplingRate * 1000;
    _eosTimeoutMs = static_cast<int>(kAnalyzerSettings[kEOSTimeoutMs].defaultValue);
    UpdateParameters(keyValuePairs);
    Reset();
    // Everything a stream needs in steady state is reserved here, so that
    // processing allocates nothing once results are taken as they come; the
    // process-wide choice of vector lanes, made once (under a guard that may
    // lock or allocate), is made here too rather than in a processing call.
    ReserveChunk(kReservedChunk);
    GetMeasureIsa();
    if (_supplyFrameData) {
        for (AudioData& frame : _audioFrames)
            frame.reserve(static_cast<std::size_t>(_samplesPerFrame));
        _resultDeque.ReserveSamples(static_cast<std::size_t>(_samplesPerFrame));
    }
}

void AudioAnalyzer::ReserveChunk(std::size_t n)
{
    oku::ReserveChunk(_audioBuffer, _frameSums, n, static_cast<std::size_t>(_samplesPerFrame));
}

void AudioAnalyzer::UpdateParameters(const std::string& keyValuePairs)
{
    const Setting* const s = kAnalyzerSettings;
    _parameters = Parameters(keyValuePairs);
    _speechWindowSize = GetNumFrames(Read<int>(_parameters, s[kSpeechWindowSizeMs]));
    _speechWindowFraction = Read<double>(_parameters, s[kSpeechWindowFraction]);
    if (_parameters.Exists(s[kEOSTimeoutMs].key))
        _eosTimeoutMs = _parameters.Get<int>(s[kEOSTimeoutMs].key);
    _numPauseFrames = GetNumFrames(_eosTimeoutMs);

    Parameters par = _parameters;
    const int windowFrames = GetNumFrames(Read<int>(_parameters, s[kHistogramWindowSizeMs]));
    if (windowFrames < 1 || static_cast<unsigned int>(windowFrames) > EnergyHistogram::kMaxWindowSize)
        throw std::invalid_argument("HistogramWindowSizeMs must give 1 to 16777216 frames");
    par.Set<int>("WindowSize", windowFrames);
    par.Set<int>("MinWindowSize", GetNumFrames(Read<int>(_parameters, s[kHistogramMinWindowSizeMs])));
    _histogram.UpdateParameters(par);

    _maxDecayRateDbPerDs = Read<double>(_parameters, s[kMaxDecayRateDbPerDs]);
    _fullScaleSNR = Read<double>(_parameters, s[kFullScaleSNR]);
    _tooNoisyLeveldBFS = Read<double>(_parameters, s[kTooNoisyLeveldBFS]);
    _tooLoudAlignmentLeveldBFS = Read<double>(_parameters, s[kTooLoudAlignmentLeveldBFS]);
    _tooSoftWindowSizeMs = Read<double>(_parameters, s[kTooSoftWindowSizeMs]);
    _tooSoftSNR = Read<double>(_parameters, s[kTooSoftSNR]);
    _minRecordingLeveldBFS = Read<double>(_parameters, s[kMinRecordingLeveldBFS]);
}

void AudioAnalyzer::Reset()
{
    _highpassFilter.Reset();
    _histogram.Reset();
    _energyWindow.assign(kRingSize, 0.0);
    // The frame buffers keep their memory: every frame is written before it is read.
    _audioFrames.resize(kRingSize);
    for (AudioData& frame : _audioFrames)
        frame.clear();
    _audioBuffer.clear();
    _pauseCounter = 0;
    _readIndex = 0;
    _writeIndex = 0;
    _frameIndex = 0;
    _state = Pause;
    _speechStartIndex = 0;
    _prevVolumedBFS = 0.0;
    _prevSNRVolume = 0.0;
}

void AudioAnalyzer::SetEOSTimeout(int timeoutMs)
{
    _eosTimeoutMs = timeoutMs;
    _numPauseFrames = GetNumFrames(timeoutMs);
}

int AudioAnalyzer::GetNumFrames(int ms) const
{
    // |ms| / 19.95 always fits an int, so the truncation is defined for every input.
    return static_cast<int>(ms / _frameSizeMs + 0.5);
}

int AudioAnalyzer::GetFrameDelay() const
{
    const long long start = std::min<long long>(static_cast<long long>(_histogram.GetMinWindowSize()), kRingSize);
    const long long delay = std::max({start, static_cast<long long>(_speechWindowSize) + 2,
                                      static_cast<long long>(_numPauseFrames / 3) + 2, 1LL});
    return static_cast<int>(std::min<long long>(delay, INT_MAX));
}

void AudioAnalyzer::Process(const AudioData& audioData)
{
    Process(audioData.data(), audioData.size());
}

void AudioAnalyzer::Process(const short* samples, std::size_t n)
{
    const X87DoublePrecision precision;
    const std::size_t frames = Append(samples, n);
    const std::ptrdiff_t samplesPerFrame = _samplesPerFrame;
    int peak = 0;
    for (std::size_t f = 0; f < frames; ++f) {
        const AudioData::const_iterator frame = _audioBuffer.begin() + static_cast<std::ptrdiff_t>(f) * samplesPerFrame;
        TakeFrame(frame, _highpassFilter.Measure(frame, frame + samplesPerFrame, &peak));
    }
    EndChunk(frames, peak);
}

void AudioAnalyzer::ProcessMany(AudioAnalyzer* const* analyzers, const short* const* samples,
                                const std::size_t* counts, std::size_t n)
{
    const X87DoublePrecision precision;
    CheckMany("ProcessMany", analyzers, samples, counts, n);
    if (n == 0)
        return;

    // Everything that may fail to allocate comes before any analyzer changes.
    for (std::size_t i = 0; i < n; ++i)
        analyzers[i]->ReserveChunk(counts[i]);
    // Batches of streams on the stack: the call itself allocates nothing.
    FrameRun runs[kManyBatch];
    int peaks[kManyBatch];
    for (std::size_t first = 0; first < n; first += kManyBatch) {
        const std::size_t m = std::min(kManyBatch, n - first);
        for (std::size_t i = 0; i < m; ++i) {
            AudioAnalyzer& a = *analyzers[first + i];
            peaks[i] = 0;
            const std::size_t frames = a.Append(samples[first + i], counts[first + i]);
            runs[i] = FrameRun{&a._highpassFilter, a._audioBuffer.data(), frames,
                               static_cast<std::size_t>(a._samplesPerFrame), a._frameSums.data(), &peaks[i]};
        }
        MeasureRuns(runs, m);
        for (std::size_t i = 0; i < m; ++i) {
            AudioAnalyzer& a = *analyzers[first + i];
            const std::ptrdiff_t samplesPerFrame = a._samplesPerFrame;
            for (std::size_t f = 0; f < runs[i].frames; ++f)
                a.TakeFrame(a._audioBuffer.begin() + static_cast<std::ptrdiff_t>(f) * samplesPerFrame,
                            a._frameSums[f]);
            a.EndChunk(runs[i].frames, peaks[i]);
            ShrinkIfOver(a._frameSums, 4096);
        }
    }
}

std::size_t AudioAnalyzer::Append(const short* samples, std::size_t n)
{
    _audioBuffer.insert(_audioBuffer.end(), samples, samples + n);
    return _audioBuffer.size() / static_cast<std::size_t>(_samplesPerFrame);
}

void AudioAnalyzer::TakeFrame(AudioData::const_iterator frame, double sumOfSquares)
{
    const int slot = _writeIndex % kRingSize;
    if (_supplyFrameData)
        _audioFrames[slot].assign(frame, frame + _samplesPerFrame);
    const double energy = ComputeEnergy(sumOfSquares, static_cast<std::size_t>(_samplesPerFrame));
    _histogram.Update(energy);
    _energyWindow[slot] = energy;
    ++_writeIndex;
    if (_histogram.IsThresholdComputed() || _writeIndex >= kRingSize)
        Process(_writeIndex - 1);
}

void AudioAnalyzer::EndChunk(std::size_t frames, int peak)
{
    const std::size_t samples = frames * static_cast<std::size_t>(_samplesPerFrame);
    GenerateVolumeMeterResult(static_cast<long long>(samples), peak);
    _audioBuffer.erase(_audioBuffer.begin(), _audioBuffer.begin() + static_cast<std::ptrdiff_t>(samples));
    ShrinkIfOver(_audioBuffer, 1u << 16);
}

double AudioAnalyzer::ComputeEnergy(double sumOfSquares, std::size_t count) const
{
    // Every square is below 2^31 and a frame has at most 441 samples, so the
    // sum is an exact integer in double precision whatever the order.
    const double mean = count != 0 ? sumOfSquares / static_cast<double>(count) : sumOfSquares;
    return mean > 1.0 ? 10.0 * std::log10(mean) : 0.0;
}

void AudioAnalyzer::Process(int index)
{
    while (_readIndex < index) {
        const int r = _readIndex;
        if (_state == Pause) {
            GenerateFrameResults(static_cast<long long>(r) - _speechWindowSize);
            if (DetectSpeech()) {
                _state = Speech;
                _pauseCounter = 0;
                _speechStartIndex = r;
                const double t = _frameIndex * GetFrameSizeMs();
                GenerateEventResult(t, AnalyzerEvent::AboveVOR);
                GenerateEventResult(t, AnalyzerEvent::SpeechStart);
                GenerateFrameResults(r);
            }
        } else if (DetectPause()) {
            const double t = _frameIndex * GetFrameSizeMs();
            GenerateEventResult(t, AnalyzerEvent::BelowVOR);
            GenerateEventResult(t, AnalyzerEvent::SpeechEnd);
            _state = Pause;
        } else {
            GenerateFrameResults(static_cast<long long>(r) - _numPauseFrames / 3);
        }
        ++_readIndex;
    }
}

bool AudioAnalyzer::DetectSpeech()
{
    const double energyThreshold = _histogram.GetThreshold(false);
    const long long r = _readIndex;
    const long long stop = std::max(r - _speechWindowSize, -1LL);
    // The window (stop, r] may be longer than the ring; frames then wrap onto
    // the same slots, so count whole turns of the ring at once.
    const long long length = r - stop;
    long long n = 0;
    if (length >= kRingSize) {
        long long loudInRing = 0;
        for (int i = 0; i < kRingSize; ++i)
            loudInRing += _energyWindow[i] >= energyThreshold;
        n = loudInRing * (length / kRingSize);
    }
    for (long long i = r; i > r - length % kRingSize; --i)
        n += _energyWindow[static_cast<std::size_t>(i % kRingSize)] >= energyThreshold;
    return static_cast<double>(n) >= _speechWindowSize * _speechWindowFraction;
}

bool AudioAnalyzer::DetectPause()
{
    const double energyThreshold = _histogram.GetThreshold(true);
    const int r = _readIndex;
    const int a = std::max(r - 1, 0);
    const int b = std::min(r + 1, _writeIndex);
    double sum = 0.0;
    for (int i = a; i < b; ++i)
        sum += _energyWindow[i % kRingSize];
    const double smoothedEnergy = sum / (b - a);
    if (smoothedEnergy < energyThreshold) {
        ++_pauseCounter;
        return _pauseCounter >= _numPauseFrames;
    }
    _pauseCounter = 0;
    return false;
}

void AudioAnalyzer::GenerateEventResult(double timeMs, AnalyzerEvent::EventTag tag)
{
    QueuedResult& r = _resultDeque.push_back();
    r.type = AnalyzerResult::RT_Event;
    r.tag = tag;
    r.timeMs = timeMs;
}

void AudioAnalyzer::GenerateFrameResult(const AudioData::const_iterator first, std::size_t n)
{
    QueuedResult& r = _resultDeque.push_back();
    r.type = AnalyzerResult::RT_AudioFrame;
    r.frameIndex = _frameIndex;
    r.speech = _state == Speech;
    if (_supplyFrameData)
        r.samples.assign(first, first + static_cast<std::ptrdiff_t>(n));
    else
        r.samples.clear();
}

void AudioAnalyzer::GenerateFrameResults(long long index)
{
    // Never emit a frame that has not been measured. With sane settings the
    // index never exceeds the last measured frame; a negative speech window or
    // timeout would otherwise run emission ahead of the audio. (The index is
    // formed in 64 bits: frame number minus a negative setting may pass INT_MAX.)
    index = std::min<long long>(index, _writeIndex - 1);
    if (!_frameResults) {
        if (_frameIndex <= index)
            _frameIndex = static_cast<int>(index + 1);
        return;
    }
    while (_frameIndex <= index) {
        const AudioData& frame = _audioFrames[static_cast<std::size_t>(_frameIndex % kRingSize)];
        GenerateFrameResult(frame.begin(), frame.size());
        ++_frameIndex;
    }
}

double AudioAnalyzer::GenerateLeftoverFrame()
{
    const std::size_t n = _audioBuffer.size();
    if (n > 0) {
        if (_frameResults)
            GenerateFrameResult(_audioBuffer.begin(), n);
        _audioBuffer.clear();
    }
    return static_cast<double>(n) / _samplingRate * 1000;
}

void AudioAnalyzer::Flush()
{
    const X87DoublePrecision precision;
    Process(_writeIndex);
    GenerateFrameResults(_writeIndex - 1);
    const double leftoverTimeMs = GenerateLeftoverFrame();
    if (_state == Speech) {
        const double timeMs = _writeIndex * GetFrameSizeMs() + leftoverTimeMs;
        GenerateEventResult(timeMs, AnalyzerEvent::BelowVOR);
        GenerateEventResult(timeMs, AnalyzerEvent::SpeechEnd);
    }
    _readIndex = 0;
    _writeIndex = 0;
    _frameIndex = 0;
    _pauseCounter = 0;
    _state = Pause;
}

bool AudioAnalyzer::GetResult(AnalyzerResultPtr& p)
{
    if (_resultDeque.empty())
        return false;
    const QueuedResult& r = _resultDeque.front();
    switch (r.type) {
    case AnalyzerResult::RT_Event:
        p = std::make_shared<AnalyzerEvent>(r.timeMs, static_cast<AnalyzerEvent::EventTag>(r.tag));
        break;
    case AnalyzerResult::RT_VolumeMeter:
        p = std::make_shared<AnalyzerVolumeMeter>(static_cast<AnalyzerVolumeMeter::Info>(r.tag), r.volumedBFS,
                                                  r.volume, r.snrPct, r.timeMs, r.speech);
        break;
    case AnalyzerResult::RT_AudioFrame:
        p = std::make_shared<AnalyzerAudioFrame>(r.frameIndex, r.speech, _supplyFrameData ? &r.samples : nullptr);
        break;
    }
    _resultDeque.pop_front();
    return true;
}

const QueuedResult* AudioAnalyzer::TakeResult()
{
    if (_resultDeque.empty())
        return nullptr;
    const QueuedResult* r = &_resultDeque.front();
    _resultDeque.pop_front();
    return r;
}

double AudioAnalyzer::GetdBFS(double val) const
{
    return 20.0 * std::log10(std::max(val, 1.0) / 32768);
}

void AudioAnalyzer::GenerateVolumeMeterResult(long long numSamples, int maxVal)
{
    if (numSamples == 0)
        return;
    double volumedBFS = GetdBFS(maxVal);
    const long long numFrames = numSamples / _samplesPerFrame;

    const double maxChange = numFrames * _maxDecayRateDbPerDs * GetFrameSizeMs() / 100.0;
    if (_prevVolumedBFS - maxChange > volumedBFS)
        volumedBFS = _prevVolumedBFS - maxChange;
    _prevVolumedBFS = volumedBFS;

    // The loudest frame of the chunk; a chunk longer than the ring can only
    // look at the ring's 200 most recent frames.
    double maxEnergy = 0.0;
    const int ringFrames = static_cast<int>(std::min<long long>(numFrames, kRingSize));
    for (int i = std::max(_writeIndex - ringFrames, 0); i < _writeIndex; ++i)
        maxEnergy = std::max(maxEnergy, _energyWindow[i % kRingSize]);

    double snrVolume = maxEnergy;
    if (_prevSNRVolume - maxChange > snrVolume)
        snrVolume = _prevSNRVolume - maxChange;
    _prevSNRVolume = snrVolume;

    const double noiseWithOffset = _histogram.GetNoiseLevelWithOffset();
    if (_state == Speech)
        snrVolume = snrVolume - std::max(0.0, noiseWithOffset);
    else
        snrVolume = 0.0;
    const double fullScale = std::max(_fullScaleSNR, _minRecordingLeveldBFS - kdBFSOfOneStep - noiseWithOffset);
    snrVolume = std::min(snrVolume / fullScale, 1.0) * 100.0;

    AnalyzerVolumeMeter::Info info = AnalyzerVolumeMeter::OK;
    const double noiseLevel = _histogram.GetNoiseLevel();
    if (noiseLevel + kdBFSOfOneStep > _tooNoisyLeveldBFS) {
        info = AnalyzerVolumeMeter::TooNoisy;
    } else if (maxEnergy + kdBFSOfOneStep > _tooLoudAlignmentLeveldBFS) {
        info = AnalyzerVolumeMeter::TooLoud;
    } else if (_state == Speech &&
               _writeIndex - _speechStartIndex > GetNumFrames(TruncateToInt(_tooSoftWindowSizeMs))) {
        const double snr = _histogram.GetSNR();
        if (snr < _tooSoftSNR || snr + noiseLevel < _minRecordingLeveldBFS - kdBFSOfOneStep)
            info = AnalyzerVolumeMeter::TooSoft;
    }

    QueuedResult& r = _resultDeque.push_back();
    r.type = AnalyzerResult::RT_VolumeMeter;
    r.tag = info;
    r.volumedBFS = volumedBFS;
    r.volume = static_cast<double>(maxVal);
    r.snrPct = snrVolume;
    r.timeMs = _writeIndex * GetFrameSizeMs();
    r.speech = _state == Speech;
}

}  // namespace oku
