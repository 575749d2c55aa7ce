// Twenty-four hours of audio through the exported functions, in 20 ms chunks,
// drained as a host drains them: memory must stay flat and positions and
// times must stay right to the end (no counter overflows or drifts).
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "okuvad.h"

#ifndef OKU_DATA_DIR
#error "OKU_DATA_DIR must name the folder of speech16k.wav"
#endif

namespace {

long ResidentKiB()
{
    long pages = 0, resident = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::vector<short> ReadRecording(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_TRUE(f) << path;
    if (!f)
        return {};
    std::vector<short> samples(static_cast<std::size_t>(info.frames));
    sf_readf_short(f, samples.data(), info.frames);
    sf_close(f);
    return samples;
}

}  // namespace

TEST(DayLongStream, TwentyFourHoursStayFlatAndExact)
{
    const std::vector<short> loop = ReadRecording(std::string(OKU_DATA_DIR) + "/speech16k.wav");
    ASSERT_EQ(138855u, loop.size());
    // Where the two sentences lie in each pass over the recording (data/speech16k.txt).
    const long sentence[2][2] = {{16000, 62822}, {86822, 122855}};
    const long L = static_cast<long>(loop.size());
    const long chunk = 320;  // 20 ms; every call adds one sample, so calls are 321 samples apart
    const long long calls = 24LL * 3600 * 50;

    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    ASSERT_EQ(0, OKUAGC_Init(16000));
    std::vector<short> in(chunk), captured(chunk);
    long volume = 20000;
    const long bound = 65535;
    long long pos = 0;  // position in the looped recording
    // Filled with zeros up front (so their pages are resident before the
    // measurement starts), so that the test's own lists do not grow during the run.
    const std::size_t most = static_cast<std::size_t>(2 * calls * chunk / L + 4);
    std::vector<long long> starts(most), ends(most);
    std::size_t nStarts = 0, nEnds = 0;
    long rssAfterWarmUp = 0, rssMax = 0;
    for (long long call = 0; call < calls; ++call) {
        for (long i = 0; i < chunk; ++i, ++pos)
            in[static_cast<std::size_t>(i)] = loop[static_cast<std::size_t>(pos % L)];
        int start = 1, result = 0, info = 0;
        double value = 0.0;
        do {
            ASSERT_EQ(0, OKUVAD_GetResult(start, in.data(), chunk * 2, &result, &value, &info));
            start = 0;
            // A position in samples received (each call brings chunk + 1) back on the recording's own axis.
            const long long received = std::llround(value);
            const long long filePos = received / (chunk + 1) * chunk + std::min<long long>(received % (chunk + 1), chunk);
            if (result == 1 && nStarts < most)
                starts[nStarts++] = filePos;
            else if (result == 2 && nEnds < most)
                ends[nEnds++] = filePos;
        } while (result != 0);

        const double factor = static_cast<double>(volume) / bound;
        for (long i = 0; i < chunk; ++i)
            captured[static_cast<std::size_t>(i)] = static_cast<short>(std::lround(in[static_cast<std::size_t>(i)] * factor));
        long next = -1;
        ASSERT_EQ(0, OKUAGC_ComputeGain(captured.data(), chunk * 2, volume, bound, &next));
        ASSERT_GE(next, 0);
        ASSERT_LE(next, bound);
        volume = next;

        if (call % (50 * 60) == 0) {  // once a minute of audio
            const long rss = ResidentKiB();
            if (call == 50 * 60 * 10)
                rssAfterWarmUp = rss;
            if (call > 50 * 60 * 10)
                rssMax = std::max(rssMax, rss);

        }
    }

    // Memory: nothing grows after the first ten minutes.
    EXPECT_LE(rssMax - rssAfterWarmUp, 64) << "KiB grown after warm-up: " << rssAfterWarmUp << " -> " << rssMax;

    // Positions: two segments per pass over the recording, each where the
    // timing rules put it: dated up to 140 ms (plus one frame of alignment)
    // before its sentence and at most 100 ms after its soft onset, ended after
    // its sentence by at most the 420 ms timeout plus 100 ms.
    const long long passes = calls * chunk / L;
    ASSERT_GE(static_cast<long long>(nStarts), 2 * passes);
    ASSERT_LE(static_cast<long long>(nStarts), 2 * passes + 2);
    ASSERT_GE(nEnds + 1, nStarts);
    for (std::size_t k = 0; k < nEnds; ++k) {
        const long long pass = static_cast<long long>(k / 2);
        const long* s = sentence[k % 2];
        const long long start = starts[k] - pass * L, end = ends[k] - pass * L;
        ASSERT_GE(start, s[0] - 2240 - 320) << "segment " << k;
        ASSERT_LE(start, s[0] + 1600) << "segment " << k;
        ASSERT_GE(end, s[1]) << "segment " << k;
        ASSERT_LE(end, s[1] + 8320) << "segment " << k;
    }

    // Times: the gain control's last decision lies within the last update interval
    // of all audio received (24 h plus one sample per call).
    double timeMs = 0;
    float pause = 0, speech = 0;
    int type = -1;
    ASSERT_EQ(0, OKUAGC_GetInfo(&timeMs, &pause, &speech, &type));
    const double receivedMs = calls * (chunk + 1) * 1000.0 / 16000.0;
    EXPECT_LE(timeMs, receivedMs);
    EXPECT_GE(timeMs, receivedMs - 120.0);
    std::printf("passes %lld, segments %zu, resident %ld KiB after 10 min, %ld KiB at most later\n", passes,
                nEnds, rssAfterWarmUp, rssMax);
    OKUVAD_Deinit();
    OKUAGC_Deinit();
}
