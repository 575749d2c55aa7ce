#include "energyhistogram.h"

#include <gtest/gtest.h>

#include <string>

using oku::EnergyHistogram;
using oku::Parameters;

namespace {

EnergyHistogram Make(const std::string& text = "") { return EnergyHistogram(Parameters(text)); }

void Feed(EnergyHistogram& h, double energy, int times)
{
    for (int i = 0; i < times; ++i)
        h.Update(energy);
}

}  // namespace

TEST(EnergyHistogram, BeforeTheFirstComputationTheResetLevelsHold)
{
    EnergyHistogram h = Make();
    Feed(h, 10.0, 500);  // silence below the 15 dB floor is ignored
    EXPECT_FALSE(h.IsThresholdComputed());
    EXPECT_EQ(24.0, h.GetThreshold(false));
    EXPECT_EQ(24.0, h.GetThreshold(true));
    EXPECT_EQ(24.0, h.GetNoiseLevel());
    EXPECT_EQ(46.0, h.GetSNR());  // 70 - 24
    EXPECT_EQ(30.0, h.GetNoiseLevelWithOffset());
}

TEST(EnergyHistogram, LevelsAreComputedAtTheMinimumThenEveryFifthUpdate)
{
    EnergyHistogram h = Make();
    Feed(h, 30.5, 39);
    EXPECT_FALSE(h.IsThresholdComputed());
    h.Update(15.0);  // 40th: computed; with a limit of 1 the noise is the lowest bin
    ASSERT_TRUE(h.IsThresholdComputed());
    EXPECT_EQ(15.0, h.GetNoiseLevel());
    EXPECT_EQ(15.0, h.GetSNR());  // speech level 30 (highest occupied bin)
    Feed(h, 99.9, 4);              // 41st to 44th: no recomputation
    EXPECT_EQ(15.0, h.GetSNR());
    h.Update(99.9);                // 45th: recomputed, limit 2 now
    EXPECT_EQ(30.0, h.GetNoiseLevel());  // bin 15 holds only one, bin 30 reaches 2
    EXPECT_EQ(99.0 - 30.0, h.GetSNR());
}

TEST(EnergyHistogram, EnergiesLandInTheirWholeDecibelBin)
{
    // With a limit of 1 after 40 energies, the noise is the lowest and the
    // speech level the highest occupied bin.
    EnergyHistogram h = Make();
    h.Update(42.7);
    Feed(h, 50.0, 38);
    h.Update(99.9);
    EXPECT_EQ(42.0, h.GetNoiseLevel());
    EXPECT_EQ(99.0 - 42.0, h.GetSNR());
    EnergyHistogram g = Make();
    g.Update(15.0);
    Feed(g, 50.0, 39);
    EXPECT_EQ(15.0, g.GetNoiseLevel());
}

TEST(EnergyHistogram, FullRingUsesTheEighthFromEachEnd)
{
    // 100 energies 20.5, 21.5, ... 119.5 clipped below 100: use 100 distinct bins instead.
    EnergyHistogram h = Make();
    for (int i = 0; i < 100; ++i)
        h.Update(15.5 + 0.8 * i);  // ascending, all in [15.5, 94.7]
    // limit at n = 100 is 8: the 8th lowest is 15.5 + 0.8 x 7 = 21.1, the 8th highest 15.5 + 0.8 x 92 = 89.1.
    EXPECT_EQ(21.0, h.GetNoiseLevel());
    EXPECT_EQ(89.0 - 21.0, h.GetSNR());
}

TEST(EnergyHistogram, LimitsOfZeroAndBeyondTheCount)
{
    EnergyHistogram zero = Make("CutoffFraction=0");
    Feed(zero, 40.0, 100);
    EXPECT_EQ(0.0, zero.GetNoiseLevel());
    EXPECT_EQ(99.0, zero.GetSNR());
    EnergyHistogram beyond = Make("CutoffFraction=2");
    Feed(beyond, 40.0, 100);
    EXPECT_EQ(100.0, beyond.GetNoiseLevel());
    EXPECT_EQ(-100.0, beyond.GetSNR());  // speech level 0
}

TEST(EnergyHistogram, ThresholdsInterpolateWithAMinimumDistanceAndClamp)
{
    struct Case {
        double noise, speech, pause, inSpeech;
    } cases[] = {{30, 60, 46, 39}, {15, 20, 31, 24}, {60, 90, 70, 69}};
    for (const Case& c : cases) {
        // With a limit of 1 (40 energies), noise = lowest bin and speech = highest bin.
        EnergyHistogram h = Make();
        h.Update(c.noise + 0.5);
        Feed(h, (c.noise + c.speech) / 2 + 0.25, 38);
        h.Update(c.speech + 0.5);
        ASSERT_EQ(c.noise, h.GetNoiseLevel());
        EXPECT_DOUBLE_EQ(c.pause, h.GetThreshold(false)) << c.noise << " " << c.speech;
        EXPECT_DOUBLE_EQ(c.inSpeech, h.GetThreshold(true)) << c.noise << " " << c.speech;
    }
}

TEST(EnergyHistogram, LowerLimitWinsOverAnUpperLimitBelowIt)
{
    EnergyHistogram h = Make("ThresholdLowerLimit=50;ThresholdUpperLimit=40");
    Feed(h, 20.0, 40);  // noise 20, speech 20: thresholds 36 and 26, both below 50
    EXPECT_EQ(50.0, h.GetThreshold(false));
    EnergyHistogram high = Make("ThresholdLowerLimit=50;ThresholdUpperLimit=40");
    Feed(high, 60.0, 40);  // 76 and 66: above the lower limit, clamped to the upper
    EXPECT_EQ(40.0, high.GetThreshold(false));
    EXPECT_EQ(40.0, high.GetThreshold(true));
}

TEST(EnergyHistogram, RingKeepsTheMostRecentAndFoldsItsIndex)
{
    // 250 energies: the first 150 at 20, the last 100 at 60 -> the ring holds only 60s.
    EnergyHistogram h = Make();
    Feed(h, 20.0, 150);
    Feed(h, 60.0, 100);
    EXPECT_EQ(60.0, h.GetNoiseLevel());
    EXPECT_EQ(0.0, h.GetSNR());
    // The next energy replaces the oldest (slot 50 of the folded index), one 60:
    // 99 x 60 and one 30; limit 8 still finds 60 from below.
    h.Update(30.0);
    Feed(h, 60.0, 4);  // reach a multiple of five
    EXPECT_EQ(60.0, h.GetNoiseLevel());
}

TEST(EnergyHistogram, MinimumAboveTheWindowIsReachedOnlyWhileTheIndexIsHighEnough)
{
    // W = 10, minimum 15: _index runs to 20, folds back to 11, 12, ... so it stays >= 15 only part of the time.
    EnergyHistogram h = Make("WindowSize=10;MinWindowSize=15");
    int computed = 0;
    for (int i = 0; i < 40; ++i) {
        h.Update(40.0);
        computed += h.IsThresholdComputed();
    }
    // Indices after each update: 1..20 (computed at 15..20: 6), then 11..20 twice (6 each).
    EXPECT_EQ(18, computed);
    EnergyHistogram never = Make("WindowSize=10;MinWindowSize=21");
    Feed(never, 40.0, 100);
    EXPECT_FALSE(never.IsThresholdComputed());
}

TEST(EnergyHistogram, UpdateParametersReplaysTheRing)
{
    EnergyHistogram h = Make();
    for (int i = 0; i < 100; ++i)
        h.Update(15.5 + 0.8 * i);
    const double noise = h.GetNoiseLevel(), snr = h.GetSNR();
    h.UpdateParameters(Parameters(""));
    EXPECT_TRUE(h.IsThresholdComputed());
    EXPECT_EQ(noise, h.GetNoiseLevel());
    EXPECT_EQ(snr, h.GetSNR());

    // Shrinking to 50 keeps the 50 most recent (55.5 .. 94.7): limit 4 -> 4th lowest 57.9, 4th highest 92.3.
    h.UpdateParameters(Parameters("WindowSize=50"));
    EXPECT_EQ(57.0, h.GetNoiseLevel());
    EXPECT_EQ(92.0 - 57.0, h.GetSNR());

    // Enlarging keeps all 50 and goes on filling: 50 held of 200, limit 50 x 0.02 + 0.5 -> 1.
    h.UpdateParameters(Parameters("WindowSize=200"));
    EXPECT_EQ(55.0, h.GetNoiseLevel());
    EXPECT_EQ(94.0 - 55.0, h.GetSNR());
}

TEST(EnergyHistogram, RejectsARingOfNoFrames)
{
    EXPECT_THROW(Make("WindowSize=0"), std::invalid_argument);
    EXPECT_THROW(Make("WindowSize=-1"), std::invalid_argument);  // wraps to a ring no machine holds
    EXPECT_THROW(Make("CutoffFraction=abc"), std::invalid_argument);
    EnergyHistogram h = Make();
    Feed(h, 40.0, 50);
    EXPECT_THROW(h.UpdateParameters(Parameters("WindowSize=0")), std::invalid_argument);
    EXPECT_TRUE(h.IsThresholdComputed());  // the failed update left the ring as it was
    EXPECT_EQ(40.0, h.GetNoiseLevel());
}
