// Speed of the analyzer and the gain control, beside a plain reference kernel
// (the work that cannot be avoided) and peer libraries, on the same audio, for
// each kind of content (bench/audio.h) and rate.
//
// Names: CASE/CONTENT/RATE[/CHUNK], e.g. vad_exported/speech_noise/16000/20ms.
// Every case reports samples per second (items_per_second) and how many times
// faster than real time it runs ("x_realtime"); bench/report.py turns a JSON
// run into the tables of ns per sample with kernel and peer ratios.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <speex/speex_preprocess.h>
#include <unistd.h>

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <xmmintrin.h>
#define OKU_BENCH_MXCSR 1
#else
#define OKU_BENCH_MXCSR 0
#endif

#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <tuple>
#include <string>
#include <utility>
#include <vector>

#include "agc.h"
#include "audio.h"
#include "audioanalyzer.h"
#include "measure.h"
#include "oku.h"
#include "okuvad.h"
#include "peers.h"
#include "rates.h"

using okubench::Audio;
using okubench::Content;

namespace {

// Sends stderr to /dev/null until Restore or destruction.
class QuietStderr {
public:
    QuietStderr() : _saved(dup(2))
    {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        close(null);
    }
    ~QuietStderr() { Restore(); }
    void Restore()
    {
        if (_saved >= 0) {
            dup2(_saved, 2);
            close(_saved);
            _saved = -1;
        }
    }

private:
    int _saved;
};

// Samples (items) and bytes per second, and seconds of audio per second of time.
void Count(benchmark::State& state, std::size_t samples, int rate)
{
    const double n = static_cast<double>(samples);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * samples));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * samples * 2));
    state.counters["x_realtime"] = benchmark::Counter(n / rate, benchmark::Counter::kIsIterationInvariantRate);
}

// While alive, the processor flushes subnormal results to zero and reads
// subnormal inputs as zero (FTZ and DAZ in MXCSR), when asked and when the
// processor has them; the previous MXCSR comes back on destruction. Only this
// program does this, around the reference kernel's timed loop: the library
// never changes floating-point modes.
class FlushSubnormals {
public:
    explicit FlushSubnormals(bool on)
    {
#if OKU_BENCH_MXCSR
        _saved = _mm_getcsr();
        if (on)
            _mm_setcsr(_saved | 0x8040u);  // FTZ (bit 15) and DAZ (bit 6)
#else
        (void)on;
#endif
    }
    ~FlushSubnormals()
    {
#if OKU_BENCH_MXCSR
        _mm_setcsr(_saved);
#endif
    }
    FlushSubnormals(const FlushSubnormals&) = delete;
    FlushSubnormals& operator=(const FlushSubnormals&) = delete;

    static bool Available() { return OKU_BENCH_MXCSR != 0; }

private:
#if OKU_BENCH_MXCSR
    unsigned int _saved;
#endif
};

// The reference kernel: the filter recursion with rounding and clipping, the
// sum of squares and one logarithm per frame, written as plainly as possible.
// With `flush`, subnormals are flushed to zero while it runs: when the input
// falls to digital silence the recursion's state decays through the subnormal
// range, which plain x86 arithmetic handles many times slower, and that is not
// work any implementation has to do. Without it (kernel_plain) the table shows
// what the subnormals cost the plain recursion.
void Kernel(benchmark::State& state, Content content, int rate, bool flush)
{
    const std::vector<short>& x = Audio(content, rate);
    const oku::SupportedRate& c = *oku::FindRate(rate);
    const double b1 = c.b1, b2 = c.b2, a2 = c.a2, a3 = c.a3;
    const std::size_t frame = static_cast<std::size_t>(rate / 50);
    if (flush && !FlushSubnormals::Available())
        state.SetLabel("subnormals not flushed: no MXCSR on this processor");
    {
        FlushSubnormals mode(flush);
        for (auto _ : state) {
            double z1 = 0, z2 = 0, total = 0;
            for (std::size_t f = 0; f + frame <= x.size(); f += frame) {
                double sum = 0;
                for (std::size_t i = f; i < f + frame; ++i) {
                    const double in = x[i];
                    const double out = b1 * in + z1;
                    z1 = (b2 * in + z2) - a2 * out;
                    z2 = b1 * in - a3 * out;
                    const double c = out > 32767.0 ? 32767.0 : (out < -32768.0 ? -32768.0 : out);
                    const double s = static_cast<short>(std::floor(c + 0.5));
                    sum += s * s;
                }
                const double mean = sum / static_cast<double>(frame);
                total += mean > 1.0 ? 10.0 * std::log10(mean) : 0.0;
            }
            benchmark::DoNotOptimize(total);
        }
    }
    Count(state, x.size() / frame * frame, rate);
}

// The analyzer through the exported functions, drained as a host drains them.
void VadExported(benchmark::State& state, Content content, int rate, int chunkMs, double seconds)
{
    const std::vector<short>& x = Audio(content, rate, seconds);
    const std::size_t chunk = static_cast<std::size_t>(rate * chunkMs / 1000);
    for (auto _ : state) {
        OKUVAD_Init(rate);
        int result, info;
        double value;
        for (std::size_t i = 0; i + chunk <= x.size(); i += chunk) {
            int start = 1;
            do {
                OKUVAD_GetResult(start, &x[i], static_cast<unsigned int>(chunk * 2), &result, &value, &info);
                start = 0;
            } while (result > 0);
        }
        OKUVAD_Deinit();
    }
    Count(state, x.size() / chunk * chunk, rate);
}

// The analyzer through the handle functions of oku.h, drained as a host drains them.
void VadHandle(benchmark::State& state, Content content, int rate, int chunkMs)
{
    const std::vector<short>& x = Audio(content, rate);
    const std::size_t chunk = static_cast<std::size_t>(rate * chunkMs / 1000);
    for (auto _ : state) {
        oku_vad* vad = nullptr;
        oku_vad_create(rate, nullptr, &vad);
        oku_vad_result r[16];
        std::size_t n;
        for (std::size_t i = 0; i + chunk <= x.size(); i += chunk) {
            oku_vad_process(vad, &x[i], chunk);
            do {
                oku_vad_results(vad, r, 16, &n);
                benchmark::DoNotOptimize(r[0].type);
            } while (n == 16);
        }
        oku_vad_destroy(vad);
    }
    Count(state, x.size() / chunk * chunk, rate);
}

// The gain control through the handle functions, the gain fed back.
void AgcHandle(benchmark::State& state, Content content, int rate, int chunkMs)
{
    const std::vector<short>& x = Audio(content, rate);
    const std::size_t chunk = static_cast<std::size_t>(rate * chunkMs / 1000);
    for (auto _ : state) {
        oku_agc* agc = nullptr;
        oku_agc_create(rate, nullptr, &agc);
        double gain = 0.3;
        for (std::size_t i = 0; i + chunk <= x.size(); i += chunk)
            oku_agc_process(agc, &x[i], chunk, gain, &gain);
        benchmark::DoNotOptimize(gain);
        oku_agc_destroy(agc);
    }
    Count(state, x.size() / chunk * chunk, rate);
}

// Audio as a device delivers it: `channels` interleaved channels (the first
// the content, the others at half its level) of 16-bit or float samples at
// `rate`, through oku_vad_open or oku_agc_open, in 20 ms chunks. A device
// hands over audio just written, so the cases loop over 2 s of it (under a
// megabyte at 48 kHz float stereo, in the processor's caches), 30 times: a
// minute of audio per iteration, whatever the format. Items are input
// frames, so ns per item times the rate is the cost of a second.
struct DeviceAudio {
    std::vector<short> s16;
    std::vector<float> f32;
    std::size_t frames;
};

const DeviceAudio& Device(Content content, int rate, int channels)
{
    static std::map<std::tuple<Content, int, int>, DeviceAudio> cache;
    const auto key = std::make_tuple(content, rate, channels);
    auto it = cache.find(key);
    if (it != cache.end())
        return it->second;
    const std::vector<short>& x = Audio(content, rate);
    DeviceAudio d;
    d.frames = static_cast<std::size_t>(2 * rate);
    const std::size_t c = static_cast<std::size_t>(channels);
    d.s16.resize(d.frames * c);
    d.f32.resize(d.frames * c);
    for (std::size_t i = 0; i < d.frames; ++i)
        for (std::size_t k = 0; k < c; ++k) {
            d.s16[i * c + k] = static_cast<short>(k == 0 ? x[i] : x[i] / 2);
            d.f32[i * c + k] = static_cast<float>(d.s16[i * c + k]) / 32768.0f;
        }
    return cache.emplace(key, std::move(d)).first->second;
}

void VadInput(benchmark::State& state, Content content, int rate, int channels, bool floats)
{
    const DeviceAudio& d = Device(content, rate, channels);
    const std::size_t chunk = static_cast<std::size_t>(rate / 50), c = static_cast<std::size_t>(channels);
    for (auto _ : state) {
        oku_vad* vad = nullptr;
        oku_vad_open(rate, channels, nullptr, 0, &vad);
        oku_vad_result r[16];
        std::size_t n;
        for (int loop = 0; loop < 30; ++loop)
            for (std::size_t i = 0; i + chunk <= d.frames; i += chunk) {
                if (floats)
                    oku_vad_process_f32(vad, &d.f32[i * c], chunk * c);
                else
                    oku_vad_process(vad, &d.s16[i * c], chunk * c);
                do {
                    oku_vad_results(vad, r, 16, &n);
                    benchmark::DoNotOptimize(r[0].type);
                } while (n == 16);
            }
        oku_vad_destroy(vad);
    }
    Count(state, 30 * (d.frames / chunk * chunk), rate);
}

void AgcInput(benchmark::State& state, Content content, int rate, int channels, bool floats)
{
    const DeviceAudio& d = Device(content, rate, channels);
    const std::size_t chunk = static_cast<std::size_t>(rate / 50), c = static_cast<std::size_t>(channels);
    for (auto _ : state) {
        oku_agc* agc = nullptr;
        oku_agc_open(rate, channels, nullptr, 0, &agc);
        double gain = 0.3;
        for (int loop = 0; loop < 30; ++loop)
            for (std::size_t i = 0; i + chunk <= d.frames; i += chunk) {
                if (floats)
                    oku_agc_process_f32(agc, &d.f32[i * c], chunk * c, gain, &gain);
                else
                    oku_agc_process(agc, &d.s16[i * c], chunk * c, gain, &gain);
            }
        benchmark::DoNotOptimize(gain);
        oku_agc_destroy(agc);
    }
    Count(state, 30 * (d.frames / chunk * chunk), rate);
}

// The analyzer class, frame data off, every result taken from the queue.
void VadClass(benchmark::State& state, Content content, int rate, int chunkMs)
{
    const std::vector<short>& x = Audio(content, rate);
    const std::size_t chunk = static_cast<std::size_t>(rate * chunkMs / 1000);
    oku::AudioData buffer(chunk);
    for (auto _ : state) {
        oku::AudioAnalyzer analyzer("", rate, false);
        oku::AnalyzerResultPtr r;
        for (std::size_t i = 0; i + chunk <= x.size(); i += chunk) {
            buffer.assign(x.begin() + static_cast<long>(i), x.begin() + static_cast<long>(i + chunk));
            analyzer.Process(buffer);
            while (analyzer.GetResult(r))
                benchmark::DoNotOptimize(r->GetType());
        }
    }
    Count(state, x.size() / chunk * chunk, rate);
}

// The gain control through the exported functions, the volume fed back.
void AgcExported(benchmark::State& state, Content content, int rate, int chunkMs, double seconds)
{
    const std::vector<short>& x = Audio(content, rate, seconds);
    const std::size_t chunk = static_cast<std::size_t>(rate * chunkMs / 1000);
    for (auto _ : state) {
        OKUAGC_Deinit();
        OKUAGC_Init(rate);
        long volume = 20000;
        for (std::size_t i = 0; i + chunk <= x.size(); i += chunk)
            OKUAGC_ComputeGain(&x[i], static_cast<unsigned int>(chunk * 2), volume, 65535, &volume);
        benchmark::DoNotOptimize(volume);
    }
    OKUAGC_Deinit();
    Count(state, x.size() / chunk * chunk, rate);
}

void AgcClass(benchmark::State& state, Content content, int rate, int chunkMs)
{
    const std::vector<short>& x = Audio(content, rate);
    const std::size_t chunk = static_cast<std::size_t>(rate * chunkMs / 1000);
    oku::AudioData buffer(chunk);
    for (auto _ : state) {
        oku::AGC agc("", rate);
        float gain = 0.3f;
        for (std::size_t i = 0; i + chunk <= x.size(); i += chunk) {
            buffer.assign(x.begin() + static_cast<long>(i), x.begin() + static_cast<long>(i + chunk));
            gain = agc.ComputeGain(buffer, gain);
        }
        benchmark::DoNotOptimize(gain);
    }
    Count(state, x.size() / chunk * chunk, rate);
}

// Many streams: `streams` analyzers at `rate`, each on its own stretch of
// speech with noise (stream i starts about 3.7 x i seconds in and wraps
// around), fed chunks of chunkMs and drained as a host drains them. All read
// the one 60 s recording, which stays in the cache as captured audio would,
// rather than a copy each that would not. Items are stream-samples.
struct Streams {
    const std::vector<short>& audio;
    std::size_t chunk, length;
    std::vector<std::size_t> start;

    Streams(int rate, int streams, int chunkMs)
        : audio(Audio(Content::SpeechNoise, rate)), chunk(static_cast<std::size_t>(rate * chunkMs / 1000))
    {
        length = audio.size() / chunk * chunk;
        for (int i = 0; i < streams; ++i)
            start.push_back(static_cast<std::size_t>(3.7 * i * rate) / chunk * chunk % length);
    }

    // Stream i's chunk at `at` samples into the stream.
    const short* At(std::size_t i, std::size_t at) const { return audio.data() + (start[i] + at) % length; }
};

void Drain(oku_vad* vad)
{
    oku_vad_result r[16];
    std::size_t n;
    do {
        oku_vad_results(vad, r, 16, &n);
        benchmark::DoNotOptimize(r[0].type);
    } while (n == 16);
}

// Through oku_vad_process_many (`many`), or oku_vad_process for one handle
// after the other.
void VadStreams(benchmark::State& state, int rate, int streams, int chunkMs, bool many)
{
    const Streams s(rate, streams, chunkMs);
    const std::size_t n = static_cast<std::size_t>(streams);
    std::vector<oku_vad*> vads(n);
    std::vector<const int16_t*> samples(n);
    const std::vector<std::size_t> counts(n, s.chunk);
    for (auto _ : state) {
        for (oku_vad*& v : vads)
            oku_vad_create(rate, nullptr, &v);
        for (std::size_t at = 0; at < s.length; at += s.chunk) {
            if (many) {
                for (std::size_t i = 0; i < n; ++i)
                    samples[i] = s.At(i, at);
                oku_vad_process_many(vads.data(), samples.data(), counts.data(), n);
            } else {
                for (std::size_t i = 0; i < n; ++i)
                    oku_vad_process(vads[i], s.At(i, at), s.chunk);
            }
            for (oku_vad* v : vads)
                Drain(v);
        }
        for (oku_vad* v : vads)
            oku_vad_destroy(v);
    }
    Count(state, s.length * n, rate * streams);
}

// The classes' ProcessMany run a given way (the handle API always takes the
// widest the processor has), to show what each way gives: lanes2 is what a
// processor with only SSE2 runs.
void VadStreamsWay(benchmark::State& state, int rate, int streams, int chunkMs, oku::MeasureIsa way)
{
    const oku::MeasureIsa before = oku::GetMeasureIsa();
    if (!oku::SetMeasureIsa(way)) {
        state.SkipWithError("this processor cannot run this way");
        return;
    }
    const Streams s(rate, streams, chunkMs);
    const std::size_t n = static_cast<std::size_t>(streams);
    std::vector<const short*> samples(n);
    const std::vector<std::size_t> counts(n, s.chunk);
    for (auto _ : state) {
        std::vector<std::unique_ptr<oku::AudioAnalyzer>> owned;
        std::vector<oku::AudioAnalyzer*> analyzers;
        for (std::size_t i = 0; i < n; ++i) {
            owned.emplace_back(new oku::AudioAnalyzer("", rate, false));
            analyzers.push_back(owned.back().get());
        }
        oku::AnalyzerResultPtr r;
        for (std::size_t at = 0; at < s.length; at += s.chunk) {
            for (std::size_t i = 0; i < n; ++i)
                samples[i] = s.At(i, at);
            oku::AudioAnalyzer::ProcessMany(analyzers.data(), samples.data(), counts.data(), n);
            for (oku::AudioAnalyzer* a : analyzers)
                while (a->GetResult(r))
                    benchmark::DoNotOptimize(r->GetType());
        }
    }
    oku::SetMeasureIsa(before);
    Count(state, s.length * n, rate * streams);
}

// Gain controls through oku_agc_process_many, the gains fed back.
void AgcStreams(benchmark::State& state, int rate, int streams, int chunkMs, bool many)
{
    const Streams s(rate, streams, chunkMs);
    const std::size_t n = static_cast<std::size_t>(streams);
    std::vector<oku_agc*> agcs(n);
    std::vector<const int16_t*> samples(n);
    const std::vector<std::size_t> counts(n, s.chunk);
    std::vector<double> gains(n);
    for (auto _ : state) {
        for (oku_agc*& a : agcs)
            oku_agc_create(rate, nullptr, &a);
        std::fill(gains.begin(), gains.end(), 0.3);
        for (std::size_t at = 0; at < s.length; at += s.chunk) {
            if (many) {
                for (std::size_t i = 0; i < n; ++i)
                    samples[i] = s.At(i, at);
                oku_agc_process_many(agcs.data(), samples.data(), counts.data(), gains.data(), gains.data(), n);
            } else {
                for (std::size_t i = 0; i < n; ++i)
                    oku_agc_process(agcs[i], s.At(i, at), s.chunk, gains[i], &gains[i]);
            }
        }
        benchmark::DoNotOptimize(gains.data());
        for (oku_agc* a : agcs)
            oku_agc_destroy(a);
    }
    Count(state, s.length * n, rate * streams);
}

void WebRtcVad(benchmark::State& state, Content content, int rate)
{
    const std::vector<short>& x = Audio(content, rate);
    const std::size_t frame = static_cast<std::size_t>(rate / 50);
    for (auto _ : state) {
        WebRtcVadInst* vad = WebRtcVad_Create();
        WebRtcVad_Init(vad);
        WebRtcVad_set_mode(vad, 2);
        int speech = 0;
        for (std::size_t i = 0; i + frame <= x.size(); i += frame) {
            const int decision = WebRtcVad_Process(vad, rate, &x[i], frame);
            if (decision < 0) {
                state.SkipWithError("WebRtcVad_Process failed");
                break;
            }
            speech += decision;
        }
        benchmark::DoNotOptimize(speech);
        WebRtcVad_Free(vad);
    }
    Count(state, x.size() / frame * frame, rate);
}

void WebRtcAgc(benchmark::State& state, Content content, int rate)
{
    const std::vector<short>& x = Audio(content, rate);
    const std::size_t frame = static_cast<std::size_t>(rate / 100);  // the legacy AGC takes 10 ms
    std::vector<short> buffer(frame);
    for (auto _ : state) {
        void* agc = WebRtcAgc_Create();
        WebRtcAgc_Init(agc, 0, 255, kWebRtcAgcModeAdaptiveAnalog, static_cast<uint32_t>(rate));
        int32_t level = 80;
        for (std::size_t i = 0; i + frame <= x.size(); i += frame) {
            buffer.assign(x.begin() + static_cast<long>(i), x.begin() + static_cast<long>(i + frame));
            int16_t* bands[1] = {buffer.data()};
            const int16_t* in[1] = {buffer.data()};
            uint8_t saturated = 0;
            int32_t out = level;
            if (WebRtcAgc_AddMic(agc, bands, 1, frame) != 0 ||
                WebRtcAgc_Process(agc, in, 1, frame, bands, level, &out, 0, &saturated) != 0) {
                state.SkipWithError("WebRtcAgc failed");
                break;
            }
            level = out;
        }
        benchmark::DoNotOptimize(level);
        WebRtcAgc_Free(agc);
    }
    Count(state, x.size() / frame * frame, rate);
}

void SpeexPreprocess(benchmark::State& state, Content content, int rate)
{
    const std::vector<short>& x = Audio(content, rate);
    const int frame = rate / 50;
    std::vector<spx_int16_t> buffer(static_cast<std::size_t>(frame));
    for (auto _ : state) {
        SpeexPreprocessState* st = speex_preprocess_state_init(frame, rate);
        int on = 1;
        QuietStderr quiet;  // speexdsp prints a warning each time its VAD is switched on
        speex_preprocess_ctl(st, SPEEX_PREPROCESS_SET_VAD, &on);
        quiet.Restore();
        speex_preprocess_ctl(st, SPEEX_PREPROCESS_SET_AGC, &on);
        int speech = 0;
        for (std::size_t i = 0; i + static_cast<std::size_t>(frame) <= x.size(); i += static_cast<std::size_t>(frame)) {
            buffer.assign(x.begin() + static_cast<long>(i), x.begin() + static_cast<long>(i) + frame);
            speech += speex_preprocess_run(st, buffer.data());
        }
        benchmark::DoNotOptimize(speech);
        speex_preprocess_state_destroy(st);
    }
    Count(state, x.size() / static_cast<std::size_t>(frame) * static_cast<std::size_t>(frame), rate);
}

}  // namespace

int main(int argc, char** argv)
{
    const int rates[] = {8000, 11025, 16000, 22050};
    auto name = [](const char* what, Content content, int rate, const char* chunk = nullptr) {
        std::string n = std::string(what) + "/" + okubench::Name(content) + "/" + std::to_string(rate);
        return chunk ? n + "/" + chunk : n;
    };
    // Every content and rate: the kernel with and without subnormals flushed,
    // our analyzer and gain control through the exported functions and through
    // the handle functions in 20 ms chunks, and the peers at the rates they take (WebRTC's modules take
    // 8000 and 16000 of ours; speexdsp takes any).
    for (Content c : okubench::kContents) {
        for (int rate : rates) {
            benchmark::RegisterBenchmark(name("kernel", c, rate).c_str(), Kernel, c, rate, true);
            benchmark::RegisterBenchmark(name("kernel_plain", c, rate).c_str(), Kernel, c, rate, false);
            benchmark::RegisterBenchmark(name("vad_exported", c, rate, "20ms").c_str(), VadExported, c, rate, 20, 60.0);
            benchmark::RegisterBenchmark(name("agc_exported", c, rate, "20ms").c_str(), AgcExported, c, rate, 20, 60.0);
            benchmark::RegisterBenchmark(name("vad_handle", c, rate, "20ms").c_str(), VadHandle, c, rate, 20);
            benchmark::RegisterBenchmark(name("agc_handle", c, rate, "20ms").c_str(), AgcHandle, c, rate, 20);
            if (rate == 8000 || rate == 16000) {
                benchmark::RegisterBenchmark(name("webrtc_vad", c, rate).c_str(), WebRtcVad, c, rate);
                benchmark::RegisterBenchmark(name("webrtc_agc", c, rate).c_str(), WebRtcAgc, c, rate);
            }
            benchmark::RegisterBenchmark(name("speex_preprocess", c, rate).c_str(), SpeexPreprocess, c, rate);
        }
    }
    // Chunk sizes, and the classes without the exported functions, on speech with noise.
    const Content speech = Content::SpeechNoise;
    for (int rate : rates) {
        for (const char* chunk : {"10ms", "100ms"}) {
            const int ms = std::atoi(chunk);
            benchmark::RegisterBenchmark(name("vad_exported", speech, rate, chunk).c_str(), VadExported, speech, rate,
                                         ms, 60.0);
            benchmark::RegisterBenchmark(name("agc_exported", speech, rate, chunk).c_str(), AgcExported, speech, rate,
                                         ms, 60.0);
        }
        benchmark::RegisterBenchmark(name("vad_class", speech, rate, "20ms").c_str(), VadClass, speech, rate, 20);
        benchmark::RegisterBenchmark(name("agc_class", speech, rate, "20ms").c_str(), AgcClass, speech, rate, 20);
    }
    // The input path: 16-bit mono at 16000 Hz (no conversion) against device
    // formats at the converted rates, and WebRTC's VAD fed 48 kHz (it
    // down-samples inside too).
    for (Content c : {Content::SpeechNoise, Content::Noise}) {
        struct Format {
            int rate, channels;
            bool floats;
        };
        for (const Format& f : {Format{16000, 1, false}, Format{16000, 1, true}, Format{44100, 2, true},
                                Format{48000, 1, false}, Format{48000, 2, true}, Format{96000, 2, true},
                                Format{24000, 1, false}}) {
            const std::string form = (f.floats ? "f32x" : "s16x") + std::to_string(f.channels);
            benchmark::RegisterBenchmark(name("vad_input", c, f.rate, form.c_str()).c_str(), VadInput, c, f.rate,
                                         f.channels, f.floats);
            benchmark::RegisterBenchmark(name("agc_input", c, f.rate, form.c_str()).c_str(), AgcInput, c, f.rate,
                                         f.channels, f.floats);
        }
        benchmark::RegisterBenchmark(name("webrtc_vad", c, 48000).c_str(), WebRtcVad, c, 48000);
    }
    // Cost per second of audio must not grow with the length of the stream.
    benchmark::RegisterBenchmark(name("vad_exported_1min", speech, 16000, "20ms").c_str(), VadExported, speech, 16000,
                                 20, 60.0);
    benchmark::RegisterBenchmark(name("vad_exported_1h", speech, 16000, "20ms").c_str(), VadExported, speech, 16000, 20,
                                 3600.0)
        ->Iterations(1);
    benchmark::RegisterBenchmark(name("agc_exported_1min", speech, 16000, "20ms").c_str(), AgcExported, speech, 16000,
                                 20, 60.0);
    benchmark::RegisterBenchmark(name("agc_exported_1h", speech, 16000, "20ms").c_str(), AgcExported, speech, 16000, 20,
                                 3600.0)
        ->Iterations(1);
    // Many streams per call against one call after another, 20 ms chunks.
    for (int streams : {4, 16, 64}) {
        const std::string n = "/16000/" + std::to_string(streams);
        benchmark::RegisterBenchmark(("many" + n).c_str(), VadStreams, 16000, streams, 20, true);
        benchmark::RegisterBenchmark(("one_by_one" + n).c_str(), VadStreams, 16000, streams, 20, false);
    }
    for (int rate : {8000, 22050}) {
        const std::string n = "/" + std::to_string(rate) + "/16";
        benchmark::RegisterBenchmark(("many" + n).c_str(), VadStreams, rate, 16, 20, true);
        benchmark::RegisterBenchmark(("one_by_one" + n).c_str(), VadStreams, rate, 16, 20, false);
    }
    const std::pair<const char*, oku::MeasureIsa> ways[] = {{"scalar", oku::MeasureIsa::Scalar},
                                                            {"lanes2", oku::MeasureIsa::Lanes2},
                                                            {"avx2", oku::MeasureIsa::Avx2}};
    for (const auto& way : ways)
        benchmark::RegisterBenchmark((std::string("many_way/16000/16/") + way.first).c_str(), VadStreamsWay, 16000,
                                     16, 20, way.second);
    benchmark::RegisterBenchmark("agc_many/16000/16", AgcStreams, 16000, 16, 20, true);
    benchmark::RegisterBenchmark("agc_one_by_one/16000/16", AgcStreams, 16000, 16, 20, false);
    benchmark::Initialize(&argc, argv);
    // The processor's model goes into the results, so the report can say what the figures were
    // measured on (subnormal costs in particular differ between vendors).
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.compare(0, 10, "model name") == 0 && line.find(':') != std::string::npos) {
            benchmark::AddCustomContext("cpu_model", line.substr(line.find(':') + 2));
            break;
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
