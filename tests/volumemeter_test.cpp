// The analyzer's one reading per chunk: peak, decayed dBFS level, SNR percentage, assessment.
#include <gtest/gtest.h>

#include <cmath>

#include "analyzer_helpers.h"
#include "audioanalyzer.h"
#include "signals.h"

using oku::AnalyzerEvent;
using oku::AnalyzerVolumeMeter;
using oku::AudioAnalyzer;
using oku::AudioData;
using testsig::Drain;
using testsig::Drained;

namespace {

const double kOneStepdBFS = 20.0 * std::log10(1.0 / 32768.0);  // -90.309

std::shared_ptr<AnalyzerVolumeMeter> Read(AudioAnalyzer& a, const AudioData& chunk)
{
    a.Process(chunk);
    Drained d = Drain(a);
    return d.meters.empty() ? nullptr : d.meters.back();
}

// Feeds a signal frame by frame and returns every reading.
std::vector<std::shared_ptr<AnalyzerVolumeMeter>> Readings(AudioAnalyzer& a, const AudioData& signal)
{
    testsig::FeedFrames(a, signal);
    return Drain(a).meters;
}

}  // namespace

TEST(VolumeMeter, PeakAndFullScale)
{
    AudioAnalyzer a("", 16000.0, true);
    AudioData chunk(320, 0);
    chunk[17] = -32768;
    auto r = Read(a, chunk);
    ASSERT_TRUE(r);
    EXPECT_EQ(32768.0, r->GetVolume());
    EXPECT_EQ(0.0, r->GetVolumedBFS());
    chunk[17] = 32767;
    r = Read(a, chunk);
    EXPECT_EQ(32767.0, r->GetVolume());
    EXPECT_NEAR(-0.000265, r->GetVolumedBFS(), 5e-7);
}

TEST(VolumeMeter, FallIsLimitedPerChunkAndRiseIsNot)
{
    AudioAnalyzer a("", 16000.0, true);
    // Decay memory starts at 0 dBFS; one 20 ms frame may fall 1 x 48 x 20 / 100 = 9.6 dB.
    EXPECT_DOUBLE_EQ(-9.6, Read(a, AudioData(320, 0))->GetVolumedBFS());
    EXPECT_DOUBLE_EQ(-19.2, Read(a, AudioData(320, 0))->GetVolumedBFS());
    EXPECT_EQ(0.0, Read(a, AudioData(320, 0))->GetVolume());
    AudioData loud(320, 0);
    loud[3] = 16384;  // -6.02 dBFS, reached at once
    EXPECT_DOUBLE_EQ(20.0 * std::log10(0.5), Read(a, loud)->GetVolumedBFS());

    // A ten-frame chunk may fall 96 dB: from 0 straight to the floor of one quantisation step.
    AudioAnalyzer b("", 16000.0, true);
    EXPECT_DOUBLE_EQ(kOneStepdBFS, Read(b, AudioData(3200, 0))->GetVolumedBFS());

    // At 8 kHz frames are 20 ms too; a custom rate of 12 dB per 100 ms falls 2.4 per frame.
    AudioAnalyzer c("MaxDecayRateDbPerDs=12", 8000.0, true);
    EXPECT_DOUBLE_EQ(-2.4, Read(c, AudioData(160, 0))->GetVolumedBFS());
}

TEST(VolumeMeter, SnrPercentageIsZeroInPauseAndScaledInSpeech)
{
    // Silence first (ignored by the histogram), so the histogram keeps its reset
    // levels: noise 24, with offset 30, full scale max(24, -54 + 90.309 - 30) = 24.
    const int spf = 320;
    AudioAnalyzer a("", 16000.0, true);
    AudioData signal = testsig::Tone({{200, 0.0}, {6, 200.0}, {3, 1000.0}}, 16000.0, spf);
    std::vector<double> energy = testsig::FrameEnergies(signal, 16000.0, spf);
    auto readings = Readings(a, signal);
    ASSERT_EQ(209u, readings.size());
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(0.0, readings[static_cast<std::size_t>(i)]->GetSNRVolumePct());
    // Energies of about 42 dB count as loud against the lower limit of 24: speech is
    // detected at the third (frame 202), which frame 203's reading reports.
    EXPECT_FALSE(readings[202]->IsSpeechState());
    for (int i = 203; i < 206; ++i) {
        auto r = readings[static_cast<std::size_t>(i)];
        ASSERT_TRUE(r->IsSpeechState()) << i;
        ASSERT_NEAR(42.0, energy[static_cast<std::size_t>(i)], 1.0);
        EXPECT_DOUBLE_EQ((energy[static_cast<std::size_t>(i)] - 30.0) / 24.0 * 100.0, r->GetSNRVolumePct()) << i;
    }
    // A frame 24 dB or more above 30 reads 100 percent, not more.
    EXPECT_GT(energy[208], 54.0);
    EXPECT_EQ(100.0, readings[208]->GetSNRVolumePct());
}

TEST(VolumeMeter, TooLoudAboveMinusTwelveDbfsUnlessTooNoisy)
{
    AudioAnalyzer a("", 16000.0, true);
    AudioData signal = testsig::Tone({{60, 47.0}, {1, 26000.0}, {1, 47.0}}, 16000.0, 320);
    std::vector<double> energy = testsig::FrameEnergies(signal, 16000.0, 320);
    ASSERT_GT(energy[60] + kOneStepdBFS, -12.0);
    auto readings = Readings(a, signal);
    EXPECT_EQ(AnalyzerVolumeMeter::OK, readings[59]->GetInfo());
    EXPECT_EQ(AnalyzerVolumeMeter::TooLoud, readings[60]->GetInfo());
    // A higher alignment level turns it back to OK.
    AudioAnalyzer b("TooLoudAlignmentLeveldBFS=-1", 16000.0, true);
    EXPECT_EQ(AnalyzerVolumeMeter::OK, Readings(b, signal)[60]->GetInfo());
}

TEST(VolumeMeter, TooNoisyOnceTheNoiseLevelClimbsAboveMinusTwentyFiveDbfs)
{
    // 100 quiet frames, then a steady loud tone (about 76 dB on the energy scale,
    // -14 dBFS, so not too loud). With the default window of 100 frames and a
    // limit of 8, the noise level jumps when fewer than 8 quiet frames remain
    // (after 93 loud ones) and is recomputed at the next multiple of five: the
    // 95th loud frame. With a window of 50 (limit 4): after 47, recomputed at 50.
    AudioData signal = testsig::Tone({{100, 47.0}, {120, 6000.0}}, 16000.0, 320);
    for (const char* params : {"", "WindowSize=50"}) {  // "WindowSize" cannot be set directly
        AudioAnalyzer a(params, 16000.0, true);
        auto readings = Readings(a, signal);
        EXPECT_NE(AnalyzerVolumeMeter::TooNoisy, readings[100 + 93]->GetInfo()) << params;
        EXPECT_EQ(AnalyzerVolumeMeter::TooNoisy, readings[100 + 94]->GetInfo()) << params;
    }
    AudioAnalyzer half("HistogramWindowSizeMs=1000", 16000.0, true);
    auto readings = Readings(half, signal);
    EXPECT_NE(AnalyzerVolumeMeter::TooNoisy, readings[100 + 48]->GetInfo());
    EXPECT_EQ(AnalyzerVolumeMeter::TooNoisy, readings[100 + 49]->GetInfo());
    // Settings do not accumulate: an empty string brings the window back to 100.
    AudioAnalyzer back("HistogramWindowSizeMs=1000", 16000.0, true);
    back.UpdateParameters("");
    readings = Readings(back, signal);
    EXPECT_NE(AnalyzerVolumeMeter::TooNoisy, readings[100 + 93]->GetInfo());
    EXPECT_EQ(AnalyzerVolumeMeter::TooNoisy, readings[100 + 94]->GetInfo());
}

TEST(VolumeMeter, TooSoftOnlyInSpeechLongerThanTheWindow)
{
    // Noise about 29.5 dB (bin 29), speech about 47 dB: SNR 17-18 < 18 once the
    // histogram sees the speech. Speech starts (detection frame) at 102 with
    // loud frames from 100; with "TooSoftWindowSizeMs=400" (20 frames) a reading
    // may say too soft only once more than 20 frames were measured since then.
    AudioData signal = testsig::Tone({{100, 47.0}, {60, 333.0}}, 16000.0, 320);
    std::vector<double> energy = testsig::FrameEnergies(signal, 16000.0, 320);
    ASSERT_GE(energy[120], 46.0);
    ASSERT_LT(energy[120], 47.0);
    AudioAnalyzer a("TooSoftWindowSizeMs=400", 16000.0, true);
    auto readings = Readings(a, signal);
    for (int i = 0; i < 100; ++i)
        EXPECT_NE(AnalyzerVolumeMeter::TooSoft, readings[static_cast<std::size_t>(i)]->GetInfo()) << i;
    // Reading i is made after frame i is measured: _writeIndex = i + 1, speech start index 102.
    for (int i = 103; i < 160; ++i) {
        const auto& r = readings[static_cast<std::size_t>(i)];
        ASSERT_TRUE(r->IsSpeechState()) << i;
        const bool longEnough = (i + 1) - 102 > 20;
        EXPECT_EQ(longEnough, r->GetInfo() == AnalyzerVolumeMeter::TooSoft) << i;
    }
    // With the default window of 2000 ms (100 frames) the same speech is not too soft yet.
    AudioAnalyzer b("", 16000.0, true);
    for (const auto& r : Readings(b, signal))
        EXPECT_NE(AnalyzerVolumeMeter::TooSoft, r->GetInfo());
}

TEST(VolumeMeter, ReadingFollowsTheEventsOfItsChunk)
{
    AudioAnalyzer a("", 16000.0, true);
    AudioData signal = testsig::Tone({{100, 47.0}, {4, 10000.0}}, 16000.0, 320);
    a.Process(signal);
    Drained d = Drain(a);
    ASSERT_EQ(1u, d.meters.size());
    ASSERT_EQ(2u, d.events.size());
    EXPECT_EQ(d.meters[0], d.all.back());
    EXPECT_TRUE(d.meters[0]->IsSpeechState());
    EXPECT_EQ(104 * 20.0, d.meters[0]->GetTimeMs());
    // A single reading for a chunk of many frames covers its loudest frame.
    EXPECT_EQ(AnalyzerVolumeMeter::OK, d.meters[0]->GetInfo());
    EXPECT_NEAR(20.0 * std::log10(10000.0 / 32768.0), d.meters[0]->GetVolumedBFS(), 0.01);
}
