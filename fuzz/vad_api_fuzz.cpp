// Drives the exported analyzer functions with a sequence of operations taken
// from the input: any rate, any chunk size, null pointers, re-initialisation
// and de-initialisation at any point. Every call must return a documented
// status and write only documented values.
#include <cmath>
#include <cstdlib>
#include <limits>

#include "okuvad.h"
#include "fuzz_input.h"


extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzInput in(data, size);
    std::size_t audioSize;
    const uint8_t* audio = AudioBytes(&audioSize);
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0, 0.0, -8000.0, 16000.5, 44100.0, 1e308,
                            std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity()};
    double rate = 16000.0;
    for (int ops = 0; !in.Empty() && ops < 64; ++ops) {
        int result = 123, info = 456;
        double value = 789.0;
        switch (in.U8() % 8) {
        case 0: {
            const uint8_t how = in.U8();
            const double r = how < 200 ? rates[how % 12] : in.F64();
            const int status = OKUVAD_Init(r);
            Check(status == 0 || status == -2);
            if (status == 0)
                rate = r;
            break;
        }
        case 1:
        case 2: {  // a chunk of audio: small, odd, several frames, or far more than the rings hold
            const uint32_t pick = in.U8();
            std::size_t bytes = pick < 128 ? in.U16() % 2048 : pick < 250 ? in.U32() % 300000 : 0;
            const std::size_t offset = in.U16() * 2u % (audioSize / 2);
            if (offset + bytes > audioSize)
                bytes = audioSize - offset;
            const int status =
                OKUVAD_GetResult(1, audio + offset, static_cast<unsigned int>(bytes), &result, &value, &info);
            Check(status == 0 || status == -1);
            if (status == 0)
                Check(result >= 0 && result <= 3);
            break;
        }
        case 3: {  // drain
            for (int k = 0; k < 1000; ++k) {
                info = 456;  // results 1 and 2 must leave it alone
                const int status = OKUVAD_GetResult(0, nullptr, 0, &result, &value, &info);
                Check(status == 0 || status == -1);
                if (status != 0 || result == 0)
                    break;
                Check(result >= 1 && result <= 3);
                if (result == 3)
                    Check(value >= 0.0 && value <= 32768.0 && info >= 0 && info <= 3);
                else
                    Check(value >= 0.0 && std::isfinite(value) && info == 456);
            }
            break;
        }
        case 4: {  // null pointers in any position; a null buffer behind a size
            const uint8_t mask = in.U8();
            const int status = OKUVAD_GetResult(mask & 8 ? 0 : 1, mask & 16 ? nullptr : audio, mask & 32 ? 640 : 0,
                                                mask & 1 ? nullptr : &result, mask & 2 ? nullptr : &value,
                                                mask & 4 ? nullptr : &info);
            Check(status == 0 || status == -1);
            if (mask & 7)
                Check(status == -1 && result == 123 && value == 789.0 && info == 456);
            break;
        }
        case 5: {  // sizes whose sample count cannot be held: rejected before the buffer is read
            const int status = OKUVAD_GetResult(1, audio, 0xFFFFFFFEu + (in.U8() & 1), &result, &value, &info);
            Check(status == -2 || status == -1);
            break;
        }
        case 6:
            Check(OKUVAD_Deinit() == 0);
            break;
        default:
            break;
        }
        (void)rate;
    }
    OKUVAD_Deinit();
    return 0;
}
