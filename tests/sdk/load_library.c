/*
 * A Windows host as a desktop client loads the library: LoadLibrary by name
 * from the program's folder, the seven plain functions and oku_version found
 * by their plain names with GetProcAddress, and a short run through them.
 * Prints the version; exit status 0 when everything was found and worked.
 */
#include <stdio.h>
#include <string.h>
#include <windows.h>

typedef int (*init_fn)(const double);
typedef int (*get_result_fn)(const int, const void*, const unsigned int, int*, double*, int*);
typedef int (*void_fn)(void);
typedef int (*agc_init_fn)(const int);
typedef int (*compute_gain_fn)(const void*, const unsigned int, const long, const long, long*);
typedef int (*get_info_fn)(int*, double*, float*, float*);
typedef const char* (*version_fn)(void);

int main(void)
{
    static const char* const names[] = {"OKUVAD_Init",        "OKUVAD_GetResult", "OKUVAD_Deinit", "OKUAGC_Init",
                                        "OKUAGC_ComputeGain", "OKUAGC_GetInfo",   "OKUAGC_Deinit", "oku_version"};
    FARPROC f[8];
    HMODULE dll = LoadLibraryA("OKUVAD.dll");
    short silence[320];
    int result = 0, info = 0, i;
    double value = 0.0;
    long volume = 0;
    init_fn init;
    get_result_fn get_result;
    void_fn deinit, agc_deinit;
    agc_init_fn agc_init;
    compute_gain_fn compute_gain;
    version_fn version;
    if (!dll) {
        printf("LoadLibrary(OKUVAD.dll) failed: error %lu\n", (unsigned long)GetLastError());
        return 1;
    }
    for (i = 0; i < 8; ++i) {
        f[i] = GetProcAddress(dll, names[i]);
        if (!f[i]) {
            printf("GetProcAddress(%s) failed\n", names[i]);
            return 1;
        }
    }
    /* Function pointers from GetProcAddress's FARPROC, copied rather than cast. */
    memcpy(&init, &f[0], sizeof init);
    memcpy(&get_result, &f[1], sizeof get_result);
    memcpy(&deinit, &f[2], sizeof deinit);
    memcpy(&agc_init, &f[3], sizeof agc_init);
    memcpy(&compute_gain, &f[4], sizeof compute_gain);
    memcpy(&agc_deinit, &f[6], sizeof agc_deinit);
    memcpy(&version, &f[7], sizeof version);
    memset(silence, 0, sizeof silence);
    if (init(16000.0) != 0 || get_result(1, silence, sizeof silence, &result, &value, &info) != 0 || deinit() != 0 ||
        agc_init(16000) != 0 || compute_gain(silence, sizeof silence, 30000, 65535, &volume) != 0 ||
        agc_deinit() != 0) {
        printf("a call failed\n");
        return 1;
    }
    printf("loaded OKUVAD %s\n", version());
    FreeLibrary(dll);
    return 0;
}
