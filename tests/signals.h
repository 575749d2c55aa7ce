// Test signals with frame energies that tests can reason about, and the
// analyzer's results as text for comparing runs.
#ifndef OKU_TESTS_SIGNALS_H
#define OKU_TESTS_SIGNALS_H

#include <cmath>
#include <functional>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "audioanalyzer.h"
#include "audiodata.h"

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

// Quiet (about 29.5 dB) for `s` frames, loud (76 dB) up to frame `e`, quiet for `tail` more.
inline oku::AudioData Burst(int s, int e, int tail, double rate)
{
    return Tone({{s, 47.0}, {e - s, 10000.0}, {tail, 47.0}}, rate, static_cast<int>(rate / 50));
}

// The message of the std::invalid_argument f throws, or "" when it throws none.
inline std::string Refusal(const std::function<void()>& f)
{
    try {
        f();
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "";
}

inline oku::AudioData Slice(const oku::AudioData& a, std::size_t from, std::size_t count)
{
    return oku::AudioData(a.begin() + static_cast<long>(from), a.begin() + static_cast<long>(from + count));
}

// One result of the analyzer as a line of text with every digit (a frame as
// its index, flag, and the sum and count of its samples).
inline std::string Describe(const oku::AnalyzerResult& r)
{
    std::ostringstream os;
    os.precision(17);
    if (r.GetType() == oku::AnalyzerResult::RT_Event) {
        const auto& e = static_cast<const oku::AnalyzerEvent&>(r);
        os << "event " << e.GetTag() << " " << e.GetTimeMs();
    } else if (r.GetType() == oku::AnalyzerResult::RT_VolumeMeter) {
        const auto& m = static_cast<const oku::AnalyzerVolumeMeter&>(r);
        os << "meter " << m.GetTimeMs() << " " << m.GetInfo() << " " << m.GetVolume() << " " << m.GetVolumedBFS()
           << " " << m.GetSNRVolumePct() << " " << m.IsSpeechState();
    } else {
        const auto& f = static_cast<const oku::AnalyzerAudioFrame&>(r);
        os << "frame " << f.GetFrameIndex() << " " << f.IsSpeechSegmentFrame() << " "
           << std::accumulate(f.GetData().begin(), f.GetData().end(), 0LL) << "/" << f.GetData().size();
    }
    return os.str() + "\n";
}

}  // namespace testsig

#endif
