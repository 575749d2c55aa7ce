/*
 * native.c - ns per sample of the native analyzer on raw 16-bit samples at
 * 16000 Hz, in 20 ms chunks, best of `runs`; for web/bench/bench.mjs.
 * Usage: native FILE RUNS
 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "oku.h"

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e9 + t.tv_nsec;
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: native FILE RUNS\n");
        return 2;
    }
    FILE* f = fopen(argv[1], "rb");
    if (!f) {
        perror(argv[1]);
        return 1;
    }
    fseek(f, 0, SEEK_END);
    const size_t n = (size_t)ftell(f) / 2;
    fseek(f, 0, SEEK_SET);
    int16_t* s = malloc(n * 2 + 2);
    if (!s || fread(s, 2, n, f) != n) {
        fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    fclose(f);
    double best = 1e300;
    for (int run = 0; run < atoi(argv[2]); run++) {
        oku_vad* vad;
        oku_vad_result r[64];
        size_t count;
        if (oku_vad_create(16000, NULL, &vad) != OKU_OK)
            return 1;
        const double t0 = now();
        for (size_t i = 0; i < n; i += 320) {
            if (oku_vad_process(vad, s + i, n - i < 320 ? n - i : 320) != OKU_OK)
                return 1;
            do
                oku_vad_results(vad, r, 64, &count);
            while (count == 64);
        }
        const double t = (now() - t0) / (double)n;
        best = t < best ? t : best;
        oku_vad_destroy(vad);
    }
    printf("%.3f\n", best);
    return 0;
}
