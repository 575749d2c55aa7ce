/*
 * A C host of the handle functions (oku.h) for audio as files and devices
 * deliver it: the file's own rate and channels, float samples, handed over in
 * 20 ms chunks; the library mixes, converts and pairs starts with ends.
 * Prints one line per speech segment: its first and end frame in the file's
 * own frames, and the same in milliseconds.
 *
 *   segments_example FILE
 *
 * Reads any file libsndfile reads at one of oku_input_rates() (48 kHz float
 * stereo, 44.1 kHz 24-bit FLAC, ...). Exit status 1 with a message when the
 * file cannot be read or the library refuses it.
 */
#include <sndfile.h>
#include <stdio.h>
#include <stdlib.h>

#include "oku.h"

/* Prints the segments the queued results close; the message of a failure, or NULL. */
static const char* print_segments(oku_vad* vad)
{
    oku_vad_result r;
    oku_vad_segment s;
    for (;;) {
        if (oku_vad_take(vad, &r, &s) != OKU_OK)
            return oku_last_error();
        if (r.type == OKU_VAD_NONE)
            return NULL;
        if (r.type == OKU_VAD_SPEECH_END &&
            printf("%lld %lld %.0f %.0f\n", (long long)s.start, (long long)s.end, s.start_ms, s.end_ms) < 0)
            return "cannot write the output";
    }
}

int main(int argc, char** argv)
{
    SF_INFO info = {0};
    SNDFILE* file;
    oku_vad* vad = NULL;
    float* chunk;
    size_t frames;
    sf_count_t got;
    const char* failed = NULL;

    if (argc != 2) {
        fprintf(stderr, "usage: segments_example FILE\n");
        return 2;
    }
    file = sf_open(argv[1], SFM_READ, &info);
    if (!file) {
        fprintf(stderr, "segments_example: %s: %s\n", argv[1], sf_strerror(NULL));
        return 1;
    }
    if (oku_vad_open(info.samplerate, info.channels, NULL, 0, &vad) != OKU_OK) {
        fprintf(stderr, "segments_example: %s: %s\n", argv[1], oku_last_error());
        sf_close(file);
        return 1;
    }
    frames = (size_t)info.samplerate / 50; /* 20 ms, as a capture callback might hand them over */
    chunk = malloc(frames * (size_t)info.channels * sizeof *chunk);
    if (!chunk)
        failed = "out of memory";
    while (!failed && (got = sf_readf_float(file, chunk, (sf_count_t)frames)) > 0) {
        if (oku_vad_process_f32(vad, chunk, (size_t)got * (size_t)info.channels) != OKU_OK)
            failed = oku_last_error();
        else
            failed = print_segments(vad);
    }
    if (!failed && sf_error(file) != SF_ERR_NO_ERROR)
        failed = sf_strerror(file);
    if (!failed)
        failed = oku_vad_flush(vad) != OKU_OK ? oku_last_error() : print_segments(vad);
    if (!failed && fflush(stdout) != 0)
        failed = "cannot write the output";
    if (failed)
        fprintf(stderr, "segments_example: %s: %s\n", argv[1], failed);
    free(chunk);
    oku_vad_destroy(vad);
    sf_close(file);
    return failed ? 1 : 0;
}
