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
class HighpassFilter {
public:
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
    static short RoundToSample(double x)
    {
        x = x > 32767.0 ? 32767.0 : x;
        x = x < -32768.0 ? -32768.0 : x;
        const double y = x + 0.5;
        const int t = static_cast<int>(y);
        return static_cast<short>(t - (static_cast<double>(t) > y));
    }

    // State, exposed read-only for tests that check exactness over long runs.
    double GetZ1() const { return _z1; }
    double GetZ2() const { return _z2; }

private:
    template <bool write, typename Iterator>
    double Run(Iterator begin, Iterator end, int* inputPeak)
    {
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
        _z1 = z1;
        _z2 = z2;
        if (inputPeak)
            *inputPeak = peak;
        return sum;
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
