// The exported analyzer functions, through the shared library.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "okuvad.h"
#include "signals.h"

namespace {

struct Out {
    int result = 111;
    double value = 222.0;
    int info = 333;
};

int Call(int start, const void* data, unsigned int bytes, Out& o)
{
    return OKUVAD_GetResult(start, data, bytes, &o.result, &o.value, &o.info);
}

// Feeds `samples` in one call and drains the queue; returns the reported results in order.
std::vector<Out> FeedAndDrain(const short* samples, unsigned int count)
{
    std::vector<Out> results;
    Out o;
    EXPECT_EQ(0, Call(1, samples, count * 2, o));
    while (o.result != 0) {
        results.push_back(o);
        EXPECT_EQ(0, Call(0, nullptr, 0, o));
    }
    return results;
}

class VadApi : public ::testing::Test {
protected:
    void SetUp() override { OKUVAD_Deinit(); }
    void TearDown() override { OKUVAD_Deinit(); }
};

}  // namespace

TEST_F(VadApi, WithoutAnAnalyzerNothingIsWritten)
{
    Out o;
    short chunk[160] = {0};
    EXPECT_EQ(-1, Call(1, chunk, sizeof chunk, o));
    EXPECT_EQ(-1, Call(0, nullptr, 0, o));
    EXPECT_EQ(111, o.result);
    EXPECT_EQ(222.0, o.value);
    EXPECT_EQ(333, o.info);
    EXPECT_EQ(0, OKUVAD_Deinit());
    EXPECT_EQ(0, OKUVAD_Deinit());
}

TEST_F(VadApi, UnsupportedRateLeavesNoAnalyzer)
{
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    EXPECT_EQ(-2, OKUVAD_Init(44100.0));
    Out o;
    EXPECT_EQ(-1, Call(0, nullptr, 0, o));
    EXPECT_EQ(-2, OKUVAD_Init(16000.5));
    EXPECT_EQ(-2, OKUVAD_Init(0.0));
    for (double rate : {8000.0, 11025.0, 16000.0, 22050.0})
        EXPECT_EQ(0, OKUVAD_Init(rate));
}

TEST_F(VadApi, NullArgumentsAreRejectedWithoutConsumingAudio)
{
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    std::vector<short> frame(319, 1000);
    Out o;
    EXPECT_EQ(-1, OKUVAD_GetResult(1, frame.data(), 638, nullptr, &o.value, &o.info));
    EXPECT_EQ(-1, OKUVAD_GetResult(1, frame.data(), 638, &o.result, nullptr, &o.info));
    EXPECT_EQ(-1, OKUVAD_GetResult(1, frame.data(), 638, &o.result, &o.value, nullptr));
    EXPECT_EQ(-1, Call(1, nullptr, 638, o));  // no buffer behind a non-zero size
    EXPECT_EQ(111, o.result);
    EXPECT_EQ(222.0, o.value);
    // None of the rejected chunks reached the analyzer: 319 samples + 1 is one frame.
    EXPECT_EQ(0, Call(0, nullptr, 0, o));
    EXPECT_EQ(0, o.result);
    EXPECT_EQ(0, Call(1, frame.data(), 638, o));
    EXPECT_EQ(3, o.result);
    EXPECT_EQ(1000.0, o.value);
    // A null buffer with size 0 is fine: it brings one zero sample.
    EXPECT_EQ(0, Call(1, nullptr, 0, o));
}

TEST_F(VadApi, EachCallAddsOneZeroSampleAndAnOddByteIsTheLowByte)
{
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    std::vector<unsigned char> bytes(640, 0);
    Out o;
    // 636 bytes: 318 + 1 = 319 samples, short of a frame.
    EXPECT_EQ(0, Call(1, bytes.data(), 636, o));
    EXPECT_EQ(0, o.result);
    EXPECT_EQ(0.0, o.value);
    EXPECT_EQ(0, o.info);
    // 1 byte: 0 + 1 sample, the odd byte 0x7F as its low byte -> frame complete, peak 127.
    bytes[0] = 0x7F;
    EXPECT_EQ(0, Call(1, bytes.data(), 1, o));
    EXPECT_EQ(3, o.result);
    EXPECT_EQ(127.0, o.value);

    // 639 bytes: 319 samples + the odd byte -> exactly one frame.
    std::vector<unsigned char> odd(639, 0);
    odd[638] = 0x01;
    EXPECT_EQ(0, Call(1, odd.data(), 639, o));
    EXPECT_EQ(3, o.result);
    EXPECT_EQ(1.0, o.value);
    // 0 bytes, 320 times: 320 zero samples, one frame.
    for (int i = 0; i < 319; ++i) {
        ASSERT_EQ(0, Call(1, nullptr, 0, o));
        ASSERT_EQ(0, o.result);
    }
    EXPECT_EQ(0, Call(1, nullptr, 0, o));
    EXPECT_EQ(3, o.result);
    EXPECT_EQ(0.0, o.value);
}

TEST_F(VadApi, NothingToReportLeavesTheOutputsAsDocumented)
{
    ASSERT_EQ(0, OKUVAD_Init(8000.0));
    short two[2] = {5, 5};
    Out o;
    EXPECT_EQ(0, Call(1, two, sizeof two, o));
    EXPECT_EQ(0, o.result);
    EXPECT_EQ(0.0, o.value);  // set on entry by a call with audio
    EXPECT_EQ(0, o.info);
    o.value = 9.0;
    o.info = 9;
    EXPECT_EQ(0, Call(0, nullptr, 0, o));
    EXPECT_EQ(0, o.result);
    EXPECT_EQ(9.0, o.value);
    EXPECT_EQ(9, o.info);
}

TEST_F(VadApi, EventPositionsAreFrameBoundariesInSamplesReceived)
{
    // One call per frame of 319 samples: with the added sample each call is
    // exactly one frame, so frame k starts at sample 320 k of what the analyzer
    // received. Loud from frame 100 to 149: start at frame 93, end at 164.
    const int s = 100, e = 150;
    oku::AudioData tone = testsig::Tone({{s, 47.0}, {e - s, 10000.0}, {60, 47.0}}, 16000.0, 320);
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    std::vector<Out> reported;
    for (std::size_t f = 0; f * 320 < tone.size(); ++f) {
        std::vector<Out> r = FeedAndDrain(&tone[f * 320], 319);
        reported.insert(reported.end(), r.begin(), r.end());
    }
    std::vector<double> starts, ends;
    int readings = 0;
    for (const Out& o : reported) {
        if (o.result == 1)
            starts.push_back(o.value);
        else if (o.result == 2)
            ends.push_back(o.value);
        else if (o.result == 3)
            ++readings;
        else
            ADD_FAILURE() << "unexpected result " << o.result;
    }
    EXPECT_EQ(std::vector<double>{(s - 7) * 320.0}, starts);
    EXPECT_EQ(std::vector<double>{(e + 14) * 320.0}, ends);
    EXPECT_EQ(210, readings);  // one per call, every call completes a frame
}

TEST_F(VadApi, ResultsComeOneAtATimeAndDroppedOnesAreGone)
{
    // A whole burst in one call at 8 kHz: the queue holds frames, marks, the
    // start, frames, the end and one reading. Calls report start, end, reading, none.
    const int s = 100, e = 150;
    oku::AudioData tone = testsig::Tone({{s, 47.0}, {e - s, 10000.0}, {60, 47.0}}, 8000.0, 160);
    ASSERT_EQ(0, OKUVAD_Init(8000.0));
    Out o;
    ASSERT_EQ(0, Call(1, tone.data(), static_cast<unsigned int>(tone.size() * 2), o));
    EXPECT_EQ(1, o.result);
    EXPECT_EQ((s - 7) * 160.0, o.value);
    EXPECT_EQ(0, o.info);  // set on entry, not by the event
    o.info = 42;
    ASSERT_EQ(0, Call(0, nullptr, 0, o));
    EXPECT_EQ(2, o.result);
    EXPECT_EQ((e + 14) * 160.0, o.value);
    EXPECT_EQ(42, o.info);  // events do not touch the volume info
    ASSERT_EQ(0, Call(0, nullptr, 0, o));
    EXPECT_EQ(3, o.result);
    EXPECT_EQ(10000.0, o.value);
    EXPECT_EQ(0, o.info);
    ASSERT_EQ(0, Call(0, nullptr, 0, o));
    EXPECT_EQ(0, o.result);
}

TEST_F(VadApi, InitAgainStartsAFreshAnalyzerAtTheNewRate)
{
    ASSERT_EQ(0, OKUVAD_Init(8000.0));
    std::vector<short> frames(1600, 300);
    Out o;
    ASSERT_EQ(0, Call(1, frames.data(), 3200, o));  // a reading waits behind nothing; take it
    EXPECT_EQ(3, o.result);
    ASSERT_EQ(0, Call(1, frames.data(), 3200, o));  // queue another reading, leave it queued
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    EXPECT_EQ(0, Call(0, nullptr, 0, o));
    EXPECT_EQ(0, o.result);  // the old queue is gone
    // Positions are now computed at 16 kHz.
    const int s = 100, e = 150;
    oku::AudioData tone = testsig::Tone({{s, 47.0}, {e - s, 10000.0}, {60, 47.0}}, 16000.0, 320);
    ASSERT_EQ(0, Call(1, tone.data(), static_cast<unsigned int>(tone.size() * 2), o));
    EXPECT_EQ(1, o.result);
    EXPECT_EQ((s - 7) * 320.0, o.value);
}

TEST_F(VadApi, OversizedChunkIsAnErrorNotACrash)
{
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    short dummy[1] = {0};
    Out o;
    // (size / 2) + 1 does not fit a signed 32-bit count: rejected before any read of the buffer.
    EXPECT_EQ(-2, Call(1, dummy, 0xFFFFFFFFu, o));
    EXPECT_EQ(-1, o.result);
    EXPECT_EQ(0, Call(1, dummy, 2, o));  // the analyzer is still usable
}
