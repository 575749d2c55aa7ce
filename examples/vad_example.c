/*
 * vad_example: prints the speech segments and a summary of the volume readings
 * of a mono WAV recording, using the exported C functions of libOKUVAD.
 *
 *   vad_example recording.wav
 *
 * The recording is fed in 20 ms chunks, as a capture callback would deliver it.
 * The analyzer counts one extra sample per call (see okuvad.h), so positions
 * are mapped back onto the file's own sample numbers before printing.
 *
 * The file is read with libsndfile, or on Windows with the system's own RIFF
 * functions (winmm), which read 16-bit PCM WAV files.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "okuvad.h"

#ifdef _WIN32
#include <windows.h>
#include <mmsystem.h>

/* An open 16-bit PCM WAV file, positioned at its samples. */
typedef struct {
    HMMIO file;
    int samplerate;
    int channels;
    long frames;
} Recording;

static int open_recording(const char* path, Recording* r)
{
    MMCKINFO riff = {0}, chunk = {0};
    PCMWAVEFORMAT format;
    r->file = mmioOpenA((LPSTR)path, NULL, MMIO_READ | MMIO_ALLOCBUF);
    if (!r->file) {
        fprintf(stderr, "%s: cannot open\n", path);
        return 0;
    }
    riff.fccType = mmioFOURCC('W', 'A', 'V', 'E');
    chunk.ckid = mmioFOURCC('f', 'm', 't', ' ');
    if (mmioDescend(r->file, &riff, NULL, MMIO_FINDRIFF) != MMSYSERR_NOERROR ||
        mmioDescend(r->file, &chunk, &riff, MMIO_FINDCHUNK) != MMSYSERR_NOERROR ||
        mmioRead(r->file, (HPSTR)&format, sizeof format) != (LONG)sizeof format ||
        format.wf.wFormatTag != WAVE_FORMAT_PCM || format.wBitsPerSample != 16) {
        fprintf(stderr, "%s: not a 16-bit PCM WAV file\n", path);
        mmioClose(r->file, 0);
        return 0;
    }
    mmioAscend(r->file, &chunk, 0);
    chunk.ckid = mmioFOURCC('d', 'a', 't', 'a');
    if (mmioDescend(r->file, &chunk, &riff, MMIO_FINDCHUNK) != MMSYSERR_NOERROR) {
        fprintf(stderr, "%s: no data chunk\n", path);
        mmioClose(r->file, 0);
        return 0;
    }
    r->samplerate = (int)format.wf.nSamplesPerSec;
    r->channels = format.wf.nChannels;
    r->frames = (long)(chunk.cksize / (2u * format.wf.nChannels));
    return 1;
}

static long read_samples(Recording* r, short* buffer, long count)
{
    const LONG got = mmioRead(r->file, (HPSTR)buffer, (LONG)(count * 2));
    return got > 0 ? got / 2 : 0;
}

static void close_recording(Recording* r) { mmioClose(r->file, 0); }
#else
#include <sndfile.h>

typedef struct {
    SNDFILE* file;
    int samplerate;
    int channels;
    long frames;
} Recording;

static int open_recording(const char* path, Recording* r)
{
    SF_INFO info = {0};
    r->file = sf_open(path, SFM_READ, &info);
    if (!r->file) {
        fprintf(stderr, "%s: %s\n", path, sf_strerror(NULL));
        return 0;
    }
    r->samplerate = info.samplerate;
    r->channels = info.channels;
    r->frames = (long)info.frames;
    return 1;
}

static long read_samples(Recording* r, short* buffer, long count)
{
    return (long)sf_read_short(r->file, buffer, count);
}

static void close_recording(Recording* r) { sf_close(r->file); }
#endif

/* A position in samples received by the analyzer, each call having brought
 * `chunk` file samples plus one, mapped onto the file's sample numbers. */
static long file_position(double received, long chunk)
{
    long pos = (long)(received + 0.5);
    long calls = pos / (chunk + 1);
    long offset = pos - calls * (chunk + 1);
    return calls * chunk + (offset < chunk ? offset : chunk);
}

int main(int argc, char** argv)
{
    Recording info;
    short* buffer;
    long chunk, read, start = -1, segments = 0;
    long readings[4] = {0, 0, 0, 0};
    double peak = 0.0;
    int status;

    if (argc != 2) {
        fprintf(stderr, "usage: %s recording.wav\n", argv[0]);
        return 2;
    }
    if (!open_recording(argv[1], &info))
        return 1;
    if (info.channels != 1) {
        fprintf(stderr, "%s: %d channels; this example reads mono only\n", argv[1], info.channels);
        close_recording(&info);
        return 1;
    }
    if (OKUVAD_Init((double)info.samplerate) != 0) {
        fprintf(stderr, "%s: sampling rate %d Hz is not supported (8000, 11025, 16000, 22050)\n", argv[1],
                info.samplerate);
        close_recording(&info);
        return 1;
    }

    chunk = info.samplerate / 50; /* 20 ms */
    buffer = malloc((size_t)chunk * sizeof(short));
    if (!buffer) {
        close_recording(&info);
        return 1;
    }
    printf("%s: %d Hz, %ld samples (%.2f s), %ld-sample chunks\n", argv[1], info.samplerate, info.frames,
           (double)info.frames / info.samplerate, chunk);
    printf("%-8s %12s %12s %9s %9s\n", "segment", "start", "end", "start_s", "end_s");

    while ((read = read_samples(&info, buffer, chunk)) > 0) {
        int start_call = 1, result = 0, volume_info = 0;
        double value = 0.0;
        do {
            status = OKUVAD_GetResult(start_call, buffer, (unsigned int)(read * 2), &result, &value, &volume_info);
            start_call = 0;
            if (status != 0) {
                fprintf(stderr, "OKUVAD_GetResult failed: %d\n", status);
                break;
            }
            if (result == OKUVAD_RESULT_SPEECH_START) {
                start = file_position(value, chunk);
            } else if (result == OKUVAD_RESULT_SPEECH_END) {
                long end = file_position(value, chunk);
                printf("%-8ld %12ld %12ld %9.3f %9.3f\n", ++segments, start, end, (double)start / info.samplerate,
                       (double)end / info.samplerate);
                start = -1;
            } else if (result == OKUVAD_RESULT_VOLUME) {
                if (volume_info >= 0 && volume_info <= 3)
                    readings[volume_info]++;
                if (value > peak)
                    peak = value;
            }
        } while (result != OKUVAD_RESULT_NONE);
        if (status != 0)
            break;
    }
    if (start >= 0)
        printf("%-8ld %12ld %12s %9.3f %9s\n", ++segments, start, "(open)", (double)start / info.samplerate, "");

    printf("volume readings: %ld (ok %ld, too noisy %ld, too soft %ld, too loud %ld), peak %.0f (%.1f dBFS)\n",
           readings[0] + readings[1] + readings[2] + readings[3], readings[0], readings[1], readings[2],
           readings[3], peak, 20.0 * log10((peak > 1.0 ? peak : 1.0) / 32768.0));

    OKUVAD_Deinit();
    free(buffer);
    close_recording(&info);
    return status == 0 ? 0 : 1;
}
