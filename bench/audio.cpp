#include "audio.h"

#include <sndfile.h>
#include <soxr.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#ifndef OKU_DATA_DIR
#error "OKU_DATA_DIR must name the folder of speech16k.wav"
#endif

namespace okubench {

namespace {

std::vector<float> Load()
{
    const std::string path = std::string(OKU_DATA_DIR) + "/speech16k.wav";
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f)
        throw std::runtime_error("cannot read " + path);
    std::vector<float> x(static_cast<std::size_t>(info.frames));
    sf_readf_float(f, x.data(), info.frames);
    sf_close(f);
    return x;
}

}  // namespace

const std::vector<short>& Speech(int rate, double seconds)
{
    static std::map<std::pair<int, long>, std::vector<short>> cache;
    const auto key = std::make_pair(rate, static_cast<long>(seconds));
    auto it = cache.find(key);
    if (it != cache.end())
        return it->second;

    static const std::vector<float> original = Load();
    std::vector<float> resampled(original.size() * static_cast<std::size_t>(rate) / 16000 + 16);
    std::size_t done = 0;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    soxr_error_t error = soxr_oneshot(16000, rate, 1, original.data(), original.size(), nullptr, resampled.data(),
                                      resampled.size(), &done, &io, nullptr, nullptr);
    if (error)
        throw std::runtime_error(error);
    resampled.resize(done);

    std::vector<short> out(static_cast<std::size_t>(seconds * rate));
    unsigned seed = 12345;
    for (std::size_t i = 0; i < out.size(); ++i) {
        seed = seed * 1103515245u + 12345u;
        const float noise = (static_cast<float>((seed >> 16) & 0x7FFF) / 32768.0f - 0.5f) * 0.004f;
        const float v = (resampled[i % resampled.size()] + noise) * 32768.0f;
        out[i] = static_cast<short>(std::lround(std::fmax(-32768.0f, std::fmin(32767.0f, v))));
    }
    return cache.emplace(key, std::move(out)).first->second;
}

}  // namespace okubench
