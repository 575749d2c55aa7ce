// Reading a fuzz input as a sequence of small decisions.
#ifndef OKU_FUZZ_INPUT_H
#define OKU_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// A broken promise of the interface under test: say which, and stop.
#define Check(ok)                                                                         \
    do {                                                                                  \
        if (!(ok)) {                                                                      \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #ok); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, std::size_t size) : _data(data), _size(size) {}

    bool Empty() const { return _pos >= _size; }

    uint8_t U8() { return Empty() ? 0 : _data[_pos++]; }
    uint16_t U16() { return static_cast<uint16_t>(U8() | (U8() << 8)); }
    uint32_t U32() { return static_cast<uint32_t>(U16()) | (static_cast<uint32_t>(U16()) << 16); }
    uint64_t U64() { return static_cast<uint64_t>(U32()) | (static_cast<uint64_t>(U32()) << 32); }
    double F64()
    {
        const uint64_t bits = U64();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
    // One of the given values, or (for the last choice) whatever the next bytes say.
    template <typename T, std::size_t N>
    T Pick(const T (&values)[N])
    {
        return values[U8() % N];
    }

private:
    const uint8_t* _data;
    std::size_t _size;
    std::size_t _pos = 0;
};

// A buffer of 16-bit audio for chunks: a few tones and noise, louder and
// quieter, so that speech starts and ends and every assessment can occur.
inline const uint8_t* AudioBytes(std::size_t* size)
{
    static uint8_t buffer[1 << 20];
    static bool made = false;
    if (!made) {
        uint32_t seed = 1;
        for (std::size_t i = 0; i < sizeof buffer / 2; ++i) {
            seed = seed * 1664525u + 1013904223u;
            const int block = static_cast<int>(i / 4000) % 7;  // 250 ms at 16 kHz
            const int amplitude = block == 0 ? 0 : block == 1 ? 40 : block == 2 ? 30000 : block == 3 ? 3000 : 300;
            const int noise = static_cast<int>(seed >> 16) % (2 * amplitude + 1) - amplitude;
            const int tone = (i % 16 < 8 ? 1 : -1) * amplitude / 2;
            int s = block >= 5 ? noise + tone : (block == 2 ? tone * 2 : noise);
            s = s > 32767 ? 32767 : (s < -32768 ? -32768 : s);
            buffer[2 * i] = static_cast<uint8_t>(s & 0xFF);
            buffer[2 * i + 1] = static_cast<uint8_t>((s >> 8) & 0xFF);
        }
        made = true;
    }
    *size = sizeof buffer;
    return buffer;
}

#endif
