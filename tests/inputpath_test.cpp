// The input path: its filters measured with sines, its timing, its
// conversions, and every way of computing it giving the same samples.
#include "inputpath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "measure.h"

namespace {

using oku::AudioData;
using oku::InputPath;
using oku::kInputRates;

const double kPi = 3.14159265358979323846;

// The whole conversion of a run: every chunk, then what Finish gives.
template <typename Sample>
AudioData ConvertAll(InputPath& path, const std::vector<Sample>& in, std::size_t chunk)
{
    AudioData all, part;
    const std::size_t step = chunk * static_cast<std::size_t>(path.Channels());
    for (std::size_t at = 0; at < in.size(); at += step) {
        path.Convert(in.data() + at, std::min(step, in.size() - at), part);
        all.insert(all.end(), part.begin(), part.end());
    }
    path.Finish(part);
    all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::vector<float> Sine(double hz, double rate, std::size_t frames, double amplitude)
{
    std::vector<float> x(frames);
    for (std::size_t i = 0; i < frames; ++i)
        x[i] = static_cast<float>(amplitude * std::sin(2 * kPi * hz * static_cast<double>(i) / rate));
    return x;
}

// The amplitude of the tone at hz in y (at `rate`), Hann-windowed, away from the ends.
double ToneAmplitude(const AudioData& y, double hz, double rate)
{
    const std::size_t skip = 200, n = y.size() - 2 * skip;
    double re = 0.0, im = 0.0, weights = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2 * kPi * (static_cast<double>(i) + 0.5) / static_cast<double>(n));
        const double phase = 2 * kPi * hz * static_cast<double>(i + skip) / rate;
        re += w * y[i + skip] * std::cos(phase);
        im += w * y[i + skip] * std::sin(phase);
        weights += w;
    }
    return 2.0 * std::hypot(re, im) / weights;
}

double Db(double ratio) { return 20.0 * std::log10(ratio); }

// The passband of a converted rate, as the designs promise it.
double PassbandHz(const oku::InputRate& r) { return oku::kPassband * r.analysisHz / 2; }

TEST(InputPath, PassbandIsFlatAndWhatFoldsIntoTheBandIsSeventyDecibelsDown)
{
    const double amplitude = 0.5;  // of full scale
    for (const oku::InputRate& r : kInputRates) {
        if (r.hz == r.analysisHz)
            continue;
        SCOPED_TRACE(r.hz);
        const double in = r.hz, out = r.analysisHz, pass = PassbandHz(r);
        const auto gainDb = [&](double hz, double measuredAt) {
            InputPath path(in, 1);
            const AudioData y = ConvertAll(path, Sine(hz, in, static_cast<std::size_t>(in / 4), amplitude), 4096);
            return Db(ToneAmplitude(y, measuredAt, out) / (amplitude * 32768));
        };
        for (double hz = 50; hz <= pass; hz += pass / 23) {
            SCOPED_TRACE(hz);
            EXPECT_NEAR(0.0, gainDb(hz, hz), 0.02);
        }
        // Whatever a tone becomes besides itself (its fold by the analysis
        // rate above half of it, and for a stage that doubles the rate its
        // image at in - f, folded too) is 70 dB down wherever it lands in the
        // analysed band, up to its Nyquist frequency (tones within 25 Hz of
        // it aside: their folds land where the measurement cannot part them).
        const bool doubles = r.stages[0]->up == 2;
        for (double hz = 37; hz < in / 2; hz += pass / 23) {
            for (double v : {hz, doubles ? in - hz : -1.0}) {
                const double landsAt = std::fabs(v - out * std::round(v / out));
                if (v < 0 || (v == hz && hz < out / 2) || landsAt > out / 2 - 25 || std::fabs(landsAt - hz) < 25)
                    continue;
                SCOPED_TRACE(testing::Message() << hz << " Hz at " << landsAt << " Hz");
                EXPECT_LT(gainDb(hz, landsAt), -70.0);
            }
        }
    }
}

TEST(InputPath, ConstantsPassExactlyAndTheLengthIsWhatTheRatesGive)
{
    for (const oku::InputRate& r : kInputRates) {
        SCOPED_TRACE(r.hz);
        for (std::size_t frames : {0, 1, 2, 5, 479, 480, 481, 48001}) {
            InputPath path(r.hz, 1);
            const AudioData y = ConvertAll(path, std::vector<short>(frames, -1234), 333);
            // Only whole analysis samples of input are analysed.
            EXPECT_EQ(frames * static_cast<std::size_t>(r.analysisHz) / static_cast<std::size_t>(r.hz), y.size());
            // Away from the ends (where zeros stand for the samples before and after) a constant stays.
            const std::size_t edge = std::min<std::size_t>(y.size(), 40);
            for (std::size_t i = edge; i + edge < y.size(); ++i)
                ASSERT_EQ(-1234, y[i]) << i;
        }
    }
}

TEST(InputPath, AClickStaysAtItsInstant)
{
    // The filters' delay is taken out: a click at input frame k comes out at
    // analysis sample k x out / in, and positions map back exactly.
    for (const oku::InputRate& r : kInputRates) {
        SCOPED_TRACE(r.hz);
        InputPath path(r.hz, 1);
        const std::size_t k = static_cast<std::size_t>(r.hz) / 50 * 3;  // 60 ms: a whole number at both rates
        std::vector<short> in(static_cast<std::size_t>(r.hz) / 5, 0);
        in[k] = 20000;
        const AudioData y = ConvertAll(path, in, 128);
        const std::size_t peak = static_cast<std::size_t>(std::max_element(y.begin(), y.end()) - y.begin());
        EXPECT_EQ(k * static_cast<std::size_t>(r.analysisHz) / static_cast<std::size_t>(r.hz), peak);
        EXPECT_EQ(static_cast<long long>(k), path.ToInputFrames(static_cast<long long>(peak)));
    }
}

TEST(InputPath, TheLargestSumsSaturateInEveryWay)
{
    // Full-scale samples with the signs of the 2:1 filter's taps make the
    // largest sum it can form, over twice full scale: the output saturates,
    // in every way of computing it (a sum that wrapped in 32 bits would turn
    // the sign).
    const oku::FirDesign& d = oku::kDown2;
    const int centre = (d.taps - 1) / 2, at = 2 * centre + 100;  // output at input instant `at`, even
    ASSERT_EQ(0, at % 2);
    long sum = 0;
    for (int t = 0; t < d.taps; ++t)
        sum += std::abs(d.h[t]);
    ASSERT_GT(sum, 65536) << "a sum of over 2^31 needs a filter with more gain than this";
    const oku::MeasureIsa was = oku::GetMeasureIsa();
    for (oku::MeasureIsa isa : {oku::MeasureIsa::Scalar, oku::MeasureIsa::Lanes2, oku::MeasureIsa::Avx2}) {
        if (!oku::SetMeasureIsa(isa))
            continue;
        for (int sign : {1, -1}) {
            std::vector<short> in(static_cast<std::size_t>(at + centre + 50), 0);
            for (int t = 0; t < d.taps; ++t)
                in[static_cast<std::size_t>(at - centre + t)] =
                    static_cast<short>(d.h[t] == 0 ? 0 : (d.h[t] > 0) == (sign > 0) ? 32767 : -32768);
            InputPath path(44100, 1);
            const AudioData y = ConvertAll(path, in, 1000);
            EXPECT_EQ(sign > 0 ? 32767 : -32768, y[static_cast<std::size_t>(at / 2)]) << static_cast<int>(isa);
        }
    }
    oku::SetMeasureIsa(was);
}

TEST(InputPath, ChunkingAndTheProcessorsWayChangeNothing)
{
    // Float stereo with NaNs and values beyond full scale, and 16-bit
    // stereo, in chunks of many sizes: the same samples as in one piece, and
    // the same whichever way the processor computes them.
    std::mt19937 random(7);
    std::uniform_real_distribution<float> value(-1.2f, 1.2f);
    std::vector<float> floats(2 * 30011);
    for (float& x : floats)
        x = value(random);
    floats[100] = std::numeric_limits<float>::quiet_NaN();
    floats[2001] = std::numeric_limits<float>::infinity();
    std::vector<short> shorts(floats.size());
    for (std::size_t i = 0; i < shorts.size(); ++i)
        shorts[i] = static_cast<short>(random());

    const oku::MeasureIsa was = oku::GetMeasureIsa();
    for (int rate : {12000, 44100, 48000, 192000}) {
        SCOPED_TRACE(rate);
        AudioData reference[2];
        for (oku::MeasureIsa isa : {oku::MeasureIsa::Scalar, oku::MeasureIsa::Lanes2, oku::MeasureIsa::Avx2}) {
            if (!oku::SetMeasureIsa(isa))
                continue;
            for (std::size_t chunk : {std::size_t{30011}, std::size_t{1}, std::size_t{7}, std::size_t{960}}) {
                InputPath f(rate, 2), s(rate, 2);
                const AudioData a = ConvertAll(f, floats, chunk), b = ConvertAll(s, shorts, chunk);
                if (reference[0].empty()) {
                    reference[0] = a;
                    reference[1] = b;
                    EXPECT_EQ(2u, f.NonFinite());
                }
                ASSERT_EQ(reference[0], a) << "float, chunk " << chunk;
                ASSERT_EQ(reference[1], b) << "16-bit, chunk " << chunk;
            }
        }
    }
    oku::SetMeasureIsa(was);
}

TEST(InputPath, MixingAndRounding)
{
    struct Case {
        std::vector<float> frame;
        short expected;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const float lsb = 1.0f / 32768;
    // One channel: x times 32768, to the nearest integer, ties to even, saturated.
    const Case cases[] = {
        {{0.5f * lsb}, 0},         {{1.5f * lsb}, 2},   {{-0.5f * lsb}, 0},        {{-2.5f * lsb}, -2},
        {{0.49f * lsb}, 0},        {{0.51f * lsb}, 1},  {{1.0f}, 32767},           {{-1.0f}, -32768},
        {{3e38f}, 32767},          {{-3e38f}, -32768},  {{32767.5f * lsb}, 32767}, {{nan}, 0},
        {{inf}, 0},                {{-inf}, 0},
        // Several: the sum times 32768 / channels, rounded so; NaN and infinities count as 0.
        {{1 * lsb, 2 * lsb}, 2},   {{1 * lsb, 4 * lsb}, 2}, {{-1 * lsb, -2 * lsb}, -2},
        {{0.5f, nan}, 8192},       {{3e38f, 3e38f}, 32767}, {{inf, -inf, 1.0f}, 10923},
    };
    for (const Case& c : cases) {
        short out = 99;
        const int channels = static_cast<int>(c.frame.size());
        const std::uint64_t bad = oku::MixToMono(c.frame.data(), 1, channels, &out);
        EXPECT_EQ(c.expected, out) << c.frame[0] << " in " << channels;
        EXPECT_EQ(static_cast<std::uint64_t>(std::count_if(c.frame.begin(), c.frame.end(),
                                                           [](float x) { return !std::isfinite(x); })),
                  bad);
    }
    // 16-bit: the exact mean, ties to even.
    const short pairs[][3] = {{1, 2, 2}, {1, 4, 2}, {3, 4, 4}, {-1, -2, -2}, {-1, 0, 0}, {32767, 32767, 32767},
                              {-32768, -32767, -32768}, {-32768, 32767, 0}};
    for (const auto& p : pairs) {
        short out = 99;
        oku::MixToMono(p, 1, 2, &out);
        EXPECT_EQ(p[2], out) << p[0] << " and " << p[1];
    }
    EXPECT_EQ(-3, oku::MeanOfChannels(-10, 3));  // -3.33
    EXPECT_EQ(4, oku::MeanOfChannels(14, 4));    // 3.5 to even
    EXPECT_EQ(-4, oku::MeanOfChannels(-14, 4));

    // Long runs take the processor's vector path: the same rule there, with a
    // NaN anywhere in a run of eight.
    std::vector<float> run(2 * 64);
    for (std::size_t i = 0; i < run.size(); ++i)
        run[i] = static_cast<float>(static_cast<int>(i) - 64) * 0.75f * lsb;
    run[37] = nan;
    std::vector<short> vector(64), scalar(64);
    const std::uint64_t bad = oku::MixToMono(run.data(), 64, 2, vector.data());
    for (std::size_t i = 0; i < 64; ++i)
        oku::MixToMono(run.data() + 2 * i, 1, 2, &scalar[i]);
    EXPECT_EQ(scalar, vector);
    EXPECT_EQ(1u, bad);
}

TEST(InputPath, RefusesWhatItCannotTake)
{
    EXPECT_THROW(InputPath(44100.5, 1), oku::RateError);
    EXPECT_THROW(InputPath(37800, 1), oku::RateError);
    EXPECT_THROW(InputPath(48000, 0), std::invalid_argument);
    EXPECT_THROW(InputPath(48000, oku::kMaxChannels + 1), std::invalid_argument);
    EXPECT_NO_THROW(InputPath(48000, oku::kMaxChannels));
    for (const oku::InputRate& r : kInputRates)
        EXPECT_EQ(r.hz == r.analysisHz, InputPath(r.hz, 1).Passthrough());
}

}  // namespace
