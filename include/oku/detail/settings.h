// oku: every setting of the analyzer and the gain control, with its default,
// unit and meaning. The classes read their settings through these tables, and
// the C interface hands the same tables to front ends.
#ifndef OKU_SETTINGS_H
#define OKU_SETTINGS_H

#include <cstddef>
#include <string>

#include "parameters.h"

namespace oku {

enum class SettingType { Int, Real };

struct Setting {
    const char* key;      // the parameter string key
    const char* name;     // the same, lower case and hyphenated (for properties and options)
    SettingType type;     // read as a whole number or as a real number
    double defaultValue;  // what the class takes when the key is absent
    const char* unit;     // "ms", "dB", "dBFS", "dB per 100 ms", or "" for a plain number
    const char* meaning;  // one line
};

// The analyzer's settings, in the order it reads them. The last six belong to
// its energy histogram, which reads them from the same parameter string.
// Milliseconds become frames rounded to the nearest frame. EOSTimeoutMs is
// special: when a later parameter string omits it, the value in force stays.
enum AnalyzerSettingIndex : std::size_t {
    kSpeechWindowSizeMs,
    kSpeechWindowFraction,
    kEOSTimeoutMs,
    kHistogramWindowSizeMs,
    kHistogramMinWindowSizeMs,
    kMaxDecayRateDbPerDs,
    kFullScaleSNR,
    kTooNoisyLeveldBFS,
    kTooLoudAlignmentLeveldBFS,
    kTooSoftWindowSizeMs,
    kTooSoftSNR,
    kMinRecordingLeveldBFS,
    kCutoffFraction,
    kInterpolationParam,
    kThresholdOffsetSpeech,
    kThresholdOffsetPause,
    kThresholdLowerLimit,
    kThresholdUpperLimit,
    kAnalyzerSettingCount
};

inline constexpr Setting kAnalyzerSettings[kAnalyzerSettingCount] = {
    {"SpeechWindowSizeMs", "speech-window-size-ms", SettingType::Int, 200, "ms",
     "window in which the start of speech is judged"},
    {"SpeechWindowFraction", "speech-window-fraction", SettingType::Real, 0.3, "",
     "share of that window that must be loud for speech to start"},
    {"EOSTimeoutMs", "eos-timeout-ms", SettingType::Int, 420, "ms", "pause that ends speech"},
    {"HistogramWindowSizeMs", "histogram-window-size-ms", SettingType::Int, 2000, "ms",
     "audio behind the noise and speech levels"},
    {"HistogramMinWindowSizeMs", "histogram-min-window-size-ms", SettingType::Int, 800, "ms",
     "audio needed before the levels are first computed"},
    {"MaxDecayRateDbPerDs", "max-decay-rate-db-per-ds", SettingType::Real, 48.0, "dB per 100 ms",
     "how fast the meter's peak level may fall"},
    {"FullScaleSNR", "full-scale-snr", SettingType::Real, 24.0, "dB", "signal-to-noise ratio that reads as 100 %"},
    {"TooNoisyLeveldBFS", "too-noisy-level-dbfs", SettingType::Real, -25.0, "dBFS",
     "noise level above which the recording is too noisy"},
    {"TooLoudAlignmentLeveldBFS", "too-loud-alignment-level-dbfs", SettingType::Real, -12.0, "dBFS",
     "frame level above which the recording is too loud"},
    {"TooSoftWindowSizeMs", "too-soft-window-size-ms", SettingType::Real, 2000.0, "ms",
     "how long speech must last before it can be too soft"},
    {"TooSoftSNR", "too-soft-snr", SettingType::Real, 18.0, "dB",
     "signal-to-noise ratio below which speech is too soft"},
    {"MinRecordingLeveldBFS", "min-recording-level-dbfs", SettingType::Real, -54.0, "dBFS",
     "speech level below which speech is too soft"},
    {"CutoffFraction", "cutoff-fraction", SettingType::Real, 0.08, "",
     "share of frames at each end of the histogram that sets the noise and speech levels"},
    {"InterpolationParam", "interpolation-param", SettingType::Real, 0.3, "",
     "weight of the speech level in the decision threshold"},
    {"ThresholdOffsetSpeech", "threshold-offset-speech", SettingType::Real, 6.0, "dB",
     "least threshold above the noise level while in speech"},
    {"ThresholdOffsetPause", "threshold-offset-pause", SettingType::Real, 16.0, "dB",
     "least threshold above the noise level while in a pause"},
    {"ThresholdLowerLimit", "threshold-lower-limit", SettingType::Real, 24.0, "dB",
     "lowest decision threshold (frame energy)"},
    {"ThresholdUpperLimit", "threshold-upper-limit", SettingType::Real, 70.0, "dB",
     "highest decision threshold (frame energy)"},
};

// The gain control's settings, in the order it reads them. It keeps them as
// float; milliseconds become 20 ms frames by truncating division.
enum AgcSettingIndex : std::size_t {
    kMinUpdateIntervalMs,
    kMinLowerLevelSizeMs,
    kMinUpperLevelSizeMs,
    kWindowSizeMs,
    kAgcSpeechWindowSizeMs,
    kSpeechFraction,
    kPauseWindowSizeMs,
    kAgcCutoffFraction,
    kInterpolationWeight,
    kAgcThresholdOffsetSpeech,
    kAgcThresholdOffsetPause,
    kThresholdUpperBound,
    kSNRWindowSizeMs,
    kPauseLowerBound,
    kInitialPauseLowerBound,
    kPauseUpperBound,
    kLowerBound,
    kUpperBound,
    kUpperLevelRefDelta,
    kTooLowDeltaGaindB,
    kTooHighDeltaGaindB,
    kDeltaGainDb,
    kLeastGain,
    kAgcSettingCount
};

inline constexpr Setting kAgcSettings[kAgcSettingCount] = {
    {"MinUpdateIntervalMs", "min-update-interval-ms", SettingType::Int, 120, "ms",
     "audio collected before each gain update"},
    {"MinLowerLevelSizeMs", "min-lower-level-size-ms", SettingType::Int, 80, "ms",
     "least audio behind the pause level"},
    {"MinUpperLevelSizeMs", "min-upper-level-size-ms", SettingType::Int, 40, "ms",
     "least audio behind the speech level"},
    {"WindowSizeMs", "window-size-ms", SettingType::Int, 3000, "ms", "sliding window of frame levels"},
    {"SpeechWindowSizeMs", "speech-window-size-ms", SettingType::Int, 800, "ms",
     "window in which the start of speech is judged"},
    {"SpeechFraction", "speech-fraction", SettingType::Real, 0.3, "",
     "share of that window that must be loud for speech to start"},
    {"PauseWindowSizeMs", "pause-window-size-ms", SettingType::Int, 500, "ms", "quiet audio that ends speech"},
    {"CutoffFraction", "cutoff-fraction", SettingType::Real, 0.1, "",
     "share of frames at each end of the window that sets the pause and speech levels"},
    {"InterpolationWeight", "interpolation-weight", SettingType::Real, 0.3, "",
     "weight of the speech level in the detection thresholds"},
    {"ThresholdOffsetSpeech", "threshold-offset-speech", SettingType::Real, 14.0, "dB",
     "least speech threshold above the pause level; also the least ratio remembered"},
    {"ThresholdOffsetPause", "threshold-offset-pause", SettingType::Real, 6.0, "dB",
     "least pause threshold above the pause level"},
    {"ThresholdUpperBound", "threshold-upper-bound", SettingType::Real, 70.0, "dB",
     "cap on both detection thresholds"},
    {"SNRWindowSizeMs", "snr-window-size-ms", SettingType::Int, 4000, "ms",
     "how long the best signal-to-noise ratio is remembered"},
    {"PauseLowerBound", "pause-lower-bound", SettingType::Real, 4.0, "dB",
     "pause level below which the whole signal is too quiet, once speech was in the band"},
    {"InitialPauseLowerBound", "initial-pause-lower-bound", SettingType::Real, 12.0, "dB",
     "pause level below which the whole signal is too quiet, at the start"},
    {"PauseUpperBound", "pause-upper-bound", SettingType::Real, 21.0, "dB",
     "highest pause level from which quiet speech may be raised"},
    {"LowerBound", "lower-bound", SettingType::Real, 57.0, "dB", "lower edge of the wanted speech level"},
    {"UpperBound", "upper-bound", SettingType::Real, 78.0, "dB", "upper edge of the wanted speech level"},
    {"UpperLevelRefDelta", "upper-level-ref-delta", SettingType::Real, 6.0, "dB",
     "how far under its peak speech may lie for a small raise"},
    {"TooLowDeltaGaindB", "too-low-delta-gain-db", SettingType::Real, 6.0, "dB",
     "largest raise when the whole signal is too quiet"},
    {"TooHighDeltaGaindB", "too-high-delta-gain-db", SettingType::Real, 6.0, "dB",
     "largest lowering when speech is too loud"},
    {"DeltaGainDb", "delta-gain-db", SettingType::Real, 1.0, "dB", "step of a raise while speech stays too low"},
    {"LeastGain", "least-gain", SettingType::Real, 0.001, "", "smallest gain ever proposed (linear)"},
};

// A setting read from a parameter string as type T, its default when absent.
// A present value that does not read as T throws "Invalid format".
template <typename T>
T Read(const Parameters& par, const Setting& s)
{
    return par.Get<T>(s.key, static_cast<T>(s.defaultValue));
}

// The setting of `table` with the given key, or null.
template <std::size_t N>
const Setting* FindSetting(const Setting (&table)[N], const std::string& key)
{
    for (const Setting& s : table)
        if (key == s.key)
            return &s;
    return nullptr;
}

}  // namespace oku

#endif
