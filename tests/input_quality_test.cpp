// The input path against libsoxr's high quality on speech: each recording
// that tests/make_speech_variants.sh writes (44.1 and 48 kHz, mono and
// stereo, float and 16-bit) is analysed twice, through the library's own
// conversion, and mixed to mono and converted by libsoxr to the analysis
// rate before the analyzer takes it at that rate. Segments must agree within
// a frame; meter levels within 0.2 dB beyond one quantisation step of the
// peak, and within 0.02 dB on average over a file. (The levels differ most on
// noise that fills the band up to the analysis rate's Nyquist frequency:
// libsoxr's transition band, 7.3 to 8 kHz at 16 kHz, is steeper than the
// library's; over draws of white noise the largest difference was 0.11 to
// 0.17 dB, the mean at most 0.012 dB. Filters that let aliases into the top of
// the band gave 1.9 dB.)
#include <gtest/gtest.h>
#include <sndfile.h>
#include <soxr.h>

#include <cmath>
#include <cstdio>
#include <algorithm>
#include <dirent.h>
#include <map>
#include <string>
#include <vector>

#include "oku.h"

namespace {

struct Analysis {
    std::vector<oku_vad_segment> segments;
    std::map<long long, double> levels;  // VOLUME readings by the instant they end, in analysis samples
};

struct Audio {
    int rate = 0, channels = 0;
    bool floats = false;
    std::vector<float> f;
    std::vector<short> s;
};

Audio Read(const std::string& path)
{
    Audio a;
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(nullptr, file) << path;
    if (!file)
        return a;
    a.rate = info.samplerate;
    a.channels = info.channels;
    a.floats = (info.format & SF_FORMAT_SUBMASK) != SF_FORMAT_PCM_16;
    const std::size_t n = static_cast<std::size_t>(info.frames) * static_cast<std::size_t>(info.channels);
    a.f.resize(n);
    a.s.resize(n);
    EXPECT_EQ(info.frames, sf_readf_float(file, a.f.data(), info.frames));
    sf_seek(file, 0, SEEK_SET);
    EXPECT_EQ(info.frames, sf_readf_short(file, a.s.data(), info.frames));
    sf_close(file);
    return a;
}

void Take(oku_vad* vad, int analysisRate, Analysis& out)
{
    oku_vad_result r;
    oku_vad_segment s;
    while (oku_vad_take(vad, &r, &s) == OKU_OK && r.type != OKU_VAD_NONE) {
        if (r.type == OKU_VAD_SPEECH_END)
            out.segments.push_back(s);
        if (r.type == OKU_VAD_VOLUME)
            out.levels[std::llround(r.time_ms * analysisRate / 1000.0)] = r.level_dbfs;
    }
}

// Through the library's input path, in 20 ms chunks of the file's own frames.
Analysis Library(const Audio& a, int analysisRate)
{
    Analysis out;
    oku_vad* vad = nullptr;
    EXPECT_EQ(OKU_OK, oku_vad_open(a.rate, a.channels, nullptr, 0, &vad));
    const std::size_t chunk = static_cast<std::size_t>(a.rate / 50 * a.channels);
    const std::size_t n = a.f.size();
    for (std::size_t at = 0; at < n; at += chunk) {
        const std::size_t k = std::min(chunk, n - at);
        EXPECT_EQ(OKU_OK, a.floats ? oku_vad_process_f32(vad, &a.f[at], k) : oku_vad_process(vad, &a.s[at], k));
        Take(vad, analysisRate, out);
    }
    oku_vad_flush(vad);
    Take(vad, analysisRate, out);
    oku_vad_destroy(vad);
    return out;
}

// Mixed to mono, converted by libsoxr's high quality, rounded to 16 bits,
// and analysed at the analysis rate, in 20 ms chunks; positions scaled to
// the input's frames.
Analysis Soxr(const Audio& a, int analysisRate)
{
    const std::size_t frames = a.f.size() / static_cast<std::size_t>(a.channels);
    std::vector<float> mono(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        double sum = 0;
        for (int c = 0; c < a.channels; ++c)
            sum += a.f[i * static_cast<std::size_t>(a.channels) + static_cast<std::size_t>(c)];
        mono[i] = static_cast<float>(sum / a.channels);
    }
    std::vector<float> converted(frames * static_cast<std::size_t>(analysisRate) / static_cast<std::size_t>(a.rate) + 64);
    std::size_t done = 0;
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_error_t error = soxr_oneshot(a.rate, analysisRate, 1, mono.data(), frames, nullptr, converted.data(),
                                            converted.size(), &done, nullptr, &quality, nullptr);
    EXPECT_EQ(nullptr, error);
    std::vector<short> samples(done);
    for (std::size_t i = 0; i < done; ++i)
        samples[i] = static_cast<short>(std::lrint(std::max(-32768.0f, std::min(32767.0f, converted[i] * 32768.0f))));
    Analysis out;
    oku_vad* vad = nullptr;
    EXPECT_EQ(OKU_OK, oku_vad_open(analysisRate, 1, nullptr, 0, &vad));
    const std::size_t chunk = static_cast<std::size_t>(analysisRate / 50);
    for (std::size_t at = 0; at < done; at += chunk) {
        EXPECT_EQ(OKU_OK, oku_vad_process(vad, &samples[at], std::min(chunk, done - at)));
        Take(vad, analysisRate, out);
    }
    oku_vad_flush(vad);
    Take(vad, analysisRate, out);
    oku_vad_destroy(vad);
    const double scale = static_cast<double>(a.rate) / analysisRate;
    for (oku_vad_segment& s : out.segments) {
        s.start = std::llround(s.start * scale);
        s.end = std::llround(s.end * scale);
    }
    return out;
}

TEST(InputQuality, SpeechAgreesWithLibsoxrHighQuality)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(OKU_VARIANTS_DIR)) {
        while (dirent* e = readdir(dir))
            if (std::string(e->d_name).find(".wav") != std::string::npos)
                names.push_back(e->d_name);
        closedir(dir);
    }
    ASSERT_EQ(24u, names.size()) << "tests/make_speech_variants.sh writes them";
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Audio a = Read(std::string(OKU_VARIANTS_DIR) + "/" + name);
        const int analysisRate = oku_analysis_rate(a.rate);
        const Analysis ours = Library(a, analysisRate), theirs = Soxr(a, analysisRate);
        const long long frame = a.rate / 50;
        ASSERT_EQ(theirs.segments.size(), ours.segments.size());
        EXPECT_GE(ours.segments.size(), 2u);
        for (std::size_t k = 0; k < ours.segments.size(); ++k) {
            EXPECT_LE(std::llabs(ours.segments[k].start - theirs.segments[k].start), frame) << k;
            EXPECT_LE(std::llabs(ours.segments[k].end - theirs.segments[k].end), frame) << k;
        }
        // Readings that end at the same instant measured the same frames. A
        // peak of a few quantisation steps moves by a step whichever way
        // the audio is converted, so a reading may in addition differ by the
        // level of one step at its peak.
        std::size_t compared = 0;
        double worst = 0, sum = 0;
        for (const auto& reading : ours.levels) {
            const auto other = theirs.levels.find(reading.first);
            if (other == theirs.levels.end())
                continue;
            ++compared;
            const double peak = 32768.0 * std::pow(10.0, std::min(reading.second, other->second) / 20.0);
            const double step = 20.0 * std::log10((peak + 1.0) / peak);
            const double beyond = std::fabs(reading.second - other->second) - step;
            EXPECT_LE(beyond, 0.2) << "at " << reading.first << ": " << reading.second << " dBFS against "
                                   << other->second;
            worst = std::max(worst, beyond);
            sum += std::max(0.0, beyond);
        }
        EXPECT_GE(compared, ours.levels.size() - 2);
        EXPECT_LE(sum / static_cast<double>(compared), 0.02);
        std::printf("%-26s %zu segments, %zu readings, level differences: largest beyond a step %.3f dB, "
                    "mean %.4f dB\n", name.c_str(), ours.segments.size(), compared, worst, sum / static_cast<double>(compared));
    }
}

}  // namespace
