// Recordings the tests generate at any supported rate: deterministic, so that
// their results can be kept as golden text and compared bit for bit.
#ifndef OKU_TESTS_RECORDINGS_H
#define OKU_TESTS_RECORDINGS_H

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "audiodata.h"

namespace testsig {

// One stretch of a recording: `seconds` of a voiced sound of amplitude `voice`
// (0: none) over uniform noise of amplitude `noise` (0: exact digital silence).
struct Stretch {
    double seconds;
    double voice;
    int noise;
};

// A voiced sound: a 140 Hz pulse train shaped by two formants, its loudness
// rising and falling in syllables of 200 ms, so that frames differ in level
// as in speech. Continuous phase across stretches. The noise comes from a
// small linear congruential generator, the same on every machine.
inline oku::AudioData Render(const std::vector<Stretch>& stretches, double rate, std::uint32_t seed)
{
    const double pi = 3.14159265358979323846;
    oku::AudioData out;
    std::uint32_t state = seed;
    std::size_t n = 0;
    for (const Stretch& s : stretches) {
        const std::size_t count = static_cast<std::size_t>(std::lround(s.seconds * rate));
        for (std::size_t i = 0; i < count; ++i, ++n) {
            const double t = static_cast<double>(n) / rate;
            double x = 0.0;
            if (s.voice > 0.0) {
                const double syllable = 0.55 - 0.45 * std::cos(2.0 * pi * t / 0.2);
                const double f0 = 2.0 * pi * 140.0 * t;
                x = s.voice * syllable * (0.5 * std::sin(f0) + 0.3 * std::sin(5.0 * f0) + 0.2 * std::sin(17.0 * f0));
            }
            state = state * 1664525u + 1013904223u;  // uniform in [-noise, noise]
            const unsigned span = 2u * static_cast<unsigned>(s.noise) + 1u;
            const long v = std::lround(x + (s.noise == 0 ? 0 : static_cast<int>((state >> 8) % span) - s.noise));
            out.push_back(static_cast<short>(v > 32767 ? 32767 : (v < -32768 ? -32768 : v)));
        }
    }
    return out;
}

struct Recording {
    std::string name;
    std::string description;
    std::vector<Stretch> stretches;
};

// The recordings of the golden results.
inline std::vector<Recording> GoldenRecordings()
{
    return {
        {"bursts",
         "voiced bursts of rising loudness over a noise floor that changes, one burst clipped",
         {{1.2, 0, 30}, {1.0, 2500, 30}, {0.6, 0, 30}, {1.4, 9000, 30}, {0.8, 0, 300}, {0.9, 60000, 300},
          {1.0, 0, 300}, {0.5, 400, 8}, {1.1, 0, 8}}},
        {"gaps",
         "speech-like bursts between runs of digital silence (a gated microphone) of 0.3 to 6 s, "
         "and a faint hiss of one or two steps after the longest",
         {{3.0, 0, 0}, {1.5, 6000, 20}, {0.3, 0, 0}, {0.8, 3000, 20}, {1.0, 0, 0}, {1.2, 8000, 0}, {1.6, 0, 0},
          {0.7, 1500, 5}, {6.0, 0, 0}, {0.5, 0, 2}, {1.0, 5000, 1}, {2.0, 0, 0}}},
    };
}

}  // namespace testsig

#endif
