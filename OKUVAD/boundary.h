// oku: helpers shared by the exported entry points (not installed).
#ifndef OKUVAD_BOUNDARY_H
#define OKUVAD_BOUNDARY_H

#include <climits>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "../src/audiodata.h"

namespace oku {
namespace boundary {

// Copies a chunk of raw PCM bytes into audioData as (size / 2) + 1 samples:
// the last sample is 0 for an even size and takes the odd byte as its low byte
// for an odd size. Samples are taken in the host's byte order. The vector is
// reused from call to call, so a stream of chunks allocates nothing here.
// Throws std::length_error when the sample count would not fit a signed 32-bit count.
inline const AudioData& MakeAudioData(AudioData& audioData, const void* data, unsigned int size)
{
    const unsigned long long samples = static_cast<unsigned long long>(size / 2) + 1;
    if (samples > static_cast<unsigned long long>(INT_MAX))
        throw std::length_error("chunk too large");
    audioData.resize(static_cast<std::size_t>(samples));
    audioData.back() = 0;
    if (size > 0)
        std::memcpy(audioData.data(), data, size);
    return audioData;
}

// Gives back the memory of a reused chunk vector that an unusually large chunk grew.
inline void TrimAudioData(AudioData& audioData)
{
    if (audioData.capacity() > (1u << 16))
        AudioData().swap(audioData);
}

// Runs f and turns any exception into the boundary's status: -2 for the
// standard exception family, -3 for anything else.
template <typename F>
int Guard(F&& f) noexcept
{
    try {
        return f();
    } catch (const std::exception&) {
        return -2;
    } catch (...) {
        return -3;
    }
}

}  // namespace boundary
}  // namespace oku

#endif
