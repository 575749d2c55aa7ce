// The benchmark's audio: five kinds of content at every rate, all made here from
// the shipped speech recording and deterministic generators.
#ifndef OKU_BENCH_AUDIO_H
#define OKU_BENCH_AUDIO_H

#include <vector>

namespace okubench {

enum class Content {
    // Speech whose pauses are digital silence, as a gated or muted microphone or
    // a zero-padded file gives: the two sentences of data/speech16k.wav (with
    // the noise floor of SpeechNoise) separated by 2 s and 3 s of exact zeros.
    // Each pause is long enough for a high-pass filter's state to decay into
    // the subnormal range of doubles, where plain arithmetic is slow on x86.
    SpeechSilence,
    // data/speech16k.wav resampled with libsoxr, a deterministic noise floor
    // (about -59 dBFS) added.
    SpeechNoise,
    // Room-like noise alone: low-passed white noise at -45 dBFS RMS.
    Noise,
    // Every sample 0.
    Silence,
    // SpeechNoise 24 dB louder, clipped to 16 bits: about 8 % of the samples
    // sit at -32768 or 32767.
    Loud,
};

inline constexpr Content kContents[] = {Content::SpeechSilence, Content::SpeechNoise, Content::Noise,
                                        Content::Silence, Content::Loud};

// The name used in benchmark names: speech_silence, speech_noise, noise, silence, loud.
const char* Name(Content content);

// `content` at `rate`, looped (or generated) to `seconds`. Deterministic: the
// same on every call and every machine with the same libsoxr. Cached.
const std::vector<short>& Audio(Content content, int rate, double seconds = 60.0);

}  // namespace okubench

#endif
