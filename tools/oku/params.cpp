#include "params.h"

#include <map>
#include <stdexcept>

#include "agc.h"
#include "audioanalyzer.h"
#include "options.h"
#include "parameters.h"

namespace okutool {

namespace {

enum class Kind { Int, Real, Float };

// The keys each service reads, with the type it reads them as.
const std::map<std::string, Kind>& Keys(const std::string& command)
{
    static const std::map<std::string, Kind> vad = {
        {"SpeechWindowSizeMs", Kind::Int},       {"SpeechWindowFraction", Kind::Real},
        {"EOSTimeoutMs", Kind::Int},             {"HistogramWindowSizeMs", Kind::Int},
        {"HistogramMinWindowSizeMs", Kind::Int}, {"MaxDecayRateDbPerDs", Kind::Real},
        {"FullScaleSNR", Kind::Real},            {"TooNoisyLeveldBFS", Kind::Real},
        {"TooLoudAlignmentLeveldBFS", Kind::Real}, {"TooSoftWindowSizeMs", Kind::Real},
        {"TooSoftSNR", Kind::Real},              {"MinRecordingLeveldBFS", Kind::Real},
        {"CutoffFraction", Kind::Real},          {"InterpolationParam", Kind::Real},
        {"ThresholdOffsetSpeech", Kind::Real},   {"ThresholdOffsetPause", Kind::Real},
        {"ThresholdLowerLimit", Kind::Real},     {"ThresholdUpperLimit", Kind::Real}};
    static const std::map<std::string, Kind> agc = {
        {"MinUpdateIntervalMs", Kind::Int},   {"MinLowerLevelSizeMs", Kind::Int},
        {"MinUpperLevelSizeMs", Kind::Int},   {"WindowSizeMs", Kind::Int},
        {"SpeechWindowSizeMs", Kind::Int},    {"SpeechFraction", Kind::Float},
        {"PauseWindowSizeMs", Kind::Int},     {"CutoffFraction", Kind::Float},
        {"InterpolationWeight", Kind::Float},  {"ThresholdOffsetSpeech", Kind::Float},
        {"ThresholdOffsetPause", Kind::Float}, {"ThresholdUpperBound", Kind::Float},
        {"SNRWindowSizeMs", Kind::Int},       {"PauseLowerBound", Kind::Float},
        {"InitialPauseLowerBound", Kind::Float}, {"PauseUpperBound", Kind::Float},
        {"LowerBound", Kind::Float},           {"UpperBound", Kind::Float},
        {"UpperLevelRefDelta", Kind::Float},   {"TooLowDeltaGaindB", Kind::Float},
        {"TooHighDeltaGaindB", Kind::Float},   {"DeltaGainDb", Kind::Float},
        {"LeastGain", Kind::Float}};
    return command == "vad" ? vad : agc;
}

}  // namespace

std::vector<std::string> CheckParams(const std::string& command, const std::string& params)
{
    std::vector<std::string> warnings;
    oku::Parameters parsed;
    try {
        parsed = oku::Parameters(params);
    } catch (const std::invalid_argument&) {
        throw UsageError("--params: malformed parameter string \"" + params +
                         "\": entries must be Key=Value, separated by ';'");
    }
    const auto& keys = Keys(command);
    for (const auto& entry : parsed) {
        const auto known = keys.find(entry.first);
        if (known == keys.end()) {
            const bool derived = command == "vad" && (entry.first == "WindowSize" || entry.first == "MinWindowSize");
            warnings.push_back("--params: " + entry.first +
                               (derived ? " has no effect (set HistogramWindowSizeMs or HistogramMinWindowSizeMs)"
                                        : " is not a setting of oku " + command + " (ignored)"));
            continue;
        }
        try {
            if (known->second == Kind::Int)
                parsed.Get<int>(entry.first);
            else if (known->second == Kind::Float)
                parsed.Get<float>(entry.first);
            else
                parsed.Get<double>(entry.first);
        } catch (const std::invalid_argument&) {
            throw UsageError("--params: " + entry.first + ": '" + entry.second + "' is not " +
                             (known->second == Kind::Int ? "a whole number in the range of int" : "a number in range"));
        }
    }
    // The services' own checks (settings that would break them).
    try {
        if (command == "vad")
            oku::AudioAnalyzer(params, 16000.0, false);
        else
            oku::AGC(params, 16000);
    } catch (const std::invalid_argument& e) {
        throw UsageError(std::string("--params: ") + e.what());
    }
    return warnings;
}

}  // namespace okutool
