/* The handle interface used from C: the header must be valid C. */
#include <stdio.h>
#include <string.h>

#include "oku.h"

static int lines;
static void on_line(void* user, const char* line)
{
    (void)user;
    lines += line[0] != '\0';
}

int main(void)
{
    oku_vad* vad = NULL;
    oku_agc* agc = NULL;
    oku_vad_result r;
    oku_agc_decision d;
    int16_t chunk[320 * 6];
    double gain = 0.5;
    int failures = 0;

    memset(chunk, 0, sizeof chunk);
    failures += oku_vad_create(16000.0, "", &vad) != OKU_OK;
    failures += oku_vad_process(vad, chunk, 320) != OKU_OK;
    failures += oku_vad_next(vad, &r) != OKU_OK || r.type != OKU_VAD_VOLUME || r.time_ms != 20.0;
    failures += oku_vad_next(vad, &r) != OKU_OK || r.type != OKU_VAD_NONE;
    failures += oku_vad_destroy(vad) != OKU_OK;

    failures += oku_agc_create(16000, NULL, &agc) != OKU_OK;
    failures += oku_agc_set_log(agc, on_line, NULL) != OKU_OK;
    failures += oku_agc_process(agc, chunk, 320 * 6, gain, &gain) != OKU_OK || !(gain > 0.5);
    failures += oku_agc_info(agc, &d) != OKU_OK || d.control != OKU_AGC_PAUSE_TOO_LOW || !d.updated;
    failures += lines != 1;
    failures += oku_agc_destroy(agc) != OKU_OK;

    failures += oku_vad_create(37800.0, "", &vad) != OKU_ERR_RATE || strncmp(oku_last_error(), "Sampling rate", 13) != 0;
    if (failures)
        fprintf(stderr, "%d checks failed\n", failures);
    return failures != 0;
}
