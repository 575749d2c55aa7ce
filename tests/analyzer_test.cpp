// The analyzer's rules, each against values worked out by hand from the rule:
// the parameter grammar, the high-pass filter and the zeroing of its state,
// the energy histogram, the speech and pause timing, and the volume meter.
// (The golden files pin every result bit for bit; these say why they are so.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "audioanalyzer.h"
#include "energyhistogram.h"
#include "highpassfilter.h"
#include "measure.h"
#include "parameters.h"
#include "rates.h"
#include "recordings.h"
#include "signals.h"

using oku::AnalyzerAudioFrame;
using oku::AnalyzerEvent;
using oku::AnalyzerVolumeMeter;
using oku::AudioAnalyzer;
using oku::AudioData;

namespace {

const double kRates[] = {8000.0, 11025.0, 16000.0, 22050.0};
const double kNone = std::numeric_limits<double>::quiet_NaN();  // a value a case does not check

using testsig::Refusal;

struct Drained {
    std::vector<oku::AnalyzerResultPtr> all;
    std::vector<std::shared_ptr<AnalyzerEvent>> events;
    std::vector<std::shared_ptr<AnalyzerAudioFrame>> frames;
    std::vector<std::shared_ptr<AnalyzerVolumeMeter>> meters;
    std::vector<double> Times(AnalyzerEvent::EventTag tag) const
    {
        std::vector<double> t;
        for (const auto& e : events)
            if (e->GetTag() == tag)
                t.push_back(e->GetTimeMs());
        return t;
    }
    std::string Text() const
    {
        std::string text;
        for (const auto& r : all)
            text += testsig::Describe(*r);
        return text;
    }
};

Drained Drain(AudioAnalyzer& a)
{
    Drained d;
    oku::AnalyzerResultPtr p;
    while (a.GetResult(p)) {
        d.all.push_back(p);
        if (auto e = std::dynamic_pointer_cast<AnalyzerEvent>(p))
            d.events.push_back(e);
        else if (auto f = std::dynamic_pointer_cast<AnalyzerAudioFrame>(p))
            d.frames.push_back(f);
        else
            d.meters.push_back(std::dynamic_pointer_cast<AnalyzerVolumeMeter>(p));
    }
    return d;
}

// Fed one frame per call, then drained.
Drained Feed(AudioAnalyzer& a, const AudioData& x)
{
    const std::size_t n = static_cast<std::size_t>(a.GetSamplesPerFrame());
    for (std::size_t i = 0; i < x.size(); i += n)
        a.Process(testsig::Slice(x, i, std::min(n, x.size() - i)));
    return Drain(a);
}

AudioData Burst(int s, int e, int tail) { return testsig::Burst(s, e, tail, 16000.0); }

}  // namespace

// ---- parameters -------------------------------------------------------------------------

TEST(Parameters, GrammarAndReading)
{
    // Separator runs and edges make no entry; the first occurrence wins; a malformed entry refuses all.
    const struct {
        const char* text;
        int entries;  // -1: refused
    } grammar[] = {{"", 0},      {";;;", 0},    {"a=1;", 1},  {";a=1", 1},    {"a==1", 1},      {"=a=1", 1},
                   {"a=1=", 1},  {";;a==1;", 1}, {"a=1;a=2", 1}, {"a=1;b=2", 2}, {"a", -1},      {"a=", -1},
                   {"=1", -1},   {"x=1;=", -1}, {"x=1;a", -1}, {"a=1=2", -1},  {"==", -1},      {"a=1;b=2=3;c=4", -1}};
    for (const auto& c : grammar) {
        SCOPED_TRACE(c.text);
        if (c.entries < 0) {
            EXPECT_EQ("Invalid format", Refusal([&] { oku::Parameters p(c.text); }));
            continue;
        }
        const oku::Parameters p(c.text);
        EXPECT_EQ(static_cast<std::size_t>(c.entries), p.size());
        EXPECT_EQ(c.entries ? 1 : 7, p.Get<int>("a", 7));
    }
    // Blanks and case belong to keys and values; numbers are read from their start.
    oku::Parameters p(" a = 5 ;A=1;n=12abc;h=0x10;f=2.75;e=1e3;m=-3;bad=abc;big=99999999999");
    EXPECT_TRUE(p.at(" a ") == " 5 " && p.Get<int>(" a ") == 5 && !p.Exists("a"));
    EXPECT_EQ("Key not found", Refusal([&] { p.Get<int>("a"); }));
    EXPECT_TRUE(p.Get<int>("n") == 12 && p.Get<int>("h") == 0 && p.Get<int>("f") == 2 && p.Get<int>("m") == -3);
    EXPECT_TRUE(p.Get<double>("f") == 2.75 && p.Get<float>("f") == 2.75f && p.Get<double>("e") == 1000.0);
    EXPECT_EQ(99999999999.0, p.Get<double>("big"));
    // A malformed value is never hidden by a default.
    EXPECT_EQ("Invalid format", Refusal([&] { p.Get<int>("bad", 7); }));
    EXPECT_EQ("Invalid format", Refusal([&] { p.Get<int>("big", 1); }));
    p.Set<int>("m", 150);
    p.Set<int>("new", -3);
    EXPECT_TRUE(p.at("m") == "150" && p.Get<int>("new") == -3);
}

// ---- high-pass filter ---------------------------------------------------------------------

TEST(HighpassFilter, RoundsHalvesUpAndSaturates)
{
    for (double x = -32770.0; x <= 32770.0; x += 0.123)
        ASSERT_EQ(static_cast<short>(std::floor(std::min(32767.0, std::max(-32768.0, x)) + 0.5)),
                  oku::HighpassFilter::RoundToSample(x))
            << x;
    EXPECT_EQ(0, oku::HighpassFilter::RoundToSample(-0.5));
    EXPECT_EQ(-2, oku::HighpassFilter::RoundToSample(-2.5));
}

// The argument for zeroing a negligible state rests on one inequality: the
// largest growth of a state under zero input (the supremum of the infinity
// norm of the powers of the recursion's matrix) times the bound stays under
// 2^-55 with a wide margin. Computed here from the coefficient table.
TEST(NegligibleState, BoundTimesTheLargestGrowthStaysFarUnderHalfAnUlp)
{
    for (const oku::SupportedRate& r : oku::kSupportedRates) {
        double p[2][2] = {{1, 0}, {0, 1}}, growth = 0, total = 0;  // A^k, A = [[-a2, 1], [-a3, 0]]
        for (int k = 0; k < 100000; ++k) {
            const double norm = std::max(std::fabs(p[0][0]) + std::fabs(p[0][1]), std::fabs(p[1][0]) + std::fabs(p[1][1]));
            growth = std::max(growth, norm);
            total += norm;
            const double q[2][2] = {{-r.a2 * p[0][0] + p[1][0], -r.a2 * p[0][1] + p[1][1]},
                                    {-r.a3 * p[0][0], -r.a3 * p[0][1]}};
            std::memcpy(p, q, sizeof p);
        }
        EXPECT_LT(growth, 28.0) << r.hz;
        EXPECT_LT(total, 1700.0) << r.hz;
        EXPECT_LT(oku::HighpassFilter::kNegligibleState * growth * (1 + 1e-9) * 0x1p20, 0x1p-55) << r.hz;
    }
}

// Speech-like audio with long runs of digital silence and a clipping burst, at
// every rate: the filter, called frame by frame as the classes call it, gives
// exactly the outputs and states of a plain recursion that never zeroes its
// state (whose state meanwhile decays into the subnormal numbers) and runs on
// the unclipped output. Any fused multiply-add or reordered sum differs too,
// which the golden files hardly see (it seldom moves a rounded sample): this
// is what holds -ffp-contract=off where the compiler would fuse by default.
TEST(NegligibleState, ZeroRunsGiveThePlainRecursionsOutputsBitForBit)
{
    const oku::X87DoublePrecision precision;  // double arithmetic, which the x87 unit gives only when told to
    for (const double rate : kRates) {
        const oku::SupportedRate& c = *oku::FindRate(rate);
        const AudioData x = testsig::Render({{1.0, 9000, 40}, {3.0, 0, 0}, {0.02, 0, 1}, {2.5, 0, 0}, {0.6, 90000, 0},
                                             {4.0, 0, 0}, {0.5, 2000, 3}},
                                            rate, 7);
        oku::HighpassFilter f(rate);
        const std::size_t frame = static_cast<std::size_t>(rate / 50);
        volatile double z1 = 0, z2 = 0;  // every product and sum rounded on its own
        bool subnormal = false, zeroed = false, clipped = false;
        std::size_t mismatches = 0;
        for (std::size_t start = 0; start + frame <= x.size(); start += frame) {
            AudioData y = testsig::Slice(x, start, frame);
            f.Filter(y.begin(), y.end());
            for (std::size_t i = 0; i < frame; ++i) {
                const double in = x[start + i];
                volatile double p = c.b1 * in;
                const double out = p + z1;
                volatile double q = c.b2 * in, s1 = q + z2, m1 = c.a2 * out;
                z1 = s1 - m1;
                volatile double q3 = c.b1 * in, m2 = c.a3 * out;
                z2 = q3 - m2;
                clipped |= std::fabs(out) > 32768.0;
                mismatches += oku::HighpassFilter::RoundToSample(out) != y[i];
                subnormal |= std::fpclassify(z1) == FP_SUBNORMAL;
            }
            zeroed |= f.GetZ1() == 0.0 && f.GetZ2() == 0.0 && z1 != 0.0;
        }
        EXPECT_EQ(0u, mismatches) << rate;
        EXPECT_TRUE(subnormal && zeroed && clipped) << rate << ": the audio must reach every case";
        EXPECT_EQ(static_cast<double>(z1), f.GetZ1()) << rate;
        EXPECT_EQ(static_cast<double>(z2), f.GetZ2()) << rate;
    }
}

// ---- energy histogram -----------------------------------------------------------------------

TEST(EnergyHistogram, LevelsAndThresholdsFollowTheRules)
{
    // Energies land in whole-decibel bins; the noise level is the lowest and
    // the speech level the highest bin holding at least n x 0.08 + 0.5 of the
    // n energies (1 up to 18, 8 in a full ring of 100); levels are first
    // computed at the 40th energy (the minimum window), then at every fifth;
    // energies under 15 dB are ignored. Thresholds: the noise level plus 16
    // (in a pause) or 6 (in speech), or 0.3 of the way to the speech level
    // when that is higher; under the lower limit (24) the lower limit, else
    // over the upper (70) the upper.
    using Feed = std::vector<std::pair<double, int>>;
    const struct {
        const char* params;
        Feed feed;
        bool computed;
        double noise, snr, pause, speech;
    } cases[] = {
        {"", {{10.0, 500}}, false, 24, 46, 24, 24},  // before any computation: the reset levels
        {"", {{30.5, 39}, {15.0, 1}, {99.9, 4}}, true, 15, 15, kNone, kNone},  // computed at the 40th, not again by the 44th
        {"", {{30.5, 39}, {15.0, 1}, {99.9, 5}}, true, 30, 69, kNone, kNone},  // the 45th: limit 2, bin 15 holds one
        {"", {{42.7, 1}, {50.0, 38}, {99.9, 1}}, true, 42, 57, kNone, kNone},
        {"", {{30.5, 1}, {45.25, 38}, {60.5, 1}}, true, 30, 30, 46, 39},  // 30 + 16; 30 + 0.3 x 30
        {"", {{15.5, 1}, {17.75, 38}, {20.5, 1}}, true, 15, 5, 31, 24},   // 15 + 16; 21 lifted to 24
        {"", {{60.5, 1}, {75.25, 38}, {90.5, 1}}, true, 60, 30, 70, 69},  // 76 held at 70; 60 + 0.3 x 30
        {"ThresholdLowerLimit=50;ThresholdUpperLimit=40", {{30.0, 40}}, true, 30, 0, 50, 50},  // 46: the lower first
        {"ThresholdLowerLimit=50;ThresholdUpperLimit=40", {{60.0, 40}}, true, 60, 0, 40, 40},
        {"CutoffFraction=0", {{40.0, 100}}, true, 0, 99, kNone, kNone},   // a limit of 0: the ends of the scale
        {"CutoffFraction=2", {{40.0, 100}}, true, 100, -100, kNone, kNone},  // beyond the count: none found
        {"", {{20.0, 150}, {60.0, 100}}, true, 60, 0, kNone, kNone},       // the ring keeps the last 100
        {"", {{20.0, 150}, {60.0, 100}, {30.0, 1}, {60.0, 4}}, true, 60, 0, kNone, kNone},
        {"WindowSize=10;MinWindowSize=21", {{40.0, 100}}, false, kNone, kNone, kNone, kNone},  // never reached
    };
    for (const auto& c : cases) {
        oku::EnergyHistogram h{oku::Parameters(c.params)};
        for (const auto& run : c.feed)
            for (int i = 0; i < run.second; ++i)
                h.Update(run.first);
        SCOPED_TRACE(testing::Message() << c.params << " " << c.feed[0].first << " x " << c.feed[0].second);
        EXPECT_EQ(c.computed, h.IsThresholdComputed());
        for (const auto& v : {std::make_pair(c.noise, h.GetNoiseLevel()), std::make_pair(c.snr, h.GetSNR()),
                              std::make_pair(c.pause, h.GetThreshold(false)), std::make_pair(c.speech, h.GetThreshold(true))})
            EXPECT_TRUE(std::isnan(v.first) || v.first == v.second) << v.first << " against " << v.second;
    }
}

TEST(EnergyHistogram, NewParametersReplayTheRing)
{
    oku::EnergyHistogram h{oku::Parameters("")};
    const auto levels = [&h] { return std::make_pair(h.GetNoiseLevel(), h.GetNoiseLevel() + h.GetSNR()); };
    // 100 energies 15.5, 16.3, ... 94.7: limit 8 gives 21.1 and 89.1.
    for (int i = 0; i < 100; ++i)
        h.Update(15.5 + 0.8 * i);
    EXPECT_EQ(std::make_pair(21.0, 89.0), levels());
    // Shrunk to 50: the most recent 50 (55.5 to 94.7), limit 4: 57.9 and 92.3.
    h.UpdateParameters(oku::Parameters("WindowSize=50"));
    EXPECT_EQ(std::make_pair(57.0, 92.0), levels());
    // Enlarged to 200: the 50 kept, limit 1; a refused update leaves the ring as it was.
    h.UpdateParameters(oku::Parameters("WindowSize=200"));
    EXPECT_THROW(h.UpdateParameters(oku::Parameters("WindowSize=0")), std::invalid_argument);
    EXPECT_EQ(std::make_pair(55.0, 94.0), levels());
    // With a minimum above the window, only while the folded index is high enough: W = 10,
    // minimum 15: the index runs 1..20, then 11..20 twice: computed after 6 + 6 + 6 updates.
    oku::EnergyHistogram folded{oku::Parameters("WindowSize=10;MinWindowSize=15")};
    int computed = 0;
    for (int i = 0; i < 40; ++i) {
        folded.Update(40.0);
        computed += folded.IsThresholdComputed();
    }
    EXPECT_EQ(18, computed);
}

// ---- construction -------------------------------------------------------------------------

TEST(Analyzer, ConstructionRefusesWhatWouldBreakIt)
{
    for (double rate : {44100.0, 16000.5, 0.0, -16000.0}) {
        EXPECT_EQ("Sampling rate", Refusal([&] { AudioAnalyzer a("", rate, true); })) << rate;
        EXPECT_EQ("Sampling rate", Refusal([&] { oku::HighpassFilter f(rate); })) << rate;
    }
    const char* const cases[][2] = {{"EOSTimeoutMs", "Invalid format"}, {"HistogramWindowSizeMs=9", "HistogramWindowSizeMs"},
                                    {"HistogramWindowSizeMs=-2000", "HistogramWindowSizeMs"}, {"CutoffFraction=abc", "Invalid format"}};
    for (const auto& c : cases)
        EXPECT_NE(std::string::npos, Refusal([&] { AudioAnalyzer a(c[0], 16000.0, true); }).find(c[1])) << c[0];
    for (const char* ring : {"WindowSize=0", "WindowSize=-1"})
        EXPECT_THROW(oku::EnergyHistogram{oku::Parameters(ring)}, std::invalid_argument) << ring;
    // The timeout set in code stays through strings without the key, and through a refused one.
    AudioAnalyzer a("EOSTimeoutMs=1000", 16000.0, true);
    EXPECT_EQ(1000, a.GetEOSTimeout());
    a.SetEOSTimeout(30);
    a.UpdateParameters("SpeechWindowFraction=0.5");
    EXPECT_THROW(a.UpdateParameters("EOSTimeoutMs=x"), std::invalid_argument);
    EXPECT_EQ(30, a.GetEOSTimeout());
}

// ---- speech and pause ----------------------------------------------------------------------

TEST(Analyzer, EndFollowsTheTimeoutInFrames)
{
    // P pause frames: the P-th quiet decision is frame e + P, and the end is dated P / 3 back.
    const struct {
        const char* params;
        int timeoutMs, endFrame;
    } cases[] = {{"EOSTimeoutMs=1000", -1, 150 + 50 - 16}, {"", 30, 150 + 2}, {"", 29, 150 + 1}};
    for (const auto& c : cases) {
        AudioAnalyzer a(c.params, 16000.0, true);
        if (c.timeoutMs >= 0)
            a.SetEOSTimeout(c.timeoutMs);
        // (With a short timeout the loud frames in the speech window start speech again.)
        const std::vector<double> ends = Feed(a, Burst(100, 150, 80)).Times(AnalyzerEvent::SpeechEnd);
        ASSERT_FALSE(ends.empty()) << c.params << c.timeoutMs;
        EXPECT_EQ(c.endFrame * 20.0, ends[0]) << c.params << c.timeoutMs;
    }
    // A speech window of no frames (9 / 20 + 0.5 rounds to 0) starts speech at
    // the first decision, also when set by an update a later bad key refused.
    AudioAnalyzer direct("SpeechWindowSizeMs=9", 16000.0, true), updated("", 16000.0, true);
    EXPECT_THROW(updated.UpdateParameters("SpeechWindowSizeMs=9;SpeechWindowFraction=abc"), std::invalid_argument);
    for (AudioAnalyzer* a : {&direct, &updated}) {
        const Drained d = Feed(*a, AudioData(200 * 320, 0));
        ASSERT_FALSE(d.events.empty());
        EXPECT_EQ(AnalyzerEvent::AboveVOR, d.events[0]->GetTag());
        EXPECT_EQ(20.0, d.events[0]->GetTimeMs());
    }
}

TEST(Analyzer, FlushEndsTheRunAndTheNextStartsAtZero)
{
    // In speech, with a leftover of 100 samples: every frame out, the last
    // short, the segment closed at the end of the audio.
    AudioData signal = Burst(100, 120, 0);
    signal.insert(signal.end(), 100, 1000);
    AudioAnalyzer a("", 16000.0, true);
    a.Process(signal);
    a.Flush();
    Drained d = Drain(a);
    ASSERT_EQ(121u, d.frames.size());
    for (int i = 0; i < 121; ++i)
        EXPECT_EQ(i >= 93, d.frames[static_cast<std::size_t>(i)]->IsSpeechSegmentFrame()) << i;
    EXPECT_EQ(100u, d.frames.back()->GetData().size());
    ASSERT_EQ(4u, d.events.size());
    EXPECT_EQ(AnalyzerEvent::SpeechEnd, d.events[3]->GetTag());
    EXPECT_EQ(120 * 20.0 + 100 / 16.0, d.events[3]->GetTimeMs());
    EXPECT_EQ(d.events[3], d.all.back());
    // In a pause: the leftover unflagged, no events; a second flush gives nothing.
    AudioAnalyzer b("", 16000.0, true);
    b.Process(Burst(60, 60, 0));
    b.Process(AudioData(50, 7));
    b.Flush();
    d = Drain(b);
    EXPECT_TRUE(d.events.empty());
    EXPECT_FALSE(d.frames.back()->IsSpeechSegmentFrame());
    EXPECT_EQ(AudioData(50, 7), d.frames.back()->GetData());
    b.Flush();
    EXPECT_TRUE(Drain(b).all.empty());
    // The next run counts from 0 and, the noise level known, decides each frame
    // with the next: a burst at frame 10 starts at 3.
    d = Feed(b, Burst(10, 40, 5));
    EXPECT_EQ(60.0, d.meters.at(2)->GetTimeMs());
    EXPECT_EQ(std::vector<double>{3 * 20.0}, d.Times(AnalyzerEvent::SpeechStart));
}

TEST(Analyzer, ResetKeepsTheQueueAndStartsLikeANewAnalyzer)
{
    AudioAnalyzer a("", 16000.0, true), fresh("", 16000.0, true), twin("", 16000.0, true);
    a.Process(Burst(30, 40, 30));
    twin.Process(Burst(30, 40, 30));
    a.Reset();
    EXPECT_EQ(Drain(twin).Text(), Drain(a).Text());
    EXPECT_EQ(Feed(fresh, Burst(100, 150, 60)).Text(), Feed(a, Burst(100, 150, 60)).Text());
}

// ---- the meter ----------------------------------------------------------------------------------

namespace {

std::shared_ptr<AnalyzerVolumeMeter> Read(AudioAnalyzer& a, const AudioData& chunk)
{
    a.Process(chunk);
    return Drain(a).meters.at(0);
}

}  // namespace

TEST(VolumeMeter, PeakAndItsLimitedFall)
{
    const double oneStep = 20.0 * std::log10(1.0 / 32768.0);  // -90.309
    AudioAnalyzer a("", 16000.0, true);
    AudioData chunk(320, 0);
    chunk[17] = -32768;
    EXPECT_EQ(32768.0, Read(a, chunk)->GetVolume());
    chunk[17] = 32767;
    EXPECT_NEAR(-0.000265, Read(a, chunk)->GetVolumedBFS(), 5e-7);
    // From there a 20 ms frame may fall 48 dB per 100 ms x 20 ms = 9.6 dB; a rise is taken at once.
    EXPECT_NEAR(-9.6, Read(a, AudioData(320, 0))->GetVolumedBFS(), 1e-3);
    EXPECT_NEAR(-19.2, Read(a, AudioData(320, 0))->GetVolumedBFS(), 1e-3);
    chunk[17] = 16384;
    EXPECT_DOUBLE_EQ(20.0 * std::log10(0.5), Read(a, chunk)->GetVolumedBFS());
    // A run starts at 0 dBFS; ten frames may fall 96 dB: to the floor of one step.
    AudioAnalyzer b("", 16000.0, true);
    EXPECT_DOUBLE_EQ(oneStep, Read(b, AudioData(3200, 0))->GetVolumedBFS());
    AudioAnalyzer c("MaxDecayRateDbPerDs=12", 8000.0, true);
    EXPECT_DOUBLE_EQ(-2.4, Read(c, AudioData(160, 0))->GetVolumedBFS());
    // The percentages map -90.309 to 0 dBFS and 0 to 32768 onto 0 to 100.
    const AnalyzerVolumeMeter half(AnalyzerVolumeMeter::OK, oneStep / 2, 16384, 0, 0, false);
    EXPECT_NEAR(50.0, half.GetVolumedBFSPct(), 1e-12);
    EXPECT_EQ(50.0, half.GetVolumePct());
}

TEST(VolumeMeter, AssessmentsFollowTheirLevelsAndWindows)
{
    using Meter = AnalyzerVolumeMeter;
    // Too loud: a frame above -12 dBFS, unless the alignment level is higher.
    const AudioData peak = testsig::Tone({{60, 47.0}, {1, 26000.0}, {1, 47.0}}, 16000.0, 320);
    AudioAnalyzer loud("", 16000.0, true), aligned("TooLoudAlignmentLeveldBFS=-1", 16000.0, true);
    const auto l = Feed(loud, peak).meters;
    EXPECT_TRUE(l[59]->GetInfo() == Meter::OK && l[60]->GetInfo() == Meter::TooLoud);
    EXPECT_EQ(Meter::OK, Feed(aligned, peak).meters[60]->GetInfo());
    // Too noisy: 100 quiet frames, then a steady tone at -20 dBFS whose frames
    // (66.5 dB) put the noise level 0.7 dB over -25 dBFS. With a ring of
    // 100 and a limit of 8 the noise level jumps once fewer than 8 quiet frames
    // remain (after 93 loud ones), recomputed at the next fifth: the 95th. With
    // a ring of 50 (limit 4): after 47, recomputed at 50. Settings do not
    // accumulate: an empty string brings the ring of 100 back.
    const AudioData noisy = testsig::Tone({{100, 47.0}, {120, 3334.0}}, 16000.0, 320);
    const struct {
        const char* params;
        bool reset;
        std::size_t first;
    } windows[] = {{"", false, 194}, {"WindowSize=50", false, 194}, {"HistogramWindowSizeMs=1000", false, 149},
                   {"HistogramWindowSizeMs=1000", true, 194}};
    for (const auto& w : windows) {
        AudioAnalyzer a(w.params, 16000.0, true);
        if (w.reset)
            a.UpdateParameters("");
        const auto r = Feed(a, noisy).meters;
        EXPECT_NE(Meter::TooNoisy, r[w.first - 1]->GetInfo()) << w.params;
        EXPECT_EQ(Meter::TooNoisy, r[w.first]->GetInfo()) << w.params;
    }
    // Too soft: noise about 29.5 dB, speech about 47 (an SNR under 18) from frame
    // 100, detected at 102; reading i follows frame i, so with a window of 20
    // frames it says too soft once i + 1 - 102 > 20; with the default 100, never.
    const AudioData soft = testsig::Tone({{100, 47.0}, {60, 333.0}}, 16000.0, 320);
    AudioAnalyzer window("TooSoftWindowSizeMs=400", 16000.0, true), plain("", 16000.0, true);
    const auto s = Feed(window, soft).meters;
    for (int i = 0; i < 160; ++i)
        EXPECT_EQ(i >= 103 && i + 1 - 102 > 20, s[static_cast<std::size_t>(i)]->GetInfo() == Meter::TooSoft) << i;
    for (const auto& r : Feed(plain, soft).meters)
        EXPECT_NE(Meter::TooSoft, r->GetInfo());
}
