// The exported functions through the shared library: the plain functions'
// conventions, the handles' positions and timing, the input path's rates,
// samples and channels, the many-calls against single calls, threads, and
// every refusal with the library's exact wording (asserted here and nowhere
// else: the front ends' tests check the status class only).
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "oku.h"
#include "okuvad.h"
#include "recordings.h"
#include "signals.h"

namespace {

const double kNative[] = {8000.0, 11025.0, 16000.0, 22050.0};

// Quiet, loud from frame 100 to 149, quiet again: speech from frame 93 to 164 by the frame rules.
oku::AudioData Burst(double rate) { return testsig::Burst(100, 150, 60, rate); }

// Two voiced bursts over a faint floor: speech from 1.0 to 2.5 s and from 3.7 to 4.5 s, as floats
// that are exactly 16-bit samples, copied to every channel.
template <typename Sample>
std::vector<Sample> Speech(int rate, int channels)
{
    const oku::AudioData x = testsig::Render({{1.0, 0, 30}, {1.5, 9000, 30}, {1.2, 0, 30}, {0.8, 9000, 30}, {1.5, 0, 30}},
                                             rate, 11);
    std::vector<Sample> out;
    for (short s : x)
        out.insert(out.end(), static_cast<std::size_t>(channels),
                   std::is_same<Sample, float>::value ? static_cast<Sample>(s / 32768.0f) : static_cast<Sample>(s));
    return out;
}

int Process(oku_vad* v, const short* x, std::size_t n) { return oku_vad_process(v, x, n); }
int Process(oku_vad* v, const float* x, std::size_t n) { return oku_vad_process_f32(v, x, n); }

// Everything a handle has queued, as text (frame samples included), and the
// segments oku_vad_take closes.
struct Taken {
    std::string text;
    std::vector<oku_vad_result> results;  // all but frames
    std::vector<oku_vad_segment> segments;
};

void Take(oku_vad* vad, Taken& t)
{
    oku_vad_result r;
    oku_vad_segment s;
    while (oku_vad_take(vad, &r, &s) == OKU_OK && r.type != OKU_VAD_NONE) {
        std::ostringstream os;
        os << r.type << " " << r.time_ms << " " << r.position << " " << r.speech << " " << r.assessment << " " << r.peak
           << " " << r.level_dbfs << " " << r.snr_pct << " " << r.frame_index << ":";
        for (int k = 0; k < r.sample_count; ++k)
            os << " " << r.samples[k];
        t.text += os.str() + "\n";
        if (r.type != OKU_VAD_FRAME)
            t.results.push_back(r);
        if (r.type == OKU_VAD_SPEECH_END)
            t.segments.push_back(s);
    }
}

// 20 ms chunks of input, then a flush.
template <typename Sample>
Taken Analyse(int rate, int channels, const std::vector<Sample>& x)
{
    oku_vad* vad = nullptr;
    EXPECT_EQ(OKU_OK, oku_vad_open(rate, channels, nullptr, 0, &vad));
    const std::size_t chunk = static_cast<std::size_t>(rate / 50 * channels);
    Taken t;
    for (std::size_t at = 0; at < x.size(); at += chunk) {
        EXPECT_EQ(OKU_OK, Process(vad, x.data() + at, std::min(chunk, x.size() - at)));
        Take(vad, t);
    }
    EXPECT_EQ(OKU_OK, oku_vad_flush(vad));
    Take(vad, t);
    oku_vad_destroy(vad);
    return t;
}

}  // namespace

// ---- the plain functions --------------------------------------------------------------------

TEST(Plain, AnalyzerFunctionsKeepTheirConventions)
{
    int result = 111, info = 333;
    double value = 222.0;
    const short zeros[320] = {};
    const auto call = [&](int start, const void* data, unsigned bytes) {
        return OKUVAD_GetResult(start, data, bytes, &result, &value, &info);
    };
    // Without an analyzer, or refused: nothing written and no audio taken.
    EXPECT_EQ(0, OKUVAD_Deinit());
    EXPECT_EQ(-1, call(1, zeros, 2));
    EXPECT_EQ(-2, OKUVAD_Init(44100.0));  // unsupported: none afterwards
    EXPECT_EQ(-1, call(0, nullptr, 0));
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    EXPECT_EQ(-1, OKUVAD_GetResult(1, zeros, 2, nullptr, &value, &info));
    EXPECT_EQ(-1, OKUVAD_GetResult(1, zeros, 2, &result, nullptr, &info));
    EXPECT_EQ(-1, OKUVAD_GetResult(1, zeros, 2, &result, &value, nullptr));
    EXPECT_EQ(-1, call(1, nullptr, 2));
    EXPECT_TRUE(result == 111 && value == 222.0 && info == 333);
    EXPECT_EQ(-2, call(1, zeros, 0xFFFFFFFFu));  // (size / 2) + 1 does not fit the analyzer's count
    EXPECT_EQ(-1, result);
    // Every call adds one zero sample, and an odd byte is the low byte of one
    // more: 636 bytes are 319 samples, one byte of 0x7F then completes the
    // frame with a peak of 127; 0-byte calls add a sample each.
    unsigned char bytes[640] = {};
    EXPECT_EQ(0, call(1, bytes, 636));
    EXPECT_TRUE(result == 0 && value == 0.0 && info == 0);  // set on entry by a call with audio
    bytes[0] = 0x7F;
    EXPECT_EQ(0, call(1, bytes, 1));
    EXPECT_TRUE(result == 3 && value == 127.0);
    for (int i = 0; i < 319; ++i)
        ASSERT_EQ(0, call(1, nullptr, 0));
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, call(1, nullptr, 0));
    EXPECT_EQ(3, result);
    // Init again starts afresh at the new rate: the old queue is gone. A burst
    // in one call (of over 2^16 samples, whose memory is given back): start,
    // end and reading come one per call, positions in samples received, and
    // events leave the volume info alone.
    ASSERT_EQ(0, OKUVAD_Init(8000.0));
    const oku::AudioData burst = Burst(8000.0), wide = Burst(16000.0);
    ASSERT_EQ(0, call(1, burst.data(), static_cast<unsigned>(burst.size() * 2)));
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    EXPECT_EQ(0, call(0, nullptr, 0));
    EXPECT_EQ(0, result);
    ASSERT_EQ(0, call(1, wide.data(), static_cast<unsigned>(wide.size() * 2)));
    EXPECT_TRUE(result == 1 && value == 93 * 320.0 && info == 0);
    info = 42;
    EXPECT_EQ(0, call(0, nullptr, 0));
    EXPECT_TRUE(result == 2 && value == 164 * 320.0 && info == 42);
    EXPECT_EQ(0, call(0, nullptr, 0));
    EXPECT_TRUE(result == 3 && value == 10000.0 && info == 0);
    value = 9.0;
    EXPECT_EQ(0, call(0, nullptr, 0));
    EXPECT_TRUE(result == 0 && value == 9.0);
    EXPECT_EQ(0, OKUVAD_Deinit());
}

TEST(Plain, GainFunctionsKeepTheirConventions)
{
    long out = 7;
    double time = 111.0;
    float pause = 222.0f, speech = 333.0f;
    int type = 444;
    const std::vector<short> frame(319, 0), one(1, 0);  // with the sample each call adds: a frame, two samples
    const auto compute = [&](const std::vector<short>& x, long volume, long bound) {
        return OKUAGC_ComputeGain(x.data(), static_cast<unsigned>(x.size() * 2), volume, bound, &out);
    };
    const auto info = [&] { return OKUAGC_GetInfo(&time, &pause, &speech, &type); };
    EXPECT_TRUE(OKUAGC_Deinit() == 0 && compute(frame, 10, 100) == -1 && info() == -1);
    EXPECT_EQ(-4, OKUAGC_Init(0));
    ASSERT_EQ(0, OKUAGC_Init(16000));
    // Refused arguments write nothing and take no audio.
    const long bad[][2] = {{10, 0}, {10, -100}, {101, 100}, {-1, 100}, {LONG_MIN, LONG_MAX}};
    for (const auto& b : bad)
        EXPECT_EQ(-1, compute(frame, b[0], b[1])) << b[0] << " of " << b[1];
    EXPECT_EQ(-1, OKUAGC_ComputeGain(nullptr, 2, 10, 100, &out));
    EXPECT_EQ(-1, OKUAGC_ComputeGain(frame.data(), 2, 10, 100, nullptr));
    EXPECT_TRUE(out == 7 && type == 444 && time == 111.0);
    EXPECT_EQ(-1, OKUAGC_GetInfo(nullptr, &pause, &speech, &type));
    EXPECT_EQ(-1, OKUAGC_GetInfo(&time, nullptr, &speech, &type));
    EXPECT_EQ(-1, OKUAGC_GetInfo(&time, &pause, nullptr, &type));
    EXPECT_EQ(-1, OKUAGC_GetInfo(&time, &pause, &speech, nullptr));
    // A kept volume goes through the float ratio c_test checks (40000 of 65535
    // comes back as 39999), the largest bounds too ((2^62 - 1) / (2^63 - 1) is
    // 0.5 as a float, and 0.5 times the bound as a float is 2^62). A volume of
    // 0 asks for the starting gain sqrt(0.001) = 0.0316: 3 of 100, 2072 of 65535.
    const long volumes[][3] = {{40000, 65535, 39999}, {LONG_MAX / 2, LONG_MAX, LONG_MAX / 2 + 1},
                               {LONG_MAX, LONG_MAX, LONG_MAX}, {0, 100, 3}, {0, 65535, 2072}};
    for (const auto& v : volumes) {
        EXPECT_EQ(0, compute(one, v[0], v[1]));
        EXPECT_EQ(v[2], out) << v[0] << " of " << v[1];
    }
    ASSERT_EQ(0, info());
    EXPECT_TRUE(type == OKUAGC_GAIN_ESTIMATE && time == 10 / 16.0);  // each call added two samples
    // Another rate starts afresh; each call of 319 samples is a frame, the sixth an update.
    ASSERT_EQ(0, OKUAGC_Init(8000));
    ASSERT_EQ(0, info());
    EXPECT_TRUE(type == OKUAGC_UNCHANGED && time == 0.0 && pause == 0.0f && speech == 0.0f);
    ASSERT_EQ(0, OKUAGC_Init(16000));
    for (int call = 1; call <= 6; ++call) {
        EXPECT_EQ(0, compute(frame, 500, 1000));
        ASSERT_EQ(0, info());
        EXPECT_TRUE(type == (call < 6 ? OKUAGC_UNCHANGED : OKUAGC_PAUSE_TOO_LOW) && time == call * 20.0) << call;
    }
    // An odd byte is the low byte of one more sample; a count no buffer holds is refused.
    const unsigned char bytes[3] = {0, 0, 0x7F};
    EXPECT_EQ(0, OKUAGC_ComputeGain(bytes, 3, 500, 1000, &out));
    EXPECT_EQ(-2, OKUAGC_ComputeGain(bytes, 0xFFFFFFFFu, 500, 1000, &out));
    EXPECT_EQ(-4, OKUAGC_Init(-1));    // a bad rate keeps the gain control,
    EXPECT_EQ(0, OKUAGC_Init(16000));  // and the same rate its history
    ASSERT_EQ(0, info());
    EXPECT_EQ(120.0 + 2 / 16.0, time);
    EXPECT_EQ(-2, OKUAGC_Init(48000));  // unsupported: none afterwards
    EXPECT_EQ(-1, info());
    EXPECT_EQ(0, OKUAGC_Deinit());
}

// ---- handles ----------------------------------------------------------------------------------

TEST(Handles, PositionsAndDelaysFollowTheFrameRulesAtEveryRate)
{
    // Fed frame by frame: speech from frame 93 to 164 in samples of the run,
    // one reading per call at the end of the audio, frames (when asked for)
    // at k frames and flagged between the two. Each frame waits until the ten
    // after it are decided (each by the frame after it), the first until the
    // histogram's 40 energies are there; the longest wait is oku_vad_delay's.
    // A flush starts a new run at 0.
    for (double rate : kNative) {
        SCOPED_TRACE(rate);
        const long long spf = static_cast<long long>(rate / 50);
        const double frameMs = static_cast<double>(spf) * 1000.0 / rate;
        const oku::AudioData burst = Burst(rate);
        double delayMs = 0;
        ASSERT_EQ(OKU_OK, oku_vad_delay(rate, nullptr, &delayMs));
        for (unsigned flags : {0u, unsigned{OKU_VAD_AUDIO_FRAMES}}) {
            oku_vad* vad = nullptr;
            ASSERT_EQ(OKU_OK, oku_vad_create_ex(rate, nullptr, flags, &vad));
            std::vector<oku_vad_result> events;
            oku_vad_segment segment;
            long long frames = 0, readings = 0, longest = 0, first = -1;
            for (long long f = 0; f < 210; ++f) {
                ASSERT_EQ(OKU_OK, oku_vad_process(vad, burst.data() + f * spf, static_cast<std::size_t>(spf)));
                oku_vad_result r;
                oku_vad_segment s;
                while (oku_vad_take(vad, &r, &s) == OKU_OK && r.type != OKU_VAD_NONE) {
                    readings += r.type == OKU_VAD_VOLUME;
                    EXPECT_NEAR(r.type == OKU_VAD_VOLUME ? static_cast<double>(readings) * frameMs : r.time_ms, r.time_ms, 1e-9);
                    if (r.type == OKU_VAD_SPEECH_START || r.type == OKU_VAD_SPEECH_END)
                        events.push_back(r);
                    segment = r.type == OKU_VAD_SPEECH_END ? s : segment;
                    if (r.type != OKU_VAD_FRAME)
                        continue;
                    EXPECT_TRUE(r.frame_index == frames && r.position == frames * spf && r.sample_count == spf);
                    EXPECT_EQ(frames >= 93 && frames < 164, r.speech == 1) << frames;
                    longest = std::max(longest, f + 1 - frames);
                    first = frames++ == 0 ? f + 1 : first;
                }
            }
            ASSERT_EQ(2u, events.size());
            EXPECT_TRUE(events[0].type == OKU_VAD_SPEECH_START && events[0].position == 93 * spf);
            EXPECT_TRUE(events[1].type == OKU_VAD_SPEECH_END && events[1].position == 164 * spf);
            EXPECT_NEAR(164 * frameMs, events[1].time_ms, 1e-9);
            EXPECT_TRUE(segment.start == 93 * spf && segment.end == 164 * spf && segment.start_ms == events[0].time_ms);
            EXPECT_EQ(210, readings);
            EXPECT_EQ(flags ? 199 : 0, frames);
            if (flags) {
                EXPECT_EQ(40, first);
                EXPECT_DOUBLE_EQ(delayMs, static_cast<double>(longest) * frameMs);
            }
            const std::vector<short> more(3 * static_cast<std::size_t>(spf), 0);
            ASSERT_EQ(OKU_OK, oku_vad_flush(vad));
            oku_vad_result r[256];
            std::size_t n = 0;
            ASSERT_EQ(OKU_OK, oku_vad_results(vad, r, 256, &n));
            ASSERT_EQ(OKU_OK, oku_vad_process(vad, more.data(), more.size()));
            ASSERT_EQ(OKU_OK, oku_vad_next(vad, r));
            EXPECT_EQ(OKU_VAD_VOLUME, r[0].type);
            EXPECT_NEAR(3 * frameMs, r[0].time_ms, 1e-9);
            oku_vad_destroy(vad);
        }
    }
}

TEST(Handles, GainControlFlagsWhatToApplyAndLogsEachUpdate)
{
    // Far below every bound: each update raises by 6 dB (pause too low).
    const std::vector<short> quiet(6 * 320, 3);
    oku_agc* agc = nullptr;
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agc));
    std::size_t lines = 0;
    ASSERT_EQ(OKU_OK, oku_agc_set_log(agc, [](void* user, const char*) { ++*static_cast<std::size_t*>(user); }, &lines));
    oku_agc_decision d;
    double next = -1;
    const auto process = [&](std::size_t n, double gain) {
        ASSERT_EQ(OKU_OK, oku_agc_process(agc, n ? quiet.data() : nullptr, n, gain, &next));
        ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    };
    // Collecting: 0.02, which no float holds, comes back exactly.
    process(5 * 320, 0.02);
    EXPECT_TRUE(next == 0.02 && d.updated == 0 && d.changed == 0);
    process(320, 0.02);
    EXPECT_TRUE(d.control == OKU_AGC_PAUSE_TOO_LOW && d.updated == 1 && d.changed == 1 && d.time_ms == 120.0);
    EXPECT_NEAR(0.02 * std::pow(10.0, 6.0 / 20.0), next, 1e-6);
    // At full gain the same decision cannot raise it: the operating limit, nothing to apply.
    process(quiet.size(), 1.0);
    EXPECT_TRUE(d.control == OKU_AGC_OPERATING_LIMIT && d.updated == 1 && d.changed == 0 && next == 1.0);
    EXPECT_EQ(2u, lines);  // one line per update
    // A gain of 0 asks for a starting gain: a change, and no log line.
    process(0, 0.0);
    EXPECT_TRUE(d.control == OKU_AGC_GAIN_ESTIMATE && d.updated == 1 && d.changed == 1);
    EXPECT_NEAR(std::sqrt(0.001), next, 1e-7);
    // Without a callback, updates are still reported and no line goes anywhere.
    ASSERT_EQ(OKU_OK, oku_agc_set_log(agc, nullptr, nullptr));
    process(quiet.size(), 0.5);
    EXPECT_TRUE(d.updated == 1 && lines == 2u);
    oku_agc_destroy(agc);
}

TEST(Handles, ManyCallsTakeWhatSingleCallsTake)
{
    // Handles of native and converted rates, one to three channels, with and
    // without frames, fed chunks of changing length (0 included) through
    // single calls and through the many-calls, 16-bit and float (floats that
    // are exactly the 16-bit samples): the same results.
    const int rates[] = {8000, 11025, 16000, 22050, 48000, 44100, 12000, 96000}, channels[] = {1, 2, 1, 1, 2, 3, 1, 2};
    const std::size_t n = 8;
    std::vector<oku_vad*> vads[3];  // single calls, 16-bit many-calls, float many-calls
    std::vector<oku_agc*> agcs[3];
    std::vector<Taken> taken[3];
    std::vector<double> gains[3];
    std::vector<std::vector<short>> shorts;
    std::vector<std::vector<float>> floats;
    for (std::size_t i = 0; i < n; ++i) {
        shorts.push_back(Speech<short>(rates[i], channels[i]));
        floats.push_back(Speech<float>(rates[i], channels[i]));
        for (int k = 0; k < 3; ++k) {
            vads[k].push_back(nullptr);
            agcs[k].push_back(nullptr);
            gains[k].push_back(0.1 * static_cast<double>(i));
            ASSERT_EQ(OKU_OK, oku_vad_open(rates[i], channels[i], "", i % 3 ? 0 : OKU_VAD_AUDIO_FRAMES, &vads[k][i]));
            ASSERT_EQ(OKU_OK, oku_agc_open(rates[i], channels[i], "", 0, &agcs[k][i]));
        }
    }
    for (auto& t : taken)
        t.resize(n);
    std::vector<std::size_t> at(n, 0);
    for (std::size_t call = 0; call < 120; ++call) {
        std::vector<std::size_t> counts(n);
        std::vector<const short*> s(n);
        std::vector<const float*> f(n);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t frames = (call * 7 + i * 13) % 5 ? static_cast<std::size_t>(rates[i]) / 20 + 97 * ((call + i) % 9) : 0;
            counts[i] = std::min(frames * static_cast<std::size_t>(channels[i]), shorts[i].size() - at[i]);
            s[i] = counts[i] ? shorts[i].data() + at[i] : nullptr;
            f[i] = counts[i] ? floats[i].data() + at[i] : nullptr;
            ASSERT_EQ(OKU_OK, oku_vad_process(vads[0][i], s[i], counts[i]));
            ASSERT_EQ(OKU_OK, oku_agc_process(agcs[0][i], s[i], counts[i], gains[0][i], &gains[0][i]));
            at[i] += counts[i];
        }
        ASSERT_EQ(OKU_OK, oku_vad_process_many(vads[1].data(), s.data(), counts.data(), n));
        ASSERT_EQ(OKU_OK, oku_vad_process_many_f32(vads[2].data(), f.data(), counts.data(), n));
        ASSERT_EQ(OKU_OK, oku_agc_process_many(agcs[1].data(), s.data(), counts.data(), gains[1].data(), gains[1].data(), n));
        ASSERT_EQ(OKU_OK, oku_agc_process_many_f32(agcs[2].data(), f.data(), counts.data(), gains[2].data(), gains[2].data(), n));
        for (int k = 0; k < 3; ++k)
            for (std::size_t i = 0; i < n; ++i)
                Take(vads[k][i], taken[k][i]);
        for (int k = 1; k < 3; ++k) {
            ASSERT_EQ(gains[0], gains[k]) << "call " << call;
            for (std::size_t i = 0; i < n; ++i) {
                ASSERT_EQ(taken[0][i].text, taken[k][i].text) << "call " << call << " handle " << i;
                oku_agc_decision a, b;
                oku_agc_info(agcs[0][i], &a);
                oku_agc_info(agcs[k][i], &b);
                ASSERT_EQ(0, std::memcmp(&a, &b, sizeof a)) << "call " << call << " handle " << i;
            }
        }
    }
    for (std::size_t i = 0; i < n; ++i)
        EXPECT_EQ(2u, taken[0][i].segments.size()) << i;  // the audio held speech
    EXPECT_EQ(OKU_OK, oku_vad_process_many(nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(OKU_OK, oku_agc_process_many(nullptr, nullptr, nullptr, nullptr, nullptr, 0));
    for (int k = 0; k < 3; ++k)
        for (std::size_t i = 0; i < n; ++i) {
            oku_vad_destroy(vads[k][i]);
            oku_agc_destroy(agcs[k][i]);
        }
}

TEST(Threads, SixteenHandlesOnEightThreadsMatchASerialRun)
{
    std::vector<std::string> serial(16), parallel(16);
    const auto work = [](int h, std::vector<std::string>& out) {
        const double rate = kNative[h % 4];
        oku_vad* vad = nullptr;
        oku_agc* agc = nullptr;
        ASSERT_EQ(OKU_OK, oku_vad_create_ex(rate, h % 2 ? "EOSTimeoutMs=600" : "", OKU_VAD_AUDIO_FRAMES, &vad));
        ASSERT_EQ(OKU_OK, oku_agc_create(static_cast<int>(rate), "", &agc));
        oku::AudioData signal = Burst(rate);
        for (short& s : signal)
            s = static_cast<short>(s / (1 + h % 3));
        Taken t;
        double gain = 0.5;
        const std::size_t chunk = 100 + 37 * static_cast<std::size_t>(h);
        for (std::size_t i = 0; i + chunk <= signal.size(); i += chunk) {
            ASSERT_EQ(OKU_OK, oku_vad_process(vad, signal.data() + i, chunk));
            Take(vad, t);
            ASSERT_EQ(OKU_OK, oku_agc_process(agc, signal.data() + i, chunk, gain, &gain));
            t.text += std::to_string(gain) + "\n";
        }
        out[static_cast<std::size_t>(h)] = t.text;
        oku_vad_destroy(vad);
        oku_agc_destroy(agc);
    };
    for (int h = 0; h < 16; ++h)
        work(h, serial);
    std::vector<std::thread> threads;
    std::string errors[8];
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            work(t, parallel);
            work(t + 8, parallel);
            oku_agc* refused = nullptr;
            oku_agc_create(16000, t % 2 ? "LeastGain=2" : "LeastGain=x", &refused);
            errors[t] = oku_last_error();
        });
    oku_vad* refused = nullptr;
    EXPECT_EQ(OKU_ERR_RATE, oku_vad_create(1.0, "", &refused));
    for (std::thread& t : threads)
        t.join();
    for (int h = 0; h < 16; ++h) {
        EXPECT_NE(std::string::npos, serial[static_cast<std::size_t>(h)].find("\n1 ")) << h;
        EXPECT_EQ(serial[static_cast<std::size_t>(h)], parallel[static_cast<std::size_t>(h)]) << h;
    }
    // The last error is each thread's own.
    EXPECT_EQ(0, std::strncmp(oku_last_error(), "Sampling rate: 1 Hz", 19)) << oku_last_error();
    for (int t = 0; t < 8; ++t)
        EXPECT_EQ(0u, errors[t].find("LeastGain")) << errors[t];
}

// ---- the input path -------------------------------------------------------------------------

TEST(Input, EveryRateFindsTheSpeechWhereItIs)
{
    // At every input rate the speech as 16-bit samples in one channel and as
    // floats copied into two (into seven too at 44.1 kHz) gives one answer.
    // (The golden files pin the answers; python/tests checks segments against
    // the timing rules at converted rates.)
    std::size_t count = 0;
    const int* rates = oku_input_rates(&count);
    ASSERT_EQ(14u, count);
    for (std::size_t i = 0; i < count; ++i) {
        const int rate = rates[i];
        SCOPED_TRACE(rate);
        const std::vector<short> speech = Speech<short>(rate, 1);
        const Taken run = Analyse(rate, 1, speech);
        EXPECT_EQ(run.text, Analyse(rate, 2, Speech<float>(rate, 2)).text);
        if (rate == 44100) {
            EXPECT_EQ(run.text, Analyse(rate, 7, Speech<short>(rate, 7)).text);
            EXPECT_EQ(run.text, Analyse(rate, 7, Speech<float>(rate, 7)).text);
        }
        // Two segments, their positions in input frames of the run.
        ASSERT_EQ(2u, run.segments.size());
        for (const oku_vad_segment& s : run.segments)
            EXPECT_TRUE(std::llround(s.start_ms * rate / 1000) == s.start && std::llround(s.end_ms * rate / 1000) == s.end);
        for (const oku_vad_result& r : run.results)
            EXPECT_LE(r.position, static_cast<long long>(speech.size()));
        // The analysis rate (the golden files name it) is an input rate of its
        // own; converting adds at most 7 ms of delay.
        const int analysed = oku_analysis_rate(rate);
        EXPECT_EQ(1, oku_rate_supported(analysed));
        double native = 0, converted = 0;
        ASSERT_EQ(OKU_OK, oku_vad_delay(analysed, nullptr, &native));
        ASSERT_EQ(OKU_OK, oku_vad_delay(rate, nullptr, &converted));
        EXPECT_TRUE(converted - native >= (rate == analysed ? 0.0 : 0.5) && converted - native < 7.0);
    }
    EXPECT_EQ(0, oku_analysis_rate(48000.5));  // only listed rates
}

TEST(Input, NonFiniteSamplesAreSilenceAndCounted)
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
    std::uint64_t vadCount = 0, agcCount = 0;
    ASSERT_EQ(OKU_OK, oku_vad_nonfinite(vad, &vadCount));
    ASSERT_EQ(OKU_OK, oku_agc_nonfinite(agc, &agcCount));
    EXPECT_TRUE(vadCount == 2 && agcCount == 2);
    oku_vad_result r;
    ASSERT_EQ(OKU_OK, oku_vad_next(vad, &r));
    EXPECT_TRUE(r.type == OKU_VAD_VOLUME && r.peak == 0.0);
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
}

TEST(Input, LongSegmentsSplitIntoEqualPieces)
{
    // 10 s and one frame in pieces of at most 4 s: three, of 160000 or 160001
    // frames; exactly the limit comes back whole. (The command's tests check
    // the rule on every piece it cuts.)
    oku_vad* vad = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_open(48000, 2, nullptr, 0, &vad));
    const oku_vad_segment segment{48000, 48000 + 480001, 1000.0, 11000.02}, four{0, 192000, 0.0, 4000.0};
    oku_vad_segment pieces[3];
    std::size_t n = 0;
    ASSERT_TRUE(oku_vad_split(vad, &segment, 4000.0, nullptr, 0, &n) == OKU_OK && n == 3);
    ASSERT_EQ(OKU_OK, oku_vad_split(vad, &segment, 4000.0, pieces, 3, &n));
    EXPECT_TRUE(pieces[0].start == 48000 && pieces[0].start_ms == 1000.0 && pieces[0].end == 48000 + 160000);
    EXPECT_TRUE(pieces[1].start == pieces[0].end && pieces[1].end == 48000 + 320000);
    EXPECT_EQ((48000 + 320000) / 48.0, pieces[1].end_ms);
    EXPECT_TRUE(pieces[2].end == segment.end && pieces[2].end_ms == segment.end_ms);
    ASSERT_EQ(OKU_OK, oku_vad_split(vad, &four, 4000.0, pieces, 3, &n));
    EXPECT_TRUE(n == 1 && pieces[0].end == 192000);
    oku_vad_destroy(vad);
}

// ---- refusals ---------------------------------------------------------------------------------

// Every refusal: its status, the library's exact words for it (where a row
// gives them), nothing written to the out-parameters, and no audio taken:
// afterwards each handle gives what a twin that never saw the calls gives.
TEST(Refusals, NameTheCulpritAndChangeNothing)
{
    oku_vad *vad = nullptr, *stereo = nullptr, *b = nullptr, *out = reinterpret_cast<oku_vad*>(1);
    oku_agc *agc = nullptr, *agcStereo = nullptr, *h = nullptr, *agcOut = reinterpret_cast<oku_agc*>(1);
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &vad));
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &b));
    ASSERT_EQ(OKU_OK, oku_vad_open(44100, 2, nullptr, 0, &stereo));
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, nullptr, &agc));
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, nullptr, &h));
    ASSERT_EQ(OKU_OK, oku_agc_open(44100, 2, nullptr, 0, &agcStereo));
    const int16_t s[4] = {};
    const float x[7] = {};
    double g = 7, d = 7, gains[2] = {7, 7}, v = 7;
    long vol = 7;
    std::size_t count = 7, pieces = 7;
    oku_vad_result r;
    oku_vad_segment seg{10, 5, 0.0, 0.0}, split[1];
    const oku_vad_segment ten{0, 160000, 0.0, 10000.0};
    oku_vad* pair[] = {vad, b};
    oku_vad* withNull[] = {vad, nullptr};
    oku_vad* repeated[] = {vad, b, vad};
    oku_agc* agcPair[] = {agc, h};
    oku_agc* twice[] = {h, h};
    const int16_t* samples[] = {s, s, s};
    const int16_t* missing[] = {s, nullptr};
    const float* floats[] = {x};
    const std::size_t counts[] = {4, 4, 4}, huge[] = {4, static_cast<std::size_t>(PTRDIFF_MAX) / 2 + 1}, three[] = {3};
    const double good[] = {0.5, 0.5}, nan = std::nan("");
    struct Row {
        int status;
        const char* words;  // nullptr: the status class only
        std::function<int()> call;
    };
    const std::vector<Row> rows = {
        // creation: rates, parameter strings, channels, flags
        {OKU_ERR_RATE, "Sampling rate: 37800 Hz is not one of 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, "
                       "48000, 64000, 88200, 96000, 176400, 192000 Hz", [&] { return oku_vad_create(37800.0, "", &out); }},
        {OKU_ERR_RATE, nullptr, [&] { return oku_vad_open(22000, 1, nullptr, 0, &out); }},
        {OKU_ERR_RATE, nullptr, [&] { return oku_agc_create(47999, "", &agcOut); }},
        {OKU_ERR_PARAMS, "Invalid format: entries must be Key=Value, separated by ';'", [&] { return oku_vad_create(16000.0, "EOSTimeoutMs", &out); }},
        {OKU_ERR_PARAMS, "EOSTimeoutMs: 'soon' is not a whole number in the range of int", [&] { return oku_vad_create(16000.0, "EOSTimeoutMs=soon", &out); }},
        {OKU_ERR_PARAMS, "EOSTimeoutMs: 'soon' is not a whole number in the range of int", [&] { return oku_params_check(OKU_SERVICE_VAD, "EOSTimeoutMs=soon"); }},
        {OKU_ERR_PARAMS, "LeastGain: 'x' is not a number in range", [&] { return oku_agc_create(8000, "Foo=1;LeastGain=x", &agcOut); }},
        {OKU_ERR_PARAMS, "LeastGain must lie in (0, 1]", [&] { return oku_agc_create(16000, "LeastGain=0", &agcOut); }},
        {OKU_ERR_PARAMS, "LeastGain must lie in (0, 1]", [&] { return oku_params_check(OKU_SERVICE_AGC, "LeastGain=0"); }},
        {OKU_ERR_PARAMS, "SpeechWindowSizeMs: 'wide' is not a whole number in the range of int", [&] { return oku_vad_delay(16000.0, "SpeechWindowSizeMs=wide", &d); }},
        {OKU_ERR_PARAMS, "TooSoftSNR: 'abc' is not a number in range", [&] { return oku_setting_value(OKU_SERVICE_VAD, "TooSoftSNR=abc", "TooSoftSNR", &v); }},
        {OKU_ERR_PARAMS, nullptr, [&] { return oku_vad_create(16000.0, "HistogramWindowSizeMs=1", &out); }},
        {OKU_ERR_NULL, "out is null", [&] { return oku_vad_create(16000.0, "", nullptr); }},
        {OKU_ERR_ARGUMENT, "unknown flags", [&] { return oku_vad_create_ex(16000.0, "", 8u, &out); }},
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_vad_open(48000, 1, nullptr, 2, &out); }},
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_agc_open(48000, 1, nullptr, 1, &agcOut); }},
        {OKU_ERR_ARGUMENT, "channels must lie in 1 to 64", [&] { return oku_vad_open(48000, 0, nullptr, 0, &out); }},
        {OKU_ERR_ARGUMENT, "channels must lie in 1 to 64", [&] { return oku_agc_open(48000, OKU_MAX_CHANNELS + 1, nullptr, 0, &agcOut); }},
        // the analyzer's calls
        {OKU_ERR_NULL, "vad is null", [&] { return oku_vad_process(nullptr, nullptr, 0); }},
        {OKU_ERR_NULL, "samples is null", [&] { return oku_vad_process(vad, nullptr, 4); }},
        {OKU_ERR_ARGUMENT, "sample count larger than any array", [&] { return oku_vad_process(vad, s, static_cast<std::size_t>(PTRDIFF_MAX) / 2 + 1); }},
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_vad_process_f32(stereo, x, PTRDIFF_MAX / 2); }},
        {OKU_ERR_ARGUMENT, "the sample count (7) is not a whole number of frames of 2 channels", [&] { return oku_vad_process_f32(stereo, x, 7); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_process_f32(stereo, nullptr, 2); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_next(nullptr, &r); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_next(vad, nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_take(nullptr, &r, nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_results(vad, &r, 1, nullptr); }},
        {OKU_ERR_ARGUMENT, "capacity is 0", [&] { return oku_vad_results(vad, &r, 0, &count); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_nonfinite(vad, nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_flush(nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_reset(nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_vad_destroy(nullptr); }},
        {OKU_ERR_ARGUMENT, "max_ms must be a positive number of at least one frame", [&] { return oku_vad_split(vad, &ten, 0.01, split, 1, &pieces); }},
        {OKU_ERR_ARGUMENT, "the segment ends before it starts", [&] { return oku_vad_split(vad, &seg, 4000.0, split, 1, &pieces); }},
        {OKU_ERR_ARGUMENT, "pieces has room for 1 of 3 pieces", [&] { return oku_vad_split(vad, &ten, 4000.0, split, 1, &pieces); }},
        // the many-calls
        {OKU_ERR_NULL, "vads is null", [&] { return oku_vad_process_many(nullptr, samples, counts, 2); }},
        {OKU_ERR_NULL, "samples is null", [&] { return oku_vad_process_many(pair, nullptr, counts, 2); }},
        {OKU_ERR_NULL, "counts is null", [&] { return oku_vad_process_many(pair, samples, nullptr, 2); }},
        {OKU_ERR_NULL, "vads[1] is null", [&] { return oku_vad_process_many(withNull, samples, counts, 2); }},
        {OKU_ERR_NULL, "samples[1] is null", [&] { return oku_vad_process_many(pair, missing, counts, 2); }},
        {OKU_ERR_ARGUMENT, "counts[1] is larger than any array", [&] { return oku_vad_process_many(pair, samples, huge, 2); }},
        {OKU_ERR_ARGUMENT, "vads[2] repeats an earlier handle", [&] { return oku_vad_process_many(repeated, samples, counts, 3); }},
        {OKU_ERR_ARGUMENT, "counts[0] (3) is not a whole number of frames of 2 channels", [&] { return oku_vad_process_many_f32(&stereo, floats, three, 1); }},
        {OKU_ERR_ARGUMENT, "gains[1] must lie in [0, 1]", [&] { const double bad[] = {0.5, -0.01}; return oku_agc_process_many(agcPair, samples, counts, bad, gains, 2); }},
        {OKU_ERR_ARGUMENT, "gains[1] must lie in [0, 1]", [&] { const double bad[] = {0.5, nan}; return oku_agc_process_many(agcPair, samples, counts, bad, gains, 2); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_process_many(agcPair, samples, counts, nullptr, gains, 2); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_process_many(agcPair, samples, counts, good, nullptr, 2); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_process_many(agcPair, missing, counts, good, gains, 2); }},
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_agc_process_many(agcPair, samples, huge, good, gains, 2); }},
        {OKU_ERR_ARGUMENT, "agcs[1] repeats an earlier handle", [&] { return oku_agc_process_many(twice, samples, counts, good, gains, 2); }},
        // the gain control's calls
        {OKU_ERR_ARGUMENT, "gain must lie in [0, 1]", [&] { return oku_agc_process(agc, s, 4, -0.01, &g); }},
        {OKU_ERR_ARGUMENT, "gain must lie in [0, 1]", [&] { return oku_agc_process(agc, s, 4, 1.5, &g); }},
        {OKU_ERR_ARGUMENT, "gain must lie in [0, 1]", [&] { return oku_agc_process(agc, s, 4, nan, &g); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_process(agc, s, 4, 0.5, nullptr); }},
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_agc_process(agc, s, SIZE_MAX, 0.5, &g); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_process(agc, nullptr, 4, 0.5, &g); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_process(nullptr, s, 4, 0.5, &g); }},
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_agc_process_f32(agcStereo, x, 7, 0.5, &g); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_info(agc, nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_nonfinite(agc, nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_set_log(nullptr, nullptr, nullptr); }},
        {OKU_ERR_NULL, nullptr, [&] { return oku_agc_destroy(nullptr); }},
        // the facts
        {OKU_ERR_ARGUMENT, nullptr, [&] { return oku_volume_from_gain(1.5, 100, &vol); }},
        {OKU_ERR_PARAMS, nullptr, [&] { return oku_params_check(OKU_SERVICE_VAD, "a=1=2"); }},
    };
    for (const Row& row : rows) {
        const int status = row.call();
        EXPECT_EQ(row.status, status) << (row.words ? row.words : "") << " / " << oku_last_error();
        EXPECT_STREQ(row.words ? row.words : oku_last_error(), oku_last_error());
    }
    EXPECT_TRUE(out == reinterpret_cast<oku_vad*>(1) && agcOut == reinterpret_cast<oku_agc*>(1));
    EXPECT_TRUE(g == 7 && d == 7 && v == 7 && vol == 7 && gains[0] == 7 && gains[1] == 7 && count == 7);
    EXPECT_EQ(3u, pieces);  // a split counts the pieces also when they do not fit
    EXPECT_STREQ("unsupported sampling rate (see oku_rates)", oku_status_message(OKU_ERR_RATE));
    EXPECT_STREQ("unknown status", oku_status_message(42));
    const char* names[] = {"ok", "null", "argument", "rate", "params", "memory", "internal"};
    for (int k = 0; k < 7; ++k)
        EXPECT_STREQ(names[k], oku_status_name(-k));
    EXPECT_EQ(nullptr, oku_status_name(OKU_ERR_INTERNAL - 1));
    EXPECT_EQ(nullptr, oku_status_name(1));

    // Nothing was taken: every handle now gives its twin's results.
    oku_vad *twin = nullptr, *stereoTwin = nullptr;
    oku_agc* agcTwin = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &twin));
    ASSERT_EQ(OKU_OK, oku_vad_open(44100, 2, nullptr, 0, &stereoTwin));
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agcTwin));
    const oku::AudioData burst = Burst(16000.0);
    const std::vector<float> speech = Speech<float>(44100, 2);
    Taken taken[5];
    oku_vad* handles[] = {twin, vad, b, stereoTwin, stereo};
    for (int k = 0; k < 5; ++k) {
        ASSERT_EQ(OKU_OK, k < 3 ? oku_vad_process(handles[k], burst.data(), burst.size())
                                : oku_vad_process_f32(handles[k], speech.data(), speech.size()));
        Take(handles[k], taken[k]);
    }
    EXPECT_EQ(1u, taken[0].segments.size());
    EXPECT_EQ(taken[0].text, taken[1].text);
    EXPECT_EQ(taken[0].text, taken[2].text);
    EXPECT_EQ(taken[3].text, taken[4].text);
    double expected = 0;
    ASSERT_EQ(OKU_OK, oku_agc_process(agcTwin, burst.data(), burst.size(), 0.5, &expected));
    for (oku_agc* handle : {agc, h}) {
        ASSERT_EQ(OKU_OK, oku_agc_process(handle, burst.data(), burst.size(), 0.5, &g));
        EXPECT_EQ(expected, g);
        oku_agc_decision a, e;
        oku_agc_info(agcTwin, &e);
        oku_agc_info(handle, &a);
        EXPECT_EQ(0, std::memcmp(&a, &e, sizeof a));
    }
    for (oku_vad* handle : {vad, b, stereo, twin, stereoTwin})
        oku_vad_destroy(handle);
    for (oku_agc* handle : {agc, h, agcStereo, agcTwin})
        oku_agc_destroy(handle);
}
