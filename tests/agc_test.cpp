// The gain control's rules against values worked out from them, on tones of
// known level: its measurements, the settings it refuses, when it updates,
// the decision table, the gains it hands back, its diagnostic log, and the
// level histogram underneath. (The golden files pin every decision and log
// line on the generated recordings.)
#include "agc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "signals.h"

using oku::AGC;
using oku::AudioData;
using Control = oku::AGC::ControlInfo;

namespace {

const int kFrame = 320, kUpdate = 6 * kFrame;  // 20 ms, and one update (120 ms), at 16 kHz

// 1 kHz tones and the frame levels they give at the gain control (dB of frame power).
const double kBg18 = 13.0, kBg29 = 47.0, kSpeech40 = 158.0, kSpeech45 = 280.0, kSpeech60 = 1580.0, kLoud80 = 15777.0;

// A tone of (frames, amplitude) steps at 16 kHz.
AudioData Tone(const std::vector<std::pair<int, double>>& steps) { return testsig::Tone(steps, 16000.0, kFrame); }

struct Step {
    float in, out;
    Control info;
};

// Fed in chunks of one update, each returned gain passed to the next call
// (open loop: the audio does not depend on the gain).
std::vector<Step> Feed(AGC& agc, const AudioData& x, float gain)
{
    std::vector<Step> steps;
    for (std::size_t i = 0; i + kUpdate <= x.size(); i += kUpdate) {
        Step s{gain, agc.ComputeGain(testsig::Slice(x, i, kUpdate), gain), {}};
        agc.GetInfo(s.info);
        steps.push_back(s);
        gain = s.out;
    }
    return steps;
}

Control::ControlType Decision(AGC& agc, const AudioData& x, float gain) { return Feed(agc, x, gain)[0].info.GetControlType(); }

std::shared_ptr<std::ostringstream> Log(AGC& agc)
{
    auto os = std::make_shared<std::ostringstream>();
    agc.SetLogStream(os);
    return os;
}

// The lines of a log, each split at its tabs (the blank after a tab dropped).
std::vector<std::vector<std::string>> Lines(const std::ostringstream& log)
{
    std::vector<std::vector<std::string>> lines;
    std::istringstream in(log.str());
    for (std::string line, field; std::getline(in, line);) {
        lines.emplace_back();
        std::istringstream fields(line);
        while (std::getline(fields, field, '\t'))
            lines.back().push_back(field.substr(field.rfind(' ', 0) == 0 ? 1 : 0));
    }
    return lines;
}

double DeltaDb(float from, float to) { return 20.0 * std::log10(static_cast<double>(to) / from); }

std::string Refusal(const char* params, int rate = 16000)
{
    return testsig::Refusal([&] { AGC agc(params, rate); });
}

}  // namespace

TEST(Agc, MeasuresPowerAndClipping)
{
    const AudioData tiny = {-1, 0, 1, 1, -1}, hundred(10, 100), full(4, -32768), clip = {32767, -32768, 32766, -32767};
    EXPECT_EQ(0.0f, AGC::ComputePower(tiny.begin(), tiny.end()));  // a mean square of at most 1 is 0 dB
    EXPECT_EQ(0.0f, AGC::ComputePower(tiny.begin(), tiny.begin()));
    EXPECT_FLOAT_EQ(40.0f, AGC::ComputePower(hundred.begin(), hundred.end()));
    EXPECT_NEAR(90.309, AGC::ComputePower(full.begin(), full.end()), 1e-3);
    EXPECT_EQ(0.5f, AGC::ComputeClippingFraction(clip.begin(), clip.end()));
    EXPECT_EQ(0.0f, AGC::ComputeClippingFraction(clip.begin(), clip.begin()));
}

TEST(Agc, RefusesSettingsThatWouldBreakItAndTakesTheirLimits)
{
    const char* const refused[][2] = {
        {"MinUpdateIntervalMs=19", "MinUpdateIntervalMs"}, {"MinLowerLevelSizeMs=140", "MinLowerLevelSizeMs"},
        {"MinUpperLevelSizeMs=140", "MinUpperLevelSizeMs"}, {"WindowSizeMs=19", "WindowSizeMs"},
        {"WindowSizeMs=60", "WindowSizeMs"},  // 3 frames cannot hold a pause level's 4
        {"WindowSizeMs=2147483647", "WindowSizeMs"}, {"SNRWindowSizeMs=119", "SNRWindowSizeMs"},
        {"CutoffFraction=-0.1", "CutoffFraction"}, {"CutoffFraction=1.5", "CutoffFraction"},
        {"LeastGain=0", "LeastGain"}, {"LeastGain=1.01", "LeastGain"}, {"ThresholdOffsetSpeech=-1", "ThresholdOffsetSpeech"},
        {"LeastGain", "Invalid format"}, {"UpperBound=high", "Invalid format"}};
    for (const auto& c : refused)
        EXPECT_NE(std::string::npos, Refusal(c[0]).find(c[1])) << c[0] << ": " << Refusal(c[0]);
    for (const char* ok : {"MinUpdateIntervalMs=20;MinLowerLevelSizeMs=20;MinUpperLevelSizeMs=20", "WindowSizeMs=80",
                           "CutoffFraction=0", "CutoffFraction=1", "LeastGain=1", "SNRWindowSizeMs=120",
                           "ThresholdOffsetSpeech=0", "UnknownKey=1;Another=x"})
        EXPECT_EQ("", Refusal(ok)) << ok;
    for (int rate : {44100, 0})
        EXPECT_EQ("Sampling rate", Refusal("", rate));
    EXPECT_EQ("Sampling rate", Refusal("LeastGain", 48000));  // the rate comes first
}

TEST(Agc, UpdatesOnceTheUpdateIntervalsFramesAreIn)
{
    AGC agc("", 16000);
    EXPECT_EQ(0.5f, agc.ComputeGain(AudioData(kUpdate - 1, 0), 0.5f));  // still collecting
    EXPECT_GT(agc.ComputeGain(AudioData(1, 0), 0.5f), 0.5f);            // the sixth frame completes: silence raises
    agc.ComputeGain(AudioData(2 * kUpdate, 0), 0.5f);  // two updates' audio in one call: one update
    agc.Reset();                                        // which Reset does not uncount
    EXPECT_EQ(2, agc.GetNumUpdates());
    // 130 ms truncates to 6 frames, 140 ms needs 7; at 11025 Hz six frames are
    // 1320 samples, and the 10 beyond them in a call are dropped.
    AGC six("MinUpdateIntervalMs=130", 16000), seven("MinUpdateIntervalMs=140", 16000), slow("", 11025);
    EXPECT_NE(0.5f, six.ComputeGain(AudioData(kUpdate, 0), 0.5f));
    EXPECT_EQ(0.5f, seven.ComputeGain(AudioData(kUpdate, 0), 0.5f));
    EXPECT_NE(0.5f, seven.ComputeGain(AudioData(kFrame, 0), 0.5f));
    EXPECT_EQ(0.5f, slow.ComputeGain(AudioData(1319, 0), 0.5f));
    EXPECT_NE(0.5f, slow.ComputeGain(AudioData(11, 0), 0.5f));
    EXPECT_EQ(0.25f, slow.ComputeGain(AudioData(1310, 0), 0.25f));
}

TEST(Agc, RaisesAndLowersByTheTable)
{
    // (Silence raising by 6 dB up to the operating limit at 1: the golden
    // files, and api_test on the handle.) Speech at 80 dB: lowered by its excess over 78, at most 6 dB, never under the least gain.
    const AudioData loud = Tone({{12, kLoud80}});
    AGC agc("", 16000), capped("UpperBound=70", 16000), least("", 16000);
    const auto l = Feed(agc, loud, 0.5f);
    const float b = l[0].info.GetSpeechLevel();
    ASSERT_NEAR(80.0, b, 0.5);
    EXPECT_EQ(Control::SpeechTooHigh, l[0].info.GetControlType());
    EXPECT_NEAR(78.0 - b, DeltaDb(0.5f, l[0].out), 1e-4);
    EXPECT_NEAR(-6.0, DeltaDb(0.5f, Feed(capped, loud, 0.5f)[0].out), 1e-4);
    const auto m = Feed(least, loud, 0.001f);
    EXPECT_TRUE(m[0].out == 0.001f && m[0].info.GetControlType() == Control::OperatingLimit);
    // A lowering drops the pause bound from its initial value (here 40, where a
    // 29.5 dB tone is too low) to the later one (20, where it is not) until Reset.
    const char* bounds = "InitialPauseLowerBound=40;PauseLowerBound=20";
    const AudioData quiet = Tone({{6, kBg29}});
    AGC fresh(bounds, 16000), lowered(bounds, 16000);
    EXPECT_EQ(Control::PauseTooLow, Decision(fresh, quiet, 0.5f));
    EXPECT_EQ(Control::SpeechTooHigh, Decision(lowered, loud, 0.5f));
    EXPECT_EQ(Control::Unchanged, Decision(lowered, quiet, 0.5f));
    lowered.Reset();
    EXPECT_EQ(Control::PauseTooLow, Decision(lowered, quiet, 0.5f));
}

TEST(Agc, SpeechBelowTheBandRisesOneStepOnceSettled)
{
    // 18 dB background and 45 dB speech, one update = six frames:
    //  1-7   background: nothing (speech detection needs 40 frames in the window)
    //  8, 9  6 and 12 loud frames of the last 40: 12 < 40 x 0.3f (12.0000005)
    //  10    18 loud frames: speech starts, dated 40 frames back
    //  11    level no longer rising, below 57, 27 dB over the noise, noise under 21: +1 dB
    //  12-14 the window, emptied by the raise, holds only speech: b - a = 0, nothing
    //  15    background again, speech still in the window: another +1 dB step
    //  16-19 background, fewer than 25 frames since the raise: no pause yet
    //  20    25 quiet frames: pause, dated 25 frames back
    AGC agc("", 16000);
    const auto log = Log(agc);
    const auto steps = Feed(agc, Tone({{42, kBg18}, {42, kSpeech45}, {48, kBg18}}), 0.25f);
    const auto lines = Lines(*log);
    ASSERT_EQ(22u, steps.size());
    ASSERT_EQ(22u, lines.size());
    EXPECT_NEAR(18.3, steps[10].info.GetPauseLevel(), 1.0);
    EXPECT_NEAR(45.0, steps[10].info.GetSpeechLevel(), 1.0);
    for (std::size_t k = 1; k <= 22; ++k) {
        const Step& s = steps[k - 1];
        const bool raise = k == 11 || k == 15;
        EXPECT_EQ(raise ? Control::SpeechTooLow : Control::Unchanged, s.info.GetControlType()) << k;
        EXPECT_NEAR(raise ? 1.0 : 0.0, DeltaDb(s.in, s.out), 1e-4) << k;
        // The log's eighth field: the state that began, dated back, or none.
        EXPECT_EQ(k == 10 ? "speech:400" : k == 20 ? "pause:1900" : "nil:" + std::to_string(120 * k), lines[k - 1].at(7));
    }
    EXPECT_EQ("66", lines[10][6]);  // frames since speech began
    EXPECT_EQ("6", lines[11][6]);   // the window restarts after a change
    // With a cutoff of 5 percent the speech level follows the loudest frames:
    // speech starts at 40 dB (update 10), rises to 45 (11: no step while
    // rising) and stays there (12: +1 dB).
    AGC rising("CutoffFraction=0.05", 16000);
    const auto r = Feed(rising, Tone({{42, kBg18}, {18, kSpeech40}, {12, kSpeech45}}), 0.25f);
    ASSERT_EQ(12u, r.size());
    EXPECT_GT(r[10].info.GetSpeechLevel(), r[9].info.GetSpeechLevel() + 3.0f);
    EXPECT_EQ(Control::Unchanged, r[10].info.GetControlType());
    EXPECT_EQ(Control::SpeechTooLow, r[11].info.GetControlType());
}

TEST(Agc, SnrWindowRemembersTheBestRatioForItsLength)
{
    // With a level window of six frames each update sees only its own: four
    // frames at 18 dB and two louder ones give the louder level minus 18. Ratios
    // of 14 dB or more are recorded, and the logged best ratio is the largest of
    // the last 33 recorded (4000 ms / 120 ms), or 20 with 2400 ms. The first
    // (60 dB frames) stays the best until 33 (20) smaller ones follow it.
    std::vector<std::pair<int, double>> steps;
    for (int k = 0; k < 41; ++k)
        steps.insert(steps.end(), {{4, kBg18}, {2, k ? kSpeech40 : kSpeech60}});
    for (const auto& c : {std::make_pair("WindowSizeMs=120", 33u), std::make_pair("WindowSizeMs=120;SNRWindowSizeMs=2400", 20u)}) {
        AGC agc(c.first, 16000);
        const auto log = Log(agc);
        Feed(agc, Tone(steps), 0.5f);
        std::vector<double> recorded;
        bool evicted = false;
        for (const auto& f : Lines(*log)) {
            const double ratio = std::stod(f[3]) - std::stod(f[2]);
            if (ratio >= 14.0)
                recorded.push_back(ratio);
            const std::size_t from = recorded.size() > c.second ? recorded.size() - c.second : 0;
            const double best = from < recorded.size() ? *std::max_element(recorded.begin() + static_cast<long>(from), recorded.end()) : 0.0;
            EXPECT_EQ(best, std::stod(f[4])) << c.first << " at " << f[0];
            evicted |= from > 0 && best < recorded[0];
        }
        EXPECT_GT(recorded[0], recorded.back() + 10);
        EXPECT_TRUE(evicted) << c.first;
    }
}

TEST(Agc, GainsInAndOut)
{
    // A gain of 0 asks for the median gain, halfway in dB between the least gain and 1.
    AGC agc("", 16000);
    const float g = agc.ComputeGain(AudioData(5 * kFrame, 1000), 0.0f);
    EXPECT_NEAR(std::sqrt(0.001), g, 1e-7);
    EXPECT_EQ(g, agc.GetMedianGain());
    Control info;
    agc.GetInfo(info);
    EXPECT_EQ(Control::GainEstimate, info.GetControlType());
    EXPECT_EQ(100.0, info.GetTimeMs());  // time advances though the audio is dropped
    EXPECT_EQ(0, agc.GetNumUpdates());  // an estimate is not an update
    EXPECT_EQ(0.5f, agc.ComputeGain(AudioData(kFrame, 0), 0.5f));  // the five frames were not kept
    EXPECT_NEAR(0.1, AGC("LeastGain=0.01", 16000).GetMedianGain(), 1e-7);
    EXPECT_EQ(1.0f, AGC("LeastGain=1", 16000).GetMedianGain());
    // A gain outside 0 to 1 is refused, and nothing of the call is kept.
    AGC strict("", 16000);
    for (float bad : {-0.1f, 1.0001f, std::nanf(""), INFINITY})
        EXPECT_THROW(strict.ComputeGain(AudioData(kUpdate, 0), bad), std::invalid_argument) << bad;
    EXPECT_THROW(strict.ComputeRandomGain(AudioData(kFrame, 0), 2.0f, 3.0f), std::invalid_argument);
    EXPECT_EQ(0.5f, strict.ComputeGain(AudioData(5 * kFrame, 0), 0.5f));
    strict.GetInfo(info);
    EXPECT_EQ(100.0, info.GetTimeMs());
    // On the 16-bit scale a kept gain comes back bit for bit (40000 / 65535 x
    // 65535 in float would give 39999), a raised one as its value there.
    AGC wide("", 16000);
    EXPECT_EQ(40000, wide.ComputeGain(AudioData(kFrame, 0), static_cast<unsigned short>(40000)));
    EXPECT_GT(wide.ComputeGain(AudioData(kUpdate, 0), static_cast<unsigned short>(32768)), 65000);  // +6 dB
    // The random test mode walks in steps of one DeltaGainDb within its range of the first gain.
    std::srand(12345);
    AGC random("", 16000);
    const auto log = Log(random);
    float gain = 0.5f;
    int changes = 0;
    EXPECT_EQ(0.5f, random.ComputeRandomGain(AudioData(kFrame, 0), 0.5f, 3.0f));  // collecting
    for (int i = 0; i < 200; ++i) {
        const float next = random.ComputeRandomGain(AudioData(kUpdate, 0), gain, 3.0f);
        if (next != gain) {
            ++changes;
            EXPECT_NEAR(1.0, std::fabs(DeltaDb(gain, next)), 1e-4);
        }
        EXPECT_LE(std::fabs(DeltaDb(0.5f, next)), 4.0 + 1e-4);
        gain = next;
    }
    EXPECT_GT(changes, 100);
    const auto lines = Lines(*log);
    ASSERT_EQ(201u, lines.size());
    EXPECT_EQ((std::vector<std::string>{"20", "0.5"}), lines[0]);
    EXPECT_TRUE(lines[1][0] == "140" && lines[1].at(2).find("# ") == 0);
}

TEST(Agc, LogLinesAreFlushedItemByItemAndOptional)
{
    // Pause too low: "120 ms, gain 0.5, levels 0 0, ratio 0, clipping 0, 6
    // frames", and the new gain 0.5 x 10^(6/20) = 0.997631; an empty pointer stops the log.
    AGC agc("", 16000);
    const auto log = Log(agc);
    agc.ComputeGain(AudioData(kUpdate, 0), 0.5f);
    agc.SetLogStream(nullptr);
    agc.ComputeGain(AudioData(kUpdate, 0), 0.5f);
    EXPECT_EQ("120\t 0.5\t0\t 0\t 0\t 0\t 6\t toolow:120\t# 0.997631\n", log->str());
    // Every item goes out as it is written: 13 of the head and 4 of a "nil:" tail.
    struct Counting : std::stringbuf {
        int syncs = 0;
        int sync() override
        {
            ++syncs;
            return std::stringbuf::sync();
        }
    } buf;
    AGC counted("", 16000);
    counted.SetLogStream(std::make_shared<std::ostream>(&buf));
    counted.ComputeGain(Tone({{6, kBg29}}), 0.5f);
    EXPECT_EQ(17, buf.syncs) << buf.str();
}

TEST(Agc, HistogramFindsLevelsInQuarterBins)
{
    using Histogram = AGC::Histogram;
    // Percentiles from either end: the lower edge of the first bin where both
    // the percentage and the least count are reached.
    Histogram p(20, 100);
    for (int v = 1; v <= 10; ++v)
        p.Update(static_cast<float>(v));
    const struct {
        int percent;
        bool fromBottom;
        int least;
        float level;
    } queries[] = {{10, true, 1, 1.0f}, {10, false, 1, 10.0f}, {50, true, 1, 5.0f}, {50, false, 1, 6.0f},
                   {10, true, 4, 4.0f}, {10, false, 2, 9.0f},  {100, true, 1, 10.0f}, {100, false, 1, 1.0f},
                   {0, true, 1, 1.0f}};
    for (const auto& q : queries)
        EXPECT_EQ(q.level, p.GetLevel(q.percent, q.fromBottom, q.least)) << q.percent << " " << q.fromBottom << " " << q.least;
    // Quarter bins, values under the minimum ignored; a ring of 2 keeps the
    // last 2; Reset and resizing empty it and keep its shape; sizes under 1 are refused.
    Histogram q(2, 100);
    q.SetMinValue(14.0f);
    for (float x : {13.99f, 14.0f, 57.9f, 30.0f})
        q.Update(x);
    EXPECT_EQ(2, q.GetNumSamples());
    EXPECT_TRUE(q.GetLevel(0, false, 1) == 57.75f && q.GetLevel(0, true, 1) == 30.0f);
    q.Reset();
    EXPECT_TRUE(q.GetNumSamples() == 0 && q._histogram.size() == 400u && q._minValue == 14.0f);
    q.Update(50.0f);
    q.SetSize(150, 100);
    EXPECT_TRUE(q.GetWindowSize() == 150 && q.GetNumSamples() == 0);
    EXPECT_THROW(Histogram(0, 100), std::invalid_argument);
    for (const auto& bad : {std::make_pair(0, 100), std::make_pair(10, 0), std::make_pair(-5, 100)})
        EXPECT_THROW(q.SetSize(bad.first, bad.second), std::invalid_argument);
}
