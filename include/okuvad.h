/*
 * okuvad.h - voice-activity analyzer and automatic gain control, C interface.
 *
 * Audio crosses this interface as raw bytes of mono, signed 16-bit,
 * little-endian PCM at the rate given to the Init function, with its length
 * in bytes. Every call appends one extra zero sample to the chunk it is given
 * ((size / 2) + 1 samples; with an odd size the last sample takes the odd byte
 * as its low byte), and positions reported back count that sample too.
 *
 * Every function returns an int status:
 *    0  success
 *   -1  a required pointer is null, no object exists for the call, or an
 *       argument is out of range (see each function); nothing is written and
 *       no audio is consumed
 *   -2  an error inside the library (unsupported sampling rate, out of memory,
 *       a chunk of more than 2^32 - 3 bytes); the message is not kept
 *   -3  any other failure inside the library
 *   -4  OKUAGC_Init: sampling rate <= 0; OKUAGC_GetInfo: unknown control type
 * No call ever lets an exception, an assertion or a signal reach the host.
 *
 * Threading: each service keeps ONE process-wide object, created by its Init
 * function. The functions take no locks: the host must serialise all calls to
 * one service (the analyzer's and the gain control's functions may be used side
 * by side). For several streams at once, use the handle functions of oku.h (one
 * handle per stream, each usable from its own thread) or the C++ classes
 * oku::AudioAnalyzer and oku::AGC.
 */
#ifndef OKUVAD_H
#define OKUVAD_H

#if defined(_WIN32) && defined(OKU_BUILDING_LIBRARY)
#  define OKUVAD_API __declspec(dllexport)
#elif defined(_WIN32) && !defined(OKU_STATIC)
#  define OKUVAD_API __declspec(dllimport)
#elif defined(__GNUC__)
#  define OKUVAD_API __attribute__((visibility("default")))
#else
#  define OKUVAD_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Voice-activity analyzer ------------------------------------------- */

/* Result codes written to *piResult_p by OKUVAD_GetResult. */
#define OKUVAD_RESULT_FAILED       (-1) /* the call failed after its arguments were accepted */
#define OKUVAD_RESULT_NONE           0  /* nothing left to report */
#define OKUVAD_RESULT_SPEECH_START   1  /* *pdVolumePeakSignalInSamples_p: position in samples */
#define OKUVAD_RESULT_SPEECH_END     2  /* *pdVolumePeakSignalInSamples_p: position in samples */
#define OKUVAD_RESULT_VOLUME         3  /* peak sample value and *piVolumeInfo_p */

/*
 * Volume assessments written to *piVolumeInfo_p with OKUVAD_RESULT_VOLUME.
 * "Too noisy" comes before the others and lasts as long as the noise
 * estimate does: docs/c-api.md, "The meter's behaviours".
 */
#define OKUVAD_VOLUME_OK        0
#define OKUVAD_VOLUME_TOO_NOISY 1
#define OKUVAD_VOLUME_TOO_SOFT  2
#define OKUVAD_VOLUME_TOO_LOUD  3

/*
 * Creates the analyzer with default settings, destroying any earlier one
 * (its queued results are lost).
 * - dSamplingRate_p [i] : 8000.0, 11025.0, 16000.0 or 22050.0 (Hz)
 * returns : 0; -2 for any other rate (no analyzer exists afterwards); -3
 */
OKUVAD_API int OKUVAD_Init(const double dSamplingRate_p);

/*
 * Feeds a chunk (iStart_p != 0) and/or reports the next queued result.
 * Per captured chunk, call once with iStart_p != 0, then with iStart_p == 0
 * until *piResult_p is 0. At most one result is reported per call.
 * - iStart_p       [i] : non-zero: pvData_p holds new audio; 0: only report
 * - pvData_p       [i] : uiDataSize_p bytes of PCM; read only when iStart_p != 0
 *                        (may be null only when uiDataSize_p is 0)
 * - uiDataSize_p   [i] : size of the chunk in bytes
 * - piResult_p     [o] : -1 failed, 0 none, 1 speech start, 2 speech end,
 *                        3 volume reading
 * - pdVolumePeakSignalInSamples_p [o] : result 1 or 2: position of the event in
 *                        samples since Init (a frame boundary; not rounded);
 *                        result 3: the chunk's peak absolute sample value,
 *                        0 to 32768. When iStart_p != 0 it is first set to 0.0;
 *                        with result 0 and iStart_p == 0 it is left as it was.
 * - piVolumeInfo_p [o] : result 3: 0 OK, 1 too noisy, 2 too soft, 3 too loud.
 *                        Set to 0 when iStart_p != 0; not written by results 1
 *                        and 2, nor by result 0 when iStart_p == 0.
 * returns : 0; -1 if an out-pointer is null, if pvData_p is null with a size
 *           above 0 while iStart_p != 0, or if no analyzer exists (nothing is
 *           written and no audio consumed); -2 / -3 (then *piResult_p is -1)
 */
OKUVAD_API int OKUVAD_GetResult(const int iStart_p, const void* pvData_p, const unsigned int uiDataSize_p,
                                int* piResult_p, double* pdVolumePeakSignalInSamples_p, int* piVolumeInfo_p);

/*
 * Destroys the analyzer and its queued results.
 * returns : 0, also when no analyzer exists
 */
OKUVAD_API int OKUVAD_Deinit(void);

/* ---- Automatic gain control ---------------------------------------------- */

/* Control types written to *piControlType_p by OKUAGC_GetInfo. */
#define OKUAGC_UNCHANGED       0 /* no change (also: still collecting audio) */
#define OKUAGC_PAUSE_TOO_LOW   1 /* raised: whole signal too quiet */
#define OKUAGC_SPEECH_TOO_LOW  2 /* raised by one step: speech below the band */
#define OKUAGC_SPEECH_TOO_HIGH 3 /* lowered: speech above the band */
#define OKUAGC_OPERATING_LIMIT 4 /* a change ended at full or at the least gain */
#define OKUAGC_GAIN_ESTIMATE   5 /* volume was 0: a starting volume was proposed */

/*
 * Creates the gain control with default settings. With the rate already in
 * use, keeps the existing one untouched (its history stays); with another
 * rate, replaces it.
 * - iSamplingRate_p [i] : 8000, 11025, 16000 or 22050 (Hz)
 * returns : 0; -4 for a rate <= 0 (an existing gain control survives);
 *           -2 for another unsupported rate (no gain control exists afterwards)
 */
OKUVAD_API int OKUAGC_Init(const int iSamplingRate_p);

/*
 * Analyses a chunk and proposes the next input volume. Needs at least 120 ms of
 * audio before the first change; until then the volume comes back as given.
 * Volumes are converted to a gain as the float lInVolume_p / lUBound_p and back
 * as gain * lUBound_p truncated, so an unchanged volume may come back one unit
 * lower (40000 of 65535 comes back as 39999).
 * - pvData_p        [i] : uiDataSize_p bytes of PCM (may be null only when the size is 0)
 * - uiDataSize_p    [i] : size of the chunk in bytes
 * - lInVolume_p     [i] : the volume now in force, 0 to lUBound_p; 0 asks for
 *                         a starting volume
 * - lUBound_p       [i] : the largest volume (full gain), above 0
 * - plCurrentGain_p [o] : the volume to apply next, 0 to lUBound_p
 * returns : 0; -1 if plCurrentGain_p is null, no gain control exists, lUBound_p
 *           <= 0, lInVolume_p is outside 0 to lUBound_p, or pvData_p is null
 *           with a size above 0 (nothing written, no audio consumed);
 *           -2 / -3 (then *plCurrentGain_p is 0, which is not a proposal)
 */
OKUVAD_API int OKUAGC_ComputeGain(const void* pvData_p, const unsigned int uiDataSize_p, const long lInVolume_p,
                                  const long lUBound_p, long* plCurrentGain_p);

/*
 * Reports the last control decision.
 * - pdTimeMs_p      [o] : ms of audio received when the decision was taken
 * - pfPauseLevel_p  [o] : pause (noise floor) level used, dB of frame power
 * - pfSpeechLevel_p [o] : speech level used, dB of frame power
 * - piControlType_p [o] : one of the OKUAGC_* control types above
 * returns : 0; -1 if a pointer is null or no gain control exists (nothing
 *           written); -4 if the recorded type is unknown (then it is 6)
 */
OKUVAD_API int OKUAGC_GetInfo(double* pdTimeMs_p, float* pfPauseLevel_p, float* pfSpeechLevel_p,
                              int* piControlType_p);

/*
 * Destroys the gain control.
 * returns : 0, also when none exists
 */
OKUVAD_API int OKUAGC_Deinit(void);

#ifdef __cplusplus
}
#endif

#endif /* OKUVAD_H */
