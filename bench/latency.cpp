// Per-call time of the handle API in the way a capture callback calls it: one
// 20 ms chunk, then every result taken, for one stream, and for 16 streams
// through the many-calls. Prints a table of the median, 99th percentile and
// maximum call time, in microseconds, over ten minutes of audio per case. The
// maximum is what a real-time thread must budget for; on a busy machine it
// also holds the scheduler's interruptions, so compare it with the median.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "audio.h"
#include "oku.h"

namespace {

const double kSeconds = 600.0;
const std::size_t kStreams = 16;

struct Times {
    double median, p99, max;
};

Times Summarise(std::vector<double>& us)
{
    std::sort(us.begin(), us.end());
    const auto at = [&](double q) { return us[static_cast<std::size_t>(q * static_cast<double>(us.size() - 1))]; };
    return {at(0.5), at(0.99), us.back()};
}

void Check(int status, const char* what)
{
    if (status != OKU_OK) {
        std::fprintf(stderr, "oku_latency: %s failed: %s\n", what, oku_last_error());
        std::exit(1);
    }
}

// Times `call(k)` for every chunk k of the audio.
Times Time(std::size_t calls, const std::function<void(std::size_t)>& call)
{
    std::vector<double> us(calls);
    for (std::size_t k = 0; k < calls; ++k) {
        const auto start = std::chrono::steady_clock::now();
        call(k);
        const auto stop = std::chrono::steady_clock::now();
        us[k] = std::chrono::duration<double, std::micro>(stop - start).count();
    }
    return Summarise(us);
}

void Drain(oku_vad* v)
{
    oku_vad_result r;
    do
        Check(oku_vad_next(v, &r), "oku_vad_next");
    while (r.type != OKU_VAD_NONE);
}

}  // namespace

int main()
{
    std::printf("Per-call time of 20 ms calls through the handle functions, %g minutes of speech with a noise\n"
                "floor per case (results taken after every call; many-calls over %zu streams, time per call)\n\n",
                kSeconds / 60.0, kStreams);
    std::printf("| case | rate | median us | 99th percentile us | max us |\n|---|---:|---:|---:|---:|\n");
    size_t count = 0;
    const int* rates = oku_rates(&count);
    for (std::size_t r = 0; r < count; ++r) {
        const int rate = rates[r];
        const std::vector<short>& audio = okubench::Audio(okubench::Content::SpeechNoise, rate, kSeconds);
        std::size_t chunk = 0;
        Check(oku_chunk_samples(rate, 20.0, &chunk), "oku_chunk_samples");
        const std::size_t calls = audio.size() / chunk;
        const auto at = [&](std::size_t k) { return &audio[k * chunk]; };

        oku_vad* vad = nullptr;
        oku_agc* agc = nullptr;
        Check(oku_vad_create(rate, "", &vad), "oku_vad_create");
        Check(oku_agc_create(rate, "", &agc), "oku_agc_create");
        const Times v = Time(calls, [&](std::size_t k) {
            Check(oku_vad_process(vad, at(k), chunk), "oku_vad_process");
            Drain(vad);
        });
        double gain = 0.5;
        const Times a = Time(calls, [&](std::size_t k) {
            Check(oku_agc_process(agc, at(k), chunk, gain, &gain), "oku_agc_process");
        });
        oku_vad_destroy(vad);
        oku_agc_destroy(agc);

        std::vector<oku_vad*> vads(kStreams);
        std::vector<oku_agc*> agcs(kStreams);
        for (std::size_t i = 0; i < kStreams; ++i) {
            Check(oku_vad_create(rate, "", &vads[i]), "oku_vad_create");
            Check(oku_agc_create(rate, "", &agcs[i]), "oku_agc_create");
        }
        std::vector<const int16_t*> samples(kStreams);
        const std::vector<std::size_t> counts(kStreams, chunk);
        std::vector<double> gains(kStreams, 0.5);
        const Times m = Time(calls, [&](std::size_t k) {
            for (std::size_t i = 0; i < kStreams; ++i)  // each stream at its own place in the audio
                samples[i] = at((k + 97 * i) % calls);
            Check(oku_vad_process_many(vads.data(), samples.data(), counts.data(), kStreams), "oku_vad_process_many");
            for (oku_vad* each : vads)
                Drain(each);
            Check(oku_agc_process_many(agcs.data(), samples.data(), counts.data(), gains.data(), gains.data(), kStreams),
                  "oku_agc_process_many");
        });
        for (std::size_t i = 0; i < kStreams; ++i) {
            oku_vad_destroy(vads[i]);
            oku_agc_destroy(agcs[i]);
        }
        const std::pair<const char*, Times> rows[] = {
            {"analyzer: oku_vad_process + oku_vad_next", v},
            {"gain control: oku_agc_process", a},
            {"16 streams: both many-calls + oku_vad_next", m}};
        for (const auto& row : rows)
            std::printf("| %s | %d | %.2f | %.2f | %.1f |\n", row.first, rate, row.second.median, row.second.p99,
                        row.second.max);
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::perror("oku_latency: writing the table");
        return 1;
    }
    return 0;
}
