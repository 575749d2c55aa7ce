#include "highpassfilter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "measure.h"
#include "rates.h"
#include "recordings.h"

using oku::HighpassFilter;

namespace {

const double kRates[] = {8000.0, 11025.0, 16000.0, 22050.0};

std::vector<short> Constant(std::size_t n, short value) { return std::vector<short>(n, value); }

}  // namespace

TEST(HighpassFilter, FirstOutputIsB1TimesTheInput)
{
    const short expected[] = {8399, 8539, 8655, 8725};  // b1 x 10000 from the coefficient table
    for (int i = 0; i < 4; ++i) {
        HighpassFilter f(kRates[i]);
        std::vector<short> x = Constant(1, 10000);
        f.Filter(x.begin(), x.end());
        EXPECT_EQ(expected[i], x[0]) << kRates[i];
    }
}

TEST(HighpassFilter, ConstantInputSettlesAtTheDcResidueOfTheCoefficients)
{
    // (b1 + b2 + b3) / (1 + a2 + a3) x 10000, from the four-decimal coefficients:
    // 0.0002/0.0118 x 10000 = 169.5, 0.0001/0.0064 = 156.25, 0.0001/0.0030 = 333.3, 0.
    const short expected[] = {169, 156, 333, 0};
    for (int i = 0; i < 4; ++i) {
        HighpassFilter f(kRates[i]);
        std::vector<short> x = Constant(200000, 10000);
        f.Filter(x.begin(), x.end());
        EXPECT_EQ(expected[i], x.back()) << kRates[i];
    }
}

TEST(HighpassFilter, ClipsTheOutputButRunsTheStateOnUnclipped)
{
    HighpassFilter f(8000.0);
    std::vector<short> x = Constant(100000, -32768);
    f.Filter(x.begin(), x.end());
    // Settled at the DC residue y = 0.0002 / 0.0118 x -32768 = -555.4, so the
    // jump gives b1 x 65535 + y = 55042.8 - 555.4 = 54487.4 before clipping.
    const double z1 = f.GetZ1(), z2 = f.GetZ2();
    const double unclipped = 0.8399 * 32767.0 + z1;
    EXPECT_NEAR(54487.4, unclipped, 1.0);
    std::vector<short> jump = {32767};
    f.Filter(jump.begin(), jump.end());
    EXPECT_EQ(32767, jump[0]);
    EXPECT_EQ((-1.6796 * 32767.0 + z2) - (-1.8787) * unclipped, f.GetZ1());
    EXPECT_EQ(0.8399 * 32767.0 - 0.8905 * unclipped, f.GetZ2());
}

TEST(HighpassFilter, RoundsHalfUpAndClipsToSixteenBits)
{
    EXPECT_EQ(3, HighpassFilter::RoundToSample(2.5197));
    EXPECT_EQ(0, HighpassFilter::RoundToSample(-0.5));
    EXPECT_EQ(-1, HighpassFilter::RoundToSample(-0.6));
    EXPECT_EQ(3, HighpassFilter::RoundToSample(2.5));
    EXPECT_EQ(-2, HighpassFilter::RoundToSample(-2.5));
    EXPECT_EQ(32767, HighpassFilter::RoundToSample(32767.0));
    EXPECT_EQ(-32768, HighpassFilter::RoundToSample(-32768.0));
    EXPECT_EQ(32767, HighpassFilter::RoundToSample(40000.0));
    EXPECT_EQ(-32768, HighpassFilter::RoundToSample(-40000.7));
    // Agrees with floor(x + 0.5) over a dense sweep of the whole range.
    for (double x = -32770.0; x <= 32770.0; x += 0.123) {
        double c = x > 32767.0 ? 32767.0 : (x < -32768.0 ? -32768.0 : x);
        ASSERT_EQ(static_cast<short>(std::floor(c + 0.5)), HighpassFilter::RoundToSample(x)) << x;
    }
}

TEST(HighpassFilter, EmptyRangeChangesNothingAndResetReproduces)
{
    HighpassFilter f(16000.0);
    std::vector<short> a = {1000, -2000, 3000, 1234, -32768, 32767, 5};
    f.Filter(a.begin(), a.end());
    const double z1 = f.GetZ1(), z2 = f.GetZ2();
    std::vector<short> empty;
    f.Filter(empty.begin(), empty.end());
    EXPECT_EQ(z1, f.GetZ1());
    EXPECT_EQ(z2, f.GetZ2());

    std::vector<short> first = {1000, -2000, 3000, 1234, -32768, 32767, 5};
    std::vector<short> second = first;
    f.Reset();
    f.Filter(first.begin(), first.end());
    f.Reset();
    f.Filter(second.begin(), second.end());
    EXPECT_EQ(first, second);
    EXPECT_EQ(a, first);
}

TEST(HighpassFilter, ConsecutiveCallsFilterOneContinuousSignal)
{
    std::vector<short> whole(1000);
    for (std::size_t i = 0; i < whole.size(); ++i)
        whole[i] = static_cast<short>((i * 7919) % 20000 - 10000);
    std::vector<short> parts = whole;
    HighpassFilter a(11025.0), b(11025.0);
    a.Filter(whole.begin(), whole.end());
    b.Filter(parts.begin(), parts.begin() + 333);
    b.Filter(parts.begin() + 333, parts.end());
    EXPECT_EQ(whole, parts);
}

TEST(HighpassFilter, OnlyTheFourRatesConstruct)
{
    for (double rate : kRates)
        EXPECT_NO_THROW(HighpassFilter f(rate));
    for (double rate : {44100.0, 48000.0, 0.0, -8000.0, 16000.5, 32000.0}) {
        try {
            HighpassFilter f(rate);
            ADD_FAILURE() << rate;
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ("Sampling rate", e.what());
        }
    }
}

// Exactness guard: a long run of the filter must end in exactly the state that
// a plain, separately written double-precision recursion reaches. A compiler
// that fused a multiply and an add, or reordered the sums, would differ here.
TEST(HighpassFilter, LongRunMatchesAPlainDoubleRecursionBitForBit)
{
    // The comparison is with double arithmetic, which the x87 unit gives only when told to.
    const oku::X87DoublePrecision precision;
    const double b[4][3] = {{0.8399, -1.6796, 0.8399}, {0.8539, -1.7077, 0.8539},
                            {0.8655, -1.7309, 0.8655}, {0.8725, -1.7450, 0.8725}};
    const double a[4][2] = {{-1.8787, 0.8905}, {-1.9129, 0.9193}, {-1.9406, 0.9436}, {-1.9572, 0.9588}};
    for (int r = 0; r < 4; ++r) {
        HighpassFilter f(kRates[r]);
        volatile double z1 = 0, z2 = 0;  // volatile: every product and sum is rounded on its own
        std::uint32_t seed = 12345;
        std::vector<short> x(4096);
        std::int64_t checksum = 0, reference = 0;
        for (int block = 0; block < 500; ++block) {
            for (short& s : x) {
                seed = seed * 1664525u + 1013904223u;
                s = static_cast<short>(static_cast<int>(seed >> 16) - 32768);
            }
            std::vector<short> y = x;
            f.Filter(y.begin(), y.end());
            for (std::size_t i = 0; i < x.size(); ++i) {
                const double in = x[i];
                volatile double p = b[r][0] * in;
                const double out = p + z1;
                volatile double q = b[r][1] * in;
                volatile double s1 = q + z2;
                volatile double m1 = a[r][0] * out;
                z1 = s1 - m1;
                volatile double q3 = b[r][2] * in;
                volatile double m2 = a[r][1] * out;
                z2 = q3 - m2;
                double c = out > 32767.0 ? 32767.0 : (out < -32768.0 ? -32768.0 : out);
                reference += static_cast<short>(std::floor(c + 0.5));
                checksum += y[i];
            }
        }
        EXPECT_EQ(reference, checksum) << kRates[r];
        EXPECT_EQ(static_cast<double>(z1), f.GetZ1()) << kRates[r];
        EXPECT_EQ(static_cast<double>(z2), f.GetZ2()) << kRates[r];
    }
}

// The argument for zeroing a negligible state rests on one inequality: the
// largest growth of a state under zero input (the supremum of the infinity
// norm of the powers of the recursion's matrix) times the bound stays under
// 2^-55 with a wide margin. Computed here from the coefficient table.
TEST(NegligibleState, BoundTimesTheLargestGrowthStaysFarUnderHalfAnUlp)
{
    for (const oku::SupportedRate& r : oku::kSupportedRates) {
        // A = [[-a2, 1], [-a3, 0]]; P = A^k.
        double p[2][2] = {{1, 0}, {0, 1}}, growth = 0, total = 0;
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
        // With the rounding allowance of the argument, and 2^20 to spare.
        EXPECT_LT(oku::HighpassFilter::kNegligibleState * growth * (1 + 1e-9) * 0x1p20, 0x1p-55) << r.hz;
    }
}

// Speech-like audio with long runs of digital silence, at every rate: the
// filter, called frame by frame as the classes call it, gives exactly the
// outputs and states of a plain recursion that never zeroes its state, whose
// state meanwhile decays into the subnormal numbers.
TEST(NegligibleState, ZeroRunsGiveThePlainRecursionsOutputsBitForBit)
{
    // The comparison is with double arithmetic, which the x87 unit gives only when told to.
    const oku::X87DoublePrecision precision;
    for (const double rate : kRates) {
        const oku::SupportedRate& c = *oku::FindRate(rate);
        const oku::AudioData x = testsig::Render(
            {{1.0, 9000, 40}, {3.0, 0, 0}, {0.02, 0, 1}, {2.5, 0, 0}, {0.6, 30000, 0}, {4.0, 0, 0}, {0.5, 2000, 3}},
            rate, 7);
        oku::HighpassFilter f(rate);
        const std::size_t frame = static_cast<std::size_t>(rate / 50);
        volatile double z1 = 0, z2 = 0;  // every product and sum rounded on its own
        bool referenceSubnormal = false, zeroed = false;
        std::size_t mismatches = 0;
        for (std::size_t start = 0; start + frame <= x.size(); start += frame) {
            oku::AudioData y(x.begin() + static_cast<long>(start), x.begin() + static_cast<long>(start + frame));
            f.Filter(y.begin(), y.end());
            for (std::size_t i = 0; i < frame; ++i) {
                const double in = x[start + i];
                volatile double p = c.b1 * in;
                const double out = p + z1;
                volatile double q = c.b2 * in, s1 = q + z2, m1 = c.a2 * out;
                z1 = s1 - m1;
                volatile double q3 = c.b1 * in, m2 = c.a3 * out;
                z2 = q3 - m2;
                const double clipped = out > 32767.0 ? 32767.0 : (out < -32768.0 ? -32768.0 : out);
                mismatches += static_cast<short>(std::floor(clipped + 0.5)) != y[i];
                referenceSubnormal |= std::fpclassify(z1) == FP_SUBNORMAL;
            }
            zeroed |= f.GetZ1() == 0.0 && f.GetZ2() == 0.0 && z1 != 0.0;
        }
        EXPECT_EQ(0u, mismatches) << rate;
        EXPECT_TRUE(referenceSubnormal) << rate << ": the plain recursion never reached the subnormal range";
        EXPECT_TRUE(zeroed) << rate << ": the filter never zeroed its state";
        EXPECT_EQ(static_cast<double>(z1), f.GetZ1()) << rate;
        EXPECT_EQ(static_cast<double>(z2), f.GetZ2()) << rate;
    }
}

// A frame of zeros into a zero state is skipped: it must leave a state that
// no later output can tell from the one the arithmetic leaves, whatever the
// sign of the zeros it starts from.
TEST(NegligibleState, SilenceIntoAZeroStateOfEitherSignChangesNoLaterOutput)
{
    for (const double rate : kRates) {
        const oku::AudioData speech = testsig::Render({{0.1, 0, 0}, {0.5, 20000, 30}}, rate, 3);
        std::vector<short> reference;
        for (const double zero : {0.0, -0.0}) {
            HighpassFilter f(rate);
            f.SetState(zero, -zero);
            std::vector<short> y = speech;
            const std::size_t frame = static_cast<std::size_t>(rate / 50);
            for (std::size_t i = 0; i + frame <= y.size(); i += frame)
                f.Filter(y.begin() + static_cast<long>(i), y.begin() + static_cast<long>(i + frame));
            if (reference.empty())
                reference = y;
            EXPECT_EQ(reference, y) << rate << " " << zero;
        }
        // And the same as a plain recursion from +0 that never skips.
        const oku::SupportedRate& c = *oku::FindRate(rate);
        double z1 = 0, z2 = 0;
        std::size_t mismatches = 0;
        const std::size_t frame = static_cast<std::size_t>(rate / 50), filtered = speech.size() / frame * frame;
        for (std::size_t i = 0; i < filtered; ++i) {
            const double in = speech[i], out = c.b1 * in + z1;
            z1 = (c.b2 * in + z2) - c.a2 * out;
            z2 = c.b1 * in - c.a3 * out;
            mismatches += HighpassFilter::RoundToSample(out) != reference[i];
        }
        EXPECT_EQ(0u, mismatches) << rate;
    }
}
