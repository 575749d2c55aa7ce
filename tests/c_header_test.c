/* Compiled as C: the public header must be valid C, and the entry points must
 * link and answer the documented status codes for calls without an object. */
#include <stdio.h>

#include "okuvad.h"

int main(void)
{
    int result = 7, info = 7, type = 7;
    double value = 7.0, time_ms = 7.0;
    float pause = 7.0f, speech = 7.0f;
    long gain = 7;
    int failures = 0;

    failures += OKUVAD_Deinit() != 0;
    failures += OKUVAD_GetResult(1, "", 0, &result, &value, &info) != -1;
    failures += result != 7 || value != 7.0 || info != 7;
    failures += OKUAGC_Deinit() != 0;
    failures += OKUAGC_ComputeGain("", 0, 1, 2, &gain) != -1;
    failures += OKUAGC_GetInfo(&time_ms, &pause, &speech, &type) != -1;
    failures += gain != 7 || type != 7;
    failures += OKUAGC_Init(0) != -4;
    failures += OKUVAD_Init(16000.0) != 0;
    failures += OKUVAD_GetResult(1, "\0\0", 2, &result, &value, &info) != 0 || result != OKUVAD_RESULT_NONE;
    failures += OKUVAD_Deinit() != 0;
    if (failures)
        fprintf(stderr, "%d checks failed\n", failures);
    return failures != 0;
}
