// oku: the fixed second-order high-pass filter run over every frame by both services.
#ifndef OKU_HIGHPASSFILTER_H
#define OKU_HIGHPASSFILTER_H

#include "rates.h"

namespace oku {

// Transposed direct form II of (b1 + b2 z^-1 + b3 z^-2) / (1 + a2 z^-1 + a3 z^-2),
// about -3 dB at 125 Hz and -20 dB at 50 Hz at each of the four supported rates
// (coefficients in rates.h).
// Filters 16-bit samples in place, rounding with floor(x + 0.5) and clipping to
// the 16-bit range; the state runs on unclipped, so consecutive calls filter one
// continuous signal. The three dependent operations per sample are written in
// a fixed order and the library is built without floating-point contraction,
// so the output is the same bit for bit on every machine.
//
// After a run of zeros the state decays towards 0 and would pass through the
// subnormal doubles, where every operation costs many times more. At the end
// of each call a state that can no longer change any output is set to exactly
// 0 instead (see IsNegligible): the outputs and every later state are those of
// the plain recursion, bit for bit. From then on a call of nothing but zeros
// costs only the look at its samples.
class HighpassFilter {
public:
    // The recursion's coefficients; the numerator's third equals its first.
    struct Coefficients {
        double b1, b2, a2, a3;
    };

    // The bound below which both state values are negligible: 2^-100.
    //
    // Why a state below it can be set to 0 without changing anything. With
    // zero input the recursion is z1' = z2 - a2 z1, z2' = -a3 z1, a stable
    // linear map A. At every supported rate the powers of A have an infinity
    // norm of at most 28 (the largest, 27.1, at 22050 Hz) and sum to at most
    // 1700; each step's rounding adds at most 5 x 2^-53 of the state plus
    // 2^-1074. So a state with both magnitudes under 2^-100 stays under
    // 28 x 2^-100 (1 + 10^-12) + 2^-1063 < 2^-95 for as long as the input is 0,
    // and every output meanwhile is z1 rounded: 0, as from a zero state. At the
    // first nonzero sample x (|x| >= 1) the output is b1 x + z1, where b1 x
    // rounds to a double v with |v| > 0.5, whose neighbours lie at least 2^-54
    // away: adding |z1| < 2^-55 rounds back to v, the zero state's output.
    // Likewise b2 x + z2 (|b2 x| > 1.6) rounds to b2 x, and z2' depends on x
    // and the output only. From that sample on the state and every output
    // equal the zero state's. The bound lies 2^40 under the 2^-55 needed.
    // The library tests the state once per frame (at most 441 samples), and
    // in 441 steps A shrinks a state by a factor of at most 2.6 x 10^-6, so a
    // state that was not set to 0 keeps a magnitude above 2^-119 through the
    // next frame, far from the subnormal range (under 2^-1022).
    static constexpr double kNegligibleState = 0x1p-100;

    static bool IsNegligible(double z1, double z2)
    {
        return (z1 < 0 ? -z1 : z1) < kNegligibleState && (z2 < 0 ? -z2 : z2) < kNegligibleState;
    }

    // Throws RateError ("Sampling rate") unless samplingRate is exactly one of
    // the rates of kSupportedRates.
    explicit HighpassFilter(double samplingRate) : _z1(0.0), _z2(0.0)
    {
        const SupportedRate* r = FindRate(samplingRate);
        if (!r)
            throw RateError();
        Load(r->b1, r->b2, r->a2, r->a3);
    }

    void Reset()
    {
        _z1 = 0.0;
        _z2 = 0.0;
    }

    // Replaces every sample of [begin, end) by its filtered value, front to back.
    template <typename Iterator>
    void Filter(Iterator begin, Iterator end)
    {
        Run<true>(begin, end, nullptr);
    }

    // Runs [begin, end) through the filter as Filter does, but leaves the
    // samples as they are: returns the sum of the squares of the samples
    // Filter would have written and raises *inputPeak (when given) to the
    // largest absolute input sample. For callers that only measure the
    // filtered signal and still need the raw one. Each square is below 2^31
    // and the sums the library forms stay below 2^53, so the sum is an exact
    // integer whatever the order of the additions.
    template <typename Iterator>
    double Measure(Iterator begin, Iterator end, int* inputPeak)
    {
        return Run<false>(begin, end, inputPeak);
    }

    // floor(x + 0.5) of x clipped to [-32768, 32767]. Within that range the sum
    // y = x + 0.5 is a double whose truncation is exact, so floor(y) is the
    // truncation minus one when y is negative and not whole. Written without
    // branches on the sign (a branch there is taken for half the samples and
    // mispredicted for many) and without a library call; the result is the
    // same as floor's.
    // (On the x87 unit the caller holds X87DoublePrecision, so that y is the
    // double sum; its conversions and comparison are exact in any precision.)
    static short RoundToSample(double x)
    {
        x = x > 32767.0 ? 32767.0 : x;
        x = x < -32768.0 ? -32768.0 : x;
        const double y = x + 0.5;
        const int t = static_cast<int>(y);
        return static_cast<short>(t - (static_cast<double>(t) > y));
    }

    Coefficients GetCoefficients() const { return {_b1, _b2, _a2, _a3}; }

    // The state, for tests that check exactness and for code that runs the
    // recursion of many filters side by side (measure.h) and hands it back.
    double GetZ1() const { return _z1; }
    double GetZ2() const { return _z2; }
    void SetState(double z1, double z2)
    {
        _z1 = z1;
        _z2 = z2;
    }

private:
    template <bool write, typename Iterator>
    double Run(Iterator begin, Iterator end, int* inputPeak)
    {
        // Zeros into a zero state give zero outputs and leave the state at
        // zero (of either sign, which no later output can tell apart): a frame
        // of digital silence once the state has settled needs no arithmetic.
        if (_z1 == 0.0 && _z2 == 0.0 && AllZero(begin, end))
            return 0.0;
        // The state lives in registers for the loop; the recursion keeps its
        // order: out = b1 x + z1, z1 = (b2 x + z2) - a2 out, z2 = b3 x - a3 out.
        // The square sum and the peak are off the recursion's critical path.
        double z1 = _z1, z2 = _z2, sum = 0.0;
        const double b1 = _b1, b2 = _b2, b3 = _b3, a2 = _a2, a3 = _a3;
        int peak = inputPeak ? *inputPeak : 0;
        for (Iterator it = begin; it != end; ++it) {
            const int raw = *it;
            const double sampleIn = raw;
            const double sampleOut = b1 * sampleIn + z1;
            z1 = (b2 * sampleIn + z2) - a2 * sampleOut;
            z2 = b3 * sampleIn - a3 * sampleOut;
            const short y = RoundToSample(sampleOut);
            if constexpr (write)
                *it = y;
            sum += static_cast<double>(y) * y;
            const int magnitude = raw < 0 ? -raw : raw;
            peak = magnitude > peak ? magnitude : peak;
        }
        if (IsNegligible(z1, z2)) {
            z1 = 0.0;
            z2 = 0.0;
        }
        _z1 = z1;
        _z2 = z2;
        if (inputPeak)
            *inputPeak = peak;
        return sum;
    }

    // Whether every sample of [begin, end) is 0 (without early exit, so that
    // the compiler can vectorize it).
    template <typename Iterator>
    static bool AllZero(Iterator begin, Iterator end)
    {
        int any = 0;
        for (Iterator it = begin; it != end; ++it)
            any |= *it;
        return any == 0;
    }

    void Load(double b1, double b2, double a2, double a3)
    {
        _b1 = b1;
        _b2 = b2;
        _b3 = b1;
        _a2 = a2;
        _a3 = a3;
    }

    double _z1;
    double _z2;
    double _b1;
    double _b2;
    double _b3;
    double _a2;
    double _a3;
};

}  // namespace oku

#endif
