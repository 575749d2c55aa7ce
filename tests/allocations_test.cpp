// Heap allocations in steady state, counted by replacing the global operator
// new (which the shared library's allocations reach too). The handle API's
// processing calls allocate nothing once a stream is running; the classes'
// GetResult allocates the result objects it hands out; the plain functions
// keep their copying.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "oku.h"
#include "okuvad.h"
#include "signals.h"

namespace {
std::atomic<long> g_allocations{0};
std::atomic<long> g_bytes{0};
}

// The replacements pair malloc with free; GCC, seeing them inlined into
// library code, would take them for a mismatched new and free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

#ifdef _WIN32
// A DLL carries its own C++ runtime (linked in statically), whose operator
// new the one above does not replace: the library's allocations are counted
// at the DLL's import of malloc instead, which is pointed at a counting
// wrapper before any test runs.
#include <windows.h>

namespace {
void* (*g_dllMalloc)(std::size_t) = nullptr;

void* CountingMalloc(std::size_t n)
{
    ++g_allocations;
    g_bytes += static_cast<long>(n);
    return g_dllMalloc(n);
}

bool HookDllMalloc()
{
    unsigned char* const base = reinterpret_cast<unsigned char*>(GetModuleHandleA("OKUVAD.dll"));
    if (!base)
        return false;
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress); d->Name; ++d) {
        const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + d->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + d->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), "malloc") != 0)
                continue;
            DWORD old = 0;
            if (!VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, PAGE_READWRITE, &old))
                return false;
            g_dllMalloc = reinterpret_cast<void* (*)(std::size_t)>(slots->u1.Function);
            slots->u1.Function = reinterpret_cast<ULONG_PTR>(&CountingMalloc);
            VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, old, &old);
            return true;
        }
    }
    return false;
}

const bool g_dllCounted = HookDllMalloc();
}  // namespace

TEST(Allocations, TheDllsAllocationsAreCounted) { EXPECT_TRUE(g_dllCounted); }
#endif

void* operator new(std::size_t n)
{
    ++g_allocations;
    g_bytes += static_cast<long>(n);
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

const int kFrame = 320;  // 20 ms at 16 kHz

// A loud second in every three over a quiet floor: speech starts and ends,
// readings in speech and in pauses, and gain updates all occur while counting.
oku::AudioData Bursts(double rate, int seconds)
{
    std::vector<std::pair<int, double>> steps;
    for (int s = 0; s < seconds; s += 3)
        steps.insert(steps.end(), {{100, 47.0}, {50, 10000.0}});
    return testsig::Tone(steps, rate, static_cast<int>(rate / 50));
}

std::size_t Samples(double rate, double ms)
{
    std::size_t n = 0;
    EXPECT_EQ(OKU_OK, oku_chunk_samples(rate, ms, &n));
    return n;
}

// Takes every waiting result, one by one or in arrays, as a capture callback
// does; returns the speech starts among them.
int Drain(oku_vad* v, bool oneByOne)
{
    int starts = 0;
    oku_vad_result r[16];
    std::size_t count = 0;
    do {
        if (oneByOne) {
            EXPECT_EQ(OKU_OK, oku_vad_next(v, r));
            count = r[0].type != OKU_VAD_NONE;
        } else {
            EXPECT_EQ(OKU_OK, oku_vad_results(v, r, 16, &count));
        }
        for (std::size_t i = 0; i < count; ++i)
            starts += r[i].type == OKU_VAD_SPEECH_START;
    } while (count == (oneByOne ? 1u : 16u));
    return starts;
}

}  // namespace

TEST(Allocations, ClassesQueueAndDecideWithoutAllocating)
{
    // Per 20 ms chunk in steady state an analyzer emits one frame and one
    // reading: Process allocates nothing, GetResult makes the objects it hands
    // out (with frame data also the frame's copy of its samples).
    const oku::AudioData quiet = testsig::Tone({{800, 47.0}}, 16000.0, kFrame);
    for (bool frames : {false, true}) {
        oku::AudioAnalyzer a("", 16000.0, frames);
        oku::AudioData chunk(kFrame);
        oku::AnalyzerResultPtr r;
        long processing = 0, taking = 0, results = 0;
        for (int k = 0; k < 800; ++k) {
            std::copy(quiet.begin() + k * kFrame, quiet.begin() + (k + 1) * kFrame, chunk.begin());
            const long before = g_allocations;
            a.Process(chunk);
            const long between = g_allocations;
            long n = 0;
            while (a.GetResult(r))
                ++n;
            r.reset();
            if (k >= 300) {
                processing += between - before;
                taking += g_allocations - between;
                results += n;
            }
        }
        EXPECT_EQ(2 * 500, results);
        EXPECT_EQ(0, processing);
        EXPECT_EQ((frames ? 3 : 2) * 500, taking) << frames;
    }
    oku::AGC agc("", 16000);
    float gain = 0.5f;
    long steady = 0;
    for (int k = 0; k < 2000; ++k) {
        const long before = g_allocations;
        gain = agc.ComputeGain(quiet.data() + (k % 800) * kFrame, kFrame, gain);
        steady += k >= 100 ? g_allocations - before : 0;
    }
    EXPECT_EQ(0, steady);
}

TEST(Allocations, PlainFunctionsAllocateOnlyResults)
{
    const oku::AudioData quiet = testsig::Tone({{2000, 47.0}}, 16000.0, kFrame);
    ASSERT_EQ(0, OKUVAD_Init(16000.0));
    ASSERT_EQ(0, OKUAGC_Init(16000));
    long vad = 0, agc = 0, volume = 30000;
    for (int k = 0; k < 2000; ++k) {
        // 319 samples per call: with the sample each call adds, one frame per call.
        const short* chunk = &quiet[static_cast<std::size_t>(k) * kFrame];
        int start = 1, result, info;
        double value;
        long before = g_allocations;
        do {
            ASSERT_EQ(0, OKUVAD_GetResult(start, chunk, 638, &result, &value, &info));
            start = 0;
        } while (result != 0);
        vad += k >= 300 ? g_allocations - before : 0;
        before = g_allocations;
        ASSERT_EQ(0, OKUAGC_ComputeGain(chunk, 638, volume, 65535, &volume));
        agc += k >= 300 ? g_allocations - before : 0;
    }
    EXPECT_EQ(3L * 1700, vad);  // frame data is on: the frame result, its samples, the reading
    EXPECT_EQ(0, agc);
    OKUVAD_Deinit();
    OKUAGC_Deinit();
}

// Handles at native and converted rates, 16-bit and float, one and two
// channels, with and without frames, through the single calls and the
// many-calls, results taken one by one and in arrays: 20 ms chunks, then
// chunks of many lengths not aligned to frames. Nothing is allocated from
// the first call on.
TEST(Allocations, HandlesAllocateNothingFromTheFirstCall)
{
    const struct {
        int rate, channels;
        bool floats;
        unsigned flags;
    } inputs[] = {{8000, 1, false, 0},         {11025, 1, false, OKU_VAD_AUDIO_FRAMES}, {16000, 1, true, 0},
                  {22050, 1, false, OKU_VAD_AUDIO_FRAMES}, {48000, 2, true, OKU_VAD_AUDIO_FRAMES},
                  {44100, 1, false, 0},        {12000, 2, false, OKU_VAD_AUDIO_FRAMES}, {192000, 1, true, 0}};
    const double lengths[] = {20.0, 0.125, 7.0, 300.0, 45.5, 1.0};
    for (const auto& in : inputs) {
        SCOPED_TRACE(testing::Message() << in.rate << " Hz, " << in.channels << " channels, flags " << in.flags);
        const oku::AudioData mono = Bursts(in.rate, 45);
        const std::size_t c = static_cast<std::size_t>(in.channels);
        std::vector<float> floats(mono.size() * c);
        std::vector<int16_t> shorts(mono.size() * c);
        for (std::size_t i = 0; i < floats.size(); ++i) {
            shorts[i] = mono[i / c];
            floats[i] = mono[i / c] / 32768.0f;
        }
        oku_vad* vads[2] = {};
        oku_agc* agcs[2] = {};
        for (int k = 0; k < 2; ++k) {
            ASSERT_EQ(OKU_OK, oku_vad_open(in.rate, in.channels, "", in.flags, &vads[k]));
            ASSERT_EQ(OKU_OK, oku_agc_open(in.rate, in.channels, "", 0, &agcs[k]));
        }
        long allocations = 0;
        int starts = 0, updates = 0;
        double gains[2] = {0.5, 0.5};
        for (std::size_t k = 0, at = 0;; ++k) {
            const std::size_t n = Samples(in.rate, lengths[k < 1000 ? 0 : k % 6]) * c;
            if (at + n > floats.size())
                break;
            const std::size_t counts[1] = {n};
            const float* f[1] = {&floats[at]};
            const int16_t* s[1] = {&shorts[at]};
            oku_agc_decision d;
            const long before = g_allocations;
            if (in.floats) {
                ASSERT_EQ(OKU_OK, oku_vad_process_f32(vads[0], f[0], n));
                ASSERT_EQ(OKU_OK, oku_vad_process_many_f32(vads + 1, f, counts, 1));
                ASSERT_EQ(OKU_OK, oku_agc_process_f32(agcs[0], f[0], n, gains[0], &gains[0]));
                ASSERT_EQ(OKU_OK, oku_agc_process_many_f32(agcs + 1, f, counts, gains + 1, gains + 1, 1));
            } else {
                ASSERT_EQ(OKU_OK, oku_vad_process(vads[0], s[0], n));
                ASSERT_EQ(OKU_OK, oku_vad_process_many(vads + 1, s, counts, 1));
                ASSERT_EQ(OKU_OK, oku_agc_process(agcs[0], s[0], n, gains[0], &gains[0]));
                ASSERT_EQ(OKU_OK, oku_agc_process_many(agcs + 1, s, counts, gains + 1, gains + 1, 1));
            }
            starts += Drain(vads[0], true) + Drain(vads[1], false);
            ASSERT_EQ(OKU_OK, oku_agc_info(agcs[0], &d));
            allocations += g_allocations - before;
            updates += d.updated;
            at += n;
        }
        EXPECT_EQ(0, allocations);
        EXPECT_GE(starts, 2 * 14);  // the stream held what a capture callback meets
        EXPECT_GE(updates, 100);
        for (int k = 0; k < 2; ++k) {
            oku_vad_destroy(vads[k]);
            oku_agc_destroy(agcs[k]);
        }
    }
}

// The many-calls over every rate at once, with more handles than one batch
// holds: nothing allocated from the first call, and a handle passed twice,
// found without any memory of the call's own, is still refused.
TEST(Allocations, ManyCallsAllocateNothing)
{
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    std::vector<oku::AudioData> signals;
    for (double rate : rates)
        signals.push_back(Bursts(rate, 30));
    for (std::size_t n : {std::size_t{16}, std::size_t{150}}) {
        SCOPED_TRACE(testing::Message() << n << " handles");
        std::vector<oku_vad*> vads(n);
        std::vector<oku_agc*> agcs(n);
        std::vector<std::size_t> counts(n);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(OKU_OK, oku_vad_create(rates[i % 4], "", &vads[i]));
            ASSERT_EQ(OKU_OK, oku_agc_create(static_cast<int>(rates[i % 4]), "", &agcs[i]));
            counts[i] = Samples(rates[i % 4], 20.0);
        }
        std::vector<const int16_t*> samples(n);
        std::vector<double> gains(n, 0.5);
        long allocations = 0;
        int starts = 0;
        for (std::size_t k = 0; k < 1400; ++k) {  // 28 s
            for (std::size_t i = 0; i < n; ++i)
                samples[i] = &signals[i % 4][(k + 13 * i) % 1450 * counts[i]];
            const long before = g_allocations;
            ASSERT_EQ(OKU_OK, oku_vad_process_many(vads.data(), samples.data(), counts.data(), n));
            for (oku_vad* v : vads)
                starts += Drain(v, true);
            ASSERT_EQ(OKU_OK, oku_agc_process_many(agcs.data(), samples.data(), counts.data(), gains.data(), gains.data(), n));
            allocations += g_allocations - before;
        }
        EXPECT_EQ(0, allocations);
        EXPECT_GE(starts, static_cast<int>(8 * n));
        std::vector<oku_vad*> twice = vads;
        twice[n - 1] = twice[0];
        EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_many(twice.data(), samples.data(), counts.data(), n));
        for (std::size_t i = 0; i < n; ++i) {
            oku_vad_destroy(vads[i]);
            oku_agc_destroy(agcs[i]);
        }
    }
}

// What a handle holds, against the figures oku.h states, at every input rate
// in two channels: an analyzer under 80 KiB, with frames two rings of 456
// frames of 20 ms at the analysis rate besides; a gain control under 56 KiB.
TEST(Allocations, HandlesHoldWhatTheHeaderSays)
{
    std::size_t count = 0;
    const int* rates = oku_input_rates(&count);
    for (std::size_t i = 0; i < count; ++i) {
        const int rate = rates[i];
        long held[3] = {};
        for (int k = 0; k < 3; ++k) {
            const long before = g_bytes;
            oku_vad* v = nullptr;
            oku_agc* a = nullptr;
            ASSERT_EQ(OKU_OK, k < 2 ? oku_vad_open(rate, 2, "", k ? OKU_VAD_AUDIO_FRAMES : 0, &v) : oku_agc_open(rate, 2, "", 0, &a));
            held[k] = g_bytes - before;
            oku_vad_destroy(v);
            oku_agc_destroy(a);
            EXPECT_GT(held[k], 1024) << rate;  // the counting sees the library's own allocations
        }
        EXPECT_LE(held[0], 80 * 1024) << rate;
        EXPECT_LE(held[1], 80 * 1024 + 456 * oku_analysis_rate(rate) / 50 * 2) << rate;
        EXPECT_LE(held[2], 56 * 1024) << rate;
        std::printf("%d Hz: analyzer %ld bytes, with frames %ld, gain control %ld\n", rate, held[0], held[1], held[2]);
    }
}
