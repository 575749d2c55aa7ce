#include "measure.h"

#include <atomic>
#include <cstdint>
#include <cstring>

// OKU_MEASURE_GENERIC builds only the portable lanes, as on other processors
// (to test them on x86).
// On 32-bit x86 only where SSE2 does the double arithmetic: the lanes must
// compute exactly as the scalar code does.
#if (defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__) && defined(__SSE2_MATH__))) && \
    !defined(OKU_MEASURE_GENERIC)
#define OKU_MEASURE_X86 1
#include <immintrin.h>
#endif

namespace oku {

namespace {

// Samples per lane interleaved at a time.
constexpr std::size_t kBlock = 128;

// What an idle lane reads: it filters zeros from a zero state into nothing.
const short kZeros[kBlock] = {};

void MeasureScalar(FrameRun* runs, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i) {
        const FrameRun& r = runs[i];
        for (std::size_t f = 0; f < r.frames; ++f) {
            const short* frame = r.samples + f * r.frameLength;
            r.sums[f] = r.filter->Measure(frame, frame + r.frameLength, r.peak);
        }
    }
}

// The larger of peak and the largest absolute value of p[0..n).
inline int RaisePeak(int peak, const short* p, std::size_t n)
{
    std::size_t i = 0;
#ifdef OKU_MEASURE_X86
    // Eight samples at a time: their largest and smallest, so that -32768
    // needs no 16-bit absolute value.
    __m128i most = _mm_setzero_si128(), least = _mm_setzero_si128();
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
        most = _mm_max_epi16(most, v);
        least = _mm_min_epi16(least, v);
    }
    alignas(16) short m[8], s[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(m), most);
    _mm_store_si128(reinterpret_cast<__m128i*>(s), least);
    for (int j = 0; j < 8; ++j) {
        peak = m[j] > peak ? m[j] : peak;
        peak = -s[j] > peak ? -s[j] : peak;
    }
#endif
    for (; i < n; ++i) {
        const int a = p[i] < 0 ? -p[i] : p[i];
        peak = a > peak ? a : peak;
    }
    return peak;
}

// Writes sample i of lane l, for i < k, to block[i x L + l].
template <int L>
inline void Interleave(const short* const (&in)[L], std::size_t k, std::int32_t* block)
{
    std::size_t i0 = 0;
#ifdef OKU_MEASURE_X86
    if constexpr (L % 4 == 0) {
        // Four lanes by eight samples at a time: two rounds of unpacking turn
        // four rows of samples into rows of four lanes, which a last unpack
        // with a shift widens to 32 bits.
        for (; i0 + 8 <= k; i0 += 8) {
            for (int l = 0; l < L; l += 4) {
                const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in[l] + i0));
                const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in[l + 1] + i0));
                const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in[l + 2] + i0));
                const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in[l + 3] + i0));
                const __m128i abLow = _mm_unpacklo_epi16(a, b), abHigh = _mm_unpackhi_epi16(a, b);
                const __m128i cdLow = _mm_unpacklo_epi16(c, d), cdHigh = _mm_unpackhi_epi16(c, d);
                const __m128i pairs[4] = {_mm_unpacklo_epi32(abLow, cdLow), _mm_unpackhi_epi32(abLow, cdLow),
                                          _mm_unpacklo_epi32(abHigh, cdHigh), _mm_unpackhi_epi32(abHigh, cdHigh)};
                std::int32_t* to = block + i0 * L + static_cast<std::size_t>(l);
                for (int r = 0; r < 4; ++r) {
                    const __m128i first = _mm_srai_epi32(_mm_unpacklo_epi16(pairs[r], pairs[r]), 16);
                    const __m128i second = _mm_srai_epi32(_mm_unpackhi_epi16(pairs[r], pairs[r]), 16);
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + (2 * r) * L), first);
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + (2 * r + 1) * L), second);
                }
            }
        }
    }
#endif
    for (int l = 0; l < L; ++l) {
        const short* p = in[l];
        for (std::size_t i = i0; i < k; ++i)
            block[i * L + static_cast<std::size_t>(l)] = p[i];
    }
}

// Which run and frame each of L lanes is on, and each lane's filter: what the
// lane loops of every instruction set share. A lane takes the next run that
// has frames; with none left it goes idle, reading zeros with a zero filter.
template <int L>
struct Lanes {
    alignas(64) double z1[L], z2[L], b1[L], b2[L], a2[L], a3[L], sum[L];
    const short* in[L];
    std::size_t left[L];  // samples left in the lane's current frame; idle: SIZE_MAX
    std::size_t run[L], frame[L];
    int peak[L];
    FrameRun* runs;
    std::size_t n, next = 0;
    int active = 0;

    Lanes(FrameRun* r, std::size_t count) : runs(r), n(count)
    {
        for (int l = 0; l < L; ++l)
            Start(l);
    }

    void Start(int l)
    {
        while (next < n && runs[next].frames == 0)
            ++next;
        sum[l] = 0.0;
        if (next == n) {
            in[l] = kZeros;
            left[l] = SIZE_MAX;
            z1[l] = z2[l] = b1[l] = b2[l] = a2[l] = a3[l] = 0.0;
            return;
        }
        const FrameRun& r = runs[next];
        const HighpassFilter::Coefficients c = r.filter->GetCoefficients();
        b1[l] = c.b1;
        b2[l] = c.b2;
        a2[l] = c.a2;
        a3[l] = c.a3;
        z1[l] = r.filter->GetZ1();
        z2[l] = r.filter->GetZ2();
        in[l] = r.samples;
        left[l] = r.frameLength;
        run[l] = next++;
        frame[l] = 0;
        peak[l] = r.peak ? *r.peak : 0;
        ++active;
    }

    // The samples every lane can take before the nearest frame end (at most
    // kBlock), interleaved into block, with the lanes' peaks raised.
    std::size_t Prepare(std::int32_t* block)
    {
        std::size_t k = kBlock;
        for (int l = 0; l < L; ++l)
            k = left[l] < k ? left[l] : k;
        Interleave<L>(in, k, block);
        for (int l = 0; l < L; ++l)
            peak[l] = RaisePeak(peak[l], in[l], k);
        return k;
    }

    // After k samples: lanes at a frame end hand over their sum, set a
    // negligible state to 0 as HighpassFilter does after every frame, and move
    // on to their next frame or run.
    void Advance(std::size_t k)
    {
        for (int l = 0; l < L; ++l) {
            if (left[l] == SIZE_MAX)
                continue;
            in[l] += k;
            left[l] -= k;
            if (left[l] != 0)
                continue;
            const FrameRun& r = runs[run[l]];
            r.sums[frame[l]] = sum[l];
            sum[l] = 0.0;
            if (HighpassFilter::IsNegligible(z1[l], z2[l]))
                z1[l] = z2[l] = 0.0;
            if (++frame[l] < r.frames) {
                left[l] = r.frameLength;
                continue;
            }
            r.filter->SetState(z1[l], z2[l]);
            if (r.peak)
                *r.peak = peak[l];
            --active;
            Start(l);
        }
    }
};

#ifdef OKU_MEASURE_X86

namespace lanes2 {
// SSE2, which every x86-64 processor has: two lanes per vector.
struct Ops {
    static constexpr int W = 2, MaxGroups = 2;
    typedef __m128d V;
    static V Load(const std::int32_t* p) { return _mm_cvtepi32_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))); }
    static V Min(V x, V y) { return _mm_min_pd(x, y); }
    static V Max(V x, V y) { return _mm_max_pd(x, y); }
    // floor: truncated, less one where that lies above y (|y| < 2^31 here).
    static V Floor(V y)
    {
        const V t = _mm_cvtepi32_pd(_mm_cvttpd_epi32(y));
        return _mm_sub_pd(t, _mm_and_pd(_mm_cmpgt_pd(t, y), _mm_set1_pd(1.0)));
    }
};
#include "measurelanes.inc"
}  // namespace lanes2

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace avx2 {
struct Ops {
    static constexpr int W = 4, MaxGroups = 2;
    typedef __m256d V;
    static V Load(const std::int32_t* p) { return _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
    static V Min(V x, V y) { return _mm256_min_pd(x, y); }
    static V Max(V x, V y) { return _mm256_max_pd(x, y); }
    static V Floor(V y) { return _mm256_round_pd(y, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
};
#include "measurelanes.inc"
}  // namespace avx2
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#else  // not x86: the compiler's generic vectors, two lanes

namespace lanes2 {
struct Ops {
    static constexpr int W = 2, MaxGroups = 2;
    typedef double V __attribute__((vector_size(2 * sizeof(double))));
    typedef std::int64_t I __attribute__((vector_size(2 * sizeof(double))));
    typedef std::int32_t I32 __attribute__((vector_size(2 * sizeof(std::int32_t))));
    static V Load(const std::int32_t* p) { return V{static_cast<double>(p[0]), static_cast<double>(p[1])}; }
    static V Min(V x, V y) { return x < y ? x : y; }
    static V Max(V x, V y) { return x > y ? x : y; }
    // floor: truncated toward zero (|y| < 2^31 here), less one where that
    // lies above y. Exact in any floating-point unit, unlike rounding by
    // adding and taking away 1.5 x 2^52, which needs double registers.
    static V Floor(V y)
    {
        const V t = __builtin_convertvector(__builtin_convertvector(y, I32), V);
        return t - (V)((I)(V{} + 1.0) & (I)(t > y));
    }
};
#include "measurelanes.inc"
}  // namespace lanes2

#endif

bool Supported(MeasureIsa isa)
{
    switch (isa) {
    case MeasureIsa::Scalar:
    case MeasureIsa::Lanes2:
        return true;
    case MeasureIsa::Avx2:
#ifdef OKU_MEASURE_X86
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2");
#else
        return false;
#endif
    }
    return false;
}

MeasureIsa Widest()
{
    return Supported(MeasureIsa::Avx2) ? MeasureIsa::Avx2 : MeasureIsa::Lanes2;
}

std::atomic<MeasureIsa>& Chosen()
{
    static std::atomic<MeasureIsa> isa{Widest()};
    return isa;
}

}  // namespace

MeasureIsa GetMeasureIsa() { return Chosen().load(std::memory_order_relaxed); }

bool SetMeasureIsa(MeasureIsa isa)
{
    if (!Supported(isa))
        return false;
    Chosen().store(isa, std::memory_order_relaxed);
    return true;
}

void MeasureRuns(FrameRun* runs, std::size_t n)
{
    // A single run has no partner to share the lanes with.
    const MeasureIsa isa = n < 2 ? MeasureIsa::Scalar : GetMeasureIsa();
    switch (isa) {
    case MeasureIsa::Scalar:
        MeasureScalar(runs, n);
        return;
    case MeasureIsa::Lanes2:
        lanes2::Measure(runs, n);
        return;
    case MeasureIsa::Avx2:
#ifdef OKU_MEASURE_X86
        avx2::Measure(runs, n);
        return;
#endif
        break;
    }
    MeasureScalar(runs, n);
}

std::uint64_t NextRepeatStamp()
{
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace oku
