// Driving an AGC update by update and reading its log.
#ifndef OKU_TESTS_AGC_HELPERS_H
#define OKU_TESTS_AGC_HELPERS_H

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agc.h"
#include "signals.h"

namespace testsig {

const int kAgcFrame = 320;                // 20 ms at 16 kHz
const int kAgcUpdate = 6 * kAgcFrame;     // 120 ms: one update with the defaults

// Tone levels at the AGC (dB of frame power, 1 kHz tone): amplitude -> level.
const double kBg18 = 13.0;      // about 18.3 dB
const double kBg29 = 47.0;      // about 29.5 dB
const double kSpeech40 = 158.0; // about 40 dB
const double kSpeech45 = 280.0; // about 45 dB
const double kSpeech60 = 1580.0;  // about 60 dB
const double kLoud80 = 15777.0;   // about 80 dB

// A signal made of updates: each entry is a list of (frames, amplitude) steps
// covering exactly six frames.
inline oku::AudioData Updates(const std::vector<std::vector<std::pair<int, double>>>& updates)
{
    std::vector<std::pair<int, double>> steps;
    for (const auto& u : updates)
        steps.insert(steps.end(), u.begin(), u.end());
    return Tone(steps, 16000.0, kAgcFrame);
}

inline std::vector<std::vector<std::pair<int, double>>> Repeat(int times, std::vector<std::pair<int, double>> u)
{
    return std::vector<std::vector<std::pair<int, double>>>(static_cast<std::size_t>(times), u);
}

inline void Append(std::vector<std::vector<std::pair<int, double>>>& a,
                   const std::vector<std::vector<std::pair<int, double>>>& b)
{
    a.insert(a.end(), b.begin(), b.end());
}

// 18 dB background and 45 dB speech, one update of six frames each: 7 updates
// of background, 7 of speech, then `tail` of background. The decision tests
// derive what each update must do.
inline std::vector<std::vector<std::pair<int, double>>> SpeechScenario(int tail)
{
    auto updates = Repeat(7, {{6, kBg18}});
    Append(updates, Repeat(7, {{6, kSpeech45}}));
    Append(updates, Repeat(tail, {{6, kBg18}}));
    return updates;
}

struct Step {
    float gainIn;
    float gainOut;
    oku::AGC::ControlInfo info;
};

// Feeds the signal in chunks of `chunk` samples, passing each returned gain to
// the next call (open loop: the audio does not depend on the gain).
inline std::vector<Step> Run(oku::AGC& agc, const oku::AudioData& signal, float gain, std::size_t chunk = kAgcUpdate)
{
    std::vector<Step> steps;
    for (std::size_t i = 0; i + chunk <= signal.size(); i += chunk) {
        Step s;
        s.gainIn = gain;
        s.gainOut = agc.ComputeGain(Slice(signal, i, chunk), gain);
        agc.GetInfo(s.info);
        steps.push_back(s);
        gain = s.gainOut;
    }
    return steps;
}

inline std::shared_ptr<std::ostringstream> AttachLog(oku::AGC& agc)
{
    auto os = std::make_shared<std::ostringstream>();
    agc.SetLogStream(os);
    return os;
}

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::string::size_type pos = 0, nl;
    while ((nl = text.find('\n', pos)) != std::string::npos) {
        lines.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return lines;
}

// The fields of a log line, split at tabs, with the blank after a tab removed.
inline std::vector<std::string> Fields(const std::string& line)
{
    std::vector<std::string> fields;
    std::string::size_type pos = 0;
    for (;;) {
        std::string::size_type tab = line.find('\t', pos);
        std::string f = line.substr(pos, tab == std::string::npos ? std::string::npos : tab - pos);
        if (!fields.empty() && !f.empty() && f[0] == ' ')
            f.erase(0, 1);
        fields.push_back(f);
        if (tab == std::string::npos)
            return fields;
        pos = tab + 1;
    }
}

}  // namespace testsig

#endif
