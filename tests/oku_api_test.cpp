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
        EXPECT_EQ(static_cast<double>(refGain), next);
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

TEST(OkuHandles, BadArgumentsGiveAStatusAndAMessage)
{
    oku_vad* vad = reinterpret_cast<oku_vad*>(1);
    EXPECT_EQ(OKU_ERR_RATE, oku_vad_create(44100.0, "", &vad));
    EXPECT_STREQ("Sampling rate", oku_last_error());
    EXPECT_EQ(reinterpret_cast<oku_vad*>(1), vad);  // nothing written
    EXPECT_EQ(OKU_ERR_PARAMS, oku_vad_create(16000.0, "EOSTimeoutMs", &vad));
    EXPECT_STREQ("Invalid format", oku_last_error());
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
    EXPECT_EQ(OKU_ERR_RATE, oku_agc_create(48000, "", &agc));
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
    EXPECT_STREQ("Sampling rate", oku_last_error());
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
