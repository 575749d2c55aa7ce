// oku: the analyzer's sliding histogram of frame energies, from which it takes
// its noise level, speech level and speech/pause decision thresholds.
#ifndef OKU_ENERGYHISTOGRAM_H
#define OKU_ENERGYHISTOGRAM_H

#include <cassert>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "parameters.h"
#include "settings.h"

namespace oku {

// Keeps the last W accepted frame energies (dB, energy scale) in a ring and in
// 100 one-dB bins. The noise level is the bin where the lowest CutoffFraction
// of the ring is reached, the speech level the bin where the highest fraction
// is reached; thresholds interpolate between them with a minimum distance above
// the noise that differs between the speech and the pause state.
//
// Keys (all optional): "WindowSize" (100 frames), "MinWindowSize" (40), and
// the six analyzer settings from "CutoffFraction" to "ThresholdUpperLimit"
// (defaults in settings.h). A "WindowSize" of 0 (the ring must hold at
// least one energy) or above kMaxWindowSize (a ring no machine could hold) is
// rejected with std::invalid_argument naming the key; no other setting is
// range-checked.
class EnergyHistogram {
public:
    // 2^24 frames: more than three days of 20 ms frames, 128 MiB of ring.
    static constexpr unsigned int kMaxWindowSize = 1u << 24;

    explicit EnergyHistogram(const Parameters& par)
    {
        SetParameters(par);
        Reset();
    }

    void Reset()
    {
        _index = 0;
        _window.assign(_windowSize, 0.0);
        _histogram.assign(kBins, 0);
        _noiseLevel = _thresholdLowerLimit;
        _speechLevel = 70.0;
    }

    // Takes the new settings and refills the ring, oldest first, with the
    // energies it held, so the noise estimate survives a reconfiguration.
    void UpdateParameters(const Parameters& par)
    {
        const std::size_t index = _index;
        const std::vector<double> w = _window;
        const std::size_t L = w.size();
        SetParameters(par);
        Reset();
        for (std::size_t i = index > L ? index - L : 0; i < index; ++i)
            Update(w[i % L]);
    }

    // Accepts one frame energy; energies below 15 dB are ignored.
    void Update(double energy)
    {
        const std::size_t W = _window.size();
        assert(W > 0);
        assert(energy >= 0 && energy < 100);
        if (energy < 15.0)
            return;
        if (_index >= W) {
            --_histogram[static_cast<std::size_t>(_window[_index % W])];
            if (_index >= 2 * W)
                _index -= W;
        }
        ++_histogram[static_cast<std::size_t>(energy)];
        _window[_index % W] = energy;
        ++_index;
        if (_index >= _minWindowSize && (_index % 5 == 0 || _index == _minWindowSize))
            UpdateThreshold();
    }

    bool IsThresholdComputed() const { return _index >= _minWindowSize; }
    // Energies needed before the levels are first computed.
    std::size_t GetMinWindowSize() const { return _minWindowSize; }

    double GetThreshold(bool isSpeechState) const
    {
        if (!IsThresholdComputed())
            return _thresholdLowerLimit;
        double threshold = _noiseLevel + (_speechLevel - _noiseLevel) * _interpolationParam;
        const double offset = isSpeechState ? _thresholdOffsetSpeech : _thresholdOffsetPause;
        if (_noiseLevel + offset > threshold)
            threshold = _noiseLevel + offset;
        if (threshold < _thresholdLowerLimit)
            return _thresholdLowerLimit;
        if (threshold > _thresholdUpperLimit)
            return _thresholdUpperLimit;
        return threshold;
    }

    double GetNoiseLevelWithOffset() const { return _noiseLevel + _thresholdOffsetSpeech; }
    double GetNoiseLevel() const { return _noiseLevel; }
    double GetSNR() const { return _speechLevel - _noiseLevel; }

private:
    static constexpr std::size_t kBins = 100;

    void UpdateThreshold()
    {
        assert(_index >= _minWindowSize);
        const std::size_t W = _window.size();
        const std::size_t n = _index < W ? _index : W;
        const double cutoffFraction = static_cast<double>(n) / static_cast<double>(W) * _cutoffFraction;
        const double limit = LimitFor(static_cast<double>(n) * cutoffFraction + 0.5);

        double noise = 100.0;
        double sum = 0;
        for (std::size_t i = 0; i < kBins; ++i) {
            sum += _histogram[i];
            if (sum >= limit) {
                noise = static_cast<double>(i);
                break;
            }
        }
        double speech = 0.0;
        sum = 0;
        for (std::size_t i = kBins - 1; i >= 1; --i) {
            sum += _histogram[i];
            if (sum >= limit) {
                speech = static_cast<double>(i);
                break;
            }
        }
        _noiseLevel = noise;
        _speechLevel = speech;
    }

    // The limit is n * fraction + 0.5 truncated to an integer. Any fraction is
    // accepted as a setting, so the truncation saturates instead of overflowing;
    // a limit beyond every possible count behaves the same whatever its size.
    static double LimitFor(double x)
    {
        if (!(x > -1e15))
            return x != x ? 0.0 : -1e15;  // NaN compares as no limit at all
        if (x > 1e15)
            return 1e15;
        return static_cast<double>(static_cast<long long>(x));
    }

    void SetParameters(const Parameters& par)
    {
        const Setting* const s = kAnalyzerSettings;
        const unsigned int windowSize = par.Get<unsigned int>("WindowSize", kDefaultWindowSize);
        if (windowSize < 1 || windowSize > kMaxWindowSize)
            throw std::invalid_argument("WindowSize must be 1 to 16777216 frames");
        _windowSize = windowSize;
        _minWindowSize = par.Get<unsigned int>("MinWindowSize", kDefaultMinWindowSize);
        _cutoffFraction = Read<double>(par, s[kCutoffFraction]);
        _interpolationParam = Read<double>(par, s[kInterpolationParam]);
        _thresholdOffsetSpeech = Read<double>(par, s[kThresholdOffsetSpeech]);
        _thresholdOffsetPause = Read<double>(par, s[kThresholdOffsetPause]);
        _thresholdLowerLimit = Read<double>(par, s[kThresholdLowerLimit]);
        _thresholdUpperLimit = Read<double>(par, s[kThresholdUpperLimit]);
    }

    // Window sizes in frames when the histogram is built on its own; the
    // analyzer always sets both from its millisecond settings.
    static constexpr unsigned int kDefaultWindowSize = 100;
    static constexpr unsigned int kDefaultMinWindowSize = 40;

    std::size_t _index = 0;
    std::size_t _minWindowSize = 0;
    std::size_t _windowSize = 0;
    double _cutoffFraction = 0;
    double _interpolationParam = 0;
    double _thresholdOffsetSpeech = 0;
    double _thresholdOffsetPause = 0;
    double _thresholdLowerLimit = 0;
    double _thresholdUpperLimit = 0;
    double _noiseLevel = 0;
    double _speechLevel = 0;
    std::vector<double> _window;
    std::vector<int> _histogram;
};

}  // namespace oku

#endif
