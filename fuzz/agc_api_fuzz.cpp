// Drives the exported gain-control functions with a sequence of operations
// taken from the input: any rate, volume and bound (negative, zero, LONG_MIN,
// LONG_MAX, a volume above its bound), chunk sizes, null pointers.
#include <climits>
#include <cstdlib>

#include "okuvad.h"
#include "fuzz_input.h"


extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzInput in(data, size);
    std::size_t audioSize;
    const uint8_t* audio = AudioBytes(&audioSize);
    const int rates[] = {8000, 11025, 16000, 22050, 0, -1, INT_MIN, INT_MAX, 44100, 16001};
    const long values[] = {0, 1, -1, 100, 65535, 32768, 40000, LONG_MIN, LONG_MAX, LONG_MAX / 2, 1L << 24, 16777217};
    for (int ops = 0; !in.Empty() && ops < 64; ++ops) {
        switch (in.U8() % 6) {
        case 0: {
            const uint8_t how = in.U8();
            const int rate = how < 200 ? rates[how % 10] : static_cast<int>(in.U32());
            const int status = OKUAGC_Init(rate);
            Check(status == 0 || status == -2 || (status == -4 && rate <= 0));
            break;
        }
        case 1:
        case 2: {
            std::size_t bytes = in.U8() < 200 ? in.U16() % 8192 : in.U32() % 200000;
            const std::size_t offset = in.U16() * 2u % (audioSize / 2);
            if (offset + bytes > audioSize)
                bytes = audioSize - offset;
            const long bound = in.U8() < 128 ? values[in.U8() % 12] : static_cast<long>(in.U64());
            const long volume = in.U8() < 128 ? values[in.U8() % 12] : static_cast<long>(in.U64());
            long out = -7;
            const int status = OKUAGC_ComputeGain(audio + offset, static_cast<unsigned int>(bytes), volume, bound, &out);
            Check(status == 0 || status == -1);
            if (status == 0)
                Check(out >= 0 && out <= bound);
            else
                Check(out == -7);
            break;
        }
        case 3: {
            const uint8_t mask = in.U8();
            double t = -1;
            float p = -1, s = -1;
            int type = -1;
            const int status = OKUAGC_GetInfo(mask & 1 ? nullptr : &t, mask & 2 ? nullptr : &p,
                                              mask & 4 ? nullptr : &s, mask & 8 ? nullptr : &type);
            Check(status == 0 || status == -1);
            if (status == 0)
                Check(type >= 0 && type <= 5 && t >= 0.0 && p >= 0.0f && s >= 0.0f);
            else
                Check(type == -1 && t == -1);
            break;
        }
        case 4: {  // nulls and sizes that cannot be held
            long out = -7;
            const uint8_t mask = in.U8();
            const int status = OKUAGC_ComputeGain(mask & 1 ? nullptr : audio, mask & 2 ? 0xFFFFFFFFu : 64, 10, 100,
                                                  mask & 4 ? nullptr : &out);
            Check(status == -1 || status == -2 || (status == 0 && !(mask & 7)));
            break;
        }
        default:
            Check(OKUAGC_Deinit() == 0);
            break;
        }
    }
    OKUAGC_Deinit();
    return 0;
}
