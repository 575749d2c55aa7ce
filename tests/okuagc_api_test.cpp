// The exported gain-control functions, through the shared library, and the
// gain control in a closed loop with a simulated microphone.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <vector>

#include "okuvad.h"
#include "signals.h"

namespace {

struct Info {
    double timeMs = 111.0;
    float pause = 222.0f;
    float speech = 333.0f;
    int type = 444;
};

int GetInfo(Info& i) { return OKUAGC_GetInfo(&i.timeMs, &i.pause, &i.speech, &i.type); }

long Compute(const std::vector<short>& samples, long volume, long bound, int* status = nullptr)
{
    long out = -12345;
    const int s = OKUAGC_ComputeGain(samples.data(), static_cast<unsigned int>(samples.size() * 2), volume, bound, &out);
    if (status)
        *status = s;
    else
        EXPECT_EQ(0, s);
    return out;
}

class AgcApi : public ::testing::Test {
protected:
    void SetUp() override { OKUAGC_Deinit(); }
    void TearDown() override { OKUAGC_Deinit(); }
};

// One chunk of 6 frames minus the sample each call adds: exactly one update per call.
const std::size_t kChunk = 6 * 320 - 1;

}  // namespace

TEST_F(AgcApi, WithoutAGainControlNothingIsWritten)
{
    long out = 7;
    std::vector<short> chunk(100, 0);
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), 200, 10, 100, &out));
    EXPECT_EQ(7, out);
    Info i;
    EXPECT_EQ(-1, GetInfo(i));
    EXPECT_EQ(444, i.type);
    EXPECT_EQ(111.0, i.timeMs);
    EXPECT_EQ(0, OKUAGC_Deinit());
    EXPECT_EQ(0, OKUAGC_Deinit());
}

TEST_F(AgcApi, InitRules)
{
    EXPECT_EQ(-4, OKUAGC_Init(0));
    EXPECT_EQ(-4, OKUAGC_Init(-8000));
    ASSERT_EQ(0, OKUAGC_Init(16000));
    Compute(std::vector<short>(kChunk, 0), 100, 1000);  // one update: pause too low
    Info before;
    ASSERT_EQ(0, GetInfo(before));
    EXPECT_EQ(OKUAGC_PAUSE_TOO_LOW, before.type);
    EXPECT_EQ(-4, OKUAGC_Init(-1));  // a bad rate leaves the gain control in place
    EXPECT_EQ(0, OKUAGC_Init(16000));  // the same rate keeps it, history and all
    Info after;
    ASSERT_EQ(0, GetInfo(after));
    EXPECT_EQ(before.type, after.type);
    EXPECT_EQ(before.timeMs, after.timeMs);
    EXPECT_EQ(0, OKUAGC_Init(8000));  // another rate starts afresh
    ASSERT_EQ(0, GetInfo(after));
    EXPECT_EQ(OKUAGC_UNCHANGED, after.type);
    EXPECT_EQ(0.0, after.timeMs);
    EXPECT_EQ(0.0f, after.pause);
    EXPECT_EQ(0.0f, after.speech);
    EXPECT_EQ(-2, OKUAGC_Init(48000));  // unsupported: none exists afterwards
    long out = 7;
    EXPECT_EQ(-1, OKUAGC_ComputeGain(nullptr, 0, 1, 2, &out));
    EXPECT_EQ(-1, GetInfo(after));
}

TEST_F(AgcApi, BadArgumentsAreRejectedWithoutConsumingAudio)
{
    ASSERT_EQ(0, OKUAGC_Init(16000));
    std::vector<short> chunk(kChunk, 0);
    long out = 7;
    const unsigned int bytes = static_cast<unsigned int>(chunk.size() * 2);
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), bytes, 10, 0, &out));      // bound 0
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), bytes, 10, -100, &out));   // negative bound
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), bytes, 101, 100, &out));   // above the bound
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), bytes, -1, 100, &out));    // negative volume
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), bytes, LONG_MIN, LONG_MAX, &out));
    EXPECT_EQ(-1, OKUAGC_ComputeGain(nullptr, bytes, 10, 100, &out));          // no buffer behind the size
    EXPECT_EQ(-1, OKUAGC_ComputeGain(chunk.data(), bytes, 10, 100, nullptr));
    EXPECT_EQ(7, out);
    Info i;
    ASSERT_EQ(0, GetInfo(i));
    EXPECT_EQ(0.0, i.timeMs);  // no call consumed audio
    EXPECT_EQ(-1, OKUAGC_GetInfo(nullptr, &i.pause, &i.speech, &i.type));
    EXPECT_EQ(-1, OKUAGC_GetInfo(&i.timeMs, nullptr, &i.speech, &i.type));
    EXPECT_EQ(-1, OKUAGC_GetInfo(&i.timeMs, &i.pause, nullptr, &i.type));
    EXPECT_EQ(-1, OKUAGC_GetInfo(&i.timeMs, &i.pause, &i.speech, nullptr));
    // The largest bounds work by the same rule. A call of one frame only
    // collects audio and keeps the gain: the ratio (2^62 - 1) / (2^63 - 1) is
    // 0.5 as a float, and 0.5 times the bound as a float (2^63) is 2^62, one
    // above the volume given. Full volume stays full volume, held to the bound.
    const std::vector<short> frame(320, 0);
    EXPECT_EQ(LONG_MAX / 2 + 1, Compute(frame, LONG_MAX / 2, LONG_MAX));
    EXPECT_EQ(LONG_MAX, Compute(frame, LONG_MAX, LONG_MAX));
}

TEST_F(AgcApi, VolumesRoundTripThroughAFloatRatio)
{
    ASSERT_EQ(0, OKUAGC_Init(16000));
    const std::vector<short> one(1, 0);  // far from an update: the gain comes back unchanged
    EXPECT_EQ(39999, Compute(one, 40000, 65535));
    EXPECT_EQ(32767, Compute(one, 32768, 65535));
    EXPECT_EQ(65535, Compute(one, 65535, 65535));
    EXPECT_EQ(0, Compute(one, 1, 100));
    EXPECT_EQ(50, Compute(one, 50, 100));
    EXPECT_EQ(0, Compute(one, 0, 100) > 0 ? 0 : 1);  // 0 asks for a starting volume
    Info i;
    ASSERT_EQ(0, GetInfo(i));
    EXPECT_EQ(OKUAGC_GAIN_ESTIMATE, i.type);
    // The starting gain is sqrt(0.001) = 0.0316228: 3 of 100, 2072 of 65535.
    EXPECT_EQ(3, Compute(one, 0, 100));
    EXPECT_EQ(2072, Compute(one, 0, 65535));
}

TEST_F(AgcApi, EachCallAddsOneZeroSample)
{
    ASSERT_EQ(0, OKUAGC_Init(16000));
    Info i;
    Compute(std::vector<short>(), 500, 1000);  // 0 bytes: one zero sample
    ASSERT_EQ(0, GetInfo(i));
    EXPECT_DOUBLE_EQ(1 / 16.0, i.timeMs);
    OKUAGC_Deinit();
    ASSERT_EQ(0, OKUAGC_Init(16000));
    // 319 samples per call + 1 = one frame per call: the sixth call updates.
    for (int call = 1; call <= 6; ++call) {
        Compute(std::vector<short>(319, 0), 500, 1000);
        ASSERT_EQ(0, GetInfo(i));
        EXPECT_EQ(call < 6 ? OKUAGC_UNCHANGED : OKUAGC_PAUSE_TOO_LOW, i.type) << call;
        EXPECT_DOUBLE_EQ(call * 20.0, i.timeMs);
    }
    // An odd byte count: 3 bytes give two samples, the second from the odd byte.
    const unsigned char bytes[3] = {0, 0, 0x7F};
    long out = 0;
    EXPECT_EQ(0, OKUAGC_ComputeGain(bytes, 3, 500, 1000, &out));
    ASSERT_EQ(0, GetInfo(i));
    EXPECT_DOUBLE_EQ(120.0 + 2 / 16.0, i.timeMs);
    EXPECT_EQ(-2, OKUAGC_ComputeGain(bytes, 0xFFFFFFFFu, 500, 1000, &out));  // too large to hold
    EXPECT_EQ(0, out);
}

// ---- closed loop ------------------------------------------------------------------------

namespace {

// A source of speech-like bursts: per 120 ms, two frames of a 1 kHz tone (5 ms
// fades, so no ringing reaches the silent frames) and four frames of silence.
// At full volume the tone frames measure about 69.3 dB, the silence 0.
std::vector<short> Bursts(int updates, double amplitude)
{
    std::vector<short> s = testsig::Tone(std::vector<std::pair<int, double>>(), 16000.0, 320);
    for (int u = 0; u < updates; ++u) {
        std::vector<short> burst = testsig::Tone({{2, amplitude}}, 16000.0, 320);
        for (int i = 0; i < 80; ++i) {
            const double w = 0.5 - 0.5 * std::cos(3.14159265358979 * i / 80);
            burst[static_cast<std::size_t>(i)] = static_cast<short>(std::lround(burst[static_cast<std::size_t>(i)] * w));
            burst[burst.size() - 1 - static_cast<std::size_t>(i)] =
                static_cast<short>(std::lround(burst[burst.size() - 1 - static_cast<std::size_t>(i)] * w));
        }
        s.insert(s.end(), burst.begin(), burst.end());
        s.insert(s.end(), 4 * 320, 0);
    }
    return s;
}

struct LoopResult {
    std::vector<long> volumes;  // volume in force at each update
    std::vector<int> types;
    std::vector<float> speech;
};

// The host's loop: each 120 ms chunk is captured at the volume in force (the
// source scaled by volume / bound, clipped) and the proposed volume is applied next.
LoopResult ClosedLoop(const std::vector<short>& source, long volume, long bound)
{
    LoopResult r;
    for (std::size_t pos = 0; pos + 6 * 320 <= source.size(); pos += 6 * 320) {
        std::vector<short> captured(kChunk);
        for (std::size_t i = 0; i < kChunk; ++i) {
            const double x = std::round(source[pos + i] * static_cast<double>(volume) / bound);
            captured[i] = static_cast<short>(std::max(-32768.0, std::min(32767.0, x)));
        }
        r.volumes.push_back(volume);
        volume = Compute(captured, volume, bound);
        Info i;
        EXPECT_EQ(0, GetInfo(i));
        r.types.push_back(i.type);
        r.speech.push_back(i.speech);
    }
    r.volumes.push_back(volume);
    return r;
}

int Changes(const LoopResult& r)
{
    int n = 0;
    for (std::size_t k = 1; k < r.volumes.size(); ++k)
        n += r.volumes[k] != r.volumes[k - 1];
    return n;
}

}  // namespace

TEST_F(AgcApi, ClosedLoopFromTooQuietRaisesSpeechIntoTheBand)
{
    // Start 39.3 dB below full volume: the bursts measure 30 dB and the pauses 0,
    // so every update is "pause too low" and raises by min(12 - 0, 6) = 6 dB until
    // the speech level reaches 57: ceil((57 - 30) / 6) = 5 raises, then none.
    ASSERT_EQ(0, OKUAGC_Init(16000));
    const long bound = 65535;
    LoopResult r = ClosedLoop(Bursts(30, 4990.0), 711, bound);
    ASSERT_NEAR(30.0, r.speech[0], 0.5);
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(OKUAGC_PAUSE_TOO_LOW, r.types[static_cast<std::size_t>(k)]) << k;
    EXPECT_EQ(5, Changes(r));
    EXPECT_GE(r.speech[5], 57.0f);
    EXPECT_LE(r.speech.back(), 78.0f);
    EXPECT_GE(r.speech.back(), 57.0f);
}

TEST_F(AgcApi, ClosedLoopFromTooLoudLowersSpeechIntoTheBand)
{
    // At full volume a full-scale burst measures about 85.3 dB: lowered by
    // min(85.25 - 78, 6) = 6, then by the remaining 1.25: two changes.
    ASSERT_EQ(0, OKUAGC_Init(16000));
    LoopResult r = ClosedLoop(Bursts(30, 32767.0), 65535, 65535);
    ASSERT_GT(r.speech[0], 84.0f);
    EXPECT_EQ(OKUAGC_SPEECH_TOO_HIGH, r.types[0]);
    EXPECT_EQ(OKUAGC_SPEECH_TOO_HIGH, r.types[1]);
    EXPECT_EQ(2, Changes(r));
    EXPECT_LE(r.speech.back(), 78.0f);
    EXPECT_GE(r.speech.back(), 57.0f);
}

TEST_F(AgcApi, ClosedLoopSilenceDrivesTheVolumeToItsLimit)
{
    // 6 dB per update from 655 of 65535 (-40 dB): six raises reach 0.63 of full
    // volume, the seventh would pass it and is clamped there.
    ASSERT_EQ(0, OKUAGC_Init(16000));
    LoopResult r = ClosedLoop(std::vector<short>(12 * 6 * 320, 0), 655, 65535);
    EXPECT_LT(r.volumes[6], 65535);
    EXPECT_EQ(65535, r.volumes[7]);
    EXPECT_EQ(OKUAGC_OPERATING_LIMIT, r.types[6]);
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(OKUAGC_PAUSE_TOO_LOW, r.types[static_cast<std::size_t>(k)]);
    EXPECT_EQ(65535, r.volumes.back());
}
