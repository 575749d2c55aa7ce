#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "agc.h"

using Histogram = oku::AGC::Histogram;

namespace {

Histogram Make(int window, int range = 100)
{
    Histogram h(0, 0);
    h.SetSize(window, range);
    return h;
}

int Total(const Histogram& h) { return std::accumulate(h._histogram.begin(), h._histogram.end(), 0); }

}  // namespace

TEST(AgcHistogram, RingKeepsTheLastWValuesAndFoldsItsIndex)
{
    Histogram h = Make(3);
    for (float x : {10.0f, 20.0f, 30.0f, 40.0f})
        h.Update(x);
    EXPECT_EQ(4, h._wIndex);
    EXPECT_EQ(3, h.GetNumSamples());
    EXPECT_EQ(0, h._histogram[40]);  // 10.0 left its bin
    EXPECT_EQ(1, h._histogram[80]);
    EXPECT_EQ(1, h._histogram[120]);
    EXPECT_EQ(1, h._histogram[160]);
    // The k-th most recent value is at (_wIndex - k) mod W.
    EXPECT_EQ(40.0f, h._window[(4 - 1) % 3]);
    EXPECT_EQ(20.0f, h._window[(4 - 3) % 3]);

    Histogram g = Make(3);
    const int expected[] = {1, 2, 3, 4, 5, 6, 4, 5, 6, 4};
    for (int i = 0; i < 10; ++i) {
        g.Update(50.0f);
        EXPECT_EQ(expected[i], g._wIndex) << i;
    }
}

TEST(AgcHistogram, InvariantsHoldOverALongRandomStream)
{
    Histogram h = Make(37);
    std::vector<float> all;
    std::uint32_t seed = 7;
    for (int i = 0; i < 5000; ++i) {
        seed = seed * 1664525u + 1013904223u;
        const float x = static_cast<float>(seed >> 8) / 16777216.0f * 99.9f;
        h.Update(x);
        all.push_back(x);
        const int n = h.GetNumSamples();
        ASSERT_EQ(std::min<int>(37, i + 1), n);
        ASSERT_EQ(n, Total(h));
        if (i >= 37) {
            ASSERT_GE(h._wIndex, 37);
            ASSERT_LE(h._wIndex, 74);
        }
        for (int k = 1; k <= n; ++k)
            ASSERT_EQ(all[all.size() - static_cast<std::size_t>(k)], h._window[static_cast<std::size_t>((h._wIndex - k) % 37)]);
    }
}

TEST(AgcHistogram, MinimumValueAndQuarterBins)
{
    Histogram h = Make(10);
    h.SetMinValue(14.0f);
    h.Update(13.99f);
    EXPECT_EQ(0, h.GetNumSamples());
    h.Update(14.0f);
    EXPECT_EQ(1, h._histogram[56]);
    h.Update(57.9f);
    EXPECT_EQ(1, h._histogram[231]);
    EXPECT_EQ(57.75f, h.GetLevel(0, false, 1));
    EXPECT_EQ(14.0f, h.GetLevel(0, true, 1));
}

TEST(AgcHistogram, PercentileQueriesFromBothEnds)
{
    Histogram h = Make(20);
    for (int v = 1; v <= 10; ++v)
        h.Update(static_cast<float>(v));
    EXPECT_EQ(1.0f, h.GetLevel(10, true, 1));
    EXPECT_EQ(10.0f, h.GetLevel(10, false, 1));
    EXPECT_EQ(5.0f, h.GetLevel(50, true, 1));
    EXPECT_EQ(6.0f, h.GetLevel(50, false, 1));
    EXPECT_EQ(4.0f, h.GetLevel(10, true, 4));   // the count must also reach the minimum
    EXPECT_EQ(9.0f, h.GetLevel(10, false, 2));
    EXPECT_EQ(10.0f, h.GetLevel(100, true, 1));  // 100 percent: the opposite extreme
    EXPECT_EQ(1.0f, h.GetLevel(100, false, 1));
    EXPECT_EQ(1.0f, h.GetLevel(0, true, 1));
}

TEST(AgcHistogram, ResetAndResizeEmptyButKeepTheShape)
{
    Histogram h = Make(10);
    h.SetMinValue(3.0f);
    for (int v = 1; v <= 10; ++v)
        h.Update(static_cast<float>(v));
    h.Reset();
    EXPECT_EQ(0, h.GetNumSamples());
    EXPECT_EQ(0, Total(h));
    EXPECT_EQ(10, h.GetWindowSize());
    EXPECT_EQ(400u, h._histogram.size());
    EXPECT_EQ(3.0f, h._minValue);
    h.Update(50.0f);
    h.SetSize(150, 100);
    EXPECT_EQ(150, h.GetWindowSize());
    EXPECT_EQ(400u, h._histogram.size());
    EXPECT_EQ(0, h.GetNumSamples());
    EXPECT_EQ(0, Total(h));
}

TEST(AgcHistogram, ConstructionAndBadSizes)
{
    Histogram empty(0, 0);
    EXPECT_EQ(0, empty.GetWindowSize());
    EXPECT_TRUE(empty._histogram.empty());
    Histogram sized(5, 10);  // sized as SetSize would
    EXPECT_EQ(5, sized.GetWindowSize());
    EXPECT_EQ(40u, sized._histogram.size());
    EXPECT_THROW(Histogram(0, 100), std::invalid_argument);
    Histogram h(0, 0);
    EXPECT_THROW(h.SetSize(0, 100), std::invalid_argument);
    EXPECT_THROW(h.SetSize(10, 0), std::invalid_argument);
    EXPECT_THROW(h.SetSize(-5, 100), std::invalid_argument);
}
