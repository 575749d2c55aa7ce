// Heap allocations in steady state, counted by replacing the global operator new.
// The gain control allocates nothing per chunk; the analyzer allocates only the
// result objects it queues: one per emitted frame (two with frame data: the
// object and its copy of the samples), one per volume reading, one per event.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "oku.h"
#include "okuvad.h"
#include "signals.h"

namespace {
std::atomic<long> g_allocations{0};
}

// The replacements pair malloc with free; GCC, seeing them inlined into
// library code, would take them for a mismatched new and free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t n)
{
    ++g_allocations;
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

const int kFrame = 320;  // 20 ms at 16 kHz

// A quiet steady tone: the analyzer stays in its pause state, no events.
oku::AudioData Quiet(int frames) { return testsig::Tone({{frames, 47.0}}, 16000.0, kFrame); }

struct Counted {
    long allocations;
    long results;
};

// Feeds `calls` chunks of one frame after `warmUp` chunks and counts what the analyzer allocates.
Counted AnalyzerSteadyState(bool frames, int warmUp, int calls)
{
    const oku::AudioData signal = Quiet(warmUp + calls);
    oku::AudioAnalyzer a("", 16000.0, frames);
    oku::AudioData chunk(kFrame);
    oku::AnalyzerResultPtr r;
    Counted c{0, 0};
    for (int k = 0; k < warmUp + calls; ++k) {
        std::copy(signal.begin() + k * kFrame, signal.begin() + (k + 1) * kFrame, chunk.begin());
        const long before = g_allocations;
        a.Process(chunk);
        if (k >= warmUp)
            c.allocations += g_allocations - before;
        while (a.GetResult(r))
            c.results += k >= warmUp;
        r.reset();
    }
    return c;
}

}  // namespace

TEST(Allocations, AnalyzerAllocatesOnlyTheResultsItQueues)
{
    // Per 20 ms chunk in steady state: one frame emitted and one reading.
    const Counted off = AnalyzerSteadyState(false, 300, 500);
    EXPECT_EQ(2 * 500, off.results);
    EXPECT_EQ(off.results, off.allocations);  // 2 per frame: the frame result and the reading
    const Counted on = AnalyzerSteadyState(true, 300, 500);
    EXPECT_EQ(2 * 500, on.results);
    EXPECT_EQ(3 * 500, on.allocations);  // 3 per frame: the frame result, its samples, the reading
}

TEST(Allocations, GainControlAllocatesNothingPerChunk)
{
    const oku::AudioData signal = Quiet(2000);
    oku::AGC agc("", 16000);
    oku::AudioData chunk(kFrame);
    float gain = 0.5f;
    long steady = 0;
    for (int k = 0; k < 2000; ++k) {
        std::copy(signal.begin() + k * kFrame, signal.begin() + (k + 1) * kFrame, chunk.begin());
        const long before = g_allocations;
        gain = agc.ComputeGain(chunk, gain);
        if (k >= 100)
            steady += g_allocations - before;
    }
    EXPECT_EQ(0, steady);
}

TEST(Allocations, ExportedFunctionsAllocateOnlyResults)
{
    const oku::AudioData signal = Quiet(2000);
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    ASSERT_EQ(0, OKUAGC_Init(16000));
    long vad = 0, agc = 0, volume = 30000;
    int frames = 0;
    for (int k = 0; k < 2000; ++k) {
        // 319 samples per call: with the sample each call adds, one frame per call.
        const short* chunk = &signal[static_cast<std::size_t>(k) * kFrame];
        int start = 1, result, info;
        double value;
        long before = g_allocations;
        do {
            ASSERT_EQ(0, OKUVAD_GetResult(start, chunk, 638, &result, &value, &info));
            start = 0;
        } while (result != 0);
        if (k >= 300) {
            vad += g_allocations - before;
            ++frames;
        }
        before = g_allocations;
        ASSERT_EQ(0, OKUAGC_ComputeGain(chunk, 638, volume, 65535, &volume));
        if (k >= 300)
            agc += g_allocations - before;
    }
    EXPECT_EQ(3L * frames, vad);  // frame data is on: frame result, its samples, the reading
    EXPECT_EQ(0, agc);
    OKUVAD_Deinit();
    OKUAGC_Deinit();
}

TEST(Allocations, HandlesAllocateOnlyResults)
{
    const oku::AudioData signal = Quiet(2000);
    oku_vad* vad = nullptr;
    oku_agc* agc = nullptr;
    ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &vad));
    ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agc));
    long vadAllocations = 0, agcAllocations = 0;
    double gain = 0.5;
    oku_vad_result r;
    for (int k = 0; k < 2000; ++k) {
        const int16_t* chunk = &signal[static_cast<std::size_t>(k) * kFrame];
        long before = g_allocations;
        ASSERT_EQ(OKU_OK, oku_vad_process(vad, chunk, kFrame));
        do
            ASSERT_EQ(OKU_OK, oku_vad_next(vad, &r));
        while (r.type != OKU_VAD_NONE);
        if (k >= 300)
            vadAllocations += g_allocations - before;
        before = g_allocations;
        ASSERT_EQ(OKU_OK, oku_agc_process(agc, chunk, kFrame, gain, &gain));
        if (k >= 300)
            agcAllocations += g_allocations - before;
    }
    EXPECT_EQ(1L * 1700, vadAllocations);  // frames not asked for are not made: only the reading
    EXPECT_EQ(0, agcAllocations);
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
}

// Many handles per call: each handle's reading, and a few arrays per call
// (not per handle or frame).
TEST(Allocations, ManyHandlesPerCallAllocateTheirReadingsAndAFewArrays)
{
    const oku::AudioData signal = Quiet(2000);
    const std::size_t n = 16;
    std::vector<oku_vad*> vads(n);
    std::vector<oku_agc*> agcs(n);
    for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(OKU_OK, oku_vad_create(16000.0, "", &vads[i]));
        ASSERT_EQ(OKU_OK, oku_agc_create(16000, "", &agcs[i]));
    }
    std::vector<const int16_t*> samples(n);
    const std::vector<std::size_t> counts(n, kFrame);
    std::vector<double> gains(n, 0.5);
    long most = 0, mostAgc = 0;
    oku_vad_result r;
    for (int k = 0; k < 1000; ++k) {
        for (std::size_t i = 0; i < n; ++i)
            samples[i] = &signal[(static_cast<std::size_t>(k) + 37 * i) % 1900 * kFrame];
        long before = g_allocations;
        ASSERT_EQ(OKU_OK, oku_vad_process_many(vads.data(), samples.data(), counts.data(), n));
        for (oku_vad* v : vads) {
            do
                ASSERT_EQ(OKU_OK, oku_vad_next(v, &r));
            while (r.type != OKU_VAD_NONE);
        }
        if (k >= 300)
            most = std::max(most, g_allocations - before);
        before = g_allocations;
        ASSERT_EQ(OKU_OK, oku_agc_process_many(agcs.data(), samples.data(), counts.data(), gains.data(), gains.data(), n));
        if (k >= 300)
            mostAgc = std::max(mostAgc, g_allocations - before);
    }
    EXPECT_LE(most, static_cast<long>(n) + 4);
    EXPECT_LE(mostAgc, 8);
    for (std::size_t i = 0; i < n; ++i) {
        oku_vad_destroy(vads[i]);
        oku_agc_destroy(agcs[i]);
    }
}
