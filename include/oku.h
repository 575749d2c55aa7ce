/*
 * oku.h - the handle interface: any number of voice-activity analyzers and
 * gain controls, each fed audio as its device or file delivers it. This
 * header is the manual; docs/c-api.md has the longer explanations it links.
 *
 * In the order a host needs them: statuses and errors; the analyzer
 * (oku_vad_*); the gain control (oku_agc_*); the facts a front end reads
 * (rates, names, settings, volume conversion).
 *
 * Audio: any rate of oku_input_rates(), one or more interleaved channels,
 * signed 16-bit samples in native byte order (oku_vad_process) or 32-bit
 * floats of full scale -1 to 1 (oku_vad_process_f32). The library mixes the
 * channels to mono and converts the rate to an analysis rate
 * (oku_analysis_rate) by one rule for every host; results count in the host's
 * own input frames. Rules (mixing, rounding, resampling, delay):
 * docs/c-api.md, "Input".
 *
 * Statuses: every function that returns an int returns an oku_status, 0 on
 * success, negative on failure, and lists those it returns; any may also
 * return OKU_ERR_INTERNAL for a failure the library did not foresee (none is
 * known). No exception, assertion or crash reaches the caller. On failure
 * nothing is written to the out-parameters, no audio is consumed, and
 * oku_last_error() names the problem.
 *
 * Threads: handles share nothing; one handle must not be used from two
 * threads at once. The facts functions may be called from any thread.
 *
 * Real time: oku_vad_process, oku_vad_process_many, oku_vad_next,
 * oku_vad_take, oku_vad_results, oku_agc_process, oku_agc_process_many and
 * oku_agc_info (and their _f32 forms) allocate nothing, take no lock and do
 * work bounded by the chunk, from a handle's first call on, for chunks that
 * give at most 8192 samples at the analysis rate and results taken after each
 * call: docs/c-api.md, "Real-time contract", has the conditions. Creation,
 * flush, reset and destroy may allocate.
 */
#ifndef OKU_H
#define OKU_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32) && defined(OKU_BUILDING_LIBRARY)
#  define OKU_API __declspec(dllexport)
#elif defined(_WIN32) && !defined(OKU_STATIC)
#  define OKU_API __declspec(dllimport)
#elif defined(__GNUC__)
#  define OKU_API __attribute__((visibility("default")))
#else
#  define OKU_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum oku_status {
    OKU_OK = 0,
    OKU_ERR_NULL = -1,      /* a required pointer is null */
    OKU_ERR_ARGUMENT = -2,  /* an argument is out of range (a gain outside 0..1, a capacity of 0, ...) */
    OKU_ERR_RATE = -3,      /* the sampling rate is not supported */
    OKU_ERR_PARAMS = -4,    /* a malformed parameter string or a rejected setting */
    OKU_ERR_MEMORY = -5,    /* out of memory */
    OKU_ERR_INTERNAL = -6   /* any other failure inside the library */
} oku_status;

/* A fixed English text for a status code; never null. */
OKU_API const char* oku_status_message(int status);

/*
 * The short name of a status code, for bindings that map each status to an
 * error of their own: "ok", "null", "argument", "rate", "params", "memory",
 * "internal" for 0 down to OKU_ERR_INTERNAL; NULL for any other code (so a
 * binding can walk the codes from 0 downwards until NULL).
 */
OKU_API const char* oku_status_name(int status);

/*
 * The message of the last failed call on the calling thread: "Sampling rate",
 * for a refused parameter string the key and the reason, as oku_params_check
 * gives them ("Invalid format: ...", "EOSTimeoutMs: 'soon' is not a whole
 * number in the range of int", "LeastGain must lie in (0, 1]"), or a
 * description of the bad argument ("vads[3] is null"). "" before any failure.
 * Successful calls leave it as it is.
 * The text stays valid until the next failing call on the same thread.
 */
OKU_API const char* oku_last_error(void);

/* ---- Voice-activity analyzer ------------------------------------------- */

typedef struct oku_vad oku_vad;

/* Flags for oku_vad_create_ex. */
#define OKU_VAD_AUDIO_FRAMES 1u /* also hand out every frame of audio (OKU_VAD_FRAME) */

typedef enum oku_vad_result_type {
    OKU_VAD_NONE = 0,         /* nothing left */
    OKU_VAD_SPEECH_START = 1, /* speech started */
    OKU_VAD_SPEECH_END = 2,   /* speech ended */
    OKU_VAD_VOLUME = 3,       /* a volume meter reading (one per oku_vad_process call that completed a frame) */
    OKU_VAD_FRAME = 4         /* a frame of audio (only with OKU_VAD_AUDIO_FRAMES) */
} oku_vad_result_type;

/* Volume assessments (oku_vad_result.assessment). */
typedef enum oku_vad_assessment {
    OKU_VOLUME_OK = 0,
    OKU_VOLUME_TOO_NOISY = 1,
    OKU_VOLUME_TOO_SOFT = 2,
    OKU_VOLUME_TOO_LOUD = 3
} oku_vad_assessment;

typedef struct oku_vad_result {
    int32_t type;       /* an oku_vad_result_type */
    int32_t speech;     /* 1 inside speech: VOLUME the analyzer's state, FRAME the frame's flag; else 0 */
    double time_ms;     /* ms from the start of the run (creation, reset or flush): START/END the event,
                           VOLUME the end of the audio measured, FRAME the frame's start */
    int64_t position;   /* the same instant in input frames (samples of one channel at the
                           handle's input rate) from the start of the run */
    /* OKU_VAD_VOLUME */
    int32_t assessment; /* an oku_vad_assessment */
    int32_t reserved;
    double peak;        /* largest absolute sample of the reading's audio, 0 to 32768 */
    double level_dbfs;  /* peak level in dBFS, falling at a limited rate, -90.3 to 0 (see below) */
    double snr_pct;     /* speech over noise in percent of full scale, at most 100; 0 in a pause;
                           may be negative in speech (see below) */
    /* OKU_VAD_FRAME */
    int32_t frame_index;     /* number of the frame in the run, from 0 */
    int32_t sample_count;    /* samples in the frame (the last frame of a flush may be short) */
    const int16_t* samples;  /* the frame as the analyzer took it (mono, 16-bit, at the analysis
                                rate: the input itself at an analysis rate in one channel of
                                16-bit samples); valid until the next process or flush call */
} oku_vad_result;

/*
 * The meter (OKU_VAD_VOLUME): level_dbfs starts a run at 0 dBFS and falls at
 * a limited rate, snr_pct may be negative in speech, and "too noisy" comes
 * before every other assessment: docs/c-api.md, "The meter's behaviours".
 */

/*
 * Creates an analyzer for mono audio, with all the memory it needs to run
 * reserved: about 62 KB (up to 72 KB with a converter), and with
 * OKU_VAD_AUDIO_FRAMES also 456 frames of 20 ms at the analysis rate (the
 * frame ring and the result queue): 205 KB at 8000 Hz, 465 KB at 22050 Hz in
 * all. The shorthand of oku_vad_open, kept as it was (the rate a double) for
 * programs built against it: oku_vad_open and oku_agc_open take the rate the
 * same way.
 * - rate   [i] : one of oku_input_rates() (Hz), given exactly: mono audio
 * - params [i] : parameter string ("Key=Value;..."; keys in oku_settings), or NULL/"" for the defaults
 * - out    [o] : the new handle, to be released with oku_vad_destroy
 * returns : OKU_OK; OKU_ERR_NULL (out); OKU_ERR_RATE; OKU_ERR_PARAMS; OKU_ERR_MEMORY
 */
OKU_API int oku_vad_create(double rate, const char* params, oku_vad** out);

/*
 * oku_vad_create with flags.
 * - flags  [i] : 0 or OKU_VAD_AUDIO_FRAMES
 * returns : OKU_OK; OKU_ERR_NULL (out); OKU_ERR_ARGUMENT (an unknown flag);
 *           OKU_ERR_RATE; OKU_ERR_PARAMS; OKU_ERR_MEMORY
 */
OKU_API int oku_vad_create_ex(double rate, const char* params, unsigned flags, oku_vad** out);

/*
 * Creates an analyzer for audio as a device or file delivers it.
 * - rate     [i] : one of oku_input_rates() (Hz); analysed at oku_analysis_rate(rate)
 * - channels [i] : interleaved channels, 1 to OKU_MAX_CHANNELS (mixed to mono)
 * - params   [i] : parameter string, or NULL/"" for the defaults
 * - flags    [i] : 0 or OKU_VAD_AUDIO_FRAMES (frames of the analysed audio:
 *                  mono, 16-bit, at the analysis rate)
 * - out      [o] : the new handle, to be released with oku_vad_destroy
 * returns : OKU_OK; OKU_ERR_NULL (out); OKU_ERR_ARGUMENT (channels, an
 *           unknown flag); OKU_ERR_RATE (oku_last_error() lists the rates);
 *           OKU_ERR_PARAMS; OKU_ERR_MEMORY
 * oku_vad_create(rate, params, out) is oku_vad_open(rate, 1, params, 0, out)
 * for a whole-numbered rate, oku_vad_create_ex the same with flags.
 */
OKU_API int oku_vad_open(int rate, int channels, const char* params, unsigned flags, oku_vad** out);

/*
 * Analyses n samples of 16-bit audio: n / channels frames of interleaved
 * samples (n any whole number of frames, 0 included; samples may be NULL when
 * n is 0), and queues the results they complete. Real-time safe (see the top
 * of this file).
 * returns : OKU_OK; OKU_ERR_NULL (vad, or samples with n above 0);
 *           OKU_ERR_ARGUMENT (n not a whole number of frames; n larger than
 *           any array can be: above PTRDIFF_MAX / 2; refused before samples
 *           is touched); OKU_ERR_MEMORY
 */
OKU_API int oku_vad_process(oku_vad* vad, const int16_t* samples, size_t n);

/*
 * oku_vad_process for float samples (full scale -1 to 1; beyond it they
 * saturate; NaN and infinities count as 0 and are counted, see
 * oku_vad_nonfinite). Real-time safe.
 * returns : as oku_vad_process (the largest n: PTRDIFF_MAX / 4)
 */
OKU_API int oku_vad_process_f32(oku_vad* vad, const float* samples, size_t n);

/*
 * How many NaN or infinite float samples the handle has met since creation
 * (each counted as 0). Real-time safe.
 * returns : OKU_OK; OKU_ERR_NULL (vad, count)
 */
OKU_API int oku_vad_nonfinite(const oku_vad* vad, uint64_t* count);

/*
 * oku_vad_process for many analyzers in one call: vads[i] takes the counts[i]
 * samples at samples[i] exactly as its own oku_vad_process call would take
 * them, with the same results to the last bit, while the library runs the
 * analyzers' filters side by side in the processor's vector lanes (chosen at
 * run time), which costs far less per stream than one call after another.
 * Analyzers of different rates and chunks of different lengths (0 included)
 * mix freely. Every handle must appear once, and none may be in use on
 * another thread during the call. Real-time safe for any n: the call keeps
 * its bookkeeping on the stack and finds a repeated handle without memory
 * of its own.
 * - vads    [i/o] : n analyzers
 * - samples [i]   : n sample pointers; samples[i] may be NULL when counts[i] is 0
 * - counts  [i]   : n sample counts
 * - n       [i]   : how many; 0 does nothing, and the arrays may then be NULL
 * returns : OKU_OK; OKU_ERR_NULL (vads, samples or counts, a handle, or a
 *           samples[i] with counts[i] above 0); OKU_ERR_ARGUMENT (a handle
 *           given twice, or a count above PTRDIFF_MAX / 2); OKU_ERR_MEMORY.
 *           On a refusal no handle changes and no audio is consumed.
 */
OKU_API int oku_vad_process_many(oku_vad* const* vads, const int16_t* const* samples, const size_t* counts,
                                 size_t n);

/* oku_vad_process_many for float samples, as oku_vad_process_f32 takes them. */
OKU_API int oku_vad_process_many_f32(oku_vad* const* vads, const float* const* samples, const size_t* counts,
                                     size_t n);

/*
 * Takes the oldest queued result into *out; out->type is OKU_VAD_NONE when the
 * queue is empty. Results come out in the order they happened. Real-time safe.
 * returns : OKU_OK; OKU_ERR_NULL (vad, out); OKU_ERR_MEMORY
 */
OKU_API int oku_vad_next(oku_vad* vad, oku_vad_result* out);

/* A speech segment, from its start to its end (oku_vad_take). */
typedef struct oku_vad_segment {
    int64_t start;   /* its first frame: the SPEECH_START result's position */
    int64_t end;     /* the frame after its last: the SPEECH_END result's position */
    double start_ms; /* the same instants in ms from the start of the run */
    double end_ms;
} oku_vad_segment;

/*
 * oku_vad_next that pairs starts and ends: when the result taken is a
 * SPEECH_END, *segment receives the whole segment it closes, its start being
 * the SPEECH_START taken before it from this handle; for any other result
 * *segment is zeroed. segment may be NULL. Real-time safe.
 * returns : OKU_OK; OKU_ERR_NULL (vad, out); OKU_ERR_MEMORY
 */
OKU_API int oku_vad_take(oku_vad* vad, oku_vad_result* out, oku_vad_segment* segment);

/*
 * Cuts a segment longer than max_ms into the fewest pieces of at most max_ms,
 * of equal length to within one input frame, for hosts that must bound a
 * segment's length (an offline cutter feeding a speech recogniser). With n
 * pieces of a segment of L frames, piece i (from 0) spans frames
 * start + floor(i L / n) to start + floor((i + 1) L / n); times follow from
 * the frames at the handle's input rate. A segment within max_ms comes back
 * whole (n = 1).
 * - vad      [i] : the analyzer the segment came from (for its rate)
 * - segment  [i] : the segment (oku_vad_take)
 * - max_ms   [i] : the longest piece, at least one input frame long
 * - pieces   [o] : receives the pieces, in order; may be NULL to count them
 * - capacity [i] : room in pieces
 * - count    [o] : the number of pieces n (also when it exceeds capacity)
 * returns : OKU_OK; OKU_ERR_NULL (vad, segment, count); OKU_ERR_ARGUMENT
 *           (max_ms not positive and finite or shorter than a frame, a
 *           segment that ends before it starts, pieces NULL with capacity
 *           above 0, or capacity below n: nothing written to pieces)
 */
OKU_API int oku_vad_split(const oku_vad* vad, const oku_vad_segment* segment, double max_ms, oku_vad_segment* pieces,
                          size_t capacity, size_t* count);

/*
 * Takes up to `capacity` queued results into out[0..]; *count receives how many.
 * The samples of FRAME results stay valid until the next process or flush
 * call on this handle. Real-time safe.
 * returns : OKU_OK; OKU_ERR_NULL (vad, out, count); OKU_ERR_ARGUMENT (a capacity of 0); OKU_ERR_MEMORY
 */
OKU_API int oku_vad_results(oku_vad* vad, oku_vad_result* out, size_t capacity, size_t* count);

/*
 * Ends the run: decides and queues everything pending, a last partial frame
 * included, and closes an open speech segment at the end of the audio. The
 * next samples start a new run at time 0; the noise estimate is kept.
 * returns : OKU_OK; OKU_ERR_NULL (vad); OKU_ERR_MEMORY
 */
OKU_API int oku_vad_flush(oku_vad* vad);

/*
 * Starts afresh as if just created (settings and queued results are kept).
 * returns : OKU_OK; OKU_ERR_NULL (vad); OKU_ERR_MEMORY
 */
OKU_API int oku_vad_reset(oku_vad* vad);

/* Releases the analyzer and its queued results. returns : OKU_OK; OKU_ERR_NULL (vad; nothing happens) */
OKU_API int oku_vad_destroy(oku_vad* vad);

/* ---- Automatic gain control ---------------------------------------------- */

typedef struct oku_agc oku_agc;

typedef enum oku_agc_control {
    OKU_AGC_UNCHANGED = 0,       /* no change, or still collecting audio */
    OKU_AGC_PAUSE_TOO_LOW = 1,   /* raised: the whole signal was too quiet */
    OKU_AGC_SPEECH_TOO_LOW = 2,  /* raised by one step: speech stayed below the band */
    OKU_AGC_SPEECH_TOO_HIGH = 3, /* lowered: speech above the band */
    OKU_AGC_OPERATING_LIMIT = 4, /* a change ended at full or at the least gain */
    OKU_AGC_GAIN_ESTIMATE = 5    /* the gain was 0: a starting gain was proposed */
} oku_agc_control;

typedef struct oku_agc_decision {
    int32_t control;   /* an oku_agc_control */
    int32_t updated;   /* 1 when the last oku_agc_process call took a decision, 0 when it only collected audio */
    double time_ms;    /* ms of audio received when the decision was taken */
    float pause_db;    /* pause (noise floor) level used, dB of frame power */
    float speech_db;   /* speech level used, dB of frame power */
    int32_t changed;   /* 1 when the last oku_agc_process call proposed a gain other than the one given
                          (compared as the gain control keeps gains, in float): the host applies the new
                          gain exactly when this is 1, and need compare no numbers itself */
    int32_t reserved;
} oku_agc_decision;

/* Receives one line of the diagnostic log (without its line feed) per gain update. */
typedef void (*oku_agc_log_fn)(void* user, const char* line);

/*
 * Creates a gain control for mono audio, with all the memory it needs to run
 * reserved: 42 to 55 KB. The shorthand of oku_agc_open, kept as it was.
 * - rate   [i] : one of oku_input_rates() (Hz): mono audio
 * - params [i] : parameter string (keys in oku_settings), or NULL/"" for the defaults
 * - out    [o] : the new handle, to be released with oku_agc_destroy
 * returns : OKU_OK; OKU_ERR_NULL (out); OKU_ERR_RATE; OKU_ERR_PARAMS; OKU_ERR_MEMORY
 */
OKU_API int oku_agc_create(int rate, const char* params, oku_agc** out);

/*
 * Creates a gain control for audio as a device or file delivers it (as
 * oku_vad_open: any of oku_input_rates(), 1 to OKU_MAX_CHANNELS interleaved
 * channels). oku_agc_create(rate, params, out) is oku_agc_open(rate, 1, params, 0, out).
 * - flags [i] : 0 (none are defined yet)
 * returns : OKU_OK; OKU_ERR_NULL (out); OKU_ERR_ARGUMENT (channels, flags);
 *           OKU_ERR_RATE; OKU_ERR_PARAMS; OKU_ERR_MEMORY
 */
OKU_API int oku_agc_open(int rate, int channels, const char* params, unsigned flags, oku_agc** out);

/*
 * Analyses n samples (a whole number of frames of the handle's channels)
 * captured at `gain` (0 to 1; 0 asks for a starting gain)
 * and writes the gain to apply next to *new_gain. The gain control works in
 * float. When it proposes a change (oku_agc_info's `changed` is 1), *new_gain
 * is the proposed float; otherwise (no update took place, which needs at least
 * 120 ms of audio by default, or the update kept the gain) *new_gain is `gain`
 * itself, bit for bit, so that a host that feeds the result back never drifts.
 * Real-time safe (see the top of this file).
 * returns : OKU_OK; OKU_ERR_NULL (agc, new_gain, or samples with n above 0);
 *           OKU_ERR_ARGUMENT (gain outside 0..1 or NaN; n not a whole number of
 *           frames or above PTRDIFF_MAX / 2,
 *           refused before samples is touched); OKU_ERR_MEMORY
 */
OKU_API int oku_agc_process(oku_agc* agc, const int16_t* samples, size_t n, double gain, double* new_gain);

/* oku_agc_process for float samples (as oku_vad_process_f32 takes them). Real-time safe. */
OKU_API int oku_agc_process_f32(oku_agc* agc, const float* samples, size_t n, double gain, double* new_gain);

/* NaN or infinite float samples met since creation (counted as 0). returns : OKU_OK; OKU_ERR_NULL (agc, count) */
OKU_API int oku_agc_nonfinite(const oku_agc* agc, uint64_t* count);

/*
 * oku_agc_process for many gain controls in one call: agcs[i] and
 * new_gains[i] end up exactly as after oku_agc_process(agcs[i], samples[i],
 * counts[i], gains[i], &new_gains[i]), while the filters of the gain controls
 * that update run side by side in the processor's vector lanes. Gain controls
 * of different rates and chunks of different lengths (0 included) mix
 * freely. Every handle must appear once, and none may be in use on another
 * thread during the call. new_gains may be gains itself. Real-time safe for any n.
 * - agcs      [i/o] : n gain controls
 * - samples   [i]   : n sample pointers; samples[i] may be NULL when counts[i] is 0
 * - counts    [i]   : n sample counts
 * - gains     [i]   : n gains in force (0 to 1; 0 asks for a starting gain)
 * - new_gains [o]   : n gains to apply next
 * - n         [i]   : how many; 0 does nothing, and the arrays may then be NULL
 * returns : OKU_OK; OKU_ERR_NULL (agcs, samples, counts, gains or new_gains, a
 *           handle, or a samples[i] with counts[i] above 0); OKU_ERR_ARGUMENT
 *           (a handle given twice, a gain outside 0..1 or NaN, or a count
 *           above PTRDIFF_MAX / 2); OKU_ERR_MEMORY. On a refusal no handle
 *           changes, no audio is consumed and new_gains is not written.
 */
OKU_API int oku_agc_process_many(oku_agc* const* agcs, const int16_t* const* samples, const size_t* counts,
                                 const double* gains, double* new_gains, size_t n);

/* oku_agc_process_many for float samples. */
OKU_API int oku_agc_process_many_f32(oku_agc* const* agcs, const float* const* samples, const size_t* counts,
                                     const double* gains, double* new_gains, size_t n);

/* The last decision (all zero before the first call). Real-time safe. returns : OKU_OK; OKU_ERR_NULL (agc, out) */
OKU_API int oku_agc_info(const oku_agc* agc, oku_agc_decision* out);

/*
 * Sends the diagnostic log to fn(user, line), called from within oku_agc_process
 * on the caller's thread; NULL switches it off. fn must not call back into this handle.
 * While a callback is set, oku_agc_process formats a line per update, which
 * may allocate: a diagnostic aid, not for the audio thread.
 * returns : OKU_OK; OKU_ERR_NULL (agc)
 */
OKU_API int oku_agc_set_log(oku_agc* agc, oku_agc_log_fn fn, void* user);

/* Releases the gain control. returns : OKU_OK; OKU_ERR_NULL (agc; nothing happens) */
OKU_API int oku_agc_destroy(oku_agc* agc);

/* ---- Facts for front ends ------------------------------------------------ */

/* The library's version, "MAJOR.MINOR.PATCH"; never null. */
OKU_API const char* oku_version(void);

/*
 * The supported sampling rates in Hz, ascending: 8000, 11025, 16000, 22050.
 * - count [o] : receives the number of rates (4); may be NULL
 * returns : the rates (a constant array owned by the library); never null
 */
OKU_API const int* oku_rates(size_t* count);

/* 1 when rate is exactly one of the supported rates (16000.0 is, 16000.5 is not), else 0. */
OKU_API int oku_rate_supported(double rate);

/*
 * The supported rate nearest to rate (44100 -> 22050, 48000 -> 22050,
 * 12000 -> 11025); halfway between two rates, the higher one. 0 when rate is
 * not a positive finite number.
 */
OKU_API int oku_nearest_rate(double rate);

/*
 * Every input rate the services take, ascending: 8000, 11025, 12000, 16000,
 * 22050, 24000, 32000, 44100, 48000, 64000, 88200, 96000, 176400, 192000.
 * Audio at any of them is converted inside the library to its analysis rate
 * (oku_analysis_rate), one of oku_rates(); see oku_vad_open.
 * - count [o] : receives the number of rates (14); may be NULL
 * returns : the rates (a constant array owned by the library); never null
 */
OKU_API const int* oku_input_rates(size_t* count);

/*
 * The rate at which the services analyse input of `rate` Hz, by one rule:
 * the four analysis rates stay as they are; 44100, 88200 and 176400 (the
 * 11025 Hz family) go to 22050; 12000 goes to 8000; every other input rate
 * goes to 16000 (48000 by 3:1, 32000 by 2:1, 24000 by 2:3, 64000, 96000 and
 * 192000 by halving first). 0 when rate is not exactly one of oku_input_rates().
 */
OKU_API int oku_analysis_rate(double rate);

/* The most interleaved channels a handle takes (oku_vad_open, oku_agc_open). */
#define OKU_MAX_CHANNELS 64
OKU_API int oku_max_channels(void);

/*
 * Names of the values of the interface's enumerations: short lower-case
 * identifiers that stay the same across versions, for records, logs and
 * bindings. NULL for a value outside the enumeration.
 *   oku_vad_result_name : "none", "speech_start", "speech_end", "volume", "frame"
 *   oku_assessment_name : "ok", "too_noisy", "too_soft", "too_loud"
 *   oku_agc_control_name: "unchanged", "pause_too_low", "speech_too_low",
 *                         "speech_too_high", "operating_limit", "gain_estimate"
 */
OKU_API const char* oku_vad_result_name(int type);
OKU_API const char* oku_assessment_name(int assessment);
OKU_API const char* oku_agc_control_name(int control);

/* How many values each of those enumerations has (the names run from 0 to count - 1). */
#define OKU_VAD_RESULT_TYPE_COUNT 5
#define OKU_ASSESSMENT_COUNT 4
#define OKU_AGC_CONTROL_COUNT 6

/*
 * The number of samples in a chunk of `ms` milliseconds at `rate` Hz, rounded
 * to the nearest whole sample, halves up: floor(ms * rate / 1000 + 0.5), the
 * product formed in double precision (0.3125 ms at 8000 Hz is 2.5 samples and
 * gives 3). Every front end of the library cuts its chunks with this rule.
 * - rate    [i] : samples per second, a positive finite number (any rate, not
 *                 only the supported ones: a chunk may be cut before resampling)
 * - ms      [i] : the chunk's length, a positive finite number
 * - samples [o] : at least 1
 * returns : OKU_OK; OKU_ERR_NULL (samples); OKU_ERR_ARGUMENT (rate or ms not
 *           positive and finite, a chunk that rounds to no sample, or one
 *           larger than any array: above PTRDIFF_MAX / 2 samples)
 */
OKU_API int oku_chunk_samples(double rate, double ms, size_t* samples);

/*
 * A host's volume as a gain, exactly as OKUAGC_ComputeGain converts it: the
 * ratio volume / bound formed in double precision and rounded to float.
 * - volume [i] : 0 to bound
 * - bound  [i] : the volume of full gain, above 0
 * - gain   [o] : 0 to 1
 * returns : OKU_OK; OKU_ERR_NULL (gain); OKU_ERR_ARGUMENT (bound <= 0, or
 *           volume outside 0 to bound)
 */
OKU_API int oku_gain_from_volume(long volume, long bound, double* gain);

/*
 * A gain as a host's volume, exactly as OKUAGC_ComputeGain converts it: the
 * gain rounded to float (the gain control's precision), times the bound as a
 * float, formed in double precision and truncated; held to the bound (which a
 * bound above 2^24 as a float may exceed). The round trip of an unchanged
 * volume may lose one unit (40000 of 65535 comes back as 39999), so a host
 * applies a proposed gain only when it differs from the gain it gave.
 * - gain   [i] : 0 to 1
 * - bound  [i] : the volume of full gain, above 0
 * - volume [o] : 0 to bound
 * returns : OKU_OK; OKU_ERR_NULL (volume); OKU_ERR_ARGUMENT (bound <= 0, or
 *           gain outside 0 to 1 or NaN)
 */
OKU_API int oku_volume_from_gain(double gain, long bound, long* volume);

/* The two services, for the settings functions below. */
typedef enum oku_service {
    OKU_SERVICE_VAD = 0, /* the voice-activity analyzer */
    OKU_SERVICE_AGC = 1  /* the automatic gain control */
} oku_service;

typedef enum oku_setting_type {
    OKU_SETTING_INT = 0, /* read as a whole number ("1.5" reads as 1, "42abc" as 42) */
    OKU_SETTING_REAL = 1 /* read as a real number (the gain control keeps it as a float) */
} oku_setting_type;

/* One setting of a service: what its parameter string may set. */
typedef struct oku_setting {
    const char* key;      /* the parameter string key, e.g. "EOSTimeoutMs" */
    const char* name;     /* the same, lower case and hyphenated: "eos-timeout-ms" */
    const char* unit;     /* "ms", "dB", "dBFS", "dB per 100 ms", or "" for a plain number */
    const char* meaning;  /* one line of English */
    int32_t type;         /* an oku_setting_type */
    int32_t reserved;
    double default_value; /* what the service takes when the key is absent */
} oku_setting;

/*
 * Every setting of a service, in the order the service reads them; the
 * services take their defaults from these same tables. Settings given in
 * milliseconds become frames: rounded to the nearest frame by the analyzer,
 * truncated to whole 20 ms by the gain control. The analyzer's EOSTimeoutMs
 * default (420) is its value at creation.
 * - service [i] : OKU_SERVICE_VAD or OKU_SERVICE_AGC
 * - count   [o] : receives the number of settings (0 for another service); may be NULL
 * returns : the table (constant, owned by the library), or NULL for another service
 */
OKU_API const oku_setting* oku_settings(int service, size_t* count);

/*
 * The value a service would take for one setting from a parameter string: the
 * string's value read as the service reads it (a whole number for an integer
 * setting; for the gain control, a real setting rounded to float), or the
 * default when the string does not hold the key.
 * - service [i] : OKU_SERVICE_VAD or OKU_SERVICE_AGC
 * - params  [i] : parameter string ("Key=Value;..."), or NULL/"" for the defaults
 * - key     [i] : a key of the service's table
 * - value   [o] : the value
 * returns : OKU_OK; OKU_ERR_NULL (key, value); OKU_ERR_ARGUMENT (another
 *           service, or a key that is not a setting of the service);
 *           OKU_ERR_PARAMS (a malformed string, or a value for the key that
 *           does not read as its type)
 */
OKU_API int oku_setting_value(int service, const char* params, const char* key, double* value);

/*
 * Checks a parameter string for a service without keeping anything: its
 * grammar, the value of every key the service reads, and the settings the
 * service refuses (as its create function would). oku_last_error() then names
 * the problem: "Invalid format: ...", "EOSTimeoutMs: 'soon' is not a whole
 * number", "LeastGain must lie in (0, 1]". Keys the service does not read are
 * not an error (see oku_params_entries to find them).
 * - service [i] : OKU_SERVICE_VAD or OKU_SERVICE_AGC
 * - params  [i] : parameter string, or NULL/"" for the defaults
 * returns : OKU_OK; OKU_ERR_ARGUMENT (another service); OKU_ERR_PARAMS; OKU_ERR_MEMORY
 */
OKU_API int oku_params_check(int service, const char* params);

/* Receives one entry of a parameter string. */
typedef void (*oku_params_fn)(void* user, const char* key, const char* value);

/*
 * Calls fn(user, key, value) for each entry of a parameter string as the
 * services see it: empty entries skipped, the first occurrence of a key kept,
 * in ascending byte order of the keys. A malformed string reports nothing.
 * fn must not call back into the library with the same string's entries.
 * - params [i] : parameter string, or NULL/"" (no entries)
 * returns : OKU_OK; OKU_ERR_NULL (fn); OKU_ERR_PARAMS (malformed); OKU_ERR_MEMORY
 */
OKU_API int oku_params_entries(const char* params, oku_params_fn fn, void* user);

/*
 * The entries of a parameter string whose key no setting of the service has
 * (a misspelt key, or one meant for the other service): the service ignores
 * them, and a front end warns about them. Calls fn(user, key, value) for each,
 * in ascending byte order of the keys, and writes how many there are.
 * fn must not call back into the library with the same string's entries.
 * - service [i] : OKU_SERVICE_VAD or OKU_SERVICE_AGC
 * - params  [i] : parameter string, or NULL/"" (no entries)
 * - fn      [i] : receives each unknown entry; may be NULL (only count them)
 * - count   [o] : the number of unknown keys; may be NULL
 * returns : OKU_OK; OKU_ERR_ARGUMENT (another service); OKU_ERR_PARAMS
 *           (malformed; nothing reported); OKU_ERR_MEMORY
 */
OKU_API int oku_params_unknown(int service, const char* params, oku_params_fn fn, void* user, size_t* count);

/*
 * How long the analyzer may hold audio before it hands it out decided: the
 * time from a frame's first sample until the frame has come out with its
 * speech flag (OKU_VAD_FRAME), for these settings at this rate. It is the
 * longest of: the speech window plus two frames (in a pause), a third of the
 * end-of-speech timeout plus two frames (in speech), and, at the start of a
 * run, the histogram's minimum window (the noise level must be known first).
 * With the defaults: 800 ms at the start of a run, 240 ms after. Near digital
 * silence the start of a run can take longer, up to 200 frames (4 s), since
 * frames under 15 dB of energy do not fill the histogram. Speech starts and
 * ends are dated back within the same bounds. For a host that delays audio
 * until it is decided (a gate) and must say by how much.
 * At an input rate that is converted, the converter's own delay (2.3 to
 * 3.6 ms, 6.2 ms at 12000 Hz; oku_analysis_rate) is added.
 * - rate   [i] : one of oku_input_rates() (Hz)
 * - params [i] : parameter string, or NULL/"" for the defaults
 * - ms     [o] : the delay in milliseconds
 * returns : OKU_OK; OKU_ERR_NULL (ms); OKU_ERR_RATE; OKU_ERR_PARAMS; OKU_ERR_MEMORY
 */
OKU_API int oku_vad_delay(double rate, const char* params, double* ms);

/*
 * The size in bytes of a structure of this interface, for bindings that
 * mirror them and want to check they match the library they loaded:
 * "oku_vad_result", "oku_agc_decision", "oku_setting" or "oku_vad_segment".
 * 0 for another name.
 */
OKU_API size_t oku_struct_size(const char* name);

#ifdef __cplusplus
}
#endif

#endif /* OKU_H */
