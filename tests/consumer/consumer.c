/* A host that only knows the installed header and library. */
#include <oku.h>
#include <okuvad.h>
#include <stdio.h>

int main(void)
{
    short chunk[320] = {0};
    int result = -1, info = -1;
    double value = -1.0;
    long volume = -1;
    if (OKUVAD_Init(16000.0) != 0 || OKUAGC_Init(16000) != 0)
        return 1;
    if (OKUVAD_GetResult(1, chunk, sizeof chunk, &result, &value, &info) != 0)
        return 1;
    if (OKUAGC_ComputeGain(chunk, sizeof chunk, 0, 100, &volume) != 0 || volume != 3) /* 0.0316 of 100 */
        return 1;
    OKUVAD_Deinit();
    OKUAGC_Deinit();
    {
        oku_vad* vad = NULL;
        oku_vad_result r;
        if (oku_vad_create(8000.0, "", &vad) != OKU_OK || oku_vad_process(vad, chunk, 160) != OKU_OK ||
            oku_vad_next(vad, &r) != OKU_OK || r.type != OKU_VAD_VOLUME || oku_vad_destroy(vad) != OKU_OK)
            return 1;
    }
    puts("consumer: ok");
    return 0;
}
