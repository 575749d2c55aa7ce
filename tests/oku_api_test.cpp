// The handle-based C interface, through the shared library.
#include "oku.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agc.h"
#include "agc_helpers.h"
#include "analyzer_helpers.h"
#include "audioanalyzer.h"
#include "signals.h"

namespace {

// Quiet tone, a loud burst, quiet again (the analyzer tests' timing signal).
oku::AudioData Burst(double rate)
{
    const int spf = static_cast<int>(20.0 * rate / 1000);
    return testsig::Tone({{100, 47.0}, {50, 10000.0}, {60, 47.0}}, rate, spf);
}

// Everything a handle hands out for a signal fed in chunks, as comparable text
// (all but the positions, which PositionsAreInSamplesOfTheRun checks by their rule).
std::string RunVad(oku_vad* vad, const oku::AudioData& signal, std::size_t chunk)
{
    std::ostringstream os;
    for (std::size_t i = 0; i < signal.size(); i += chunk) {
        const std::size_t n = std::min(chunk, signal.size() - i);
        EXPECT_EQ(OKU_OK, oku_vad_process(vad, signal.data() + i, n));
        oku_vad_result r;
        for (;;) {
            EXPECT_EQ(OKU_OK, oku_vad_next(vad, &r));
            if (r.type == OKU_VAD_NONE)
                break;
            os << r.type << " " << r.time_ms << " " << r.speech << " " << r.assessment << " "
               << r.peak << " " << r.level_dbfs << " " << r.snr_pct << " " << r.frame_index << " " << r.sample_count;
            for (int k = 0; k < r.sample_count; ++k)
                os << " " << r.samples[k];
            os << "\n";
        }
    }
    return os.str();
}

// The same from the class, formatted the same way.
std::string RunClass(double rate, const oku::AudioData& signal, std::size_t chunk, bool frames)
{
    oku::AudioAnalyzer a("", rate, frames);
    std::ostringstream os;
    for (std::size_t i = 0; i < signal.size(); i += chunk) {
        a.Process(testsig::Slice(signal, i, std::min(chunk, signal.size() - i)));
        testsig::Drained d = testsig::Drain(a);
        for (const auto& r : d.all) {
            if (auto e = std::dynamic_pointer_cast<oku::AnalyzerEvent>(r)) {
                if (e->GetTag() != oku::AnalyzerEvent::SpeechStart && e->GetTag() != oku::AnalyzerEvent::SpeechEnd)
                    continue;
                const bool start = e->GetTag() == oku::AnalyzerEvent::SpeechStart;
                os << (start ? 1 : 2) << " " << e->GetTimeMs() << " " << start << " 0 0 0 0 0 0\n";
            } else if (auto m = std::dynamic_pointer_cast<oku::AnalyzerVolumeMeter>(r)) {
                os << 3 << " " << m->GetTimeMs() << " " << m->IsSpeechState() << " " << m->GetInfo() << " " << m->GetVolume() << " " << m->GetVolumedBFS()
                   << " " << m->GetSNRVolumePct() << " 0 0\n";
            } else if (auto f = std::dynamic_pointer_cast<oku::AnalyzerAudioFrame>(r)) {
                if (!frames)
                    continue;
                const double t = f->GetFrameIndex() * a.GetFrameSizeMs();
                os << 4 << " " << t << " " << f->IsSpeechSegmentFrame()
                   << " 0 0 0 0 " << f->GetFrameIndex() << " " << f->GetData().size();
                for (short s : f->GetData())
                    os << " " << s;
                os << "\n";
            }
        }
    }
    return os.str();
}

struct Lines {
    std::vector<std::string> lines;
    static void Add(void* user, const char* line) { static_cast<Lines*>(user)->lines.push_back(line); }
};

}  // namespace

TEST(OkuHandles, VadResultsMatchTheClass)
{
    for (double rate : {8000.0, 11025.0, 16000.0, 22050.0}) {
        const oku::AudioData signal = Burst(rate);
        for (unsigned flags : {0u, static_cast<unsigned>(OKU_VAD_AUDIO_FRAMES)}) {
            oku_vad* vad = nullptr;
            ASSERT_EQ(OKU_OK, oku_vad_create_ex(rate, "", flags, &vad));
            const std::string got = RunVad(vad, signal, 777);
            EXPECT_EQ(RunClass(rate, signal, 777, flags != 0), got) << rate << " " << flags;
            EXPECT_NE(std::string::npos, got.find("\n1 ")) << "a speech start at " << rate;
            oku_vad_destroy(vad);
        }
    }
}

TEST(OkuHandles, PositionsAreInSamplesOfTheRun)
{
    oku_vad* vad = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, nullptr, &vad));
    const oku::AudioData signal = Burst(16000.0);
    ASSERT_EQ(OKU_OK, oku_vad_process(vad, signal.data(), signal.size()));
    std::vector<oku_vad_result> results(64);
    std::size_t count = 0;
    ASSERT_EQ(OKU_OK, oku_vad_results(vad, results.data(), results.size(), &count));
    ASSERT_EQ(3u, count);  // start, end, one reading: the marks and frames are not handed out
    EXPECT_EQ(OKU_VAD_SPEECH_START, results[0].type);
    EXPECT_EQ(93 * 320, results[0].position);  // 7 frames before the first loud frame (100)
    EXPECT_EQ(OKU_VAD_SPEECH_END, results[1].type);
    EXPECT_EQ(164 * 320, results[1].position);
    EXPECT_EQ(OKU_VAD_VOLUME, results[2].type);
    EXPECT_EQ(210 * 20.0, results[2].time_ms);
    ASSERT_EQ(OKU_OK, oku_vad_results(vad, results.data(), results.size(), &count));
    EXPECT_EQ(0u, count);
    // Flush starts a new run: times restart at 0.
    const std::vector<int16_t> more(320 * 3, 0);
    ASSERT_EQ(OKU_OK, oku_vad_flush(vad));
    ASSERT_EQ(OKU_OK, oku_vad_process(vad, more.data(), more.size()));
    oku_vad_result r;
    ASSERT_EQ(OKU_OK, oku_vad_next(vad, &r));
    EXPECT_EQ(OKU_VAD_VOLUME, r.type);
    EXPECT_EQ(60.0, r.time_ms);
    oku_vad_destroy(vad);

    // At 11025 Hz a frame is 220 samples (19.95 ms): frames, starts and ends
    // lie on frame boundaries, counted in whole samples.
    ASSERT_EQ(OKU_OK, oku_vad_create_ex(11025.0, nullptr, OKU_VAD_AUDIO_FRAMES, &vad));
    const oku::AudioData slow = Burst(11025.0);
    ASSERT_EQ(OKU_OK, oku_vad_process(vad, slow.data(), slow.size()));
    int frames = 0, events = 0;
    for (;;) {
        ASSERT_EQ(OKU_OK, oku_vad_next(vad, &r));
        if (r.type == OKU_VAD_NONE)
            break;
        if (r.type == OKU_VAD_FRAME) {
            EXPECT_EQ(frames * 220, r.position);
            EXPECT_EQ(frames++, r.frame_index);
        } else if (r.type != OKU_VAD_VOLUME) {
            ++events;
            EXPECT_EQ((r.type == OKU_VAD_SPEECH_START ? 93 : 164) * 220, r.position);
        }
    }
    EXPECT_EQ(2, events);
    EXPECT_GT(frames, 160);
    oku_vad_destroy(vad);
}

TEST(OkuHandles, NoFrameIsHeldLongerThanTheDelay)
{
    // Fed frame by frame, each frame comes out some frames after it went in;
    // the longest wait is oku_vad_delay's, and the first frame waits exactly
    // that long (until the histogram's 40 energies are there).
    for (double rate : {8000.0, 11025.0, 16000.0, 22050.0}) {
        const oku::AudioData signal = Burst(rate);
        const std::size_t spf = static_cast<std::size_t>(rate / 50);
        double delayMs = 0;
        ASSERT_EQ(OKU_OK, oku_vad_delay(rate, nullptr, &delayMs));
        oku_vad* vad = nullptr;
        ASSERT_EQ(OKU_OK, oku_vad_create_ex(rate, nullptr, OKU_VAD_AUDIO_FRAMES, &vad));
        long long longest = 0, first = -1;
        for (std::size_t f = 0; (f + 1) * spf <= signal.size(); ++f) {
            ASSERT_EQ(OKU_OK, oku_vad_process(vad, signal.data() + f * spf, spf));
            oku_vad_result r;
            for (;;) {
                ASSERT_EQ(OKU_OK, oku_vad_next(vad, &r));
                if (r.type == OKU_VAD_NONE)
                    break;
                if (r.type != OKU_VAD_FRAME)
                    continue;
                const long long held = static_cast<long long>(f) + 1 - r.frame_index;  // frames, from its first sample
                longest = std::max(longest, held);
                if (r.frame_index == 0)
                    first = held;
            }
        }
        const double frameMs = spf * 1000.0 / rate;
        EXPECT_EQ(40, first) << rate;
        EXPECT_DOUBLE_EQ(delayMs, longest * frameMs) << rate;
        oku_vad_destroy(vad);
    }
}

TEST(OkuHandles, InterleavedHandlesAtDifferentRatesDoNotMeet)
{
    const oku::AudioData a = Burst(8000.0), b = Burst(22050.0);
    oku_vad *alone8 = nullptr, *alone22 = nullptr, *x = nullptr, *y = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_create(8000.0, "", &alone8));
    ASSERT_EQ(OKU_OK, oku_vad_create(22050.0, "", &alone22));
    ASSERT_EQ(OKU_OK, oku_vad_create(8000.0, "", &x));
    ASSERT_EQ(OKU_OK, oku_vad_create(22050.0, "", &y));
    const std::string ea = RunVad(alone8, a, 160), eb = RunVad(alone22, b, 441);
    std::string ga, gb;
    for (std::size_t k = 0; k < 210; ++k) {  // one frame of each in turn
        ga += RunVad(x, testsig::Slice(a, k * 160, 160), 160);
        gb += RunVad(y, testsig::Slice(b, k * 441, 441), 441);
    }
    EXPECT_EQ(ea, ga);
    EXPECT_EQ(eb, gb);
    for (oku_vad* v : {alone8, alone22, x, y})
        oku_vad_destroy(v);
}

TEST(OkuHandles, AgcMatchesTheClassAndReportsDecisions)
{
    auto updates = testsig::SpeechScenario(8);
    const oku::AudioData signal = testsig::Updates(updates);
    oku::AGC reference("", 16000);
    auto log = testsig::AttachLog(reference);
    oku_agc* agc = nullptr;
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agc));
    Lines lines;
    ASSERT_EQ(OKU_OK, oku_agc_set_log(agc, Lines::Add, &lines));
    double gain = 0.25;
    float refGain = 0.25f;
    for (std::size_t i = 0; i < signal.size(); i += 960) {  // two calls per update
        const oku::AudioData chunk = testsig::Slice(signal, i, 960);
        double next = -1;
        ASSERT_EQ(OKU_OK, oku_agc_process(agc, chunk.data(), chunk.size(), gain, &next));
        refGain = reference.ComputeGain(chunk, refGain);
        EXPECT_EQ(static_cast<float>(refGain), static_cast<float>(next));
        oku_agc_decision d;
        ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
        oku::AGC::ControlInfo info;
        reference.GetInfo(info);
        EXPECT_EQ(static_cast<int>(info.GetControlType()), d.control);
        EXPECT_EQ(info.GetTimeMs(), d.time_ms);
        EXPECT_EQ(info.GetSpeechLevel(), d.speech_db);
        EXPECT_EQ((i / 960) % 2 == 1, d.updated != 0) << i;  // every second call completes six frames
        gain = next;
    }
    EXPECT_EQ(testsig::Lines(log->str()), lines.lines);
    // Without a callback, updates are still reported, and no line goes anywhere.
    ASSERT_EQ(OKU_OK, oku_agc_set_log(agc, nullptr, nullptr));
    const std::size_t linesSoFar = lines.lines.size();
    const oku::AudioData sixFrames(6 * 320, 0);
    double after = -1;
    ASSERT_EQ(OKU_OK, oku_agc_process(agc, sixFrames.data(), sixFrames.size(), gain, &after));
    oku_agc_decision u;
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &u));
    EXPECT_EQ(1, u.updated);
    EXPECT_EQ(linesSoFar, lines.lines.size());
    // A gain of 0 asks for a starting gain: a decision without a log line.
    double start = -1;
    ASSERT_EQ(OKU_OK, oku_agc_process(agc, nullptr, 0, 0.0, &start));
    EXPECT_NEAR(std::sqrt(0.001), start, 1e-7);
    oku_agc_decision d;
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    EXPECT_EQ(OKU_AGC_GAIN_ESTIMATE, d.control);
    EXPECT_EQ(1, d.updated);
    oku_agc_destroy(agc);
}

// `changed` tells a proposal from a kept gain, which comes back as given: a
// host applies exactly what is flagged and never compares numbers.
TEST(OkuHandles, AgcFlagsAChangedGainAndHandsBackAKeptOne)
{
    const oku::AudioData quiet(6 * 320, 3);  // far below every bound: the pause is too low
    oku_agc* agc = nullptr;
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agc));
    oku_agc_decision d;
    double next = -1;
    // Collecting (five frames of six): 0.02, which no float holds, comes back exactly.
    ASSERT_EQ(OKU_OK, oku_agc_process(agc, quiet.data(), 5 * 320, 0.02, &next));
    EXPECT_EQ(0.02, next);
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    EXPECT_EQ(0, d.updated);
    EXPECT_EQ(0, d.changed);
    // The sixth frame completes an update that raises the gain by 6 dB.
    ASSERT_EQ(OKU_OK, oku_agc_process(agc, quiet.data(), 320, 0.02, &next));
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    EXPECT_EQ(OKU_AGC_PAUSE_TOO_LOW, d.control);
    EXPECT_EQ(1, d.changed);
    EXPECT_NEAR(0.02 * std::pow(10.0, 6.0 / 20.0), next, 1e-6);
    // At full gain the same decision cannot raise it: the operating limit, and nothing to apply.
    ASSERT_EQ(OKU_OK, oku_agc_process(agc, quiet.data(), quiet.size(), 1.0, &next));
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    EXPECT_EQ(OKU_AGC_OPERATING_LIMIT, d.control);
    EXPECT_EQ(1, d.updated);
    EXPECT_EQ(0, d.changed);
    EXPECT_EQ(1.0, next);
    // A gain of 0 asks for a starting gain, which is a change.
    ASSERT_EQ(OKU_OK, oku_agc_process(agc, nullptr, 0, 0.0, &next));
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    EXPECT_EQ(1, d.changed);
    EXPECT_GT(next, 0.0);
    oku_agc_destroy(agc);
}

TEST(OkuHandles, BadArgumentsGiveAStatusAndAMessage)
{
    oku_vad* vad = reinterpret_cast<oku_vad*>(1);
    EXPECT_EQ(OKU_ERR_RATE, oku_vad_create(37800.0, "", &vad));
    EXPECT_STREQ("Sampling rate: 37800 Hz is not one of 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, "
                 "48000, 64000, 88200, 96000, 176400, 192000 Hz",
                 oku_last_error());
    EXPECT_EQ(reinterpret_cast<oku_vad*>(1), vad);  // nothing written
    // A refused string names the grammar, or the key and why.
    EXPECT_EQ(OKU_ERR_PARAMS, oku_vad_create(16000.0, "EOSTimeoutMs", &vad));
    EXPECT_STREQ("Invalid format: entries must be Key=Value, separated by ';'", oku_last_error());
    EXPECT_EQ(OKU_ERR_PARAMS, oku_vad_create(16000.0, "EOSTimeoutMs=soon", &vad));
    EXPECT_STREQ("EOSTimeoutMs: 'soon' is not a whole number in the range of int", oku_last_error());
    oku_agc* refused = nullptr;
    EXPECT_EQ(OKU_ERR_PARAMS, oku_agc_create(8000, "Foo=1;LeastGain=x", &refused));
    EXPECT_STREQ("LeastGain: 'x' is not a number in range", oku_last_error());
    double delay = 0;
    EXPECT_EQ(OKU_ERR_PARAMS, oku_vad_delay(16000.0, "SpeechWindowSizeMs=wide", &delay));
    EXPECT_STREQ("SpeechWindowSizeMs: 'wide' is not a whole number in the range of int", oku_last_error());
    EXPECT_EQ(OKU_ERR_PARAMS, oku_vad_create(16000.0, "HistogramWindowSizeMs=1", &vad));
    EXPECT_NE(nullptr, std::strstr(oku_last_error(), "HistogramWindowSizeMs"));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_create(16000.0, "", nullptr));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_create_ex(16000.0, "", 8u, &vad));

    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &vad));
    oku_vad_result r;
    std::size_t count = 7;
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process(nullptr, nullptr, 0));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process(vad, nullptr, 5));
    EXPECT_STREQ("samples is null", oku_last_error());
    EXPECT_EQ(OKU_OK, oku_vad_process(vad, nullptr, 0));
    // A count no array can have is refused before the pointer is used (a
    // one-sample buffer, so any read past it would be caught by ASan).
    const int16_t one = 0;
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process(vad, &one, SIZE_MAX));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process(vad, &one, static_cast<std::size_t>(PTRDIFF_MAX) / 2 + 1));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_next(nullptr, &r));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_next(vad, nullptr));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_results(vad, &r, 1, nullptr));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_results(vad, &r, 0, &count));
    EXPECT_EQ(7u, count);
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_flush(nullptr));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_reset(nullptr));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_destroy(nullptr));
    EXPECT_EQ(OKU_OK, oku_vad_destroy(vad));

    oku_agc* agc = nullptr;
    EXPECT_EQ(OKU_ERR_RATE, oku_agc_create(47999, "", &agc));
    EXPECT_EQ(OKU_ERR_PARAMS, oku_agc_create(16000, "LeastGain=0", &agc));
    EXPECT_STREQ("LeastGain must lie in (0, 1]", oku_last_error());
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, nullptr, &agc));
    double g = 7;
    const int16_t s[4] = {0, 0, 0, 0};
    for (double bad : {-0.01, 1.5, std::nan("")}) {
        EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_process(agc, s, 4, bad, &g));
        EXPECT_STREQ("gain must lie in [0, 1]", oku_last_error());
    }
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_process(agc, s, 4, 0.5, nullptr));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_process(agc, s, SIZE_MAX, 0.5, &g));
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_process(agc, nullptr, 4, 0.5, &g));
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_process(nullptr, s, 4, 0.5, &g));
    EXPECT_EQ(7, g);
    oku_agc_decision d;
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_info(agc, nullptr));
    ASSERT_EQ(OKU_OK, oku_agc_info(agc, &d));
    EXPECT_EQ(0.0, d.time_ms);  // no rejected call consumed audio
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_set_log(nullptr, nullptr, nullptr));
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_destroy(nullptr));
    EXPECT_EQ(OKU_OK, oku_agc_destroy(agc));
    EXPECT_STREQ("unsupported sampling rate (see oku_rates)", oku_status_message(OKU_ERR_RATE));
    EXPECT_STREQ("unknown status", oku_status_message(42));
}

TEST(OkuHandles, LastErrorIsPerThread)
{
    oku_vad* vad = nullptr;
    EXPECT_EQ(OKU_ERR_RATE, oku_vad_create(1.0, "", &vad));
    std::string other;
    std::thread([&] {
        oku_agc* agc = nullptr;
        oku_agc_create(16000, "LeastGain=2", &agc);
        other = oku_last_error();
    }).join();
    EXPECT_STREQ("Sampling rate: 1 Hz", std::string(oku_last_error()).substr(0, 19).c_str());
    EXPECT_EQ("LeastGain must lie in (0, 1]", other);
}

TEST(OkuThreads, SixteenHandlesOnEightThreadsMatchASerialRun)
{
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    std::vector<std::string> serial(16), parallel(16);
    auto work = [&](int h, std::vector<std::string>& out) {
        const double rate = rates[h % 4];
        oku_vad* vad = nullptr;
        oku_agc* agc = nullptr;
        ASSERT_EQ(OKU_OK, oku_vad_create_ex(rate, h % 2 ? "EOSTimeoutMs=600" : "", OKU_VAD_AUDIO_FRAMES, &vad));
        ASSERT_EQ(OKU_OK, oku_agc_create(static_cast<int>(rate), "", &agc));
        oku::AudioData signal = Burst(rate);
        for (short& s : signal)
            s = static_cast<short>(s / (1 + h % 3));
        std::string text = RunVad(vad, signal, 100 + 37 * static_cast<std::size_t>(h));
        double gain = 0.5;
        for (std::size_t i = 0; i + 960 <= signal.size(); i += 960) {
            ASSERT_EQ(OKU_OK, oku_agc_process(agc, signal.data() + i, 960, gain, &gain));
            text += std::to_string(gain) + "\n";
        }
        out[static_cast<std::size_t>(h)] = text;
        oku_vad_destroy(vad);
        oku_agc_destroy(agc);
    };
    for (int h = 0; h < 16; ++h)
        work(h, serial);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            work(t, parallel);
            work(t + 8, parallel);
        });
    for (std::thread& t : threads)
        t.join();
    for (int h = 0; h < 16; ++h) {
        EXPECT_FALSE(serial[static_cast<std::size_t>(h)].empty());
        EXPECT_EQ(serial[static_cast<std::size_t>(h)], parallel[static_cast<std::size_t>(h)]) << h;
    }
}

namespace {

// Everything a handle has queued, positions and frame samples included.
std::string TakeAll(oku_vad* vad)
{
    std::ostringstream os;
    oku_vad_result r[7];
    std::size_t n = 0;
    do {
        EXPECT_EQ(OKU_OK, oku_vad_results(vad, r, 7, &n));
        for (std::size_t i = 0; i < n; ++i) {
            os << r[i].type << " " << r[i].time_ms << " " << r[i].position << " " << r[i].speech << " "
               << r[i].assessment << " " << r[i].peak << " " << r[i].level_dbfs << " " << r[i].snr_pct << " "
               << r[i].frame_index << " " << r[i].sample_count;
            for (int k = 0; k < r[i].sample_count; ++k)
                os << " " << r[i].samples[k];
            os << "\n";
        }
    } while (n == 7);
    return os.str();
}

}  // namespace

// Handles of every rate, with and without frames, fed chunks of changing
// length (0 included) through oku_vad_process_many: each gets what its twin
// gets from oku_vad_process with the same chunks.
TEST(OkuMany, VadProcessManyGivesEachHandleItsOwnResults)
{
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    const std::size_t n = 12;
    std::vector<oku_vad*> many(n), one(n);
    std::vector<oku::AudioData> audio(n);
    std::vector<std::size_t> at(n, 0);
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned flags = i % 2 ? OKU_VAD_AUDIO_FRAMES : 0u;
        ASSERT_EQ(OKU_OK, oku_vad_create_ex(rates[i % 4], "", flags, &many[i]));
        ASSERT_EQ(OKU_OK, oku_vad_create_ex(rates[i % 4], "", flags, &one[i]));
        audio[i] = Burst(rates[i % 4]);
    }
    bool started = false;
    for (std::size_t call = 0; call < 40; ++call) {
        std::vector<const int16_t*> samples(n);
        std::vector<std::size_t> counts(n);
        for (std::size_t i = 0; i < n; ++i) {
            counts[i] = std::min((call * 7 + i * 13) % 5 == 0 ? 0 : audio[i].size() / 25 + 97 * ((call + i) % 9) + 5 * i,
                                 audio[i].size() - at[i]);
            samples[i] = counts[i] ? audio[i].data() + at[i] : nullptr;
            ASSERT_EQ(OKU_OK, oku_vad_process(one[i], samples[i], counts[i]));
            at[i] += counts[i];
        }
        ASSERT_EQ(OKU_OK, oku_vad_process_many(many.data(), samples.data(), counts.data(), n));
        for (std::size_t i = 0; i < n; ++i) {
            const std::string expected = TakeAll(one[i]);
            started |= expected.find("\n1 ") != std::string::npos || expected.compare(0, 2, "1 ") == 0;
            ASSERT_EQ(expected, TakeAll(many[i])) << "call " << call << " handle " << i;
        }
    }
    EXPECT_TRUE(started) << "the audio must hold speech";
    EXPECT_EQ(OKU_OK, oku_vad_process_many(nullptr, nullptr, nullptr, 0));
    for (std::size_t i = 0; i < n; ++i) {
        oku_vad_destroy(many[i]);
        oku_vad_destroy(one[i]);
    }
}

// Gain controls of every rate, gains fed back in place (new_gains is gains):
// the same gains, decisions and log lines as their own oku_agc_process calls.
TEST(OkuMany, AgcProcessManyGivesEachHandleItsOwnGains)
{
    const int rates[] = {8000, 11025, 16000, 22050};
    const std::size_t n = 8;
    std::vector<oku_agc*> many(n), one(n);
    std::vector<Lines> manyLog(n), oneLog(n);
    std::vector<oku::AudioData> audio(n);
    std::vector<std::size_t> at(n, 0);
    std::vector<double> gains(n), oneGains(n);
    for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(OKU_OK, oku_agc_create(rates[i % 4], "", &many[i]));
        ASSERT_EQ(OKU_OK, oku_agc_create(rates[i % 4], "", &one[i]));
        oku_agc_set_log(many[i], Lines::Add, &manyLog[i]);
        oku_agc_set_log(one[i], Lines::Add, &oneLog[i]);
        const int spf = rates[i % 4] / 50;
        audio[i] = testsig::Tone({{60, 40.0 + 30.0 * i}, {150, 3000.0}, {60, 40.0}, {100, 30000.0}}, rates[i % 4], spf);
        gains[i] = oneGains[i] = i == 0 ? 0.0 : 0.1 * i;
    }
    for (std::size_t call = 0; call < 70; ++call) {
        std::vector<const int16_t*> samples(n);
        std::vector<std::size_t> counts(n);
        for (std::size_t i = 0; i < n; ++i) {
            counts[i] = std::min((call + i) % 7 == 0 ? 0 : audio[i].size() / 50 * ((call + 2 * i) % 6), audio[i].size() - at[i]);
            samples[i] = counts[i] ? audio[i].data() + at[i] : nullptr;
            ASSERT_EQ(OKU_OK, oku_agc_process(one[i], samples[i], counts[i], oneGains[i], &oneGains[i]));
            at[i] += counts[i];
        }
        ASSERT_EQ(OKU_OK, oku_agc_process_many(many.data(), samples.data(), counts.data(), gains.data(), gains.data(), n));
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(oneGains[i], gains[i]) << "call " << call << " handle " << i;
            oku_agc_decision a, b;
            oku_agc_info(one[i], &a);
            oku_agc_info(many[i], &b);
            ASSERT_EQ(0, std::memcmp(&a, &b, sizeof a)) << "call " << call << " handle " << i;
        }
    }
    for (std::size_t i = 0; i < n; ++i) {
        EXPECT_EQ(oneLog[i].lines, manyLog[i].lines) << i;
        EXPECT_GT(oneLog[i].lines.size(), 10u);
        oku_agc_destroy(many[i]);
        oku_agc_destroy(one[i]);
    }
}

// Every refusal names what is wrong, and afterwards every handle still gives
// what a twin that never saw the refused calls gives.
TEST(OkuMany, RefusalsGiveAStatusAndConsumeNothing)
{
    const oku::AudioData x = Burst(16000.0);
    oku_vad *a = nullptr, *b = nullptr, *twin = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &a));
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &b));
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &twin));
    oku_vad* pair[] = {a, b};
    oku_vad* withNull[] = {a, nullptr};
    oku_vad* repeated[] = {a, b, a};
    const int16_t* samples[] = {x.data(), x.data(), x.data()};
    const int16_t* missing[] = {x.data(), nullptr};
    const std::size_t counts[] = {x.size(), x.size(), x.size()};
    const std::size_t huge[] = {x.size(), static_cast<std::size_t>(PTRDIFF_MAX) / 2 + 1};
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process_many(nullptr, samples, counts, 2));
    EXPECT_STREQ("vads is null", oku_last_error());
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process_many(pair, nullptr, counts, 2));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process_many(pair, samples, nullptr, 2));
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process_many(withNull, samples, counts, 2));
    EXPECT_STREQ("vads[1] is null", oku_last_error());
    EXPECT_EQ(OKU_ERR_NULL, oku_vad_process_many(pair, missing, counts, 2));
    EXPECT_STREQ("samples[1] is null", oku_last_error());
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_many(pair, samples, huge, 2));
    EXPECT_STREQ("counts[1] is larger than any array", oku_last_error());
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_many(repeated, samples, counts, 3));
    EXPECT_STREQ("vads[2] repeats an earlier handle", oku_last_error());
    ASSERT_EQ(OKU_OK, oku_vad_process_many(pair, samples, counts, 2));
    ASSERT_EQ(OKU_OK, oku_vad_process(twin, x.data(), x.size()));
    const std::string expected = TakeAll(twin);
    EXPECT_EQ(expected, TakeAll(a));
    EXPECT_EQ(expected, TakeAll(b));
    for (oku_vad* v : {a, b, twin})
        oku_vad_destroy(v);

    oku_agc *g = nullptr, *h = nullptr, *agcTwin = nullptr;
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &g));
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &h));
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agcTwin));
    oku_agc* agcs[] = {g, h};
    oku_agc* twice[] = {h, h};
    const double good[] = {0.5, 0.5};
    double out[2] = {7, 7};
    for (double bad : {-0.01, 1.5, std::nan("")}) {
        const double gains[] = {0.5, bad};
        EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_process_many(agcs, samples, counts, gains, out, 2));
        EXPECT_STREQ("gains[1] must lie in [0, 1]", oku_last_error());
    }
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_process_many(agcs, samples, counts, nullptr, out, 2));
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_process_many(agcs, samples, counts, good, nullptr, 2));
    EXPECT_EQ(OKU_ERR_NULL, oku_agc_process_many(agcs, missing, counts, good, out, 2));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_process_many(agcs, samples, huge, good, out, 2));
    EXPECT_EQ(OKU_ERR_ARGUMENT, oku_agc_process_many(twice, samples, counts, good, out, 2));
    EXPECT_STREQ("agcs[1] repeats an earlier handle", oku_last_error());
    EXPECT_EQ(7, out[0]);
    EXPECT_EQ(7, out[1]);
    double expectedGain = 0;
    ASSERT_EQ(OKU_OK, oku_agc_process_many(agcs, samples, counts, good, out, 2));
    ASSERT_EQ(OKU_OK, oku_agc_process(agcTwin, x.data(), x.size(), 0.5, &expectedGain));
    EXPECT_EQ(expectedGain, out[0]);
    EXPECT_EQ(expectedGain, out[1]);
    oku_agc_decision d, e;
    oku_agc_info(agcTwin, &d);
    oku_agc_info(g, &e);
    EXPECT_EQ(0, std::memcmp(&d, &e, sizeof d));
    for (oku_agc* c : {g, h, agcTwin})
        oku_agc_destroy(c);
}
