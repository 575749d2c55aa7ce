/*
 * The public headers as C, and the library used from C: both headers compile
 * and link, the plain and the handle functions answer, and the facts for front
 * ends follow the rules they implement: the rates and the nearest rate, the
 * names, the volume round trip (worked examples of OKUAGC_ComputeGain's rule),
 * chunk lengths, delays, and settings tables whose defaults are the documented
 * ones (written out here from docs/settings.md, not taken from the library).
 * Statuses only: the wording of refusals is api_test's.
 */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "oku.h"
#include "okuvad.h"

static int failures;

#define CHECK(cond)                                                            \
    do {                                                                       \
        if (!(cond)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                        \
        }                                                                      \
    } while (0)

struct documented {
    const char* key;
    double value;
    int type;
};

static const struct documented vad_defaults[] = {
    {"SpeechWindowSizeMs", 200, OKU_SETTING_INT},      {"SpeechWindowFraction", 0.3, OKU_SETTING_REAL},
    {"EOSTimeoutMs", 420, OKU_SETTING_INT},            {"HistogramWindowSizeMs", 2000, OKU_SETTING_INT},
    {"HistogramMinWindowSizeMs", 800, OKU_SETTING_INT}, {"MaxDecayRateDbPerDs", 48, OKU_SETTING_REAL},
    {"FullScaleSNR", 24, OKU_SETTING_REAL},            {"TooNoisyLeveldBFS", -25, OKU_SETTING_REAL},
    {"TooLoudAlignmentLeveldBFS", -12, OKU_SETTING_REAL}, {"TooSoftWindowSizeMs", 2000, OKU_SETTING_REAL},
    {"TooSoftSNR", 18, OKU_SETTING_REAL},              {"MinRecordingLeveldBFS", -54, OKU_SETTING_REAL},
    {"CutoffFraction", 0.08, OKU_SETTING_REAL},        {"InterpolationParam", 0.3, OKU_SETTING_REAL},
    {"ThresholdOffsetSpeech", 6, OKU_SETTING_REAL},    {"ThresholdOffsetPause", 16, OKU_SETTING_REAL},
    {"ThresholdLowerLimit", 24, OKU_SETTING_REAL},     {"ThresholdUpperLimit", 70, OKU_SETTING_REAL},
};

static const struct documented agc_defaults[] = {
    {"MinUpdateIntervalMs", 120, OKU_SETTING_INT},   {"MinLowerLevelSizeMs", 80, OKU_SETTING_INT},
    {"MinUpperLevelSizeMs", 40, OKU_SETTING_INT},    {"WindowSizeMs", 3000, OKU_SETTING_INT},
    {"SpeechWindowSizeMs", 800, OKU_SETTING_INT},    {"SpeechFraction", 0.3, OKU_SETTING_REAL},
    {"PauseWindowSizeMs", 500, OKU_SETTING_INT},     {"CutoffFraction", 0.1, OKU_SETTING_REAL},
    {"InterpolationWeight", 0.3, OKU_SETTING_REAL},  {"ThresholdOffsetSpeech", 14, OKU_SETTING_REAL},
    {"ThresholdOffsetPause", 6, OKU_SETTING_REAL},   {"ThresholdUpperBound", 70, OKU_SETTING_REAL},
    {"SNRWindowSizeMs", 4000, OKU_SETTING_INT},      {"PauseLowerBound", 4, OKU_SETTING_REAL},
    {"InitialPauseLowerBound", 12, OKU_SETTING_REAL}, {"PauseUpperBound", 21, OKU_SETTING_REAL},
    {"LowerBound", 57, OKU_SETTING_REAL},            {"UpperBound", 78, OKU_SETTING_REAL},
    {"UpperLevelRefDelta", 6, OKU_SETTING_REAL},     {"TooLowDeltaGaindB", 6, OKU_SETTING_REAL},
    {"TooHighDeltaGaindB", 6, OKU_SETTING_REAL},     {"DeltaGainDb", 1, OKU_SETTING_REAL},
    {"LeastGain", 0.001, OKU_SETTING_REAL},
};

/* The table holds exactly the documented settings, in order, each with a
 * name, a meaning, and its default as the service reads it. */
static void check_table(int service, const struct documented* want, size_t n)
{
    size_t count = 99, i;
    const oku_setting* t = oku_settings(service, &count);
    CHECK(t != NULL && count == n);
    for (i = 0; t && i < n && i < count; i++) {
        double v = -1;
        CHECK(strcmp(t[i].key, want[i].key) == 0);
        CHECK(t[i].default_value == want[i].value && t[i].type == want[i].type);
        CHECK(t[i].name && t[i].name[0] && t[i].meaning && t[i].meaning[0] && t[i].unit);
        CHECK(oku_setting_value(service, NULL, t[i].key, &v) == OKU_OK);
        CHECK(service == OKU_SERVICE_AGC ? v == (double)(float)want[i].value : v == want[i].value);
    }
}

static int entries, lines;
static char seen[64];
static void on_entry(void* user, const char* key, const char* value)
{
    (void)user;
    entries++;
    strncat(seen, key, sizeof seen - strlen(seen) - 1);
    strncat(seen, "=", sizeof seen - strlen(seen) - 1);
    strncat(seen, value, sizeof seen - strlen(seen) - 1);
    strncat(seen, ";", sizeof seen - strlen(seen) - 1);
}

static void on_line(void* user, const char* line)
{
    (void)user;
    lines += line[0] != '\0';
}

/* A volume to a gain and back, as OKUAGC_ComputeGain hands back a volume it keeps; -1 when refused. */
static long round_trip(long volume, long bound)
{
    double g = -1;
    long v = -1;
    if (oku_gain_from_volume(volume, bound, &g) != OKU_OK || oku_volume_from_gain(g, bound, &v) != OKU_OK)
        return -1;
    return v;
}

int main(void)
{
    size_t n = 0, c = 0, i;
    const int* rates = oku_rates(&n);
    double g = 7, v, gain = 0.5;
    long vol = 7;
    int result = 7, info = 7;
    oku_vad* vad = NULL;
    oku_agc* agc = NULL;
    oku_vad_result r;
    oku_agc_decision d;
    int16_t chunk[320 * 6];
    /* Chunk lengths: the nearest sample, halves up (0.3125 ms at 8000 Hz is 2.5 samples, 0.0625 ms half
     * a one; 10 ms at 11025 Hz is 110.25); 0: refused (0.06 ms at 8000 Hz is 0.48 of a sample). */
    static const struct { double rate, ms; size_t samples; } chunks[] = {
        {8000, 0.3125, 3}, {8000, 0.3, 2}, {22050, 20, 441}, {44100, 20, 882}, {8000, 0.0625, 1}, {11025, 10, 110},
        {8000, 0.06, 0}, {8000, 0, 0}, {8000, -20, 0}, {0, 20, 0}, {NAN, 20, 0}, {8000, INFINITY, 0}, {8000, 1e300, 0}};

    /* The plain functions and the handles from C. */
    memset(chunk, 0, sizeof chunk);
    CHECK(OKUVAD_GetResult(1, chunk, 2, &result, &v, &info) == -1 && result == 7); /* no analyzer yet */
    CHECK(OKUVAD_Init(16000.0) == 0 && OKUVAD_GetResult(1, chunk, 2, &result, &v, &info) == 0);
    CHECK(result == OKUVAD_RESULT_NONE && OKUVAD_Deinit() == 0 && OKUAGC_Init(0) == -4);
    CHECK(oku_vad_create(16000.0, "", &vad) == OKU_OK && oku_vad_process(vad, chunk, 320) == OKU_OK);
    CHECK(oku_vad_next(vad, &r) == OKU_OK && r.type == OKU_VAD_VOLUME && r.time_ms == 20.0);
    CHECK(oku_vad_next(vad, &r) == OKU_OK && r.type == OKU_VAD_NONE && oku_vad_destroy(vad) == OKU_OK);
    CHECK(oku_agc_create(16000, NULL, &agc) == OKU_OK && oku_agc_set_log(agc, on_line, NULL) == OKU_OK);
    CHECK(oku_agc_process(agc, chunk, 320 * 6, gain, &gain) == OKU_OK && gain > 0.5 && lines == 1);
    CHECK(oku_agc_info(agc, &d) == OKU_OK && d.control == OKU_AGC_PAUSE_TOO_LOW && d.updated);
    CHECK(oku_agc_destroy(agc) == OKU_OK);

    /* Version and rates. */
    CHECK(strcmp(oku_version(), OKU_EXPECTED_VERSION) == 0);
    CHECK(n == 4 && rates[0] == 8000 && rates[1] == 11025 && rates[2] == 16000 && rates[3] == 22050);
    CHECK(oku_rate_supported(16000.0) && oku_rate_supported(11025.0));
    CHECK(!oku_rate_supported(16000.5) && !oku_rate_supported(44100.0) && !oku_rate_supported(0.0));
    CHECK(oku_nearest_rate(44100) == 22050 && oku_nearest_rate(48000) == 22050 && oku_nearest_rate(1) == 8000);
    CHECK(oku_nearest_rate(12000) == 11025 && oku_nearest_rate(14000) == 16000 && oku_nearest_rate(16000) == 16000);
    /* Halfway between 16000 and 22050 (19025) and between 8000 and 11025 (9512.5): the higher. */
    CHECK(oku_nearest_rate(19025) == 22050 && oku_nearest_rate(9512.5) == 11025 && oku_nearest_rate(9512) == 8000);
    CHECK(oku_nearest_rate(0) == 0 && oku_nearest_rate(-8000) == 0 && oku_nearest_rate(NAN) == 0 &&
          oku_nearest_rate(INFINITY) == 0);
    CHECK(oku_max_channels() == OKU_MAX_CHANNELS);

    /* Names: one for every value below each count, none at it or below 0 (the golden files show them). */
    CHECK(strcmp(oku_vad_result_name(OKU_VAD_FRAME), "frame") == 0 && oku_assessment_name(-1) == NULL);
    CHECK(strcmp(oku_agc_control_name(OKU_AGC_GAIN_ESTIMATE), "gain_estimate") == 0);
    CHECK(oku_vad_result_name(OKU_VAD_RESULT_TYPE_COUNT - 1) && !oku_vad_result_name(OKU_VAD_RESULT_TYPE_COUNT));
    CHECK(oku_assessment_name(OKU_ASSESSMENT_COUNT - 1) && !oku_assessment_name(OKU_ASSESSMENT_COUNT));
    CHECK(oku_agc_control_name(OKU_AGC_CONTROL_COUNT - 1) && !oku_agc_control_name(OKU_AGC_CONTROL_COUNT));

    /* Volumes: gain 0.5 of 65535 is 32767 (32767.5 truncated); 0.999 of 100 is 99 (99.9 truncated);
     * bounds beyond 2^24 (the bound as a float exceeds it): the volume held to the bound. */
    CHECK(oku_volume_from_gain(0.5, 65535, &vol) == OKU_OK && vol == 32767);
    CHECK(oku_volume_from_gain(0.999, 100, &vol) == OKU_OK && vol == 99);
    CHECK(oku_volume_from_gain(1.0, 65535, &vol) == OKU_OK && vol == 65535);
    CHECK(oku_volume_from_gain(1.0, 16777217L, &vol) == OKU_OK && vol == 16777217L);
    /* 40000 / 65535 as a float (0.61036086) lies below the exact ratio, so an
     * unchanged 40000 comes back as 39999; 32768 as 32767; 65535 stays. With a
     * bound of 100, 1 comes back as 0 and 50 as 50. */
    CHECK(oku_gain_from_volume(40000, 65535, &g) == OKU_OK && g == (double)(float)(40000.0 / 65535.0));
    CHECK(round_trip(40000, 65535) == 39999 && round_trip(32768, 65535) == 32767);
    CHECK(round_trip(65535, 65535) == 65535 && round_trip(1, 100) == 0 && round_trip(50, 100) == 50);
    CHECK(oku_gain_from_volume(0, 65535, &g) == OKU_OK && g == 0.0);
    g = 7;
    vol = 7;
    CHECK(oku_gain_from_volume(-1, 100, &g) == OKU_ERR_ARGUMENT && oku_gain_from_volume(101, 100, &g) == OKU_ERR_ARGUMENT);
    CHECK(oku_gain_from_volume(0, 0, &g) == OKU_ERR_ARGUMENT && g == 7 && oku_gain_from_volume(1, 2, NULL) == OKU_ERR_NULL);
    CHECK(oku_volume_from_gain(NAN, 100, &vol) == OKU_ERR_ARGUMENT);
    CHECK(oku_volume_from_gain(0.5, -1, &vol) == OKU_ERR_ARGUMENT && vol == 7);

    /* Settings, and parameter strings as the services read them. */
    check_table(OKU_SERVICE_VAD, vad_defaults, sizeof vad_defaults / sizeof vad_defaults[0]);
    check_table(OKU_SERVICE_AGC, agc_defaults, sizeof agc_defaults / sizeof agc_defaults[0]);
    CHECK(oku_settings(7, &n) == NULL && n == 0);
    CHECK(strcmp(oku_settings(OKU_SERVICE_VAD, NULL)[2].name, "eos-timeout-ms") == 0);
    CHECK(oku_setting_value(OKU_SERVICE_VAD, "EOSTimeoutMs=1.5e3;x=y", "EOSTimeoutMs", &v) == OKU_OK && v == 1);
    CHECK(oku_setting_value(OKU_SERVICE_AGC, "LeastGain=0.1", "LeastGain", &v) == OKU_OK && v == (double)0.1f);
    CHECK(oku_setting_value(OKU_SERVICE_VAD, "", "LeastGain", &v) == OKU_ERR_ARGUMENT);
    CHECK(oku_setting_value(OKU_SERVICE_VAD, "a", "EOSTimeoutMs", &v) == OKU_ERR_PARAMS);
    CHECK(oku_setting_value(2, "", "EOSTimeoutMs", &v) == OKU_ERR_ARGUMENT);
    CHECK(oku_setting_value(OKU_SERVICE_VAD, "", NULL, &v) == OKU_ERR_NULL);
    CHECK(oku_params_check(OKU_SERVICE_VAD, NULL) == OKU_OK && oku_params_check(OKU_SERVICE_AGC, "") == OKU_OK);
    CHECK(oku_params_check(OKU_SERVICE_VAD, "Unknown=1;EOSTimeoutMs=600") == OKU_OK);
    CHECK(oku_params_check(OKU_SERVICE_AGC, "EOSTimeoutMs=soon") == OKU_OK); /* not a gain-control setting */
    CHECK(oku_params_check(3, "") == OKU_ERR_ARGUMENT);
    /* Entries: empty ones dropped, the first occurrence kept, keys in byte order. */
    CHECK(oku_params_entries(";;b=2;a=1;b=3;", on_entry, NULL) == OKU_OK && entries == 2);
    CHECK(strcmp(seen, "a=1;b=2;") == 0);
    CHECK(oku_params_entries("a", on_entry, NULL) == OKU_ERR_PARAMS && entries == 2);
    CHECK(oku_params_entries("", NULL, NULL) == OKU_ERR_NULL);
    /* Keys a service does not have: both services' keys together, a misspelling. */
    entries = 0;
    seen[0] = 0;
    n = 99;
    CHECK(oku_params_unknown(OKU_SERVICE_VAD, "LeastGain=0.1;EOSTimeoutMs=600;EosTimeoutMs=9", on_entry, NULL, &n) ==
          OKU_OK);
    CHECK(n == 2 && entries == 2 && strcmp(seen, "EosTimeoutMs=9;LeastGain=0.1;") == 0);
    CHECK(oku_params_unknown(OKU_SERVICE_AGC, "LeastGain=0.1;EOSTimeoutMs=600", NULL, NULL, &n) == OKU_OK && n == 1);
    CHECK(oku_params_unknown(OKU_SERVICE_AGC, NULL, NULL, NULL, &n) == OKU_OK && n == 0);
    CHECK(oku_params_unknown(OKU_SERVICE_AGC, "x=1=2", on_entry, NULL, &n) == OKU_ERR_PARAMS && entries == 2 && n == 0);
    CHECK(oku_params_unknown(2, "", NULL, NULL, NULL) == OKU_ERR_ARGUMENT);

    for (i = 0; i < sizeof chunks / sizeof chunks[0]; i++) {
        c = 7;
        CHECK(oku_chunk_samples(chunks[i].rate, chunks[i].ms, &c) == (chunks[i].samples ? OKU_OK : OKU_ERR_ARGUMENT));
        CHECK(c == (chunks[i].samples ? chunks[i].samples : 7));
    }
    CHECK(oku_chunk_samples(8000, 20, NULL) == OKU_ERR_NULL);

    /* Delay: the longest of the histogram's minimum window, the speech window
     * plus two frames and a third of the end-of-speech timeout plus two, in frames. */
    CHECK(oku_vad_delay(16000, NULL, &v) == OKU_OK && v == 800.0); /* max(40, 10 + 2, 21 / 3 + 2) */
    CHECK(oku_vad_delay(11025, "", &v) == OKU_OK && fabs(v - 40 * 220 / 11.025) < 1e-9);
    CHECK(oku_vad_delay(8000, "HistogramMinWindowSizeMs=100;SpeechWindowSizeMs=400", &v) == OKU_OK && v == 440.0);
    CHECK(oku_vad_delay(8000, "HistogramMinWindowSizeMs=100;EOSTimeoutMs=3000", &v) == OKU_OK && v == 1040.0);
    CHECK(oku_vad_delay(37800, NULL, &v) == OKU_ERR_RATE && oku_vad_delay(8000, "a", &v) == OKU_ERR_PARAMS);
    CHECK(oku_vad_delay(8000, NULL, NULL) == OKU_ERR_NULL);

    CHECK(oku_struct_size("oku_vad_result") == sizeof(oku_vad_result) && oku_struct_size("x") == 0);
    CHECK(oku_struct_size("oku_agc_decision") == sizeof(oku_agc_decision));
    CHECK(oku_struct_size("oku_setting") == sizeof(oku_setting));
    CHECK(oku_struct_size("oku_vad_segment") == sizeof(oku_vad_segment));

    if (failures)
        fprintf(stderr, "%d checks failed\n", failures);
    return failures != 0;
}
