/*
 * native.c - the native library's results on a raw file of samples, as text,
 * for web/test/native.test.mjs: the analyzer's results in chunks of CHUNK
 * frames and after a flush, then every gain-control update in chunks of a
 * tenth of a second, its proposals fed back, then the non-finite counts.
 * Usage: native RATE CHANNELS s16|f32 CHUNK FILE
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "oku.h"

static int fail(const char* what)
{
    fprintf(stderr, "native: %s: %s\n", what, oku_last_error());
    return 1;
}

int main(int argc, char** argv)
{
    if (argc != 6)
        return fail("usage: native RATE CHANNELS s16|f32 CHUNK FILE");
    const int rate = atoi(argv[1]), channels = atoi(argv[2]), floats = strcmp(argv[3], "f32") == 0;
    const size_t size = floats ? 4 : 2, chunk = (size_t)atoi(argv[4]) * (size_t)channels;
    FILE* f = fopen(argv[5], "rb");
    if (!f || fseek(f, 0, SEEK_END) != 0)
        return fail(argv[5]);
    const size_t n = (size_t)ftell(f) / size;
    char* s = (char*)malloc(n * size + 1);
    rewind(f);
    if (!s || fread(s, size, n, f) != n)
        return fail(argv[5]);
    fclose(f);
    oku_vad* vad;
    oku_agc* agc;
    if (oku_vad_open(rate, channels, NULL, 0, &vad) != OKU_OK || oku_agc_open(rate, channels, NULL, 0, &agc) != OKU_OK)
        return fail("open");

    oku_vad_result r;
    oku_vad_segment g;
    for (size_t i = 0; i < n + chunk; i += chunk) {
        const size_t m = i >= n ? 0 : n - i < chunk ? n - i : chunk; /* 0: the flush after the last chunk */
        if ((m == 0 ? oku_vad_flush(vad)
             : floats ? oku_vad_process_f32(vad, (const float*)s + i, m)
                      : oku_vad_process(vad, (const int16_t*)s + i, m)) != OKU_OK)
            return fail("vad");
        while (oku_vad_take(vad, &r, &g) == OKU_OK && r.type != OKU_VAD_NONE) {
            printf("%s %lld %.17g", oku_vad_result_name(r.type), (long long)r.position, r.time_ms);
            if (r.type == OKU_VAD_VOLUME)
                printf(" %.17g %.17g %.17g %s %d", r.peak, r.level_dbfs, r.snr_pct, oku_assessment_name(r.assessment),
                       r.speech);
            if (r.type == OKU_VAD_SPEECH_END)
                printf(" %lld %.17g", (long long)g.start, g.start_ms);
            printf("\n");
        }
        if (m == 0)
            break;
    }
    const size_t tenth = (size_t)(rate / 10) * (size_t)channels;
    double gain = 0.2, next;
    oku_agc_decision d;
    for (size_t i = 0; i + tenth <= n; i += tenth, gain = next) {
        if ((floats ? oku_agc_process_f32(agc, (const float*)s + i, tenth, gain, &next)
                    : oku_agc_process(agc, (const int16_t*)s + i, tenth, gain, &next)) != OKU_OK ||
            oku_agc_info(agc, &d) != OKU_OK)
            return fail("agc");
        if (d.updated || d.changed)
            printf("gain %.17g %.17g %s %d %.17g %.9g %.9g\n", gain, next, oku_agc_control_name(d.control), d.changed,
                   d.time_ms, d.pause_db, d.speech_db);
    }
    uint64_t vadNonfinite, agcNonfinite;
    oku_vad_nonfinite(vad, &vadNonfinite);
    oku_agc_nonfinite(agc, &agcNonfinite);
    printf("nonfinite %llu %llu\n", (unsigned long long)vadNonfinite, (unsigned long long)agcNonfinite);
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
    free(s);
    return fflush(stdout) == 0 && !ferror(stdout) ? 0 : 1;
}
