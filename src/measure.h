// oku: measuring the frames of many streams side by side.
#ifndef OKU_MEASURE_H
#define OKU_MEASURE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "highpassfilter.h"

namespace oku {

// Whole frames of one stream waiting to be measured by the stream's filter.
struct FrameRun {
    HighpassFilter* filter;
    const short* samples;     // frames x frameLength samples
    std::size_t frames;
    std::size_t frameLength;  // at least 1
    double* sums;             // receives one sum per frame
    int* peak;                // when not null, raised to the largest absolute sample
};

// Measures every run exactly as calling run.filter->Measure(frame, frame +
// frameLength, run.peak) on each of its frames in turn would: the same sums,
// peaks and filter states, bit for bit. One filter's recursion is a chain of
// dependent operations that keeps the processor waiting; the recursions of
// different runs are independent, so they are run side by side in the lanes
// of the processor's vector registers, each lane doing the scalar code's
// operations in the scalar code's order (no contraction, no reordering), and
// an idle lane taking the next run. Every filter must belong to one run only.
void MeasureRuns(FrameRun* runs, std::size_t n);

// How MeasureRuns runs the recursions: one run after the other (Scalar), in
// two lanes per vector with the baseline instruction set of the build
// (Lanes2: SSE2 on x86-64, NEON on 64-bit ARM, whatever the compiler makes
// of it elsewhere), or in four lanes with AVX2 (x86 only). By default the
// widest the processor offers, chosen once at run time; the build never
// assumes more than the baseline.
enum class MeasureIsa { Scalar, Lanes2, Avx2 };

// The way MeasureRuns runs now.
MeasureIsa GetMeasureIsa();
// Makes MeasureRuns run a given way, for tests and benchmarks that compare
// them; false (and nothing changes) when the processor cannot. Process-wide.
bool SetMeasureIsa(MeasureIsa isa);

// 32-bit x86 without SSE2 arithmetic computes on the x87 unit, whose registers
// hold a 64-bit mantissa; the library's results are defined by double
// precision arithmetic, as SSE2 and every other processor do it. While an
// object of this class lives, the x87 unit rounds every result to 53 bits (the
// caller's setting comes back after), so that sums, filters and roundings give
// the double results. Elsewhere it does nothing. The classes' processing
// functions and every exported function hold one.
class X87DoublePrecision {
#if defined(__i386__) && !defined(__SSE2_MATH__)
public:
    X87DoublePrecision()
    {
        __asm__ __volatile__("fnstcw %0" : "=m"(_saved));
        const unsigned short precision53 = static_cast<unsigned short>((_saved & ~0x300u) | 0x200u);
        __asm__ __volatile__("fldcw %0" : : "m"(precision53));
    }
    ~X87DoublePrecision() { __asm__ __volatile__("fldcw %0" : : "m"(_saved)); }
    X87DoublePrecision(const X87DoublePrecision&) = delete;
    X87DoublePrecision& operator=(const X87DoublePrecision&) = delete;

private:
    unsigned short _saved;
#else
public:
    X87DoublePrecision() {}
    ~X87DoublePrecision() {}  // (user-provided: a guard held for its lifetime is not an unused variable)
#endif
};

// x rounded to float, as a cast is meant to round it: gcc's x87 code may keep
// a cast value in an 80-bit register, so there it goes through memory.
inline float RoundToFloat(double x)
{
#if defined(__i386__) && !defined(__SSE_MATH__)
    volatile float f = static_cast<float>(x);
    return f;
#else
    return static_cast<float>(x);
#endif
}

// A number no earlier call of this function returned (thread-safe).
std::uint64_t NextRepeatStamp();

// The index of the first entry of p[0..n) that repeats an earlier one, or n
// when all differ. Linear and allocation-free: each object carries a mark,
// reached through RepeatMark(T*), that this call sets to a stamp of its own;
// an object found already holding the stamp has appeared before. Objects
// must not be checked by two threads at once (they must not be used by two
// threads at once anyway).
template <typename T>
std::size_t FindRepeat(T* const* p, std::size_t n)
{
    const std::uint64_t stamp = NextRepeatStamp();
    for (std::size_t i = 0; i < n; ++i) {
        std::uint64_t& mark = RepeatMark(p[i]);
        if (mark == stamp)
            return i;
        mark = stamp;
    }
    return n;
}

// The many-calls measure streams in batches of this many, with their
// bookkeeping on the stack.
constexpr std::size_t kManyBatch = 64;

// Makes room, before anything changes, for n more samples in `buffer` and
// for a sum per whole frame of frameLength samples it will then hold. Throws
// std::bad_alloc when the memory cannot be had.
inline void ReserveChunk(std::vector<short>& buffer, std::vector<double>& sums, std::size_t n,
                         std::size_t frameLength)
{
    if (n > buffer.max_size() - buffer.size())
        throw std::bad_alloc();
    buffer.reserve(buffer.size() + n);
    sums.resize((buffer.size() + n) / frameLength);
}

// Gives back the memory of a vector that an unusually long chunk grew past
// `limit` elements (keeping what it holds), so that it does not stay with the
// object for good.
template <typename T>
void ShrinkIfOver(std::vector<T>& v, std::size_t limit)
{
    if (v.capacity() > limit)
        std::vector<T>(v).swap(v);
}

// The checks of a call for many objects (ProcessMany, ComputeGainMany): for
// n above 0 the arrays must be there, every object too, samples[i] wherever
// counts[i] is above 0, and no object may appear twice. Throws
// std::invalid_argument naming `what` otherwise.
template <typename T>
void CheckMany(const char* what, T* const* objects, const short* const* samples, const std::size_t* counts,
               std::size_t n)
{
    if (n == 0)
        return;
    const std::string name(what);
    if (!objects || !samples || !counts)
        throw std::invalid_argument(name + ": null array");
    for (std::size_t i = 0; i < n; ++i) {
        if (!objects[i])
            throw std::invalid_argument(name + ": null object");
        if (!samples[i] && counts[i] > 0)
            throw std::invalid_argument(name + ": null samples");
    }
    if (FindRepeat(objects, n) != n)
        throw std::invalid_argument(name + ": an object appears twice");
}

}  // namespace oku

#endif
