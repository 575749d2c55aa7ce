// Many streams side by side: the lane engine, the classes' ProcessMany and
// ComputeGainMany, against one stream at a time in every way the processor
// can run them.
#include "measure.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "highpassfilter.h"
#include "recordings.h"
#include "signals.h"

namespace {

using oku::MeasureIsa;

const double kRates[] = {8000.0, 11025.0, 16000.0, 22050.0};

// Runs f once in each way MeasureRuns can run on this processor (named in
// failure messages), then restores the way in force before.
template <typename F>
void InEveryWay(F f)
{
    const MeasureIsa before = oku::GetMeasureIsa();
    for (MeasureIsa isa : {MeasureIsa::Scalar, MeasureIsa::Lanes2, MeasureIsa::Avx2}) {
        if (!oku::SetMeasureIsa(isa))
            continue;
        SCOPED_TRACE(isa == MeasureIsa::Scalar ? "scalar" : isa == MeasureIsa::Lanes2 ? "lanes2" : "avx2");
        f();
    }
    oku::SetMeasureIsa(before);
}

// Audio that exercises every path of the rounding: noise of a random level
// (silent to clipping), runs of exact zeros, lone samples of +-1 and the
// extremes right after silence.
std::vector<short> Audio(std::mt19937& rng, std::size_t n)
{
    std::vector<short> x(n);
    std::size_t i = 0;
    while (i < n) {
        const std::size_t len = std::min<std::size_t>(n - i, 1 + rng() % 700);
        const int kind = static_cast<int>(rng() % 5);
        const int level = kind == 0 ? 0 : (kind == 1 ? 1 : (kind == 2 ? 300 : (kind == 3 ? 8000 : 32768)));
        for (std::size_t j = 0; j < len; ++j, ++i) {
            const int v = level == 0 ? 0 : static_cast<int>(rng() % (2u * level + 1)) - level;
            x[i] = static_cast<short>(v > 32767 ? 32767 : v);
        }
        if (i < n && rng() % 4 == 0)
            x[i++] = static_cast<short>(rng() % 2 ? 32767 : -32768);
        if (i < n && rng() % 4 == 0)
            x[i++] = static_cast<short>(rng() % 2 ? 1 : -1);
    }
    return x;
}

// Everything an analyzer has queued, and a gain control's last decision, as text with every digit.
std::string Drain(oku::AudioAnalyzer& a)
{
    std::string text;
    oku::AnalyzerResultPtr r;
    while (a.GetResult(r))
        text += testsig::Describe(*r);
    return text;
}

std::string Decision(const oku::AGC& agc)
{
    oku::AGC::ControlInfo c;
    agc.GetInfo(c);
    std::ostringstream os;
    os.precision(17);
    os << c.GetControlType() << " " << c.GetTimeMs() << " " << c.GetPauseLevel() << " " << c.GetSpeechLevel();
    return os.str();
}

oku::AudioData Part(const std::vector<short>& x, std::size_t at, std::size_t n)
{
    return oku::AudioData(x.begin() + static_cast<long>(at), x.begin() + static_cast<long>(at + n));
}

}  // namespace

// Random mixes of runs (rates, frame counts from 0, states carried over from
// earlier audio, peaks given or not) measured in every way give exactly what
// each filter's own Measure gives, frame by frame.
TEST(MeasureRuns, EveryWayGivesEachFiltersOwnMeasurements)
{
    // Filters measured directly, not through the classes: on the x87 unit in double precision, as they do.
    const oku::X87DoublePrecision precision;
    std::mt19937 rng(2024);
    InEveryWay([&] {
        for (int trial = 0; trial < 150; ++trial) {
            SCOPED_TRACE(trial);
            const std::size_t n = trial < 40 ? static_cast<std::size_t>(trial) : rng() % 41;
            std::vector<oku::HighpassFilter> mine, theirs;
            std::vector<std::vector<short>> audio(n);
            std::vector<std::vector<double>> sums(n), expected(n);
            std::vector<int> peaks(n), expectedPeaks(n);
            std::vector<oku::FrameRun> runs(n);
            for (std::size_t i = 0; i < n; ++i) {
                const double rate = kRates[rng() % 4];
                const std::size_t length = static_cast<std::size_t>(rate / 50);
                oku::HighpassFilter f(rate);
                std::vector<short> warm = Audio(rng, rng() % 3000);
                f.Filter(warm.begin(), warm.end());
                mine.push_back(f);
                theirs.push_back(f);
                const std::size_t frames = rng() % 7;
                audio[i] = Audio(rng, frames * length);
                sums[i].assign(frames, -1.0);
                peaks[i] = expectedPeaks[i] = static_cast<int>(rng() % 3 == 0 ? rng() % 40000 : 0);
                const bool withPeak = rng() % 4 != 0;
                runs[i] = {nullptr, audio[i].data(), frames, length, sums[i].data(), withPeak ? &peaks[i] : nullptr};
                for (std::size_t k = 0; k < frames; ++k) {
                    const short* p = audio[i].data() + k * length;
                    expected[i].push_back(theirs[i].Measure(p, p + length, withPeak ? &expectedPeaks[i] : nullptr));
                }
            }
            for (std::size_t i = 0; i < n; ++i)
                runs[i].filter = &mine[i];
            oku::MeasureRuns(runs.data(), n);
            for (std::size_t i = 0; i < n; ++i) {
                ASSERT_EQ(expected[i], sums[i]) << "run " << i;
                ASSERT_EQ(expectedPeaks[i], peaks[i]) << "run " << i;
                ASSERT_TRUE(theirs[i].GetZ1() == mine[i].GetZ1() && theirs[i].GetZ2() == mine[i].GetZ2()) << "run " << i;
            }
        }
    });
}

// Analyzers of every rate, with and without frame data, fed chunks of random
// length (0 included) through ProcessMany, give exactly the results of twins
// fed the same chunks through Process; flushes between calls included.
TEST(ProcessMany, AnalyzersGiveTheResultsOfTheirOwnProcessCalls)
{
    std::mt19937 rng(7);
    InEveryWay([&] {
        const std::size_t n = 67;  // more than one batch of the many-call
        std::vector<std::unique_ptr<oku::AudioAnalyzer>> many, one;
        std::vector<oku::AudioAnalyzer*> handles;
        std::vector<std::vector<short>> audio;
        std::vector<std::size_t> at(n, 0);
        for (std::size_t i = 0; i < n; ++i) {
            many.emplace_back(new oku::AudioAnalyzer("", kRates[i % 4], i % 3 == 0));
            one.emplace_back(new oku::AudioAnalyzer("", kRates[i % 4], i % 3 == 0));
            handles.push_back(many.back().get());
            audio.push_back(testsig::Render({{0.5, 0, 20}, {1.0, 6000.0 + 500.0 * i, 20}, {1.5, 0, 0}, {0.8, 4000, 5}},
                                            kRates[i % 4], static_cast<std::uint32_t>(i + 1)));
        }
        for (int call = 0; call < 60; ++call) {
            std::vector<const short*> samples(n);
            std::vector<std::size_t> counts(n);
            for (std::size_t i = 0; i < n; ++i) {
                counts[i] = std::min<std::size_t>(audio[i].size() - at[i], rng() % 5 == 0 ? 0 : rng() % 2500);
                samples[i] = counts[i] ? audio[i].data() + at[i] : nullptr;
                one[i]->Process(Part(audio[i], at[i], counts[i]));
                at[i] += counts[i];
            }
            oku::AudioAnalyzer::ProcessMany(handles.data(), samples.data(), counts.data(), n);
            for (std::size_t i = 0; i < n; ++i) {
                if (call % 17 == 16 && i % 5 == 0) {
                    many[i]->Flush();
                    one[i]->Flush();
                }
                ASSERT_EQ(Drain(*one[i]), Drain(*many[i])) << "call " << call << " analyzer " << i;
            }
        }
    });
}

// Gain controls of every rate, chunks of random length, gains fed back, a
// starting gain asked for now and then: the same gains, decisions and log
// lines as their own ComputeGain calls.
TEST(ComputeGainMany, GainControlsDecideAsTheirOwnCalls)
{
    std::mt19937 rng(11);
    InEveryWay([&] {
        const std::size_t n = 67;  // more than one batch of the many-call
        std::vector<std::unique_ptr<oku::AGC>> many, one;
        std::vector<oku::AGC*> handles;
        std::vector<std::shared_ptr<std::ostringstream>> manyLog, oneLog;
        std::vector<std::vector<short>> audio;
        std::vector<std::size_t> at(n, 0);
        std::vector<float> gains(n, 0.3f);
        for (std::size_t i = 0; i < n; ++i) {
            const int rate = static_cast<int>(kRates[i % 4]);
            many.emplace_back(new oku::AGC("", rate));
            one.emplace_back(new oku::AGC("", rate));
            handles.push_back(many.back().get());
            manyLog.emplace_back(new std::ostringstream);
            oneLog.emplace_back(new std::ostringstream);
            many[i]->SetLogStream(manyLog[i]);
            one[i]->SetLogStream(oneLog[i]);
            audio.push_back(testsig::Render({{0.5, 0, 10}, {2.0, 300.0 + 2000.0 * i, 10}, {1.0, 0, 0}, {1.0, 30000, 10}},
                                            rate, static_cast<std::uint32_t>(i + 3)));
        }
        for (int call = 0; call < 80; ++call) {
            std::vector<const short*> samples(n);
            std::vector<std::size_t> counts(n);
            std::vector<float> in(n), out(n, -1.0f), expected(n);
            for (std::size_t i = 0; i < n; ++i) {
                counts[i] = std::min<std::size_t>(audio[i].size() - at[i], rng() % 6 == 0 ? 0 : rng() % 3000);
                samples[i] = counts[i] ? audio[i].data() + at[i] : nullptr;
                in[i] = rng() % 25 == 0 ? 0.0f : gains[i];
                expected[i] = one[i]->ComputeGain(Part(audio[i], at[i], counts[i]), in[i]);
                at[i] += counts[i];
            }
            oku::AGC::ComputeGainMany(handles.data(), samples.data(), counts.data(), in.data(), out.data(), n);
            for (std::size_t i = 0; i < n; ++i) {
                ASSERT_EQ(expected[i], out[i]) << "call " << call << " gain control " << i;
                ASSERT_EQ(Decision(*one[i]), Decision(*many[i])) << "call " << call << " gain control " << i;
                gains[i] = out[i];
            }
        }
        for (std::size_t i = 0; i < n; ++i) {
            EXPECT_EQ(oneLog[i]->str(), manyLog[i]->str()) << "gain control " << i;
            EXPECT_GT(one[i]->GetNumUpdates(), 10) << "the audio must make the gain controls decide";
        }
    });
}

// A null or repeated object, missing samples or a bad gain is refused before
// any object changes: afterwards each still matches a twin that never saw
// the refused call.
TEST(ProcessMany, RefusalsChangeNothing)
{
    const oku::AudioData x = testsig::Render({{0.3, 0, 20}, {1.0, 5000, 20}, {0.6, 0, 20}}, 16000.0, 5);
    oku::AudioAnalyzer a("", 16000.0, false), b("", 16000.0, false), twin("", 16000.0, false);
    oku::AudioAnalyzer *pair[] = {&a, &b}, *repeated[] = {&a, &b, &a}, *withNull[] = {&a, nullptr};
    const short *samples[] = {x.data(), x.data(), x.data()}, *missing[] = {x.data(), nullptr};
    const std::size_t counts[] = {x.size(), x.size(), x.size()};
    EXPECT_THROW(oku::AudioAnalyzer::ProcessMany(repeated, samples, counts, 3), std::invalid_argument);
    EXPECT_THROW(oku::AudioAnalyzer::ProcessMany(withNull, samples, counts, 2), std::invalid_argument);
    EXPECT_THROW(oku::AudioAnalyzer::ProcessMany(pair, missing, counts, 2), std::invalid_argument);
    oku::AudioAnalyzer::ProcessMany(pair, samples, counts, 2);
    twin.Process(x);
    const std::string expected = Drain(twin);
    EXPECT_TRUE(Drain(a) == expected && Drain(b) == expected);

    oku::AGC g("", 16000), h("", 16000), gainTwin("", 16000);
    oku::AGC *agcs[] = {&g, &h}, *sameTwice[] = {&g, &g};
    const float good[] = {0.5f, 0.5f}, bad[] = {0.5f, std::nanf("")};
    float out[2] = {-1.0f, -1.0f};
    EXPECT_THROW(oku::AGC::ComputeGainMany(agcs, samples, counts, bad, out, 2), std::invalid_argument);
    EXPECT_THROW(oku::AGC::ComputeGainMany(sameTwice, samples, counts, good, out, 2), std::invalid_argument);
    EXPECT_EQ(-1.0f, out[0]);
    oku::AGC::ComputeGainMany(agcs, samples, counts, good, out, 2);
    const float expectedGain = gainTwin.ComputeGain(x, 0.5f);
    EXPECT_TRUE(out[0] == expectedGain && out[1] == expectedGain && g.GetNumUpdates() == gainTwin.GetNumUpdates());
}
