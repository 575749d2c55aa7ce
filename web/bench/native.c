/*
 * native.c - ns of processor time per input frame of the native analyzer on
 * a raw file of interleaved samples, in 20 ms chunks, its results taken after
 * each chunk, best of RUNS; for web/bench/bench.mjs.
 * Usage: native FILE RUNS RATE CHANNELS s16|f32
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "oku.h"

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t); /* not the time spent waiting for a core */
    return t.tv_sec * 1e9 + t.tv_nsec;
}

int main(int argc, char** argv)
{
    if (argc != 6) {
        fprintf(stderr, "usage: native FILE RUNS RATE CHANNELS s16|f32\n");
        return 2;
    }
    const int runs = atoi(argv[2]), rate = atoi(argv[3]), channels = atoi(argv[4]), floats = !strcmp(argv[5], "f32");
    const size_t size = floats ? 4 : 2, chunk = (size_t)(rate / 50 * channels);
    FILE* f = fopen(argv[1], "rb");
    if (!f || fseek(f, 0, SEEK_END) != 0) {
        perror(argv[1]);
        return 1;
    }
    const size_t n = (size_t)ftell(f) / size;
    char* s = (char*)malloc(n * size + 1);
    rewind(f);
    if (!s || fread(s, size, n, f) != n) {
        fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    fclose(f);
    double best = 1e300;
    for (int run = 0; run < runs; run++) {
        oku_vad* vad;
        oku_vad_result r[64];
        size_t count;
        if (oku_vad_open(rate, channels, NULL, 0, &vad) != OKU_OK)
            return 1;
        const double t0 = now();
        for (size_t i = 0; i < n; i += chunk) {
            const size_t m = n - i < chunk ? n - i : chunk;
            if ((floats ? oku_vad_process_f32(vad, (const float*)s + i, m) : oku_vad_process(vad, (const int16_t*)s + i, m)) !=
                OKU_OK)
                return 1;
            do
                oku_vad_results(vad, r, 64, &count);
            while (count == 64);
        }
        const double t = (now() - t0) / (double)(n / (size_t)channels);
        best = t < best ? t : best;
        oku_vad_destroy(vad);
    }
    printf("%.3f\n", best);
    return fflush(stdout) == 0 ? 0 : 1;
}
