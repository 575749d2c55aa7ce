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

// A quiet steady tone: the analyzer stays in its pause state, no events.
oku::AudioData Quiet(int frames) { return testsig::Tone({{frames, 47.0}}, 16000.0, kFrame); }

struct Counted {
    long processing;  // allocations inside Process
    long taking;      // allocations inside GetResult
    long results;
};

// Feeds `calls` chunks of one frame after `warmUp` chunks and counts what the analyzer allocates.
Counted AnalyzerSteadyState(bool frames, int warmUp, int calls)
{
    const oku::AudioData signal = Quiet(warmUp + calls);
    oku::AudioAnalyzer a("", 16000.0, frames);
    oku::AudioData chunk(kFrame);
    oku::AnalyzerResultPtr r;
    Counted c{0, 0, 0};
    for (int k = 0; k < warmUp + calls; ++k) {
        std::copy(signal.begin() + k * kFrame, signal.begin() + (k + 1) * kFrame, chunk.begin());
        long before = g_allocations;
        a.Process(chunk);
        if (k >= warmUp)
            c.processing += g_allocations - before;
        before = g_allocations;
        while (a.GetResult(r))
            c.results += k >= warmUp;
        if (k >= warmUp)
            c.taking += g_allocations - before;
        r.reset();
    }
    return c;
}

}  // namespace

TEST(Allocations, AnalyzerQueuesWithoutAllocatingAndGetResultMakesTheObjects)
{
    // Per 20 ms chunk in steady state: one frame emitted and one reading.
    const Counted off = AnalyzerSteadyState(false, 300, 500);
    EXPECT_EQ(2 * 500, off.results);
    EXPECT_EQ(0, off.processing);
    EXPECT_EQ(off.results, off.taking);  // one shared object per result
    const Counted on = AnalyzerSteadyState(true, 300, 500);
    EXPECT_EQ(2 * 500, on.results);
    EXPECT_EQ(0, on.processing);
    EXPECT_EQ(3 * 500, on.taking);  // the frame result, its copy of the samples, the reading
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

namespace {

const double kRates[] = {8000.0, 11025.0, 16000.0, 22050.0};

// A loud second in every three over a quiet floor: speech starts and ends,
// readings in speech and in pauses, and gain updates all occur while counting.
oku::AudioData Bursts(double rate, int seconds)
{
    const int frame = static_cast<int>(rate / 50);
    std::vector<std::pair<int, double>> steps;
    for (int s = 0; s < seconds; s += 3) {
        steps.push_back({100, 47.0});
        steps.push_back({50, 10000.0});
    }
    return testsig::Tone(steps, rate, frame);
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
    if (oneByOne) {
        oku_vad_result r;
        do {
            EXPECT_EQ(OKU_OK, oku_vad_next(v, &r));
            starts += r.type == OKU_VAD_SPEECH_START;
        } while (r.type != OKU_VAD_NONE);
    } else {
        oku_vad_result r[16];
        std::size_t count = 0;
        do {
            EXPECT_EQ(OKU_OK, oku_vad_results(v, r, 16, &count));
            for (std::size_t i = 0; i < count; ++i)
                starts += r[i].type == OKU_VAD_SPEECH_START;
        } while (count == 16);
    }
    return starts;
}

struct Stream {
    long allocations = 0;  // in the processing and taking calls
    int starts = 0;        // speech starts seen
    int updates = 0;       // gain updates
};

// One analyzer and one gain control at `rate`, created, then fed 60 s in
// chunks of the given lengths in turn; counts what the calls allocate.
Stream OneByOne(double rate, unsigned flags, bool oneByOne, const std::vector<double>& chunkMs)
{
    const oku::AudioData signal = Bursts(rate, 60);
    oku_vad* vad = nullptr;
    oku_agc* agc = nullptr;
    EXPECT_EQ(OKU_OK, oku_vad_create_ex(rate, "", flags, &vad));
    EXPECT_EQ(OKU_OK, oku_agc_create(static_cast<int>(rate), "", &agc));
    Stream run;
    double gain = 0.5;
    std::size_t at = 0;
    for (std::size_t k = 0;; ++k) {
        const std::size_t n = Samples(rate, chunkMs[k % chunkMs.size()]);
        if (at + n > signal.size())
            break;
        const long before = g_allocations;
        EXPECT_EQ(OKU_OK, oku_vad_process(vad, &signal[at], n));
        const int starts = Drain(vad, oneByOne);
        EXPECT_EQ(OKU_OK, oku_agc_process(agc, &signal[at], n, gain, &gain));
        oku_agc_decision d;
        EXPECT_EQ(OKU_OK, oku_agc_info(agc, &d));
        run.allocations += g_allocations - before;
        run.starts += starts;
        run.updates += d.updated;
        at += n;
    }
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
    return run;
}

}  // namespace

TEST(Allocations, HandlesAllocateNothingFromTheFirstCall)
{
    for (double rate : kRates) {
        for (unsigned flags : {0u, unsigned{OKU_VAD_AUDIO_FRAMES}}) {
            for (bool oneByOne : {true, false}) {
                SCOPED_TRACE(testing::Message() << rate << " Hz, flags " << flags << ", "
                                                << (oneByOne ? "oku_vad_next" : "oku_vad_results"));
                // 20 ms calls, and calls of many lengths up to 300 ms, not aligned to frames.
                for (const std::vector<double>& chunks : {std::vector<double>{20.0}, {0.125, 7.0, 300.0, 45.5, 1.0}}) {
                    const Stream run = OneByOne(rate, flags, oneByOne, chunks);
                    EXPECT_EQ(0, run.allocations);
                    EXPECT_GE(run.starts, 15);  // the stream held what a capture callback meets
                    EXPECT_GE(run.updates, 100);
                }
            }
        }
    }
}

// Audio as devices deliver it: converted rates, float samples, several
// channels, through the single calls and the many-calls, in 20 ms chunks and
// in chunks of many lengths.
TEST(Allocations, TheInputPathAllocatesNothingFromTheFirstCall)
{
    struct Input {
        int rate, channels;
        bool floats;
    };
    for (const Input& in : {Input{48000, 2, true}, Input{44100, 1, false}, Input{12000, 2, false},
                            Input{192000, 1, true}, Input{16000, 1, true}}) {
        SCOPED_TRACE(testing::Message() << in.rate << " Hz, " << in.channels << " channels");
        const oku::AudioData mono = Bursts(in.rate, 30);
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
            ASSERT_EQ(OKU_OK, oku_vad_open(in.rate, in.channels, "", k * OKU_VAD_AUDIO_FRAMES, &vads[k]));
            ASSERT_EQ(OKU_OK, oku_agc_open(in.rate, in.channels, "", 0, &agcs[k]));
        }
        long allocations = 0;
        int starts = 0;
        double gains[2] = {0.5, 0.5};
        const double lengths[] = {20.0, 0.125, 7.0, 300.0, 45.5, 1.0};
        std::size_t at = 0;
        for (std::size_t k = 0;; ++k) {
            const std::size_t n = Samples(in.rate, lengths[k % (k < 500 ? 1 : 6)]) * c;
            if (at + n > floats.size())
                break;
            const long before = g_allocations;
            if (in.floats) {
                ASSERT_EQ(OKU_OK, oku_vad_process_f32(vads[0], &floats[at], n));
                const float* chunks[2] = {&floats[at], &floats[at]};
                const std::size_t counts[2] = {n, n};
                ASSERT_EQ(OKU_OK, oku_vad_process_many_f32(vads + 1, chunks, counts, 1));
                ASSERT_EQ(OKU_OK, oku_agc_process_f32(agcs[0], &floats[at], n, gains[0], &gains[0]));
                ASSERT_EQ(OKU_OK, oku_agc_process_many_f32(agcs + 1, chunks, counts, gains + 1, gains + 1, 1));
            } else {
                ASSERT_EQ(OKU_OK, oku_vad_process(vads[0], &shorts[at], n));
                const int16_t* chunks[2] = {&shorts[at], &shorts[at]};
                const std::size_t counts[2] = {n, n};
                ASSERT_EQ(OKU_OK, oku_vad_process_many(vads + 1, chunks, counts, 1));
                ASSERT_EQ(OKU_OK, oku_agc_process(agcs[0], &shorts[at], n, gains[0], &gains[0]));
                ASSERT_EQ(OKU_OK, oku_agc_process_many(agcs + 1, chunks, counts, gains + 1, gains + 1, 1));
            }
            starts += Drain(vads[0], true) + Drain(vads[1], false);
            allocations += g_allocations - before;
            at += n;
        }
        EXPECT_EQ(0, allocations);
        EXPECT_GE(starts, 16);
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
    for (std::size_t n : {std::size_t{1}, std::size_t{16}, std::size_t{150}}) {
        SCOPED_TRACE(testing::Message() << n << " handles");
        std::vector<oku::AudioData> signals;
        for (double rate : kRates)
            signals.push_back(Bursts(rate, 30));
        std::vector<oku_vad*> vads(n);
        std::vector<oku_agc*> agcs(n);
        std::vector<std::size_t> counts(n);
        for (std::size_t i = 0; i < n; ++i) {
            const double rate = kRates[i % 4];
            ASSERT_EQ(OKU_OK, oku_vad_create(rate, "", &vads[i]));
            ASSERT_EQ(OKU_OK, oku_agc_create(static_cast<int>(rate), "", &agcs[i]));
            counts[i] = Samples(rate, 20.0);
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
            ASSERT_EQ(OKU_OK,
                      oku_agc_process_many(agcs.data(), samples.data(), counts.data(), gains.data(), gains.data(), n));
            allocations += g_allocations - before;
        }
        EXPECT_EQ(0, allocations);
        EXPECT_GE(starts, static_cast<int>(8 * n));
        if (n > 1) {
            std::vector<oku_vad*> twice = vads;
            twice[n - 1] = twice[0];
            EXPECT_EQ(OKU_ERR_ARGUMENT, oku_vad_process_many(twice.data(), samples.data(), counts.data(), n));
            EXPECT_NE(nullptr, std::strstr(oku_last_error(), "repeats"));
        }
        for (std::size_t i = 0; i < n; ++i) {
            oku_vad_destroy(vads[i]);
            oku_agc_destroy(agcs[i]);
        }
    }
}

// What a handle holds, against the figures oku.h states, at every input rate
// in two channels.
TEST(Allocations, HandlesHoldWhatTheHeaderSays)
{
    std::size_t count = 0;
    const int* rates = oku_input_rates(&count);
    for (std::size_t i = 0; i < count; ++i) {
        const int rate = rates[i];
        SCOPED_TRACE(rate);
        const auto bytes = [&](unsigned flags, bool agc) {
            const long before = g_bytes;
            oku_vad* v = nullptr;
            oku_agc* a = nullptr;
            if (agc) {
                EXPECT_EQ(OKU_OK, oku_agc_open(rate, 2, "", 0, &a));
            } else {
                EXPECT_EQ(OKU_OK, oku_vad_open(rate, 2, "", flags, &v));
            }
            const long held = g_bytes - before;
            oku_vad_destroy(v);
            oku_agc_destroy(a);
            EXPECT_GT(held, 1024);  // the counting sees the library's own allocations
            return held;
        };
        // Without frames: under 80 KiB. With frames, two rings of frames
        // besides: 456 frames of 20 ms at the analysis rate. A gain control: under 56 KiB.
        const long frameBytes = static_cast<long>(oku_analysis_rate(rate)) / 50 * 2;
        EXPECT_LE(bytes(0, false), 80 * 1024);
        EXPECT_LE(bytes(OKU_VAD_AUDIO_FRAMES, false), 80 * 1024 + 456 * frameBytes);
        EXPECT_LE(bytes(0, true), 56 * 1024);
        std::printf("%d Hz: analyzer %ld bytes, with frames %ld, gain control %ld\n", rate, bytes(0, false),
                    bytes(OKU_VAD_AUDIO_FRAMES, false), bytes(0, true));
    }
}
