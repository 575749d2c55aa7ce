#include "audio.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#ifndef OKU_DATA_DIR
#error "OKU_DATA_DIR must name the folder of speech16k.wav"
#endif

namespace okubench {

namespace {

const int kRecordingRate = 16000;
const double kPi = 3.14159265358979323846;

std::vector<float> Load()
{
    const std::string path = std::string(OKU_DATA_DIR) + "/speech16k.wav";
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f)
        throw std::runtime_error("cannot read " + path);
    std::vector<float> x(static_cast<std::size_t>(info.frames));
    sf_readf_float(f, x.data(), info.frames);
    sf_close(f);
    return x;
}

// The sentences' [start, end) in samples at 16000 Hz, from speech16k.txt.
std::vector<std::pair<long, long>> Sentences()
{
    const std::string path = std::string(OKU_DATA_DIR) + "/speech16k.txt";
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::vector<std::pair<long, long>> sentences;
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        long number, start, end;
        if (!(fields >> number >> start >> end) || start < 0 || end <= start)
            throw std::runtime_error("bad line in " + path + ": " + line);
        sentences.emplace_back(start, end);
    }
    if (sentences.empty())
        throw std::runtime_error("no sentences in " + path);
    return sentences;
}

// The recording at `rate`, full scale 1.
const std::vector<float>& Resampled(int rate)
{
    static std::map<int, std::vector<float>> cache;
    auto it = cache.find(rate);
    if (it != cache.end())
        return it->second;
    static const std::vector<float> original = Load();
    std::vector<float> resampled(original.size() * static_cast<std::size_t>(rate) / kRecordingRate + 16);
    std::size_t done = 0;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    soxr_error_t error = soxr_oneshot(kRecordingRate, rate, 1, original.data(), original.size(), nullptr,
                                      resampled.data(), resampled.size(), &done, &io, nullptr, nullptr);
    if (error)
        throw std::runtime_error(error);
    resampled.resize(done);
    return cache.emplace(rate, std::move(resampled)).first->second;
}

// The noise floor added to the recording: uniform, +-0.002 of full scale
// (about -59 dBFS RMS), from a fixed linear congruential sequence.
class NoiseFloor {
public:
    float Next()
    {
        _seed = _seed * 1103515245u + 12345u;
        return (static_cast<float>((_seed >> 16) & 0x7FFF) / 32768.0f - 0.5f) * 0.004f;
    }

private:
    unsigned _seed = 12345;
};

short ToSample(float fullScale)
{
    const float v = fullScale * 32768.0f;
    return static_cast<short>(std::lround(std::fmax(-32768.0f, std::fmin(32767.0f, v))));
}

// The recording with its noise floor, times `gain`, clipped.
void SpeechWithNoise(std::vector<short>& out, int rate, float gain)
{
    const std::vector<float>& speech = Resampled(rate);
    NoiseFloor noise;
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = ToSample((speech[i % speech.size()] + noise.Next()) * gain);
}

// The sentences with the noise floor, each followed by a pause of exact zeros:
// 2 s after the first, 3 s after the second, and so on in turn.
void SpeechInSilence(std::vector<short>& out, int rate)
{
    const std::vector<float>& speech = Resampled(rate);
    std::vector<float> cycle;
    std::vector<char> voiced;
    const double pauses[] = {2.0, 3.0};
    std::size_t p = 0;
    for (const auto& s : Sentences()) {
        const std::size_t start = static_cast<std::size_t>(s.first * rate / kRecordingRate);
        const std::size_t end = std::min(speech.size(), static_cast<std::size_t>(s.second * rate / kRecordingRate));
        for (std::size_t i = start; i < end; ++i) {
            cycle.push_back(speech[i]);
            voiced.push_back(1);
        }
        const std::size_t pause = static_cast<std::size_t>(pauses[p++ % 2] * rate);
        cycle.insert(cycle.end(), pause, 0.0f);
        voiced.insert(voiced.end(), pause, 0);
    }
    NoiseFloor noise;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const std::size_t j = i % cycle.size();
        const float n = noise.Next();
        out[i] = voiced[j] ? ToSample(cycle[j] + n) : 0;
    }
}

// White noise through a one-pole low-pass at 500 Hz (a room's noise falls off
// towards high frequencies), scaled to -45 dBFS RMS.
void RoomNoise(std::vector<short>& out, int rate)
{
    const double pole = std::exp(-2.0 * kPi * 500.0 / rate);
    std::uint64_t seed = 0x9E3779B97F4A7C15u;
    std::vector<double> y(out.size());
    double state = 0.0, energy = 0.0;
    for (std::size_t i = 0; i < y.size(); ++i) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        const double white = static_cast<double>(seed >> 11) / 9007199254740992.0 - 0.5;  // 53 bits, [-0.5, 0.5)
        state = pole * state + (1.0 - pole) * white;
        y[i] = state;
        energy += state * state;
    }
    const double rms = y.empty() ? 1.0 : std::sqrt(energy / static_cast<double>(y.size()));
    const double scale = std::pow(10.0, -45.0 / 20.0) / rms;
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = ToSample(static_cast<float>(y[i] * scale));
}

}  // namespace

const char* Name(Content content)
{
    switch (content) {
    case Content::SpeechSilence: return "speech_silence";
    case Content::SpeechNoise: return "speech_noise";
    case Content::Noise: return "noise";
    case Content::Silence: return "silence";
    case Content::Loud: return "loud";
    }
    return "unknown";
}

const std::vector<short>& Audio(Content content, int rate, double seconds)
{
    static std::map<std::tuple<Content, int, long>, std::vector<short>> cache;
    const auto key = std::make_tuple(content, rate, static_cast<long>(seconds));
    auto it = cache.find(key);
    if (it != cache.end())
        return it->second;

    std::vector<short> out(static_cast<std::size_t>(seconds * rate), 0);
    switch (content) {
    case Content::SpeechSilence: SpeechInSilence(out, rate); break;
    case Content::SpeechNoise: SpeechWithNoise(out, rate, 1.0f); break;
    case Content::Noise: RoomNoise(out, rate); break;
    case Content::Silence: break;
    case Content::Loud: SpeechWithNoise(out, rate, 16.0f); break;  // +24 dB
    }
    return cache.emplace(key, std::move(out)).first->second;
}

}  // namespace okubench
