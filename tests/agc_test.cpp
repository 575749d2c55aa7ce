#include "agc.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "agc_helpers.h"
#include "signals.h"

using oku::AGC;
using oku::AudioData;
using testsig::kAgcFrame;
using testsig::kAgcUpdate;
using Type = oku::AGC::ControlInfo::ControlType;

namespace {

std::string ConstructionError(const std::string& params, int rate = 16000)
{
    try {
        AGC agc(params, rate);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "";
}

// 20 log10 of the ratio of two gains.
double DeltaDb(float from, float to) { return 20.0 * std::log10(static_cast<double>(to) / from); }

}  // namespace

// ---- measurement --------------------------------------------------------------------

TEST(AgcMeasure, PowerAndClipping)
{
    const AudioData tiny = {-1, 0, 1, 1, -1};
    EXPECT_EQ(0.0f, AGC::ComputePower(tiny.begin(), tiny.end()));
    const AudioData empty;
    EXPECT_EQ(0.0f, AGC::ComputePower(empty.begin(), empty.end()));
    EXPECT_EQ(0.0f, AGC::ComputeClippingFraction(empty.begin(), empty.end()));
    const AudioData hundred(10, 100);  // mean square 10000 -> 40 dB
    EXPECT_FLOAT_EQ(40.0f, AGC::ComputePower(hundred.begin(), hundred.end()));
    const AudioData full(4, -32768);  // 20 log10(32768) = 90.309 dB
    EXPECT_NEAR(90.309, AGC::ComputePower(full.begin(), full.end()), 1e-3);
    const AudioData clip = {32767, -32768, 32766, -32767};
    EXPECT_FLOAT_EQ(0.5f, AGC::ComputeClippingFraction(clip.begin(), clip.end()));
}

// ---- construction -----------------------------------------------------------------

TEST(AgcConstruction, RatesAndMalformedStrings)
{
    for (int rate : {8000, 11025, 16000, 22050})
        EXPECT_EQ("", ConstructionError("", rate));
    EXPECT_EQ("Sampling rate", ConstructionError("", 44100));
    EXPECT_EQ("Sampling rate", ConstructionError("", 0));
    EXPECT_EQ("Sampling rate", ConstructionError("LeastGain", 48000));  // the filter comes first
    EXPECT_EQ("Invalid format", ConstructionError("LeastGain"));
    EXPECT_EQ("Invalid format", ConstructionError("UpperBound=high"));
    EXPECT_EQ("", ConstructionError("UnknownKey=1;Another=x"));
}

TEST(AgcConstruction, SettingsThatWouldBreakTheGainControlNameTheirKey)
{
    const struct {
        const char* params;
        const char* key;
    } cases[] = {
        {"MinUpdateIntervalMs=19", "MinUpdateIntervalMs"},
        {"MinUpdateIntervalMs=-120", "MinUpdateIntervalMs"},
        {"MinLowerLevelSizeMs=140", "MinLowerLevelSizeMs"},
        {"MinUpperLevelSizeMs=140", "MinUpperLevelSizeMs"},
        {"WindowSizeMs=19", "WindowSizeMs"},
        {"WindowSizeMs=60", "WindowSizeMs"},  // 3 frames cannot hold the 4 of a pause level
        {"WindowSizeMs=2147483647", "WindowSizeMs"},
        {"SNRWindowSizeMs=119", "SNRWindowSizeMs"},
        {"CutoffFraction=-0.1", "CutoffFraction"},
        {"CutoffFraction=1.5", "CutoffFraction"},
        {"LeastGain=0", "LeastGain"},
        {"LeastGain=-0.5", "LeastGain"},
        {"LeastGain=1.01", "LeastGain"},
        {"ThresholdOffsetSpeech=-1", "ThresholdOffsetSpeech"},
    };
    for (const auto& c : cases) {
        const std::string message = ConstructionError(c.params);
        EXPECT_NE(std::string::npos, message.find(c.key)) << c.params << ": " << message;
    }
    // The limits themselves are accepted.
    for (const char* ok : {"MinUpdateIntervalMs=20;MinLowerLevelSizeMs=20;MinUpperLevelSizeMs=20",
                           "WindowSizeMs=80", "CutoffFraction=0", "CutoffFraction=1", "LeastGain=1",
                           "SNRWindowSizeMs=120", "ThresholdOffsetSpeech=0"})
        EXPECT_EQ("", ConstructionError(ok)) << ok;
}

TEST(AgcConstruction, UpdatesNeedSixFramesByDefault)
{
    AGC agc("", 16000);
    AudioData silence(5 * kAgcFrame + kAgcFrame - 1, 0);
    EXPECT_EQ(0.5f, agc.ComputeGain(silence, 0.5f));  // five frames and a bit: still collecting
    AGC::ControlInfo info;
    agc.GetInfo(info);
    EXPECT_EQ(AGC::ControlInfo::Unchanged, info.GetControlType());
    EXPECT_EQ(0.0f, info.GetPauseLevel());
    EXPECT_EQ(0.0f, info.GetSpeechLevel());
    EXPECT_DOUBLE_EQ(1919 / 16.0, info.GetTimeMs());
    EXPECT_EQ(0, agc.GetNumUpdates());
    EXPECT_GT(agc.ComputeGain(AudioData(1, 0), 0.5f), 0.5f);  // the sixth frame completes: silence raises
    agc.GetInfo(info);
    EXPECT_EQ(AGC::ControlInfo::PauseTooLow, info.GetControlType());
    EXPECT_DOUBLE_EQ(120.0, info.GetTimeMs());
    EXPECT_EQ(1, agc.GetNumUpdates());
    // Twelve frames in one call are one update; Reset keeps the count.
    agc.ComputeGain(AudioData(12 * kAgcFrame, 0), 0.5f);
    agc.Reset();
    EXPECT_EQ(2, agc.GetNumUpdates());

    // 130 ms truncates to 6 frames; 140 ms needs 7.
    AGC six("MinUpdateIntervalMs=130", 16000);
    EXPECT_NE(0.5f, six.ComputeGain(AudioData(6 * kAgcFrame, 0), 0.5f));
    AGC seven("MinUpdateIntervalMs=140", 16000);
    EXPECT_EQ(0.5f, seven.ComputeGain(AudioData(6 * kAgcFrame, 0), 0.5f));
    EXPECT_NE(0.5f, seven.ComputeGain(AudioData(kAgcFrame, 0), 0.5f));

    // At 11025 Hz six frames are 1320 samples; 1330 update and drop the last 10.
    AGC slow("", 11025);
    EXPECT_EQ(0.5f, slow.ComputeGain(AudioData(1319, 0), 0.5f));
    AGC slow2("", 11025);
    EXPECT_NE(0.5f, slow2.ComputeGain(AudioData(1330, 0), 0.5f));
    EXPECT_EQ(0.25f, slow2.ComputeGain(AudioData(1310, 0), 0.25f));  // the 10 leftovers were not kept
}

TEST(AgcConstruction, LevelWindowHoldsOneHundredFiftyFrames)
{
    // A steady 29.5 dB tone changes nothing, so the level window only fills.
    for (const auto& c : {std::make_pair(std::string(""), 150), std::make_pair(std::string("WindowSizeMs=600"), 30)}) {
        AGC agc(c.first, 16000);
        auto log = testsig::AttachLog(agc);
        testsig::Run(agc, testsig::Updates(testsig::Repeat(30, {{6, testsig::kBg29}})), 0.5f);
        std::vector<std::string> lines = testsig::Lines(log->str());
        ASSERT_EQ(30u, lines.size());
        for (std::size_t k = 0; k < lines.size(); ++k) {
            const int expected = std::min(6 * static_cast<int>(k + 1), c.second);
            EXPECT_EQ(std::to_string(expected), testsig::Fields(lines[k])[6]) << c.first << " update " << k;
        }
    }
}

TEST(AgcConstruction, SnrWindowRemembersTheBestRatioForItsLength)
{
    // With a level window of six frames each update sees only its own frames:
    // four at 18 dB and two louder ones give a ratio of the louder level minus
    // 18. Only ratios of at least 14 dB are recorded, and the logged best ratio
    // is the largest of the last 33 recorded (4000 ms / 120 ms), or 20 with
    // 2400 ms. The first update's ratio (60 dB frames) is the best until 33
    // (20) smaller ones have been recorded after it.
    for (const auto& c : {std::make_pair(std::string("WindowSizeMs=120"), 33),
                          std::make_pair(std::string("WindowSizeMs=120;SNRWindowSizeMs=2400"), 20)}) {
        auto updates = testsig::Repeat(1, {{4, testsig::kBg18}, {2, testsig::kSpeech60}});
        testsig::Append(updates, testsig::Repeat(40, {{4, testsig::kBg18}, {2, testsig::kSpeech40}}));
        AGC agc(c.first, 16000);
        auto log = testsig::AttachLog(agc);
        testsig::Run(agc, testsig::Updates(updates), 0.5f);
        std::vector<std::string> lines = testsig::Lines(log->str());
        ASSERT_EQ(41u, lines.size());
        std::vector<double> recorded;
        bool evicted = false;
        for (std::size_t k = 0; k < lines.size(); ++k) {
            const std::vector<std::string> f = testsig::Fields(lines[k]);
            const double ratio = std::stod(f[3]) - std::stod(f[2]);
            if (ratio >= 14.0)
                recorded.push_back(ratio);
            double best = 0.0;
            for (std::size_t i = recorded.size() > static_cast<std::size_t>(c.second) ? recorded.size() - c.second : 0;
                 i < recorded.size(); ++i)
                best = std::max(best, recorded[i]);
            EXPECT_EQ(best, std::stod(f[4])) << c.first << " update " << k;
            evicted = evicted || (recorded.size() > static_cast<std::size_t>(c.second) && best < recorded[0]);
        }
        EXPECT_GT(recorded[0], recorded.back() + 10);
        EXPECT_TRUE(evicted) << c.first;
    }
}

// ---- the decision table ----------------------------------------------------------------

TEST(AgcDecision, SilenceRaisesSixDecibelsPerUpdateUpToTheOperatingLimit)
{
    // a = b = 0: pause too low, + min(12 - 0, 6) dB each update; from 0.01 the
    // seventh raise would pass 1.0 (0.01 x 10^(42/20) = 1.26) and is clamped.
    AGC agc("", 16000);
    auto steps = testsig::Run(agc, AudioData(10 * kAgcUpdate, 0), 0.01f);
    for (int k = 0; k < 6; ++k) {
        const auto& s = steps[static_cast<std::size_t>(k)];
        EXPECT_EQ(AGC::ControlInfo::PauseTooLow, s.info.GetControlType()) << k;
        EXPECT_NEAR(6.0, DeltaDb(s.gainIn, s.gainOut), 1e-4) << k;
        EXPECT_EQ(0.0f, s.info.GetPauseLevel());
        EXPECT_EQ(0.0f, s.info.GetSpeechLevel());
    }
    for (std::size_t k = 6; k < steps.size(); ++k) {
        EXPECT_EQ(1.0f, steps[k].gainOut) << k;
        EXPECT_EQ(AGC::ControlInfo::OperatingLimit, steps[k].info.GetControlType()) << k;
    }
}

TEST(AgcDecision, LoudSpeechLowersByTheExcessAndStopsAtTheLeastGain)
{
    AudioData loud = testsig::Updates(testsig::Repeat(2, {{6, testsig::kLoud80}}));
    AGC agc("", 16000);
    auto steps = testsig::Run(agc, loud, 0.5f);
    const float b = steps[0].info.GetSpeechLevel();
    ASSERT_GT(b, 79.5f);
    ASSERT_LT(b, 80.5f);
    EXPECT_EQ(AGC::ControlInfo::SpeechTooHigh, steps[0].info.GetControlType());
    EXPECT_NEAR(-(b - 78.0), DeltaDb(0.5f, steps[0].gainOut), 1e-4);

    // The lowering is capped at 6 dB.
    AGC capped("UpperBound=70", 16000);
    auto c = testsig::Run(capped, loud, 0.5f);
    EXPECT_NEAR(-6.0, DeltaDb(0.5f, c[0].gainOut), 1e-4);

    AGC atLimit("", 16000);
    auto l = testsig::Run(atLimit, loud, 0.001f);
    EXPECT_EQ(0.001f, l[0].gainOut);
    EXPECT_EQ(AGC::ControlInfo::OperatingLimit, l[0].info.GetControlType());
}

TEST(AgcDecision, TooHighLowersThePauseBoundUntilReset)
{
    // With an initial pause bound of 40 a 29.5 dB tone is "pause too low"; after
    // a too-high correction the bound is 20 and the same tone changes nothing;
    // Reset brings the initial bound back.
    const char* params = "InitialPauseLowerBound=40;PauseLowerBound=20";
    AudioData quiet = testsig::Updates(testsig::Repeat(1, {{6, testsig::kBg29}}));
    AudioData loud = testsig::Updates(testsig::Repeat(1, {{6, testsig::kLoud80}}));
    AGC fresh(params, 16000);
    EXPECT_EQ(AGC::ControlInfo::PauseTooLow, testsig::Run(fresh, quiet, 0.5f)[0].info.GetControlType());

    AGC agc(params, 16000);
    EXPECT_EQ(AGC::ControlInfo::SpeechTooHigh, testsig::Run(agc, loud, 0.5f)[0].info.GetControlType());
    EXPECT_EQ(AGC::ControlInfo::Unchanged, testsig::Run(agc, quiet, 0.5f)[0].info.GetControlType());
    agc.Reset();
    EXPECT_EQ(AGC::ControlInfo::PauseTooLow, testsig::Run(agc, quiet, 0.5f)[0].info.GetControlType());
}

TEST(AgcDecision, SpeechStartRaiseWithinTheSegmentAndPause)
{
    // 18 dB background, 45 dB speech, one update = six frames:
    //  1-7  background: nothing (speech detection needs 40 frames in the window)
    //  8, 9 speech: 6 and 12 loud frames of the last 40; 12 < 40 x 0.3f (12.0000005)
    //  10   18 loud frames: speech starts
    //  11   level no longer rising, below 57, 27 dB above the noise, noise below 21: +1 dB
    //  12-14 window emptied by the raise, only speech in it: b - a = 0, nothing
    //  15   background again, speech still in the window: another +1 dB step
    //  16-19 background, fewer than 25 frames since the raise: no pause yet
    //  20   25 quiet frames: pause
    auto updates = testsig::SpeechScenario(8);
    AGC agc("", 16000);
    auto log = testsig::AttachLog(agc);
    auto steps = testsig::Run(agc, testsig::Updates(updates), 0.25f);
    std::vector<std::string> lines = testsig::Lines(log->str());
    ASSERT_EQ(22u, steps.size());
    ASSERT_EQ(22u, lines.size());

    const float a = steps[10].info.GetPauseLevel(), b = steps[10].info.GetSpeechLevel();
    ASSERT_GT(a, 17.5f);
    ASSERT_LT(a, 19.5f);
    ASSERT_GT(b, 44.0f);
    ASSERT_LT(b, 46.0f);

    for (int k = 1; k <= 22; ++k) {
        const auto& s = steps[static_cast<std::size_t>(k - 1)];
        const std::vector<std::string> f = testsig::Fields(lines[static_cast<std::size_t>(k - 1)]);
        const std::string tag = f[7].substr(0, f[7].find(':') + 1);
        const bool raise = k == 11 || k == 15;
        EXPECT_EQ(raise ? AGC::ControlInfo::SpeechTooLow : AGC::ControlInfo::Unchanged, s.info.GetControlType())
            << "update " << k;
        if (raise) {
            EXPECT_NEAR(1.0, DeltaDb(s.gainIn, s.gainOut), 1e-4) << k;
            ASSERT_EQ(9u, f.size()) << lines[static_cast<std::size_t>(k - 1)];
            EXPECT_EQ("nil:", tag);
        } else {
            EXPECT_EQ(s.gainIn, s.gainOut) << k;
        }
        if (k == 10) {
            EXPECT_EQ("speech:400", f[7]);  // 1200 ms - 40 frames
        } else if (k == 20) {
            EXPECT_EQ("pause:1900", f[7]);  // 2400 ms - 25 frames
        } else {
            EXPECT_EQ("nil:" + std::to_string(120 * k), f[7]) << k;
        }
    }
}

TEST(AgcDecision, NoStepWhileTheSpeechLevelIsStillRising)
{
    // With a cutoff of 5 percent the speech level follows the loudest few frames:
    // speech starts at 40 dB (update 10), rises to 45 (update 11: no step while
    // rising), and stays there (update 12: +1 dB).
    auto updates = testsig::Repeat(7, {{6, testsig::kBg18}});
    testsig::Append(updates, testsig::Repeat(3, {{6, testsig::kSpeech40}}));
    testsig::Append(updates, testsig::Repeat(2, {{6, testsig::kSpeech45}}));
    AGC agc("CutoffFraction=0.05", 16000);
    auto steps = testsig::Run(agc, testsig::Updates(updates), 0.25f);
    ASSERT_EQ(12u, steps.size());
    EXPECT_GT(steps[10].info.GetSpeechLevel(), steps[9].info.GetSpeechLevel() + 3.0f);
    EXPECT_EQ(AGC::ControlInfo::Unchanged, steps[10].info.GetControlType());
    EXPECT_EQ(steps[10].gainIn, steps[10].gainOut);
    EXPECT_EQ(AGC::ControlInfo::SpeechTooLow, steps[11].info.GetControlType());
    EXPECT_NEAR(1.0, DeltaDb(steps[11].gainIn, steps[11].gainOut), 1e-4);
}

// ---- gains -------------------------------------------------------------------------------

TEST(AgcGain, ZeroGainAsksForTheMedianGain)
{
    AGC agc("", 16000);
    const float g = agc.ComputeGain(AudioData(5 * kAgcFrame, 1000), 0.0f);
    EXPECT_NEAR(std::sqrt(0.001), g, 1e-7);  // halfway in dB between 0.001 and 1
    EXPECT_EQ(g, agc.GetMedianGain());
    AGC::ControlInfo info;
    agc.GetInfo(info);
    EXPECT_EQ(AGC::ControlInfo::GainEstimate, info.GetControlType());
    EXPECT_EQ(0.0f, info.GetPauseLevel());
    EXPECT_DOUBLE_EQ(100.0, info.GetTimeMs());  // time advances even though the audio is dropped
    EXPECT_EQ(0, agc.GetNumUpdates());            // an estimate is not an update
    // The five frames were not kept: one more frame does not complete an update.
    EXPECT_EQ(0.5f, agc.ComputeGain(AudioData(kAgcFrame, 0), 0.5f));
    EXPECT_NEAR(0.1, AGC("LeastGain=0.01", 16000).GetMedianGain(), 1e-7);
    EXPECT_EQ(1.0f, AGC("LeastGain=1", 16000).GetMedianGain());
}

TEST(AgcGain, GainOutsideZeroToOneIsRejectedWithoutSideEffects)
{
    AGC agc("", 16000);
    for (float bad : {-0.1f, 1.0001f, std::nanf(""), INFINITY})
        EXPECT_THROW(agc.ComputeGain(AudioData(6 * kAgcFrame, 0), bad), std::invalid_argument) << bad;
    EXPECT_THROW(agc.ComputeRandomGain(AudioData(kAgcFrame, 0), 2.0f, 3.0f), std::invalid_argument);
    AGC::ControlInfo info;
    agc.GetInfo(info);
    EXPECT_EQ(0.0, info.GetTimeMs());
    // Nothing was buffered: five frames are still short of an update.
    EXPECT_EQ(0.5f, agc.ComputeGain(AudioData(5 * kAgcFrame, 0), 0.5f));
    agc.GetInfo(info);
    EXPECT_EQ(100.0, info.GetTimeMs());
}

TEST(AgcGain, SixteenBitGainsMatchTheFloatScale)
{
    // Unchanged: the input comes back bit for bit, although 40000 / 65535 x 65535
    // as float arithmetic would give 39999.
    AGC agc("", 16000);
    EXPECT_EQ(40000, agc.ComputeGain(AudioData(kAgcFrame, 0), static_cast<unsigned short>(40000)));
    // Changed: the float result times 65535, truncated.
    AGC a("", 16000), b("", 16000);
    const AudioData silence(6 * kAgcFrame, 0);
    const float g = static_cast<float>(32768 / 65535.0);
    const float expected = a.ComputeGain(silence, g);
    const unsigned short got = b.ComputeGain(silence, static_cast<unsigned short>(32768));
    EXPECT_EQ(static_cast<unsigned short>(static_cast<int>(expected * 65535.0)), got);
    EXPECT_GT(got, 65000);  // +6 dB from half gain
}

TEST(AgcGain, RandomTestModeWalksInSingleStepsWithinItsRange)
{
    std::srand(12345);
    AGC agc("", 16000);
    auto log = testsig::AttachLog(agc);
    const float start = 0.5f;
    float gain = start;
    int changes = 0;
    EXPECT_EQ(start, agc.ComputeRandomGain(AudioData(kAgcFrame, 0), start, 3.0f));  // collecting
    for (int i = 0; i < 200; ++i) {
        const float next = agc.ComputeRandomGain(AudioData(6 * kAgcFrame, 0), gain, 3.0f);
        if (next != gain) {
            ++changes;
            EXPECT_NEAR(1.0, std::fabs(DeltaDb(gain, next)), 1e-4);
        }
        EXPECT_LE(std::fabs(DeltaDb(start, next)), 4.0 + 1e-4);
        gain = next;
    }
    EXPECT_GT(changes, 100);
    std::vector<std::string> lines = testsig::Lines(log->str());
    ASSERT_EQ(201u, lines.size());
    EXPECT_EQ("20\t 0.5", lines[0]);
    EXPECT_EQ(0u, lines[1].find("140\t 0.5\t# "));
}
