// Audio as devices and files deliver it, through the handle functions: every
// input rate, float and 16-bit samples, interleaved channels, the many-calls,
// segments, and the refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "oku.h"
#include "recordings.h"

namespace {

struct Results {
    std::vector<oku_vad_result> results;   // everything but frames
    std::vector<oku_vad_segment> segments;  // one per speech end
};

// Two voiced bursts over a faint floor: speech from 1.0 to 2.5 s and from 3.7 to 4.5 s.
std::vector<float> Speech(int rate)
{
    const oku::AudioData x = testsig::Render({{1.0, 0, 30}, {1.5, 9000, 30}, {1.2, 0, 30}, {0.8, 9000, 30}, {1.5, 0, 30}},
                                             rate, 11);
    std::vector<float> f(x.size());
    for (std::size_t i = 0; i < x.size(); ++i)
        f[i] = x[i] / 32768.0f;  // exactly the 16-bit samples
    return f;
}

// Each frame's sample copied to every channel, as 16-bit or float.
template <typename Sample>
std::vector<Sample> Channels(const std::vector<float>& mono, int channels)
{
    std::vector<Sample> out;
    for (float x : mono)
        for (int c = 0; c < channels; ++c)
            out.push_back(std::is_same<Sample, float>::value ? static_cast<Sample>(x)
                                                              : static_cast<Sample>(std::lround(x * 32768.0f)));
    return out;
}

void Drain(oku_vad* vad, Results& run)
{
    oku_vad_result r;
    oku_vad_segment s;
    for (;;) {
        ASSERT_EQ(OKU_OK, oku_vad_take(vad, &r, &s));
        if (r.type == OKU_VAD_NONE)
            return;
        if (r.type == OKU_VAD_FRAME)
            continue;
        run.results.push_back(r);
        if (r.type == OKU_VAD_SPEECH_END)
            run.segments.push_back(s);
    }
}

int Process(oku_vad* vad, const std::vector<short>& x, std::size_t at, std::size_t n)
{
    return oku_vad_process(vad, x.data() + at, n);
}

int Process(oku_vad* vad, const std::vector<float>& x, std::size_t at, std::size_t n)
{
    return oku_vad_process_f32(vad, x.data() + at, n);
}

// 20 ms chunks, then a flush.
template <typename Sample>
Results Analyse(int rate, int channels, const std::vector<Sample>& x)
{
    oku_vad* vad = nullptr;
    EXPECT_EQ(OKU_OK, oku_vad_open(rate, channels, nullptr, 0, &vad));
    std::size_t chunk = 0;
    EXPECT_EQ(OKU_OK, oku_chunk_samples(rate, 20.0, &chunk));
    chunk *= static_cast<std::size_t>(channels);
    Results run;
    for (std::size_t at = 0; at < x.size(); at += chunk) {
        EXPECT_EQ(OKU_OK, Process(vad, x, at, std::min(chunk, x.size() - at)));
        Drain(vad, run);
    }
    EXPECT_EQ(OKU_OK, oku_vad_flush(vad));
    Drain(vad, run);
    oku_vad_destroy(vad);
    return run;
}

bool Same(const oku_vad_result& a, const oku_vad_result& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(OkuInput, EveryInputRateFindsTheSpeechWhereItIs)
{
    std::size_t count = 0;
    const int* rates = oku_input_rates(&count);
    ASSERT_EQ(14u, count);
    for (std::size_t i = 0; i < count; ++i) {
        const int rate = rates[i];
        SCOPED_TRACE(rate);
        const std::vector<float> speech = Speech(rate);
        const Results run = Analyse(rate, 2, Channels<float>(speech, 2));
        ASSERT_EQ(2u, run.segments.size());
        const double onsets[] = {1000, 3700}, offsets[] = {2500, 4500};
        for (std::size_t k = 0; k < 2; ++k) {
            const oku_vad_segment& s = run.segments[k];
            // A segment starts a little before its sound and ends after the
            // end-of-speech timeout; positions are input frames of the run.
            EXPECT_GE(s.start_ms, onsets[k] - 200);
            EXPECT_LE(s.start_ms, onsets[k]);
            EXPECT_GE(s.end_ms, offsets[k]);
            EXPECT_LE(s.end_ms, offsets[k] + 600);
            EXPECT_EQ(std::llround(s.start_ms * rate / 1000), s.start);
            EXPECT_EQ(std::llround(s.end_ms * rate / 1000), s.end);
        }
        for (const oku_vad_result& r : run.results)
            EXPECT_LE(r.position, static_cast<long long>(speech.size()));
    }
}

TEST(OkuInput, SamplesAndChannelsGiveOneAnswer)
{
    // The same audio as 16-bit and float (each float exactly a 16-bit
    // sample), in one channel and copied into several: the same results.
    for (int rate : {16000, 44100, 48000}) {
        SCOPED_TRACE(rate);
        const std::vector<float> speech = Speech(rate);
        const Results reference = Analyse(rate, 1, Channels<short>(speech, 1));
        ASSERT_EQ(2u, reference.segments.size());
        for (int channels : {1, 2, 7}) {
            for (const Results& run : {Analyse(rate, channels, Channels<short>(speech, channels)),
                                   Analyse(rate, channels, Channels<float>(speech, channels))}) {
                ASSERT_EQ(reference.results.size(), run.results.size()) << channels;
                for (std::size_t k = 0; k < run.results.size(); ++k)
                    EXPECT_TRUE(Same(reference.results[k], run.results[k])) << channels << " channels, result " << k;
            }
        }
    }
}

TEST(OkuInput, ManyCallsTakeWhatSingleCallsTake)
{
    // Handles of different rates and channel counts in one many-call, float
    // and 16-bit, against each handle fed on its own.
    const int rates[] = {48000, 16000, 12000, 44100, 96000}, channels[] = {2, 1, 1, 3, 2};
    const std::size_t n = 5;
    std::vector<std::vector<float>> floats(n);
    std::vector<std::vector<short>> shorts(n);
    std::vector<oku_vad*> many(2 * n), single(2 * n);
    std::vector<oku_agc*> agcMany(n), agcSingle(n);
    std::vector<std::size_t> counts(n);
    for (std::size_t i = 0; i < n; ++i) {
        floats[i] = Channels<float>(Speech(rates[i]), channels[i]);
        shorts[i] = Channels<short>(Speech(rates[i]), channels[i]);
        for (std::vector<oku_vad*>* v : {&many, &single}) {
            ASSERT_EQ(OKU_OK, oku_vad_open(rates[i], channels[i], nullptr, 0, &(*v)[i]));
            ASSERT_EQ(OKU_OK, oku_vad_open(rates[i], channels[i], nullptr, 0, &(*v)[n + i]));
        }
        ASSERT_EQ(OKU_OK, oku_agc_open(rates[i], channels[i], nullptr, 0, &agcMany[i]));
        ASSERT_EQ(OKU_OK, oku_agc_open(rates[i], channels[i], nullptr, 0, &agcSingle[i]));
        ASSERT_EQ(OKU_OK, oku_chunk_samples(rates[i], 30.0, &counts[i]));
        counts[i] *= static_cast<std::size_t>(channels[i]);
    }
    std::vector<Results> manyRuns(2 * n), singleRuns(2 * n);
    std::vector<double> gains(n, 0.3), singleGains(n, 0.3);
    for (std::size_t step = 0; step < 150; ++step) {
        std::vector<const float*> f(n);
        std::vector<const int16_t*> s(n);
        for (std::size_t i = 0; i < n; ++i) {
            f[i] = floats[i].data() + step * counts[i];
            s[i] = shorts[i].data() + step * counts[i];
            ASSERT_EQ(OKU_OK, oku_vad_process_f32(single[i], f[i], counts[i]));
            ASSERT_EQ(OKU_OK, oku_vad_process(single[n + i], s[i], counts[i]));
            ASSERT_EQ(OKU_OK, oku_agc_process_f32(agcSingle[i], f[i], counts[i], singleGains[i], &singleGains[i]));
        }
        ASSERT_EQ(OKU_OK, oku_vad_process_many_f32(many.data(), f.data(), counts.data(), n));
        ASSERT_EQ(OKU_OK, oku_vad_process_many(many.data() + n, s.data(), counts.data(), n));
        ASSERT_EQ(OKU_OK, oku_agc_process_many_f32(agcMany.data(), f.data(), counts.data(), gains.data(), gains.data(), n));
        for (std::size_t i = 0; i < 2 * n; ++i) {
            Drain(many[i], manyRuns[i]);
            Drain(single[i], singleRuns[i]);
        }
        ASSERT_EQ(singleGains, gains);
    }
    for (std::size_t i = 0; i < 2 * n; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(singleRuns[i].results.size(), manyRuns[i].results.size());
        EXPECT_GE(singleRuns[i].segments.size(), 1u);
        for (std::size_t k = 0; k < manyRuns[i].results.size(); ++k)
            EXPECT_TRUE(Same(singleRuns[i].results[k], manyRuns[i].results[k]));
        oku_vad_destroy(many[i]);
        oku_vad_destroy(single[i]);
    }
    for (std::size_t i = 0; i < n; ++i) {
        oku_agc_destroy(agcMany[i]);
        oku_agc_destroy(agcSingle[i]);
    }
}

TEST(OkuInput, NonFiniteSamplesAreSilenceAndCounted)
{
    oku_vad* vad = nullptr;
    oku_agc* agc = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_open(48000, 2, nullptr, 0, &vad));
    ASSERT_EQ(OKU_OK, oku_agc_open(48000, 2, nullptr, 0, &agc));
    std::vector<float> x(2 * 1920, 0.0f);  // 40 ms: one whole frame gets past the converter
    x[3] = std::numeric_limits<float>::quiet_NaN();
    x[500] = -std::numeric_limits<float>::infinity();
    double gain = 0.5;
    ASSERT_EQ(OKU_OK, oku_vad_process_f32(vad, x.data(), x.size()));
    ASSERT_EQ(OKU_OK, oku_agc_process_f32(agc, x.data(), x.size(), gain, &gain));
    std::uint64_t count = 0;
    ASSERT_EQ(OKU_OK, oku_vad_nonfinite(vad, &count));
    EXPECT_EQ(2u, count);
    ASSERT_EQ(OKU_OK, oku_agc_nonfinite(agc, &count));
    EXPECT_EQ(2u, count);
    oku_vad_result r;
    ASSERT_EQ(OKU_OK, oku_vad_next(vad, &r));
    EXPECT_EQ(OKU_VAD_VOLUME, r.type);
    EXPECT_EQ(0.0, r.peak);  // the bad samples count as silence
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_nonfinite(vad, nullptr));
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
}

TEST(OkuInput, RefusalsNameTheCulprit)
{
    oku_vad* vad = nullptr;
    oku_agc* agc = nullptr;
    for (int channels : {0, -1, OKU_MAX_CHANNELS + 1}) {
        EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_open(48000, channels, nullptr, 0, &vad));
        EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_open(48000, channels, nullptr, 0, &agc));
        EXPECT_STREQ("channels must lie in 1 to 64", oku_last_error());
    }
    EXPECT_EQ(OKU_MAX_CHANNELS, oku_max_channels());
    // Each status has a name, and the names end after the last.
    EXPECT_STREQ("rate", oku_status_name(OKU_ERR_RATE));
    EXPECT_STREQ("internal", oku_status_name(OKU_ERR_INTERNAL));
    EXPECT_EQ(nullptr, oku_status_name(OKU_ERR_INTERNAL - 1));
    EXPECT_EQ(nullptr, oku_status_name(1));
    EXPECT_EQ(OKU_ERR_RATE, oku_vad_open(22000, 1, nullptr, 0, &vad));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_open(48000, 1, nullptr, 1, &agc));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_open(48000, 1, nullptr, 2, &vad));
    EXPECT_EQ(nullptr, vad);
    EXPECT_EQ(nullptr, agc);

    ASSERT_EQ(OKU_OK, oku_vad_open(44100, 2, nullptr, 0, &vad));
    ASSERT_EQ(OKU_OK, oku_agc_open(44100, 2, nullptr, 0, &agc));
    const std::vector<float> x(7, 0.0f);
    double gain = 0.5;
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_f32(vad, x.data(), 7));
    EXPECT_STREQ("the sample count (7) is not a whole number of frames of 2 channels", oku_last_error());
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_process_f32(agc, x.data(), 7, gain, &gain));
    const float* chunks[] = {x.data()};
    const std::size_t counts[] = {3};
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_many_f32(&vad, chunks, counts, 1));
    EXPECT_STREQ("counts[0] (3) is not a whole number of frames of 2 channels", oku_last_error());
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process_f32(vad, nullptr, 2));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_f32(vad, x.data(), PTRDIFF_MAX / 2));
    // Nothing was consumed: the first reading comes after a whole frame.
    EXPECT_EQ(OKU_OK, oku_vad_process_f32(vad, x.data(), 6));
    oku_vad_result r;
    EXPECT_EQ(OKU_OK, oku_vad_next(vad, &r));
    EXPECT_EQ(OKU_VAD_NONE, r.type);
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
}

TEST(OkuInput, OverLongSegmentsSplitIntoEqualPieces)
{
    oku_vad* vad = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_open(48000, 2, nullptr, 0, &vad));
    // 10 s + 1 frame in pieces of at most 4 s: three, of 160000 or 160001 frames.
    const oku_vad_segment segment{48000, 48000 + 480001, 1000.0, 11000.02};
    oku_vad_segment pieces[3];
    std::size_t n = 0;
    ASSERT_EQ(OKU_OK, oku_vad_split(vad, &segment, 4000.0, nullptr, 0, &n));
    EXPECT_EQ(3u, n);
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_split(vad, &segment, 4000.0, pieces, 2, &n));
    ASSERT_EQ(OKU_OK, oku_vad_split(vad, &segment, 4000.0, pieces, 3, &n));
    EXPECT_EQ(48000, pieces[0].start);
    EXPECT_EQ(1000.0, pieces[0].start_ms);
    EXPECT_EQ(48000 + 160000, pieces[0].end);
    EXPECT_EQ(pieces[0].end, pieces[1].start);
    EXPECT_EQ(48000 + 320000, pieces[1].end);
    EXPECT_EQ((48000 + 320000) / 48.0, pieces[1].end_ms);
    EXPECT_EQ(segment.end, pieces[2].end);
    EXPECT_EQ(segment.end_ms, pieces[2].end_ms);
    // Within the limit: whole. Exactly the limit: whole.
    const oku_vad_segment shorter{0, 192000, 0.0, 4000.0};
    ASSERT_EQ(OKU_OK, oku_vad_split(vad, &shorter, 4000.0, pieces, 3, &n));
    EXPECT_EQ(1u, n);
    EXPECT_EQ(192000, pieces[0].end);
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_split(vad, &shorter, 0.01, pieces, 3, &n));  // under a frame
    const oku_vad_segment backwards{10, 5, 0.0, 0.0};
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_split(vad, &backwards, 4000.0, pieces, 3, &n));
    oku_vad_destroy(vad);
}

TEST(OkuInput, RatesAndDelays)
{
    EXPECT_EQ(16000, oku_analysis_rate(48000));
    EXPECT_EQ(22050, oku_analysis_rate(44100));
    EXPECT_EQ(16000, oku_analysis_rate(24000));
    EXPECT_EQ(8000, oku_analysis_rate(12000));
    EXPECT_EQ(0, oku_analysis_rate(48000.5));
    std::size_t count = 0;
    const int* rates = oku_input_rates(&count);
    for (std::size_t i = 0; i < count; ++i) {
        // Every analysis rate is an input rate of its own.
        EXPECT_EQ(1, oku_rate_supported(oku_analysis_rate(rates[i])));
        double native = 0, converted = 0;
        ASSERT_EQ(OKU_OK, oku_vad_delay(oku_analysis_rate(rates[i]), nullptr, &native));
        ASSERT_EQ(OKU_OK, oku_vad_delay(rates[i], nullptr, &converted));
        EXPECT_GE(converted - native, rates[i] == oku_analysis_rate(rates[i]) ? 0.0 : 0.5);
        EXPECT_LT(converted - native, 7.0) << rates[i];
    }
}

}  // namespace
