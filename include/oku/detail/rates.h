// oku: the supported sampling rates and the high-pass filter's coefficients for each.
#ifndef OKU_RATES_H
#define OKU_RATES_H

#include <cstddef>
#include <stdexcept>
#include <string>

namespace oku {

// An unsupported sampling rate. Its message is "Sampling rate"; it is an
// invalid argument like every other rejected input, and its own type lets a
// caller tell a bad rate from a bad setting without comparing messages.
struct RateError : std::invalid_argument {
    RateError() : std::invalid_argument("Sampling rate") {}
    // A message that starts with "Sampling rate" and says more.
    explicit RateError(const std::string& message) : std::invalid_argument(message) {}
};

// One supported rate with its filter: (b1 + b2 z^-1 + b1 z^-2) / (1 + a2 z^-1 + a3 z^-2),
// coefficients of four decimals (each the double nearest to the number shown).
struct SupportedRate {
    int hz;
    double b1, b2, a2, a3;
};

// Every rate the library accepts, ascending. Nothing else is supported: not
// 32000, 44100 or 48000, and no interpolation between rows.
inline constexpr SupportedRate kSupportedRates[] = {
    {8000, 0.8399, -1.6796, -1.8787, 0.8905},
    {11025, 0.8539, -1.7077, -1.9129, 0.9193},
    {16000, 0.8655, -1.7309, -1.9406, 0.9436},
    {22050, 0.8725, -1.7450, -1.9572, 0.9588},
};
inline constexpr std::size_t kSupportedRateCount = sizeof kSupportedRates / sizeof kSupportedRates[0];

// The row of a rate given exactly (16000.0 matches, 16000.5 does not); null otherwise.
inline const SupportedRate* FindRate(double rate)
{
    for (const SupportedRate& r : kSupportedRates)
        if (rate == static_cast<double>(r.hz))
            return &r;
    return nullptr;
}

// The supported rate nearest to `rate`; halfway between two, the higher (it
// keeps more of the signal's bandwidth). 0 for anything but a positive finite rate.
inline int NearestRate(double rate)
{
    if (!(rate > 0.0) || rate > 1e300)
        return 0;
    int best = kSupportedRates[0].hz;
    for (const SupportedRate& r : kSupportedRates) {
        const double d = rate - r.hz, bestD = rate - best;
        if ((d < 0 ? -d : d) <= (bestD < 0 ? -bestD : bestD))
            best = r.hz;
    }
    return best;
}

}  // namespace oku

#endif
