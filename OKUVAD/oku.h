/*
 * oku.h - reentrant C interface: any number of analyzers and gain controls.
 *
 * Each stream gets its own handle. Handles share nothing: different handles
 * may be used from different threads at the same time; one handle must not be
 * used from two threads at once. There is no global state apart from the
 * thread-local text of oku_last_error().
 *
 * Audio is mono, signed 16-bit samples in native byte order at the rate given
 * at creation (8000, 11025, 16000 or 22050 Hz). Unlike the OKUVAD_ and OKUAGC_
 * functions of okuvad.h, nothing is added to the samples given.
 *
 * Every function returns an oku_status (0 on success, negative on failure) and
 * never lets an exception, an assertion or a crash reach the caller. On failure
 * nothing is written to the out-parameters, no audio is consumed, and
 * oku_last_error() describes the problem.
 */
#ifndef OKU_H
#define OKU_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  define OKU_API __declspec(dllexport)
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
    OKU_ERR_ARGUMENT = -2,  /* an argument is out of range (a gain outside 0..1, a capacity of 0) */
    OKU_ERR_RATE = -3,      /* the sampling rate is not supported */
    OKU_ERR_PARAMS = -4,    /* a malformed parameter string or a rejected setting */
    OKU_ERR_MEMORY = -5,    /* out of memory */
    OKU_ERR_INTERNAL = -6   /* any other failure inside the library */
} oku_status;

/* A fixed English text for a status code; never null. */
OKU_API const char* oku_status_message(int status);

/*
 * The message of the last failed call on the calling thread: "Sampling rate",
 * "Invalid format" (malformed parameter string or value), a message naming a
 * rejected setting (e.g. "LeastGain must lie in (0, 1]"), or a description of
 * the bad argument. "" before any failure. Successful calls leave it as it is.
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
    int64_t position;   /* the same instant in samples from the start of the run */
    /* OKU_VAD_VOLUME */
    int32_t assessment; /* an oku_vad_assessment */
    int32_t reserved;
    double peak;        /* largest absolute sample of the reading's audio, 0 to 32768 */
    double level_dbfs;  /* peak level in dBFS, falling at a limited rate, -90.3 to 0 */
    double snr_pct;     /* speech over noise in percent of full scale; 0 in a pause */
    /* OKU_VAD_FRAME */
    int32_t frame_index;     /* number of the frame in the run, from 0 */
    int32_t sample_count;    /* samples in the frame (the last frame of a flush may be short) */
    const int16_t* samples;  /* the frame as it arrived; valid until the next call on this handle */
} oku_vad_result;

/*
 * Creates an analyzer.
 * - rate   [i] : 8000, 11025, 16000 or 22050 (Hz)
 * - params [i] : parameter string ("Key=Value;..."; see the README), or NULL/"" for the defaults
 * - flags  [i] : 0 or OKU_VAD_AUDIO_FRAMES
 * - out    [o] : the new handle, to be released with oku_vad_destroy
 * returns : OKU_OK; OKU_ERR_NULL, OKU_ERR_RATE, OKU_ERR_PARAMS, OKU_ERR_MEMORY
 */
OKU_API int oku_vad_create(double rate, const char* params, oku_vad** out);
OKU_API int oku_vad_create_ex(double rate, const char* params, unsigned flags, oku_vad** out);

/*
 * Analyses n samples (any number, 0 included; samples may be NULL when n is 0)
 * and queues the results they complete.
 * returns : OKU_OK; OKU_ERR_NULL, OKU_ERR_MEMORY
 */
OKU_API int oku_vad_process(oku_vad* vad, const int16_t* samples, size_t n);

/*
 * Takes the oldest queued result into *out; out->type is OKU_VAD_NONE when the
 * queue is empty. Results come out in the order they happened.
 * returns : OKU_OK; OKU_ERR_NULL
 */
OKU_API int oku_vad_next(oku_vad* vad, oku_vad_result* out);

/*
 * Takes up to `capacity` queued results into out[0..]; *count receives how many.
 * The samples of FRAME results stay valid until the next call on this handle.
 * returns : OKU_OK; OKU_ERR_NULL; OKU_ERR_ARGUMENT for a capacity of 0
 */
OKU_API int oku_vad_results(oku_vad* vad, oku_vad_result* out, size_t capacity, size_t* count);

/*
 * Ends the run: decides and queues everything pending, a last partial frame
 * included, and closes an open speech segment at the end of the audio. The
 * next samples start a new run at time 0; the noise estimate is kept.
 * returns : OKU_OK; OKU_ERR_NULL, OKU_ERR_MEMORY
 */
OKU_API int oku_vad_flush(oku_vad* vad);

/* Starts afresh as if just created (settings and queued results are kept). */
OKU_API int oku_vad_reset(oku_vad* vad);

/* Releases the analyzer and its queued results. NULL is OKU_ERR_NULL and does nothing. */
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
} oku_agc_decision;

/* Receives one line of the diagnostic log (without its line feed) per gain update. */
typedef void (*oku_agc_log_fn)(void* user, const char* line);

/*
 * Creates a gain control.
 * - rate   [i] : 8000, 11025, 16000 or 22050 (Hz)
 * - params [i] : parameter string, or NULL/"" for the defaults
 * - out    [o] : the new handle, to be released with oku_agc_destroy
 * returns : OKU_OK; OKU_ERR_NULL, OKU_ERR_RATE, OKU_ERR_PARAMS, OKU_ERR_MEMORY
 */
OKU_API int oku_agc_create(int rate, const char* params, oku_agc** out);

/*
 * Analyses n samples captured at `gain` (0 to 1; 0 asks for a starting gain)
 * and writes the gain to apply next to *new_gain (the same gain when no update
 * took place; updates need at least 120 ms of audio by default).
 * returns : OKU_OK; OKU_ERR_NULL, OKU_ERR_ARGUMENT (gain outside 0..1 or NaN), OKU_ERR_MEMORY
 */
OKU_API int oku_agc_process(oku_agc* agc, const int16_t* samples, size_t n, double gain, double* new_gain);

/* The last decision (all zero before the first call). returns : OKU_OK; OKU_ERR_NULL */
OKU_API int oku_agc_info(const oku_agc* agc, oku_agc_decision* out);

/*
 * Sends the diagnostic log to fn(user, line), called from within oku_agc_process
 * on the caller's thread; NULL switches it off. fn must not call back into this handle.
 * returns : OKU_OK; OKU_ERR_NULL
 */
OKU_API int oku_agc_set_log(oku_agc* agc, oku_agc_log_fn fn, void* user);

/* Releases the gain control. NULL is OKU_ERR_NULL and does nothing. */
OKU_API int oku_agc_destroy(oku_agc* agc);

#ifdef __cplusplus
}
#endif

#endif /* OKU_H */
