// The gain control's diagnostic log: one line per update, byte for byte.
#include <gtest/gtest.h>

#include <sstream>
#include <streambuf>
#include <string>

#include "agc.h"
#include "agc_helpers.h"

using oku::AGC;
using oku::AudioData;
using testsig::kAgcFrame;
using testsig::kAgcUpdate;

namespace {

// A number as a freshly made stream writes it.
template <typename T>
std::string Fmt(T x)
{
    std::ostringstream os;
    os << x;
    return os.str();
}

// Head of an update line: time, gain, a, b, snr, clipping, frames in the window.
std::string Head(unsigned int timeMs, float gain, float a, float b, float snr, float clipping, int n)
{
    return Fmt(timeMs) + "\t " + Fmt(gain) + "\t" + Fmt(a) + "\t " + Fmt(b) + "\t " + Fmt(snr) + "\t " +
           Fmt(clipping) + "\t " + Fmt(n);
}

// Counts flushes of the stream it sits under.
class CountingBuf : public std::stringbuf {
public:
    int syncs = 0;

protected:
    int sync() override
    {
        ++syncs;
        return std::stringbuf::sync();
    }
};

}  // namespace

TEST(AgcLog, PauseTooLowLine)
{
    AGC agc("", 16000);
    auto log = testsig::AttachLog(agc);
    const float g = agc.ComputeGain(AudioData(kAgcUpdate, 0), 0.5f);
    EXPECT_EQ("120\t 0.5\t0\t 0\t 0\t 0\t 6\t toolow:120\t# " + Fmt(g) + "\n", log->str());
    EXPECT_EQ("0.997631", Fmt(g));  // 0.5 x 10^(6/20)
}

TEST(AgcLog, SpeechTooHighLineWithClipping)
{
    // Half of the samples at full scale: clipping fraction 0.5.
    AudioData chunk(kAgcUpdate);
    for (std::size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<short>(i % 4 == 0 ? 32767 : (i % 4 == 1 ? -32768 : 0));
    AGC agc("", 16000);
    auto log = testsig::AttachLog(agc);
    const float g = agc.ComputeGain(chunk, 0.5f);
    AGC::ControlInfo info;
    agc.GetInfo(info);
    ASSERT_GT(info.GetSpeechLevel(), 78.0f);
    EXPECT_EQ(Head(120, 0.5f, info.GetPauseLevel(), info.GetSpeechLevel(), 0.0f, 0.5f, 6) + "\t toohigh:120\t# " +
                  Fmt(g) + "\n",
              log->str());
}

TEST(AgcLog, StateMachineTails)
{
    // The scenario of the decision tests: speech starts at update 10, a +1 dB
    // step at 11, a pause at 20.
    auto updates = testsig::SpeechScenario(7);
    AGC agc("", 16000);
    auto log = testsig::AttachLog(agc);
    auto steps = testsig::Run(agc, testsig::Updates(updates), 0.25f);
    std::vector<std::string> lines = testsig::Lines(log->str());
    ASSERT_EQ(21u, lines.size());
    auto head = [&](int k, int n) {
        const auto& s = steps[static_cast<std::size_t>(k - 1)];
        const float a = s.info.GetPauseLevel(), b = s.info.GetSpeechLevel();
        // Every ratio from update 8 on is the same, so the best one equals this one's.
        const float snr = k >= 8 ? steps[7].info.GetSpeechLevel() - steps[7].info.GetPauseLevel() : 0.0f;
        return Head(static_cast<unsigned int>(120 * k), s.gainIn, a, b, snr, 0.0f, n);
    };
    EXPECT_EQ(head(1, 6) + "\t nil:120", lines[0]);
    EXPECT_EQ(head(10, 60) + "\t speech:400", lines[9]);
    EXPECT_EQ(head(11, 66) + "\t nil:1320\t# " + Fmt(steps[10].gainOut), lines[10]);
    EXPECT_EQ(head(12, 6) + "\t nil:1440", lines[11]);
    EXPECT_EQ(head(20, 30) + "\t pause:1900", lines[19]);
}

TEST(AgcLog, NoStreamChangesNothingAndAnEmptyPointerStopsTheLog)
{
    AudioData signal = testsig::Updates(testsig::Repeat(12, {{3, testsig::kBg18}, {3, testsig::kSpeech60}}));
    AGC with("", 16000), without("", 16000);
    auto log = testsig::AttachLog(with);
    auto a = testsig::Run(with, signal, 0.1f);
    auto b = testsig::Run(without, signal, 0.1f);
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].gainOut, b[i].gainOut);
        EXPECT_EQ(a[i].info.GetControlType(), b[i].info.GetControlType());
    }
    EXPECT_EQ(12u, testsig::Lines(log->str()).size());
    with.SetLogStream(nullptr);
    with.ComputeGain(AudioData(kAgcUpdate, 0), 0.5f);
    EXPECT_EQ(12u, testsig::Lines(log->str()).size());
}

TEST(AgcLog, EveryItemIsFlushed)
{
    auto buf = std::make_shared<CountingBuf>();
    auto os = std::make_shared<std::ostream>(buf.get());
    AGC agc("", 16000);
    agc.SetLogStream(os);
    agc.ComputeGain(testsig::Updates(testsig::Repeat(1, {{6, testsig::kBg29}})), 0.5f);  // a "nil:" line
    EXPECT_EQ(1u, testsig::Lines(buf->str()).size());
    EXPECT_EQ(17, buf->syncs) << buf->str();  // 13 items of the head, 4 of the tail
}
