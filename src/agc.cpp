#include "agc.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "measure.h"
#include "parameters.h"
#include "settings.h"

namespace oku {

namespace {

// Largest ring either histogram may have: 2^24 entries (93 hours of frames).
const int kMaxWindowEntries = 1 << 24;

void Require(bool condition, const char* message)
{
    if (!condition)
        throw std::invalid_argument(message);
}

}  // namespace

// ---- AGC::Histogram --------------------------------------------------------

const int AGC::Histogram::_scaleFactor;

AGC::Histogram::Histogram(int windowSize, int histogramSize) : _wIndex(0), _minValue(0.0f)
{
    if (windowSize != 0 || histogramSize != 0)
        SetSize(windowSize, histogramSize);
}

void AGC::Histogram::SetSize(int windowSize, int histogramSize)
{
    if (windowSize < 1 || histogramSize < 1 || histogramSize > (1 << 20))
        throw std::invalid_argument("Histogram sizes must be at least 1");
    _window.resize(static_cast<std::size_t>(windowSize), 0.0f);
    _histogram.resize(static_cast<std::size_t>(histogramSize) * _scaleFactor, 0);
    Reset();
}

void AGC::Histogram::Reset()
{
    _wIndex = 0;
    std::fill(_histogram.begin(), _histogram.end(), 0);
}

void AGC::Histogram::Update(float x)
{
    if (x < _minValue)
        return;
    const float z = x * _scaleFactor;
    assert(z >= 0.0f && (int)z < (int)_histogram.size());
    const int s = static_cast<int>(_window.size());
    if (_wIndex >= s) {
        const float y = _window[static_cast<std::size_t>(_wIndex % s)] * _scaleFactor;
        --_histogram[static_cast<std::size_t>(y)];
        if (_wIndex >= 2 * s)
            _wIndex -= s;
    }
    ++_histogram[static_cast<std::size_t>(z)];
    _window[static_cast<std::size_t>(_wIndex % s)] = x;
    ++_wIndex;
}

int AGC::Histogram::GetNumSamples() const
{
    return std::min(static_cast<int>(_window.size()), _wIndex);
}

float AGC::Histogram::GetLevel(int percent, bool b, int minSamples) const
{
    assert(percent >= 0);
    assert(percent <= 100);
    assert(_wIndex > 0);
    const int n = GetNumSamples();
    assert(n >= minSamples);
    const long long x = static_cast<long long>(percent) * n;
    const int bins = static_cast<int>(_histogram.size());
    long long sum = 0;
    for (int i = b ? 0 : bins - 1; i >= 0 && i < bins; i += b ? 1 : -1) {
        sum += _histogram[static_cast<std::size_t>(i)];
        if (sum >= minSamples && 100 * sum >= x)
            return static_cast<float>(i) / _scaleFactor;
    }
    assert(false);
    return 0.0f;
}

// ---- AGC: configuration ------------------------------------------------------

AGC::AGC(const std::string& keyValuePairs, int samplingRate)
    : _state(Initial),
      _timeMs(0),
      _samplingRate(samplingRate),
      _rising(false),
      _upperLevelRef(0),
      _info(),
      _h(0, 0),
      _snrHist(0, 0),
      _f(static_cast<double>(samplingRate))
{
    const Parameters par(keyValuePairs);
    const Setting* const s = kAgcSettings;
    const int frameMs = GetFrameSizeMs();

    _minUpdateFrames = Read<int>(par, s[kMinUpdateIntervalMs]) / frameMs;
    Require(_minUpdateFrames >= 1, "MinUpdateIntervalMs must be at least 20");
    _minLowerLevelFrames = Read<int>(par, s[kMinLowerLevelSizeMs]) / frameMs;
    Require(_minUpdateFrames >= _minLowerLevelFrames,
            "MinLowerLevelSizeMs must not be longer than MinUpdateIntervalMs");
    _minUpperLevelFrames = Read<int>(par, s[kMinUpperLevelSizeMs]) / frameMs;
    Require(_minUpdateFrames >= _minUpperLevelFrames,
            "MinUpperLevelSizeMs must not be longer than MinUpdateIntervalMs");

    const int windowFrames = Read<int>(par, s[kWindowSizeMs]) / frameMs;
    Require(windowFrames >= 1 && windowFrames <= kMaxWindowEntries && windowFrames >= _minLowerLevelFrames &&
                windowFrames >= _minUpperLevelFrames,
            "WindowSizeMs must give 1 to 16777216 frames and hold MinLowerLevelSizeMs and MinUpperLevelSizeMs");
    _h.SetSize(windowFrames, 100);

    _speechWindowSize = Read<int>(par, s[kAgcSpeechWindowSizeMs]) / frameMs;
    _speechFraction = Read<float>(par, s[kSpeechFraction]);
    _pauseWindowSize = Read<int>(par, s[kPauseWindowSizeMs]) / frameMs;
    _cutoffFraction = Read<float>(par, s[kAgcCutoffFraction]);
    Require(_cutoffFraction >= 0.0f && _cutoffFraction <= 1.0f, "CutoffFraction must lie in [0, 1]");
    _interpolationWeight = Read<float>(par, s[kInterpolationWeight]);
    _thresholdOffsetSpeech = Read<float>(par, s[kAgcThresholdOffsetSpeech]);
    Require(_thresholdOffsetSpeech >= 0.0f, "ThresholdOffsetSpeech must not be negative");
    _thresholdOffsetPause = Read<float>(par, s[kAgcThresholdOffsetPause]);
    _thresholdUpperBound = Read<float>(par, s[kThresholdUpperBound]);

    const int snrWindow = Read<int>(par, s[kSNRWindowSizeMs]) / (frameMs * _minUpdateFrames);
    Require(snrWindow >= 1 && snrWindow <= kMaxWindowEntries,
            "SNRWindowSizeMs must give 1 to 16777216 updates of MinUpdateIntervalMs");
    _snrHist.SetSize(snrWindow, 100);
    _snrHist.SetMinValue(_thresholdOffsetSpeech);

    _pauseLowerBound = Read<float>(par, s[kPauseLowerBound]);
    _initialPauseLowerBound = Read<float>(par, s[kInitialPauseLowerBound]);
    _curPauseLowerBound = _initialPauseLowerBound;
    _pauseUpperBound = Read<float>(par, s[kPauseUpperBound]);
    _lowerBound = Read<float>(par, s[kLowerBound]);
    _upperBound = Read<float>(par, s[kUpperBound]);
    _upperLevelRefDelta = Read<float>(par, s[kUpperLevelRefDelta]);
    _tooLowDeltaGaindB = Read<float>(par, s[kTooLowDeltaGaindB]);
    _tooHighDeltaGaindB = Read<float>(par, s[kTooHighDeltaGaindB]);
    _deltaGaindB = Read<float>(par, s[kDeltaGainDb]);
    _leastGain = Read<float>(par, s[kLeastGain]);
    Require(_leastGain > 0.0f && _leastGain <= 1.0f, "LeastGain must lie in (0, 1]");

    Reset();
    // Room for an update interval's audio plus a chunk, so that the calls
    // of a running stream allocate nothing (held below the sizes at which a
    // buffer is given back after an unusually long chunk).
    const std::size_t frame = static_cast<std::size_t>(GetSamplesPerFrame(_samplingRate));
    const std::size_t interval = static_cast<std::size_t>(_minUpdateFrames) * frame;
    ReserveChunk(std::min<std::size_t>(interval + kReservedChunk, kBufferLimit));
    GetMeasureIsa();  // the process-wide one-time choice of lanes, here rather than in a processing call
}

void AGC::ReserveChunk(std::size_t n)
{
    oku::ReserveChunk(_audioBuffer, _frameSums, n, static_cast<std::size_t>(GetSamplesPerFrame(_samplingRate)));
}

void AGC::Reset()
{
    _state = Initial;
    _timeMs = 0;
    _upperLevelRef = 0;
    _rising = false;
    _h.Reset();
    _f.Reset();
    _curPauseLowerBound = _initialPauseLowerBound;
}

void AGC::SetInfo(ControlInfo::ControlType t, float p, float s)
{
    _info._controlType = t;
    _info._timeMs = _timeMs;
    _info._pauseLevel = p;
    _info._speechLevel = s;
}

unsigned int AGC::LogTimeMs() const
{
    return static_cast<unsigned int>(static_cast<unsigned long long>(_timeMs));
}

int AGC::LogStartMs(int frames) const
{
    const double start = _timeMs - static_cast<double>(GetFrameSizeMs()) * frames;
    if (!(start > 0.0))
        return 0;
    // Past 2^31 ms (24.8 days) the start wraps like the elapsed time does.
    return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long long>(start)));
}

// ---- AGC: measurement ----------------------------------------------------------

namespace {

// The level in dB of `count` samples whose squares sum exactly to sum.
float PowerFromSum(double sum, long long count)
{
    if (count == 0)
        return 0.0f;
    const double mean = sum / static_cast<double>(count);
    if (mean > 1.0)
        return static_cast<float>(10.0 * std::log10(static_cast<float>(mean)));
    return 0.0f;
}

}  // namespace

float AGC::ComputePower(AudioData::const_iterator first, AudioData::const_iterator last)
{
    long long sum = 0;
    const long long count = last - first;
    for (; first != last; ++first)
        sum += static_cast<long long>(*first) * *first;
    return PowerFromSum(static_cast<double>(sum), count);
}

float AGC::ComputeClippingFraction(AudioData::const_iterator first, AudioData::const_iterator last)
{
    if (first == last)
        return 0.0f;
    long long clipped = 0;
    const long long count = last - first;
    for (; first != last; ++first)
        clipped += (*first == 32767 || *first == -32768);
    return static_cast<float>(static_cast<double>(clipped) / static_cast<double>(count));
}

void AGC::TakeFrame(double sumOfSquares)
{
    _h.Update(PowerFromSum(sumOfSquares, GetSamplesPerFrame(_samplingRate)));
}

// ---- AGC: decision ---------------------------------------------------------------

float AGC::GetThreshold(float a, float b, float offset) const
{
    double t = std::max(static_cast<double>(a) + (static_cast<double>(b) - a) * _interpolationWeight,
                        static_cast<double>(a) + offset);
    if (t > _thresholdUpperBound)
        t = _thresholdUpperBound;
    return static_cast<float>(t);
}

bool AGC::DetectSpeech(float a, float b) const
{
    const int N = _speechWindowSize;
    if (_h.GetNumSamples() < N)
        return false;
    const float t = GetThreshold(a, b, _thresholdOffsetSpeech);
    const int s = _h.GetWindowSize();
    int count = 0;
    for (int i = _h._wIndex - N; i < _h._wIndex; ++i)
        count += _h._window[static_cast<std::size_t>(i % s)] >= t;
    return count >= static_cast<double>(N) * static_cast<double>(_speechFraction);
}

bool AGC::DetectPause(float a, float b) const
{
    const int N = _pauseWindowSize;
    if (_h.GetNumSamples() < N)
        return false;
    const float t = GetThreshold(a, b, _thresholdOffsetPause);
    const int s = _h.GetWindowSize();
    for (int i = _h._wIndex - N; i < _h._wIndex; ++i) {
        if (!(_h._window[static_cast<std::size_t>(i % s)] <= t))
            return false;
    }
    return true;
}

float AGC::GainFuncdB(float g, float powdB) const
{
    assert(g >= 0.0f);
    assert(g <= 1.0f);
    const double gain = std::min(std::max(static_cast<double>(g), 0.0), 1.0);
    double result = static_cast<double>(std::pow(10.0f, static_cast<float>(powdB / 20.0))) * gain;
    if (result > 1.0)
        result = 1.0;
    // Written so that a NaN (an infinite factor times a zero gain) also ends at the least gain.
    if (!(result >= _leastGain))
        result = _leastGain;
    return static_cast<float>(result);
}

float AGC::NewGain(float curGain, float powdB)
{
    _h.Reset();
    return GainFuncdB(curGain, powdB);
}

float AGC::GetMedianGain() const
{
    return GainFuncdB(_leastGain, static_cast<float>(-0.5 * 20.0 * std::log10(static_cast<double>(_leastGain))));
}

float AGC::ComputeGain(const AudioData& a, float curGain)
{
    return ComputeGain(a.data(), a.size(), curGain);
}

float AGC::ComputeGain(const short* samples, std::size_t n, float curGain)
{
    const X87DoublePrecision precision;
    float gain;
    if (!Collect(samples, n, curGain, gain))
        return gain;
    // The filter hands back the exact sum of squares of the filtered frame:
    // the level ComputePower would measure on it, without a copy of the frame
    // and without a second pass.
    const std::ptrdiff_t samplesPerFrame = GetSamplesPerFrame(_samplingRate);
    const std::size_t frames = GetFramesCollected();
    for (std::size_t f = 0; f < frames; ++f) {
        const AudioData::const_iterator frame = _audioBuffer.begin() + static_cast<std::ptrdiff_t>(f) * samplesPerFrame;
        TakeFrame(_f.Measure(frame, frame + samplesPerFrame, nullptr));
    }
    return Decide(curGain);
}

void AGC::ComputeGainMany(AGC* const* agcs, const short* const* samples, const std::size_t* counts,
                          const float* curGains, float* newGains, std::size_t n)
{
    const X87DoublePrecision precision;
    CheckMany("ComputeGainMany", agcs, samples, counts, n);
    if (n == 0)
        return;
    if (!curGains || !newGains)
        throw std::invalid_argument("ComputeGainMany: null array");
    for (std::size_t i = 0; i < n; ++i)
        if (!(curGains[i] >= 0.0f && curGains[i] <= 1.0f))
            throw std::invalid_argument("curGain must lie in [0, 1]");

    // Everything that may fail to allocate comes before any gain control changes.
    for (std::size_t i = 0; i < n; ++i)
        agcs[i]->ReserveChunk(counts[i]);
    // Batches of streams on the stack: the call itself allocates nothing.
    FrameRun runs[kManyBatch];
    std::size_t updating[kManyBatch];
    for (std::size_t first = 0; first < n; first += kManyBatch) {
        const std::size_t m = std::min(kManyBatch, n - first);
        std::size_t u = 0;
        for (std::size_t i = first; i < first + m; ++i) {
            AGC& a = *agcs[i];
            if (!a.Collect(samples[i], counts[i], curGains[i], newGains[i]))
                continue;
            updating[u] = i;
            runs[u++] = FrameRun{&a._f, a._audioBuffer.data(), a.GetFramesCollected(),
                                 static_cast<std::size_t>(GetSamplesPerFrame(a._samplingRate)), a._frameSums.data(),
                                 nullptr};
        }
        MeasureRuns(runs, u);
        for (std::size_t k = 0; k < u; ++k) {
            AGC& a = *agcs[updating[k]];
            for (std::size_t f = 0; f < runs[k].frames; ++f)
                a.TakeFrame(a._frameSums[f]);
            newGains[updating[k]] = a.Decide(curGains[updating[k]]);
        }
    }
    for (std::size_t i = 0; i < n; ++i)
        ShrinkIfOver(agcs[i]->_frameSums, kSumsLimit);
}

bool AGC::Collect(const short* samples, std::size_t n, float curGain, float& gain)
{
    if (!(curGain >= 0.0f && curGain <= 1.0f))
        throw std::invalid_argument("curGain must lie in [0, 1]");
    _timeMs += static_cast<double>(n) * 1000 / _samplingRate;
    if (curGain <= 0.0f) {
        _state = Initial;
        _h.Reset();
        gain = GetMedianGain();
        SetInfo(ControlInfo::GainEstimate, 0, 0);
        return false;
    }
    _audioBuffer.insert(_audioBuffer.end(), samples, samples + n);
    if (GetFramesCollected() < static_cast<std::size_t>(_minUpdateFrames)) {
        SetInfo(ControlInfo::Unchanged, 0, 0);
        gain = curGain;
        return false;
    }
    return true;
}

std::size_t AGC::GetFramesCollected() const
{
    return _audioBuffer.size() / static_cast<std::size_t>(GetSamplesPerFrame(_samplingRate));
}

float AGC::Decide(float curGain)
{
    const float clippingFraction = ComputeClippingFraction(_audioBuffer.begin(), _audioBuffer.end());
    const float newGain = ComputeGain(curGain, clippingFraction);
    _audioBuffer.clear();
    ShrinkIfOver(_audioBuffer, kBufferLimit);
    return newGain;
}

float AGC::ComputeGain(float curGain, float clippingFraction)
{
    ++_numUpdates;
    const int p = static_cast<int>(100.0 * _cutoffFraction);
    const float a = _h.GetLevel(p, true, _minLowerLevelFrames);
    const float b = _h.GetLevel(p, false, _minUpperLevelFrames);
    _snrHist.Update(b - a);
    const float snr = _snrHist.GetNumSamples() > 0 ? _snrHist.GetLevel(0, false, 1) : 0.0f;

    _logStream << LogTimeMs() << "\t " << curGain << "\t" << a << "\t " << b << "\t " << snr << "\t "
               << clippingFraction << "\t " << _h.GetNumSamples();

    float newGain = curGain;
    if (a < _curPauseLowerBound && b < _lowerBound) {
        const float d = static_cast<float>(
            std::min(static_cast<double>(_curPauseLowerBound) - a, static_cast<double>(_tooLowDeltaGaindB)));
        newGain = NewGain(curGain, d);
        _state = Initial;
        SetInfo(newGain == 1.0f ? ControlInfo::OperatingLimit : ControlInfo::PauseTooLow, a, b);
        _logStream << "\t " << "toolow:" << LogTimeMs() << "\t# " << newGain << "\n";
        return newGain;
    }
    if (b > _upperBound) {
        const float d = static_cast<float>(
            std::min(static_cast<double>(b) - _upperBound, static_cast<double>(_tooHighDeltaGaindB)));
        newGain = NewGain(curGain, -d);
        _curPauseLowerBound = _pauseLowerBound;
        _state = Initial;
        SetInfo(newGain == _leastGain ? ControlInfo::OperatingLimit : ControlInfo::SpeechTooHigh, a, b);
        _logStream << "\t " << "toohigh:" << LogTimeMs() << "\t# " << newGain << "\n";
        return newGain;
    }

    SetInfo(ControlInfo::Unchanged, a, b);
    if (_state == Speech) {
        if (DetectPause(a, b)) {
            _state = Initial;
            _logStream << "\t " << "pause:" << LogStartMs(_pauseWindowSize);
        } else {
            _logStream << "\t " << "nil:" << LogTimeMs();
            bool settled = true;
            if (b > _upperLevelRef) {
                _upperLevelRef = b;
                settled = !_rising;
            } else {
                _rising = false;
            }
            if (settled) {
                if (b >= _lowerBound) {
                    _curPauseLowerBound = _pauseLowerBound;
                } else {
                    const double x = std::min(static_cast<double>(_lowerBound) - snr,
                                              static_cast<double>(_pauseUpperBound));
                    if (b >= static_cast<double>(_upperLevelRef) - _upperLevelRefDelta &&
                        static_cast<double>(b) - a >= _thresholdOffsetSpeech && a < x) {
                        newGain = NewGain(curGain, _deltaGaindB);
                        SetInfo(newGain == 1.0f ? ControlInfo::OperatingLimit : ControlInfo::SpeechTooLow, a, b);
                        _logStream << "\t# " << newGain;
                    }
                }
            }
        }
    } else if (DetectSpeech(a, b)) {
        _rising = true;
        _upperLevelRef = b;
        _state = Speech;
        _logStream << "\t " << "speech:" << LogStartMs(_speechWindowSize);
    } else {
        _logStream << "\t " << "nil:" << LogTimeMs();
    }
    _logStream << "\n";
    return newGain;
}

unsigned short AGC::ComputeGain(const AudioData& a, unsigned short gain)
{
    const float g = static_cast<float>(gain / 65535.0);
    const float newGain = ComputeGain(a, g);
    if (newGain == g)
        return gain;
    return static_cast<unsigned short>(static_cast<int>(static_cast<double>(newGain) * 65535));
}

float AGC::GainFromVolume(long volume, long bound)
{
    return RoundToFloat(static_cast<double>(volume) / static_cast<double>(bound));
}

long AGC::VolumeFromGain(float gain, long bound)
{
    const double limit = RoundToFloat(static_cast<double>(bound));
    const double product = static_cast<double>(gain) * limit;
    return product >= limit ? bound : static_cast<long>(product);
}

float AGC::ComputeRandomGain(const AudioData& a, float curGain, float maxDiffdB)
{
    if (!(curGain >= 0.0f && curGain <= 1.0f))
        throw std::invalid_argument("curGain must lie in [0, 1]");
    static const float startGain = curGain;
    _timeMs += static_cast<double>(a.size()) * 1000 / _samplingRate;
    _logStream << LogTimeMs() << "\t " << curGain;
    float newGain = curGain;
    _audioBuffer.insert(_audioBuffer.end(), a.begin(), a.end());
    const std::size_t samplesPerFrame = static_cast<std::size_t>(GetSamplesPerFrame(_samplingRate));
    if (_audioBuffer.size() / samplesPerFrame >= static_cast<std::size_t>(_minUpdateFrames)) {
        const int r = std::rand();
        const double diffdB = 20.0 * std::log10(static_cast<double>(curGain) / startGain);
        if (r % 2 == 0) {
            if (diffdB <= maxDiffdB) {
                newGain = GainFuncdB(curGain, _deltaGaindB);
                _logStream << "\t# " << newGain;
            }
        } else if (diffdB >= -static_cast<double>(maxDiffdB)) {
            newGain = GainFuncdB(curGain, -_deltaGaindB);
            _logStream << "\t# " << newGain;
        }
        _audioBuffer.clear();
    }
    _logStream << "\n";
    return newGain;
}

}  // namespace oku
