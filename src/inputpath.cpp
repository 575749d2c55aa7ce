#include "inputpath.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "measure.h"
#include "rates.h"

// The dot products and the conversions use SSE2 on x86-64 (and on 32-bit x86
// where the build has it), AVX2 where the processor has it, chosen at run time
// as MeasureRuns chooses. All of it is integer arithmetic (and one exact
// float scaling), so every way gives the same samples.
#if defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__))
#define OKU_INPUT_X86 1
#include <immintrin.h>
#endif
#if defined(__wasm_simd128__)
#define OKU_INPUT_WASM 1
#include <wasm_simd128.h>
#endif

namespace oku {

const InputRate* FindInputRate(double rate)
{
    for (const InputRate& r : kInputRates)
        if (rate == static_cast<double>(r.hz))
            return &r;
    return nullptr;
}

std::string InputRateMessage(double rate)
{
    std::string text = "Sampling rate: ";
    if (rate == rate && rate > -1e15 && rate < 1e15 && rate == static_cast<double>(static_cast<long long>(rate)))
        text += std::to_string(static_cast<long long>(rate)) + " Hz";
    else
        text += "that rate";
    text += " is not one of ";
    for (std::size_t i = 0; i < kInputRateCount; ++i)
        text += std::to_string(kInputRates[i].hz) + (i + 1 < kInputRateCount ? ", " : " Hz");
    return text;
}

namespace {

inline short FromQ15(std::int64_t acc)
{
    const std::int64_t y = (acc + 16384) >> 15;  // arithmetic shift: floor
    return static_cast<short>(y > 32767 ? 32767 : y < -32768 ? -32768 : y);
}

// Every way computes the exact dot product: the scalar way in 64 bits, the
// vector ways in 32-bit lanes (lane j takes taps 2j and 2j + 1 of every
// sixteen, lanes j and j + 4 added) whose sums the designs keep inside 32
// bits for any input, then in 64 bits.
void DotManyScalar(const short* h, const short* x, std::size_t taps, std::size_t stride, std::size_t count,
                   short* out, std::size_t outStride)
{
    for (std::size_t i = 0; i < count; ++i, x += stride, out += outStride) {
        std::int64_t acc = 0;
        for (std::size_t t = 0; t < taps; ++t)
            acc += static_cast<std::int32_t>(h[t]) * x[t];
        *out = FromQ15(acc);
    }
}

#ifdef OKU_INPUT_X86
// The sum of four 32-bit lanes, in 64 bits.
inline std::int64_t Sum4(__m128i v)
{
    const __m128i sign = _mm_srai_epi32(v, 31);
    __m128i s = _mm_add_epi64(_mm_unpacklo_epi32(v, sign), _mm_unpackhi_epi32(v, sign));
    s = _mm_add_epi64(s, _mm_unpackhi_epi64(s, s));
    std::int64_t r;
    _mm_storel_epi64(reinterpret_cast<__m128i*>(&r), s);
    return r;
}

void DotManySse2(const short* h, const short* x, std::size_t taps, std::size_t stride, std::size_t count,
                 short* out, std::size_t outStride)
{
    std::size_t i = 0;
    // Two outputs at a time share the loads of h.
    for (; i + 2 <= count; i += 2, x += 2 * stride, out += 2 * outStride) {
        const short* y = x + stride;
        __m128i a0 = _mm_setzero_si128(), a1 = _mm_setzero_si128(), b0 = _mm_setzero_si128(),
                b1 = _mm_setzero_si128();
        for (std::size_t t = 0; t < taps; t += 16) {
            const __m128i h0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h + t));
            const __m128i h1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h + t + 8));
            a0 = _mm_add_epi32(a0, _mm_madd_epi16(h0, _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + t))));
            a1 = _mm_add_epi32(a1, _mm_madd_epi16(h1, _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + t + 8))));
            b0 = _mm_add_epi32(b0, _mm_madd_epi16(h0, _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + t))));
            b1 = _mm_add_epi32(b1, _mm_madd_epi16(h1, _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + t + 8))));
        }
        out[0] = FromQ15(Sum4(_mm_add_epi32(a0, a1)));
        out[outStride] = FromQ15(Sum4(_mm_add_epi32(b0, b1)));
    }
    if (i < count) {
        __m128i a0 = _mm_setzero_si128(), a1 = _mm_setzero_si128();
        for (std::size_t t = 0; t < taps; t += 16) {
            a0 = _mm_add_epi32(a0, _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h + t)),
                                                  _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + t))));
            a1 = _mm_add_epi32(a1, _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h + t + 8)),
                                                  _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + t + 8))));
        }
        *out = FromQ15(Sum4(_mm_add_epi32(a0, a1)));
    }
}

__attribute__((target("avx2"))) inline __m256i load(const short* p)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// Lanes j and j + 4 of an AVX2 accumulator added, as Sum4 takes them.
__attribute__((target("avx2"))) inline __m128i Fold(__m256i acc)
{
    return _mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
}

// FromQ15 of the sums of four accumulators of four 32-bit lanes each, at once:
// the lanes widened to 64 bits and added, rounded half up from Q15, held to
// 16 bits (as 32-bit values).
__attribute__((target("avx2"))) inline __m128i FromQ15x4(__m128i a, __m128i b, __m128i c, __m128i d)
{
    const __m256i wa = _mm256_cvtepi32_epi64(a), wb = _mm256_cvtepi32_epi64(b);
    const __m256i wc = _mm256_cvtepi32_epi64(c), wd = _mm256_cvtepi32_epi64(d);
    // [a0+a1, b0+b1 | a2+a3, b2+b3] and the same for c and d, then the halves added: [a, b, c, d].
    const __m256i ab = _mm256_add_epi64(_mm256_unpacklo_epi64(wa, wb), _mm256_unpackhi_epi64(wa, wb));
    const __m256i cd = _mm256_add_epi64(_mm256_unpacklo_epi64(wc, wd), _mm256_unpackhi_epi64(wc, wd));
    __m256i sums = _mm256_add_epi64(_mm256_permute2x128_si256(ab, cd, 0x20), _mm256_permute2x128_si256(ab, cd, 0x31));
    // Rounded and held in 64 bits, after which each fits 32 bits and shifts there.
    const __m256i hi = _mm256_set1_epi64x(32767LL * 32768 + 32767), lo = _mm256_set1_epi64x(-32768LL * 32768);
    sums = _mm256_add_epi64(sums, _mm256_set1_epi64x(16384));
    sums = _mm256_blendv_epi8(sums, hi, _mm256_cmpgt_epi64(sums, hi));
    sums = _mm256_blendv_epi8(sums, lo, _mm256_cmpgt_epi64(lo, sums));
    const __m256i low = _mm256_permutevar8x32_epi32(sums, _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
    return _mm_srai_epi32(_mm256_castsi256_si128(low), 15);
}

__attribute__((target("avx2"))) void DotManyAvx2(const short* h, const short* x, std::size_t taps,
                                                   std::size_t stride, std::size_t count, short* out,
                                                   std::size_t outStride)
{
    std::size_t i = 0;
    // Four outputs at a time share the loads of h.
    for (; i + 4 <= count; i += 4, x += 4 * stride, out += 4 * outStride) {
        __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
        const short *x1 = x + stride, *x2 = x1 + stride, *x3 = x2 + stride;
        for (std::size_t t = 0; t < taps; t += 16) {
            const __m256i hv = load(h + t);
            a0 = _mm256_add_epi32(a0, _mm256_madd_epi16(hv, load(x + t)));
            a1 = _mm256_add_epi32(a1, _mm256_madd_epi16(hv, load(x1 + t)));
            a2 = _mm256_add_epi32(a2, _mm256_madd_epi16(hv, load(x2 + t)));
            a3 = _mm256_add_epi32(a3, _mm256_madd_epi16(hv, load(x3 + t)));
        }
        alignas(16) std::int32_t y[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(y), FromQ15x4(Fold(a0), Fold(a1), Fold(a2), Fold(a3)));
        out[0] = static_cast<short>(y[0]);
        out[outStride] = static_cast<short>(y[1]);
        out[2 * outStride] = static_cast<short>(y[2]);
        out[3 * outStride] = static_cast<short>(y[3]);
    }
    for (; i < count; ++i, x += stride, out += outStride) {
        __m256i acc = _mm256_setzero_si256();
        for (std::size_t t = 0; t < taps; t += 16)
            acc = _mm256_add_epi32(acc, _mm256_madd_epi16(load(h + t), load(x + t)));
        *out = FromQ15(Sum4(Fold(acc)));
    }
}
#endif

#ifdef OKU_INPUT_WASM
inline std::int64_t Sum4W(v128_t v)
{
    const v128_t s = wasm_i64x2_add(wasm_i64x2_extend_low_i32x4(v), wasm_i64x2_extend_high_i32x4(v));
    return wasm_i64x2_extract_lane(s, 0) + wasm_i64x2_extract_lane(s, 1);
}

void DotManyWasm(const short* h, const short* x, std::size_t taps, std::size_t stride, std::size_t count,
                 short* out, std::size_t outStride)
{
    for (std::size_t i = 0; i < count; ++i, x += stride, out += outStride) {
        v128_t a0 = wasm_i32x4_splat(0), a1 = a0;
        for (std::size_t t = 0; t < taps; t += 16) {
            a0 = wasm_i32x4_add(a0, wasm_i32x4_dot_i16x8(wasm_v128_load(h + t), wasm_v128_load(x + t)));
            a1 = wasm_i32x4_add(a1, wasm_i32x4_dot_i16x8(wasm_v128_load(h + t + 8), wasm_v128_load(x + t + 8)));
        }
        *out = FromQ15(Sum4W(wasm_i32x4_add(a0, a1)));
    }
}
#endif

DotManyFn ChooseDotMany()
{
#ifdef OKU_INPUT_WASM
    return DotManyWasm;
#endif
    switch (GetMeasureIsa()) {
    case MeasureIsa::Scalar:
        break;
    case MeasureIsa::Lanes2:
#ifdef OKU_INPUT_X86
        return DotManySse2;
#endif
        break;
    case MeasureIsa::Avx2:
#ifdef OKU_INPUT_X86
        return DotManyAvx2;
#endif
        break;
    }
    return DotManyScalar;
}

long long FloorDiv(long long a, long long b)
{
    const long long q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

long long CeilDiv(long long a, long long b) { return -FloorDiv(-a, b); }

// The factor that takes a sum of channels of float samples to 16-bit units.
float ChannelScale(int channels) { return RoundToFloat(32768.0 / channels); }

// A scaled float sum as a 16-bit sample: saturated, else rounded to the
// nearest integer, a tie to the even one.
short ScaledToSample(float v)
{
    if (v >= 32767.0f)
        return 32767;
    if (v <= -32768.0f)
        return -32768;
    return v == v ? static_cast<short>(std::lrint(v)) : 0;
}

// The mixing of one slice, by format and channel count.
template <typename Sample>
std::uint64_t MixScalar(const Sample* in, std::size_t frames, int channels, short* out);

template <>
std::uint64_t MixScalar<short>(const short* in, std::size_t frames, int channels, short* out)
{
    const std::size_t c = static_cast<std::size_t>(channels);
    for (std::size_t i = 0; i < frames; ++i) {
        long sum = 0;
        for (std::size_t k = 0; k < c; ++k)
            sum += in[i * c + k];
        out[i] = MeanOfChannels(sum, channels);
    }
    return 0;
}

template <>
std::uint64_t MixScalar<float>(const float* in, std::size_t frames, int channels, short* out)
{
    std::uint64_t nonFinite = 0;
    const std::size_t c = static_cast<std::size_t>(channels);
    const float scale = ChannelScale(channels);
    for (std::size_t i = 0; i < frames; ++i) {
        float sum = 0.0f;
        for (std::size_t k = 0; k < c; ++k) {
            const float x = in[i * c + k];
            if (x - x == 0.0f)
                sum = RoundToFloat(sum + x);
            else
                ++nonFinite;  // NaN or infinite: counts as 0
        }
        out[i] = ScaledToSample(RoundToFloat(sum * scale));
    }
    return nonFinite;
}

#ifdef OKU_INPUT_X86
// Eight sums of channels as 16-bit samples, the rest of MixScalar's rule:
// scaled (in single precision), held to the 16-bit range, rounded by the
// processor's conversion (ties to even, as lrint in the default mode). False,
// and nothing written, when a sum is NaN or infinite: a sample was, or the sum
// overflowed, and MixScalar sorts out which.
inline bool SumsToSamples(__m128 a, __m128 b, __m128 scale, short* out)
{
    const __m128 da = _mm_sub_ps(a, a), db = _mm_sub_ps(b, b);  // NaN exactly where not finite
    if (_mm_movemask_ps(_mm_cmpunord_ps(da, db)) != 0)
        return false;
    const __m128 hi = _mm_set1_ps(32767.0f), lo = _mm_set1_ps(-32768.0f);
    a = _mm_max_ps(_mm_min_ps(_mm_mul_ps(a, scale), hi), lo);
    b = _mm_max_ps(_mm_min_ps(_mm_mul_ps(b, scale), hi), lo);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packs_epi32(_mm_cvtps_epi32(a), _mm_cvtps_epi32(b)));
    return true;
}

// The mean of two 16-bit lanes' pairs, ties to even: (s + ((s >> 1) & 1)) >> 1
// for the sum s, in 32 bits.
inline __m128i MeanOfPairs(__m128i left, __m128i right)
{
    const __m128i one = _mm_set1_epi32(1);
    const auto mean = [&](__m128i s) {
        return _mm_srai_epi32(_mm_add_epi32(s, _mm_and_si128(_mm_srai_epi32(s, 1), one)), 1);
    };
    const __m128i lo = _mm_add_epi32(_mm_srai_epi32(_mm_unpacklo_epi16(left, left), 16),
                                     _mm_srai_epi32(_mm_unpacklo_epi16(right, right), 16));
    const __m128i hi = _mm_add_epi32(_mm_srai_epi32(_mm_unpackhi_epi16(left, left), 16),
                                     _mm_srai_epi32(_mm_unpackhi_epi16(right, right), 16));
    return _mm_packs_epi32(mean(lo), mean(hi));
}

// Eight interleaved stereo frames (16 values) split into left and right.
inline void Deinterleave(__m128i a, __m128i b, __m128i& left, __m128i& right)
{
    // Sign-extending the even 16-bit values and shifting down the odd ones.
    const __m128i la = _mm_srai_epi32(_mm_slli_epi32(a, 16), 16), lb = _mm_srai_epi32(_mm_slli_epi32(b, 16), 16);
    const __m128i ra = _mm_srai_epi32(a, 16), rb = _mm_srai_epi32(b, 16);
    left = _mm_packs_epi32(la, lb);
    right = _mm_packs_epi32(ra, rb);
}
#endif

}  // namespace

std::uint64_t MixToMono(const float* in, std::size_t frames, int channels, short* out)
{
    std::uint64_t nonFinite = 0;
    const std::size_t c = static_cast<std::size_t>(channels);
    std::size_t i = 0;
#ifdef OKU_INPUT_X86
    const __m128 scale = _mm_set1_ps(ChannelScale(channels));
    for (; i + 8 <= frames && (channels == 1 || channels == 2); i += 8) {
        __m128 a, b;
        if (channels == 1) {
            a = _mm_loadu_ps(in + i);
            b = _mm_loadu_ps(in + i + 4);
        } else {
            // Left and right of eight frames, then their sums (left + right,
            // as MixScalar adds them).
            const __m128 f0 = _mm_loadu_ps(in + 2 * i), f1 = _mm_loadu_ps(in + 2 * i + 4);
            const __m128 f2 = _mm_loadu_ps(in + 2 * i + 8), f3 = _mm_loadu_ps(in + 2 * i + 12);
            a = _mm_add_ps(_mm_shuffle_ps(f0, f1, _MM_SHUFFLE(2, 0, 2, 0)), _mm_shuffle_ps(f0, f1, _MM_SHUFFLE(3, 1, 3, 1)));
            b = _mm_add_ps(_mm_shuffle_ps(f2, f3, _MM_SHUFFLE(2, 0, 2, 0)), _mm_shuffle_ps(f2, f3, _MM_SHUFFLE(3, 1, 3, 1)));
        }
        if (!SumsToSamples(a, b, scale, out + i))
            nonFinite += MixScalar(in + i * c, 8, channels, out + i);
    }
#endif
#ifdef OKU_INPUT_WASM
    {
        const v128_t scale = wasm_f32x4_splat(ChannelScale(channels));
        const v128_t hi = wasm_f32x4_splat(32767.0f), lo = wasm_f32x4_splat(-32768.0f);
        for (; i + 8 <= frames && (channels == 1 || channels == 2); i += 8) {
            v128_t a, b;
            if (channels == 1) {
                a = wasm_v128_load(in + i);
                b = wasm_v128_load(in + i + 4);
            } else {
                const v128_t f0 = wasm_v128_load(in + 2 * i), f1 = wasm_v128_load(in + 2 * i + 4);
                const v128_t f2 = wasm_v128_load(in + 2 * i + 8), f3 = wasm_v128_load(in + 2 * i + 12);
                a = wasm_f32x4_add(wasm_i32x4_shuffle(f0, f1, 0, 2, 4, 6), wasm_i32x4_shuffle(f0, f1, 1, 3, 5, 7));
                b = wasm_f32x4_add(wasm_i32x4_shuffle(f2, f3, 0, 2, 4, 6), wasm_i32x4_shuffle(f2, f3, 1, 3, 5, 7));
            }
            const v128_t da = wasm_f32x4_sub(a, a), db = wasm_f32x4_sub(b, b);
            if (wasm_v128_any_true(wasm_v128_or(wasm_f32x4_ne(da, da), wasm_f32x4_ne(db, db)))) {
                nonFinite += MixScalar(in + i * c, 8, channels, out + i);
                continue;
            }
            a = wasm_f32x4_nearest(wasm_f32x4_max(wasm_f32x4_min(wasm_f32x4_mul(a, scale), hi), lo));
            b = wasm_f32x4_nearest(wasm_f32x4_max(wasm_f32x4_min(wasm_f32x4_mul(b, scale), hi), lo));
            wasm_v128_store(out + i, wasm_i16x8_narrow_i32x4(wasm_i32x4_trunc_sat_f32x4(a), wasm_i32x4_trunc_sat_f32x4(b)));
        }
    }
#endif
    return nonFinite + MixScalar(in + i * c, frames - i, channels, out + i);
}

std::uint64_t MixToMono(const short* in, std::size_t frames, int channels, short* out)
{
    std::size_t i = 0;
    if (channels == 1) {
        std::memcpy(out, in, frames * sizeof(short));
        return 0;
    }
#ifdef OKU_INPUT_X86
    if (channels == 2) {
        for (; i + 8 <= frames; i += 8) {
            __m128i left, right;
            Deinterleave(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 2 * i)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 2 * i + 8)), left, right);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), MeanOfPairs(left, right));
        }
    }
#endif
    const std::size_t c = static_cast<std::size_t>(channels);
    return MixScalar(in + i * c, frames - i, channels, out + i);
}

// ---- FirStage

FirStage::FirStage(const FirDesign& d)
    : _up(d.up), _down(d.down), _taps(d.taps), _centre((d.taps - 1) / 2), _dotMany(ChooseDotMany())
{
    assert(d.taps % 2 == 1 && d.up >= 1 && d.down >= 1);
    int longest = 0;
    for (int k = 0; k < _up; ++k)
        longest = std::max(longest, (_taps - k + _up - 1) / _up);
    _branchTaps = (longest + 15) / 16 * 16;
    _branches.assign(static_cast<std::size_t>(_up * _branchTaps), 0);
    for (int t = 0; t < _taps; ++t)
        _branches[static_cast<std::size_t>((t % _up) * _branchTaps + t / _up)] = d.h[t];
    _lookahead = (_centre + _up - 1) / _up;
    _history = _centre / _up + 1;
    // Held: the samples the next output needs (at most a branch and a
    // step), a slice, and room for a branch's padded reads past them.
    _buffer.assign(static_cast<std::size_t>(_history + 2 * _branchTaps + _down) + kSlice, 0);
    Reset();
}

void FirStage::Reset()
{
    std::fill(_buffer.begin(), _buffer.end(), 0);
    _first = -_history;
    _held = static_cast<std::size_t>(_history);
    _received = 0;
    _produced = 0;
}

std::size_t FirStage::MaxOutputs(std::size_t n) const
{
    return (n * static_cast<std::size_t>(_up) + static_cast<std::size_t>(_centre)) / static_cast<std::size_t>(_down) + 2;
}

std::size_t FirStage::Compute(long long limit, short* out)
{
    // Output j needs input up to floor((j down + centre) / up), so the
    // outputs j < ceil((end up - centre) / down) can be computed.
    const long long end = _first + static_cast<long long>(_held);
    const long long ready = std::min(limit, CeilDiv(end * _up - _centre, _down));
    if (ready <= _produced)
        return 0;
    const std::size_t count = static_cast<std::size_t>(ready - _produced);
    // Outputs j, j + up, j + 2 up, ... take the same branch, each down input
    // samples further on.
    for (int p = 0; p < _up && static_cast<std::size_t>(p) < count; ++p) {
        const long long j = _produced + p;
        const long long t0 = j * _down - _centre;   // tap 0's instant, at the upsampled rate
        const long long k0 = ((-t0) % _up + _up) % _up;  // the first tap that meets an input sample
        const long long x0 = (t0 + k0) / _up;       // first input sample, of branch k0
        assert(x0 >= _first);
        const std::size_t n = (count - static_cast<std::size_t>(p) + static_cast<std::size_t>(_up) - 1) /
                              static_cast<std::size_t>(_up);
        _dotMany(&_branches[static_cast<std::size_t>(k0 * _branchTaps)], &_buffer[static_cast<std::size_t>(x0 - _first)],
                static_cast<std::size_t>(_branchTaps), static_cast<std::size_t>(_down), n, out + p,
                static_cast<std::size_t>(_up));
    }
    _produced = ready;
    return count;
}

void FirStage::Compact()
{
    // The next output's first input sample, and nothing before it, is kept.
    const long long keep = std::min(CeilDiv(_produced * _down - _centre, _up), _first + static_cast<long long>(_held));
    if (keep <= _first)
        return;
    const std::size_t drop = static_cast<std::size_t>(keep - _first);
    std::memmove(_buffer.data(), _buffer.data() + drop, (_held - drop) * sizeof(short));
    _held -= drop;
    _first = keep;
}

std::size_t FirStage::Push(const short* in, std::size_t n, short* out)
{
    std::size_t written = 0;
    while (n > 0) {
        const std::size_t room = _buffer.size() - _held - static_cast<std::size_t>(_branchTaps);
        const std::size_t k = std::min(n, room);
        std::memcpy(&_buffer[_held], in, k * sizeof(short));
        _held += k;
        _received += static_cast<long long>(k);
        in += k;
        n -= k;
        written += Compute(LLONG_MAX, out + written);
        Compact();
    }
    return written;
}

std::size_t FirStage::Finish(short* out)
{
    const long long owed = FloorDiv(_received * _up, _down);
    std::size_t written = Compute(owed, out);
    while (_produced < owed) {
        Compact();
        const std::size_t room = _buffer.size() - _held - static_cast<std::size_t>(_branchTaps);
        std::fill(_buffer.begin() + static_cast<std::ptrdiff_t>(_held),
                  _buffer.begin() + static_cast<std::ptrdiff_t>(_held + room), 0);
        _held += room;
        written += Compute(owed, out + written);
    }
    Reset();
    return written;
}

// ---- InputPath

InputPath::InputPath(double rate, int channels) : _rate(FindInputRate(rate)), _channels(channels)
{
    if (!_rate)
        throw RateError(InputRateMessage(rate));
    if (channels < 1 || channels > kMaxChannels)
        throw std::invalid_argument("channels must lie in 1 to " + std::to_string(kMaxChannels));
    for (const FirDesign* d : _rate->stages)
        if (d)
            _stages.emplace_back(*d);
    _mono.resize(kSlice);
    std::size_t n = kSlice;
    for (std::size_t s = 0; s + 1 < _stages.size(); ++s) {
        n = _stages[s].MaxOutputs(n);
        _between[s].resize(n);
    }
    GetMeasureIsa();  // the process-wide choice of lanes, made here rather than in a processing call
}

std::size_t InputPath::MaxOutput(std::size_t n) const
{
    const std::size_t frames = n / static_cast<std::size_t>(_channels);
    if (_stages.empty())
        return frames;
    // However a call is cut into slices, a stage gives at most MaxOutputs of
    // all it takes in the call; the last stage's room for one slice more
    // covers Resample's resizing ahead of its outputs.
    std::size_t k = frames;
    for (const FirStage& s : _stages)
        k = s.MaxOutputs(k);
    return k + _stages.back().MaxOutputs(0);
}

double InputPath::LatencyMs() const
{
    double ms = 0.0, rate = _rate->hz;
    for (std::size_t s = 0; s < _stages.size(); ++s) {
        ms += _stages[s].Lookahead() / rate * 1000.0;
        rate = rate * _rate->stages[s]->up / _rate->stages[s]->down;
    }
    return ms;
}

long long InputPath::ToInputFrames(long long analysisSamples) const
{
    const long long num = analysisSamples * _rate->hz, den = _rate->analysisHz;
    return (num + den / 2) / den;
}

void InputPath::Resample(const short* in, std::size_t n, AudioData& out)
{
    const std::size_t last = _stages.size() - 1;
    for (std::size_t s = 0; s < last; ++s) {
        n = _stages[s].Push(in, n, _between[s].data());
        in = _between[s].data();
    }
    const std::size_t at = out.size();
    out.resize(at + _stages[last].MaxOutputs(n));
    out.resize(at + _stages[last].Push(in, n, out.data() + at));
}

template <typename Sample>
void InputPath::ConvertAny(const Sample* in, std::size_t n, AudioData& out)
{
    out.clear();
    const std::size_t c = static_cast<std::size_t>(_channels);
    std::size_t frames = n / c;
    while (frames > 0) {
        const std::size_t k = std::min(frames, kSlice);
        _nonFinite += MixToMono(in, k, _channels, _mono.data());
        if (_stages.empty())
            out.insert(out.end(), _mono.begin(), _mono.begin() + static_cast<std::ptrdiff_t>(k));
        else
            Resample(_mono.data(), k, out);
        in += k * c;
        frames -= k;
    }
}

void InputPath::Convert(const short* in, std::size_t n, AudioData& out)
{
    if (Passthrough()) {
        out.assign(in, in + n);
        return;
    }
    ConvertAny(in, n, out);
}

void InputPath::Convert(const float* in, std::size_t n, AudioData& out) { ConvertAny(in, n, out); }

void InputPath::Finish(AudioData& out)
{
    out.clear();
    // Stage by stage: what a stage still owes goes into the next, which then
    // gives what it owes in turn.
    std::size_t carried = 0;
    const short* carry = nullptr;
    for (std::size_t s = 0; s < _stages.size(); ++s) {
        const std::size_t room = _stages[s].MaxOutputs(carried) + _stages[s].MaxOutputs(0);
        std::vector<short>& to = s + 1 == _stages.size() ? out : _between[s];
        if (to.size() < room)
            to.resize(room);
        std::size_t made = carried > 0 ? _stages[s].Push(carry, carried, to.data()) : 0;
        made += _stages[s].Finish(to.data() + made);
        carry = to.data();
        carried = made;
        if (s + 1 == _stages.size())
            out.resize(made);
    }
}

void InputPath::Reset()
{
    for (FirStage& s : _stages)
        s.Reset();
}

}  // namespace oku
