// Test signals with frame energies that tests can reason about.
#ifndef OKU_TESTS_SIGNALS_H
#define OKU_TESTS_SIGNALS_H

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "audiodata.h"
#include "highpassfilter.h"

namespace testsig {

// A 1 kHz tone with continuous phase whose amplitude steps at frame
// boundaries: each pair is (number of frames, amplitude). A tone of amplitude A
// has a filtered frame energy of about 10 log10(A^2 / 2) - 0.95 dB (the filter's
// pass-band loss), e.g. 47 -> 29.5, 200 -> 42, 10000 -> 76, 26000 -> 84.3.
inline oku::AudioData Tone(const std::vector<std::pair<int, double>>& steps, double rate, int samplesPerFrame)
{
    oku::AudioData out;
    const double w = 2.0 * 3.14159265358979323846 * 1000.0 / rate;
    std::size_t n = 0;
    for (const auto& step : steps) {
        for (int i = 0; i < step.first * samplesPerFrame; ++i, ++n)
            out.push_back(static_cast<short>(std::lround(step.second * std::sin(w * static_cast<double>(n)))));
    }
    return out;
}

// Energy of samples on the analyzer's scale: 10 log10 of the mean square, 0 when at most 1.
inline double Energy(const short* p, std::size_t n)
{
    double sum = 0.0;
    for (std::size_t i = 0; i < n; ++i)
        sum += static_cast<double>(p[i]) * p[i];
    const double mean = n ? sum / static_cast<double>(n) : 0.0;
    return mean > 1.0 ? 10.0 * std::log10(mean) : 0.0;
}

// The filtered energy of every whole frame of a signal, from a fresh filter.
inline std::vector<double> FrameEnergies(oku::AudioData signal, double rate, int samplesPerFrame)
{
    oku::HighpassFilter filter(rate);
    std::vector<double> energies;
    for (std::size_t i = 0; i + samplesPerFrame <= signal.size(); i += samplesPerFrame) {
        filter.Filter(signal.begin() + static_cast<long>(i), signal.begin() + static_cast<long>(i + samplesPerFrame));
        energies.push_back(Energy(&signal[i], static_cast<std::size_t>(samplesPerFrame)));
    }
    return energies;
}

inline oku::AudioData Slice(const oku::AudioData& a, std::size_t from, std::size_t count)
{
    return oku::AudioData(a.begin() + static_cast<long>(from), a.begin() + static_cast<long>(from + count));
}

}  // namespace testsig

#endif
