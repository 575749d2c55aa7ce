#include "audioanalyzer.h"

#include <gtest/gtest.h>

#include "analyzer_helpers.h"
#include "signals.h"

using oku::AnalyzerAudioFrame;
using oku::AnalyzerEvent;
using oku::AnalyzerResult;
using oku::AnalyzerResultPtr;
using oku::AnalyzerVolumeMeter;
using oku::AudioAnalyzer;
using oku::AudioData;
using testsig::Drain;
using testsig::Drained;

namespace {

const double kQuiet = 47.0;    // about 29.5 dB
const double kLoud = 10000.0;  // about 76 dB

// quiet for `s` frames, loud up to frame `e` (exclusive), quiet for `tail` more.
AudioData Burst(int s, int e, int tail, double rate = 16000.0)
{
    const int spf = static_cast<int>(20.0 * rate / 1000);
    return testsig::Tone({{s, kQuiet}, {e - s, kLoud}, {tail, kQuiet}}, rate, spf);
}

// Checks that the burst's frames fall in the classes the timing rules assume:
// quiet frames far below the pause threshold (noise + 16), loud frames far above
// it, and the first quiet frame after the burst low enough that its two-frame
// average with the next frame is already quiet.
void CheckBurstEnergies(const AudioData& signal, int s, int e, double rate = 16000.0)
{
    const int spf = static_cast<int>(20.0 * rate / 1000);
    std::vector<double> energy = testsig::FrameEnergies(signal, rate, spf);
    for (std::size_t i = 5; i < energy.size(); ++i) {
        const bool loud = static_cast<int>(i) >= s && static_cast<int>(i) < e;
        if (loud)
            ASSERT_GT(energy[i], 70.0) << i;
        else if (static_cast<int>(i) != e)
            ASSERT_LT(energy[i], 31.0) << i;
        else
            ASSERT_LT(energy[i], 50.0) << i;
    }
}

}  // namespace

// ---- results -------------------------------------------------------------------

TEST(AnalyzerResults, PercentagesMapTheFullRanges)
{
    // dBFS from one quantisation step (-90.309) to full scale (0) onto 0..100;
    // the raw peak onto 0..32768.
    EXPECT_DOUBLE_EQ(100.0, AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, 0.0, 32768, 0, 0, false).GetVolumedBFSPct());
    EXPECT_NEAR(0.0, AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, -90.30899869919436, 0, 0, 0, false).GetVolumedBFSPct(),
                1e-12);
    EXPECT_NEAR(50.0, AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, -45.15449934959718, 0, 0, 0, false).GetVolumedBFSPct(),
                1e-12);
    EXPECT_DOUBLE_EQ(50.0, AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, 0, 16384, 0, 0, false).GetVolumePct());
    EXPECT_DOUBLE_EQ(100.0, AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, 0, 32768, 0, 0, false).GetVolumePct());
}

TEST(AnalyzerResults, AudioFrameOwnsADeepCopy)
{
    AudioData source = {1, 2, 3};
    AnalyzerAudioFrame frame(0, false, &source);
    source[0] = 99;
    EXPECT_EQ((AudioData{1, 2, 3}), frame.GetData());
}

TEST(AnalyzerResults, ResultsOutliveTheAnalyzer)
{
    AnalyzerResultPtr kept;
    {
        AudioAnalyzer analyzer("", 16000.0, true);
        analyzer.Process(AudioData(320, 5));
        ASSERT_TRUE(analyzer.GetResult(kept));
    }
    ASSERT_EQ(AnalyzerResult::RT_VolumeMeter, kept->GetType());
    EXPECT_EQ(5.0, std::dynamic_pointer_cast<AnalyzerVolumeMeter>(kept)->GetVolume());
}

// ---- configuration ------------------------------------------------------------------

TEST(AnalyzerConfig, FrameSizesPerRate)
{
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    const int samples[] = {160, 220, 320, 441};
    for (int i = 0; i < 4; ++i) {
        AudioAnalyzer a("", rates[i], true);
        EXPECT_EQ(samples[i], a.GetSamplesPerFrame());
        EXPECT_EQ(samples[i] / rates[i] * 1000, a.GetFrameSizeMs());
        EXPECT_EQ(420, a.GetEOSTimeout());
    }
    EXPECT_EQ(20.0, AudioAnalyzer("", 16000.0, true).GetFrameSizeMs());
    EXPECT_DOUBLE_EQ(19.954648526077097, AudioAnalyzer("", 11025.0, true).GetFrameSizeMs());
}

TEST(AnalyzerConfig, UnsupportedRatesAndMalformedStringsThrow)
{
    for (double rate : {44100.0, 16000.5, 0.0, -16000.0}) {
        try {
            AudioAnalyzer a("", rate, true);
            ADD_FAILURE() << rate;
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ("Sampling rate", e.what());
        }
    }
    try {
        AudioAnalyzer a("EOSTimeoutMs", 16000.0, true);
        ADD_FAILURE();
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ("Invalid format", e.what());
    }
    try {
        AudioAnalyzer a("HistogramWindowSizeMs=9", 16000.0, true);  // under half a frame: no ring
        ADD_FAILURE();
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string::npos, std::string(e.what()).find("HistogramWindowSizeMs"));
    }
    EXPECT_THROW(AudioAnalyzer("HistogramWindowSizeMs=-2000", 16000.0, true), std::invalid_argument);
}

TEST(AnalyzerConfig, EosTimeoutKeepsItsValueAcrossStringsWithoutIt)
{
    AudioAnalyzer a("EOSTimeoutMs=1000", 16000.0, true);
    EXPECT_EQ(1000, a.GetEOSTimeout());
    a.UpdateParameters("");
    EXPECT_EQ(1000, a.GetEOSTimeout());
    a.SetEOSTimeout(30);
    a.UpdateParameters("SpeechWindowFraction=0.5");
    EXPECT_EQ(30, a.GetEOSTimeout());
    EXPECT_THROW(a.UpdateParameters("EOSTimeoutMs=x"), std::invalid_argument);
    EXPECT_EQ(30, a.GetEOSTimeout());
}

// ---- framing ---------------------------------------------------------------------------

TEST(AnalyzerFraming, ShortChunksWaitAndWholeFramesAreCut)
{
    AudioAnalyzer a("", 16000.0, true);
    a.Process(AudioData());
    a.Process(AudioData(319, 100));
    EXPECT_TRUE(Drain(a).all.empty());
    a.Process(AudioData(481, 100));  // 800 buffered: two frames, 160 wait
    Drained d = Drain(a);
    ASSERT_EQ(1u, d.meters.size());
    EXPECT_EQ(40.0, d.meters[0]->GetTimeMs());
    a.Process(AudioData(160, 100));  // completes the third frame
    d = Drain(a);
    ASSERT_EQ(1u, d.meters.size());
    EXPECT_EQ(60.0, d.meters[0]->GetTimeMs());
}

TEST(AnalyzerFraming, ElevenKilohertzFramesAre220Samples)
{
    AudioAnalyzer a("", 11025.0, true);
    a.Process(AudioData(441, 100));
    Drained d = Drain(a);
    ASSERT_EQ(1u, d.meters.size());
    EXPECT_EQ(2 * (220 / 11025.0 * 1000), d.meters[0]->GetTimeMs());
}

TEST(AnalyzerFraming, SilenceIsDecidedOnlyOnceTheRingIsFull)
{
    AudioAnalyzer a("", 16000.0, true);
    for (int i = 0; i < 199; ++i)
        a.Process(AudioData(320, 0));
    Drained d = Drain(a);
    EXPECT_EQ(199u, d.meters.size());
    EXPECT_TRUE(d.frames.empty());
    a.Process(AudioData(320, 0));
    d = Drain(a);
    // Frames 0..198 decided at once, emitted up to 198 - 10 (the speech window).
    ASSERT_EQ(189u, d.frames.size());
    for (int i = 0; i < 189; ++i) {
        EXPECT_EQ(i, d.frames[static_cast<std::size_t>(i)]->GetFrameIndex());
        EXPECT_FALSE(d.frames[static_cast<std::size_t>(i)]->IsSpeechSegmentFrame());
    }
    EXPECT_TRUE(d.events.empty());
    ASSERT_EQ(1u, d.meters.size());
    EXPECT_EQ(d.meters[0], d.all.back());  // the reading follows the chunk's frames
}

TEST(AnalyzerFraming, FrameDataCarriesTheRawSamplesOrNothing)
{
    AudioData signal = Burst(60, 60, 0);
    AudioAnalyzer with("", 16000.0, true), without("", 16000.0, false);
    with.Process(signal);
    without.Process(signal);
    with.Flush();
    without.Flush();
    Drained a = Drain(with), b = Drain(without);
    ASSERT_EQ(60u, a.frames.size());
    ASSERT_EQ(60u, b.frames.size());
    for (std::size_t i = 0; i < 60; ++i) {
        EXPECT_EQ(testsig::Slice(signal, i * 320, 320), a.frames[i]->GetData());  // unfiltered
        EXPECT_TRUE(b.frames[i]->GetData().empty());
        EXPECT_EQ(a.frames[i]->GetFrameIndex(), b.frames[i]->GetFrameIndex());
    }
}

TEST(AnalyzerFraming, FrameResultsOffLeaveEveryOtherResultAsItWas)
{
    // Two bursts, a flush in the second (with a leftover), then a second run.
    AudioData signal = Burst(100, 120, 0);
    const AudioData second = Burst(60, 90, 0);
    signal.insert(signal.end(), second.begin(), second.end());
    AudioAnalyzer on("", 16000.0, true), off("", 16000.0, true);
    off.SetFrameResults(false);
    auto run = [&](AudioAnalyzer& a) {
        std::vector<AnalyzerResultPtr> all;
        for (std::size_t i = 0; i < signal.size(); i += 1000) {
            a.Process(testsig::Slice(signal, i, std::min<std::size_t>(1000, signal.size() - i)));
            if (i == 50000)
                a.Flush();
            const Drained d = Drain(a);
            all.insert(all.end(), d.all.begin(), d.all.end());
        }
        a.Flush();
        const Drained d = Drain(a);
        all.insert(all.end(), d.all.begin(), d.all.end());
        return all;
    };
    std::vector<AnalyzerResultPtr> with = run(on), without = run(off);
    std::size_t frames = 0, j = 0, events = 0;
    for (const AnalyzerResultPtr& r : with) {
        if (r->GetType() == AnalyzerResult::RT_AudioFrame) {
            ++frames;
            continue;
        }
        ASSERT_LT(j, without.size());
        const AnalyzerResultPtr& o = without[j++];
        ASSERT_EQ(r->GetType(), o->GetType());
        if (r->GetType() == AnalyzerResult::RT_Event) {
            ++events;
            EXPECT_EQ(static_cast<AnalyzerEvent&>(*r).GetTag(), static_cast<AnalyzerEvent&>(*o).GetTag());
            EXPECT_EQ(static_cast<AnalyzerEvent&>(*r).GetTimeMs(), static_cast<AnalyzerEvent&>(*o).GetTimeMs());
        } else {
            const auto &a = static_cast<AnalyzerVolumeMeter&>(*r), &b = static_cast<AnalyzerVolumeMeter&>(*o);
            EXPECT_EQ(a.GetTimeMs(), b.GetTimeMs());
            EXPECT_EQ(a.GetVolumedBFS(), b.GetVolumedBFS());
            EXPECT_EQ(a.GetSNRVolumePct(), b.GetSNRVolumePct());
            EXPECT_EQ(a.GetInfo(), b.GetInfo());
        }
    }
    EXPECT_EQ(j, without.size());
    // 51000 samples before the first flush: 159 frames and a leftover of 120;
    // 16200 after it: 50 frames and a leftover of 200.
    EXPECT_EQ(159u + 1u + 50u + 1u, frames);
    EXPECT_EQ(8u, events);  // two segments, one closed by the flush in the middle
}

TEST(AnalyzerFraming, GetResultOnAnEmptyQueueLeavesItsArgument)
{
    AudioAnalyzer a("", 16000.0, true);
    AnalyzerResultPtr p = std::make_shared<AnalyzerEvent>(1.0, AnalyzerEvent::SpeechStart);
    AnalyzerResultPtr before = p;
    EXPECT_FALSE(a.GetResult(p));
    EXPECT_EQ(before, p);
}

// ---- speech and pause ----------------------------------------------------------------

TEST(AnalyzerStateMachine, BurstIsDatedByTheFrameRules)
{
    // Start: speech is detected at frame s + 2 (three loud frames in the window
    // of ten) and dated at the first frame not yet emitted, s - 7; frames s - 7 ..
    // s + 2 follow the start at once, flagged as speech.
    // End: the first quiet decision is frame e + 1 (frame e still averages with
    // a loud one), so the 21st falls on r = e + 21 and the end is dated at r - 7.
    const int s = 100, e = 150;
    AudioData signal = Burst(s, e, 60);
    CheckBurstEnergies(signal, s, e);
    AudioAnalyzer a("", 16000.0, true);
    testsig::FeedFrames(a, signal);
    Drained d = Drain(a);
    ASSERT_EQ(4u, d.events.size());
    const AnalyzerEvent::EventTag tags[] = {AnalyzerEvent::AboveVOR, AnalyzerEvent::SpeechStart,
                                            AnalyzerEvent::BelowVOR, AnalyzerEvent::SpeechEnd};
    const int frames[] = {s - 7, s - 7, e + 14, e + 14};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(tags[i], d.events[static_cast<std::size_t>(i)]->GetTag()) << i;
        EXPECT_EQ(frames[i] * 20.0, d.events[static_cast<std::size_t>(i)]->GetTimeMs()) << i;
    }
    std::size_t at = 0;
    while (d.all[at] != d.events[1])
        ++at;
    for (int f = s - 7; f <= s + 2; ++f) {
        auto frame = std::dynamic_pointer_cast<AnalyzerAudioFrame>(d.all[++at]);
        ASSERT_TRUE(frame) << f;
        EXPECT_EQ(f, frame->GetFrameIndex());
        EXPECT_TRUE(frame->IsSpeechSegmentFrame());
    }
    // The frames flagged as speech are exactly those between the two events.
    for (const auto& frame : d.frames)
        EXPECT_EQ(frame->GetFrameIndex() >= s - 7 && frame->GetFrameIndex() < e + 14, frame->IsSpeechSegmentFrame())
            << frame->GetFrameIndex();
}

TEST(AnalyzerStateMachine, EndFollowsTheTimeoutInFrames)
{
    // P pause frames: the P-th quiet decision is frame e + P, and emission lags P / 3.
    struct Case {
        const char* params;
        int timeoutMs;
        int endFrame;
    } cases[] = {{"EOSTimeoutMs=1000", -1, 150 + 50 - 16}, {"", 30, 150 + 2}, {"", 29, 150 + 1}};
    for (const Case& c : cases) {
        AudioData signal = Burst(100, 150, 80);
        AudioAnalyzer a(c.params, 16000.0, true);
        if (c.timeoutMs >= 0)
            a.SetEOSTimeout(c.timeoutMs);
        testsig::FeedFrames(a, signal);
        Drained d = Drain(a);
        // With a short timeout the loud frames still in the speech window start
        // speech again right after the end; only the first end is of interest.
        std::vector<double> ends = d.Times(AnalyzerEvent::SpeechEnd);
        ASSERT_FALSE(ends.empty()) << c.params << c.timeoutMs;
        EXPECT_EQ(c.endFrame * 20.0, ends[0]) << c.params << c.timeoutMs;
    }
}

TEST(AnalyzerStateMachine, EventsAtElevenKilohertzUseTheExactFrameLength)
{
    const int s = 100, e = 150;
    AudioData signal = Burst(s, e, 60, 11025.0);
    CheckBurstEnergies(signal, s, e, 11025.0);
    AudioAnalyzer a("", 11025.0, true);
    testsig::FeedFrames(a, signal);
    Drained d = Drain(a);
    const double frameMs = 220 / 11025.0 * 1000;
    EXPECT_EQ(std::vector<double>{(s - 7) * frameMs}, d.Times(AnalyzerEvent::SpeechStart));
    EXPECT_EQ(std::vector<double>{(e + 14) * frameMs}, d.Times(AnalyzerEvent::SpeechEnd));
}

TEST(AnalyzerStateMachine, ChunkSizeDoesNotChangeTheResults)
{
    AudioData signal = Burst(100, 150, 60);
    AudioAnalyzer whole("", 16000.0, true), odd("", 16000.0, true);
    whole.Process(signal);
    for (std::size_t i = 0; i < signal.size(); i += 777)
        odd.Process(testsig::Slice(signal, i, std::min<std::size_t>(777, signal.size() - i)));
    Drained a = Drain(whole), b = Drain(odd);
    ASSERT_EQ(a.frames.size(), b.frames.size());
    for (std::size_t i = 0; i < a.frames.size(); ++i) {
        EXPECT_EQ(a.frames[i]->IsSpeechSegmentFrame(), b.frames[i]->IsSpeechSegmentFrame());
        EXPECT_EQ(a.frames[i]->GetData(), b.frames[i]->GetData());
    }
    EXPECT_EQ(a.Times(AnalyzerEvent::SpeechStart), b.Times(AnalyzerEvent::SpeechStart));
    EXPECT_EQ(a.Times(AnalyzerEvent::SpeechEnd), b.Times(AnalyzerEvent::SpeechEnd));
}

TEST(AnalyzerStateMachine, ASpeechWindowOfNoFramesStartsAtTheFirstDecision)
{
    AudioAnalyzer a("SpeechWindowSizeMs=9", 16000.0, true);  // 9 / 20 + 0.5 -> 0 frames
    for (int i = 0; i < 200; ++i)
        a.Process(AudioData(320, 0));
    Drained d = Drain(a);
    // Frame 0 is emitted before its own decision (window 0), then speech starts after it.
    ASSERT_FALSE(d.events.empty());
    EXPECT_EQ(20.0, d.events[0]->GetTimeMs());
    EXPECT_EQ(AnalyzerEvent::AboveVOR, d.events[0]->GetTag());
}

TEST(AnalyzerStateMachine, FailedUpdateKeepsTheSettingsReadBeforeTheBadKey)
{
    AudioAnalyzer a("", 16000.0, true);
    EXPECT_THROW(a.UpdateParameters("SpeechWindowSizeMs=9;SpeechWindowFraction=abc"), std::invalid_argument);
    for (int i = 0; i < 200; ++i)
        a.Process(AudioData(320, 0));
    Drained d = Drain(a);
    ASSERT_FALSE(d.events.empty());  // the speech window of 0 frames took effect
    EXPECT_EQ(20.0, d.events[0]->GetTimeMs());
}

// ---- flush and reset ---------------------------------------------------------------------

TEST(AnalyzerFlush, InSpeechEmitsEverythingAndClosesAtTheEndOfTheAudio)
{
    const int s = 100;
    AudioData signal = Burst(s, s + 20, 0);
    signal.insert(signal.end(), 100, 1000);  // a leftover of 100 samples
    AudioAnalyzer a("", 16000.0, true);
    testsig::FeedFrames(a, signal);
    a.Flush();
    Drained d = Drain(a);
    ASSERT_EQ(121u, d.frames.size());
    for (int i = 0; i < 121; ++i)
        EXPECT_EQ(i >= s - 7, d.frames[static_cast<std::size_t>(i)]->IsSpeechSegmentFrame()) << i;
    EXPECT_EQ(100u, d.frames.back()->GetData().size());
    EXPECT_EQ(120, d.frames.back()->GetFrameIndex());
    ASSERT_EQ(4u, d.events.size());
    EXPECT_EQ(AnalyzerEvent::BelowVOR, d.events[2]->GetTag());
    EXPECT_EQ(AnalyzerEvent::SpeechEnd, d.events[3]->GetTag());
    EXPECT_EQ(120 * 20.0 + 100 / 16000.0 * 1000, d.events[3]->GetTimeMs());
    EXPECT_EQ(d.events[3], d.all.back());
}

TEST(AnalyzerFlush, InPauseEmitsTheLeftoverUnflaggedAndNoEvents)
{
    AudioAnalyzer a("", 16000.0, true);
    testsig::FeedFrames(a, Burst(60, 60, 0));
    a.Process(AudioData(50, 7));
    a.Flush();
    Drained d = Drain(a);
    EXPECT_TRUE(d.events.empty());
    ASSERT_EQ(61u, d.frames.size());
    EXPECT_FALSE(d.frames.back()->IsSpeechSegmentFrame());
    EXPECT_EQ(AudioData(50, 7), d.frames.back()->GetData());
    a.Flush();
    EXPECT_TRUE(Drain(a).all.empty());
}

TEST(AnalyzerFlush, NextRunCountsFromZeroAndDecidesAtOnce)
{
    AudioAnalyzer a("", 16000.0, true);
    testsig::FeedFrames(a, Burst(60, 60, 0));
    a.Flush();
    Drain(a);
    // The histogram kept its threshold: every frame now decides the one before it.
    a.Process(Burst(3, 3, 0));
    Drained d = Drain(a);
    ASSERT_EQ(1u, d.meters.size());
    EXPECT_EQ(60.0, d.meters[0]->GetTimeMs());
    ASSERT_TRUE(d.frames.empty());  // decided frames 0, 1 wait for the speech window
    const int s = 10;
    AudioAnalyzer b("", 16000.0, true);
    testsig::FeedFrames(b, Burst(60, 60, 0));
    b.Flush();
    Drain(b);
    testsig::FeedFrames(b, Burst(s, s + 30, 5));
    EXPECT_EQ(std::vector<double>{(s - 7) * 20.0}, Drain(b).Times(AnalyzerEvent::SpeechStart));
}

TEST(AnalyzerReset, KeepsTheQueueAndRestartsLikeANewAnalyzer)
{
    AudioData signal = Burst(100, 150, 60);
    AudioAnalyzer a("", 16000.0, true), fresh("", 16000.0, true);
    testsig::FeedFrames(a, Burst(30, 40, 30));
    const std::size_t queued = [&] {
        AudioAnalyzer copy("", 16000.0, true);
        testsig::FeedFrames(copy, Burst(30, 40, 30));
        return Drain(copy).all.size();
    }();
    a.Reset();
    Drained before = Drain(a);
    EXPECT_EQ(queued, before.all.size());
    testsig::FeedFrames(a, signal);
    testsig::FeedFrames(fresh, signal);
    Drained x = Drain(a), y = Drain(fresh);
    EXPECT_EQ(y.Times(AnalyzerEvent::SpeechStart), x.Times(AnalyzerEvent::SpeechStart));
    EXPECT_EQ(y.Times(AnalyzerEvent::SpeechEnd), x.Times(AnalyzerEvent::SpeechEnd));
    ASSERT_EQ(y.meters.size(), x.meters.size());
    for (std::size_t i = 0; i < x.meters.size(); ++i)
        EXPECT_EQ(y.meters[i]->GetVolumedBFS(), x.meters[i]->GetVolumedBFS()) << i;
}
