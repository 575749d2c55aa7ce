// The benchmark's audio: the shipped speech recording with noise, at every rate.
#ifndef OKU_BENCH_AUDIO_H
#define OKU_BENCH_AUDIO_H

#include <vector>

namespace okubench {

// Speech with noise at `rate`: data/speech16k.wav resampled with libsoxr, a
// deterministic noise floor added, looped to at least `seconds`.
const std::vector<short>& Speech(int rate, double seconds = 60.0);

}  // namespace okubench

#endif
