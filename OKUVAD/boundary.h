// oku: helpers shared by the exported entry points (not installed).
#ifndef OKUVAD_BOUNDARY_H
#define OKUVAD_BOUNDARY_H

#include <climits>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

#include "audiodata.h"
#include "../src/measure.h"
#include "rates.h"

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

// What went wrong inside a call, by the type of the exception that ended it.
enum class Failure {
    Rate,      // RateError: an unsupported sampling rate
    Params,    // any other std::invalid_argument: a malformed or rejected setting
    Memory,    // std::bad_alloc or std::length_error
    Internal,  // any other std::exception
    Foreign    // anything else thrown
};

// The one exception guard of every C entry point: runs f and returns what it
// returns; an exception becomes onFailure(kind, message), whose result is
// returned instead. onFailure must not throw.
template <typename F, typename OnFailure>
int Guard(F&& f, OnFailure&& onFailure) noexcept
{
    const X87DoublePrecision precision;
    try {
        return f();
    } catch (const RateError& e) {
        return onFailure(Failure::Rate, e.what());
    } catch (const std::invalid_argument& e) {
        return onFailure(Failure::Params, e.what());
    } catch (const std::bad_alloc&) {
        return onFailure(Failure::Memory, "out of memory");
    } catch (const std::length_error&) {
        return onFailure(Failure::Memory, "out of memory");
    } catch (const std::exception& e) {
        return onFailure(Failure::Internal, e.what());
    } catch (...) {
        return onFailure(Failure::Foreign, "unknown failure");
    }
}

// The status of the seven plain functions: -2 for the standard exception
// family, -3 for anything else; the message is not kept.
template <typename F>
int GuardPlain(F&& f) noexcept
{
    return Guard(f, [](Failure kind, const char*) { return kind == Failure::Foreign ? -3 : -2; });
}

}  // namespace boundary
}  // namespace oku

#endif
