#!/usr/bin/env python3
"""Designs the input path's resampling filters and writes src/resamplerfilters.inc.

Usage: scripts/design_resampler.py [output]   (default: src/resamplerfilters.inc)

Every filter is a linear-phase low-pass FIR (a Kaiser-windowed sinc) that runs
at the stage's upsampled rate F = up x (input rate) and feeds a decimation by
`down`. Its coefficients are 16-bit integers in Q15 with the upsampling gain
folded in; each polyphase branch sums to exactly 32768, so that a constant
passes through unchanged, and the filter stays symmetric.

What the filters must do, for an analysis rate R:
  - pass 0 to PASSBAND x R/2 with a ripple of at most MAX_RIPPLE_DB;
  - attenuate by at least MIN_ALIAS_DB everything that the decimation would
    fold onto 0 to R/2: a final stage's stopband starts at R/2 itself, so
    nothing folds into the analysed band at all, and the band from
    PASSBAND x R/2 to R/2 is a transition band that is only attenuated.
    (Letting content fold into the top of the band instead halves the
    filters, but moves the meter's peaks by up to 1.5 dB on speech with
    sibilants against a high-quality resampler.)
A 2:1 stage ahead of a final stage needs only to keep its own folding off
0 to R/2: it passes 0 to PRE_PASS x F and stops from PRE_STOP x F.

The search takes, for each filter, the fewest taps (and then the Kaiser
shape) whose quantised response meets the bounds. Plain rounding to Q15
leaves a noise floor near -65 dB for filters of a few hundred taps; the
rounding is therefore refined by a descent that moves symmetric pairs of
coefficients by one step while that lowers the largest stopband response,
before the branch sums are made exact again. The accumulator bound (sum of
|h| per branch under 2 x 32768) keeps the integer dot products inside 32
bits for every input. The bounds printed for each filter are the quantised
filter's, computed here on a grid of 40001 frequencies; tests/inputpath_test
measures them again through the library with sines.

Needs numpy only. The output is deterministic: rerunning rewrites the same file.
"""
import sys

import numpy as np

PASSBAND = 0.913      # of the analysis rate's Nyquist frequency
MAX_RIPPLE_DB = 0.02  # peak to peak, in the passband
MIN_ALIAS_DB = 72.0   # design target; the header and the tests promise 70
PRE_PASS = 7300 / 48000  # 2:1 stages ahead of a final one: the strictest case, 48 kHz to 24 kHz on the way to 16 kHz
PRE_STOP = 16000 / 48000
Q = 15                # coefficient scale: 2^Q is a gain of 1

# name, up, down, passband edge and stopband edge as fractions of the filter's rate F, meaning
FILTERS = [
    ("kHalfband", 1, 2, PRE_PASS, PRE_STOP,
     "2:1 ahead of a final stage (48000 Hz and above)"),
    ("kDown2", 1, 2, PASSBAND / 4, 1 / 4, "2:1 to the analysis rate (32000 and 44100 Hz, and after 2:1 stages)"),
    ("kUp2Down3", 2, 3, PASSBAND / 6, 1 / 6, "2:3 to the analysis rate (12000 and 24000 Hz, and after 2:1 stages)"),
]


def kaiser_lowpass(taps, cutoff, beta):
    """Windowed sinc; cutoff relative to the filter's rate."""
    n = np.arange(taps) - (taps - 1) / 2
    return 2 * cutoff * np.sinc(2 * cutoff * n) * np.kaiser(taps, beta)


def exact_sums(q, up):
    """Makes every polyphase branch sum to exactly 2^Q, keeping the filter
    symmetric: the branch that holds the centre tap corrects its sum there,
    any other by its largest symmetric pair (such a branch holds pairs only,
    so its sum and 2^Q are both even)."""
    centre = (len(q) - 1) // 2
    for phase in range(up):
        branch = np.arange(phase, len(q), up)
        error = 2**Q - int(q[branch].sum())
        if centre % up == phase:
            q[centre] += error
        else:
            assert error % 2 == 0
            first = branch[np.argmax(np.abs(q[branch]))]
            q[first] += error // 2
            q[len(q) - 1 - first] += error // 2
    return q


def response(q, up, f):
    n = np.arange(len(q)) - (len(q) - 1) / 2
    return np.cos(2 * np.pi * np.outer(f, n)) @ (q / (up * 2**Q))


def quantise(h, up, stop):
    """Q15 integers with gain `up`, rounding refined against the stopband."""
    h = h / h.sum() * up
    q = exact_sums(np.round(h * 2**Q).astype(np.int64), up)
    taps = len(q)
    f = np.linspace(stop, 0.5, 2500)
    n = np.arange(taps) - (taps - 1) / 2
    C = np.cos(2 * np.pi * np.outer(f, n)) / (up * 2**Q)
    r = C @ q
    centre = (taps - 1) // 2
    for _ in range(8):
        moved = False
        for k in range(centre):
            column = C[:, k] + C[:, taps - 1 - k]
            worst = np.abs(r).max()
            for step in (-1, 1):
                if np.abs(r + step * column).max() < worst:
                    r += step * column
                    q[k] += step
                    q[taps - 1 - k] += step
                    moved = True
                    break
        if not moved:
            break
    return exact_sums(q, up)


def bounds(q, up, passband, stop):
    """Passband ripple (dB, peak to peak) and the least stopband attenuation (dB)."""
    f = np.linspace(0, 0.5, 40001)
    a = np.abs(response(q, up, f))
    inside = f <= passband
    return 20 * np.log10(a[inside].max() / a[inside].min()), -20 * np.log10(a[f >= stop].max())


def design(up, down, passband, stop):
    cutoff = (passband + stop) / 2
    # Kaiser's estimate of the length, less a margin, is where the search starts.
    start = max(9, int(0.9 * (MIN_ALIAS_DB - 8) / (2.285 * 2 * np.pi * (stop - passband))) // 2 * 2 + 1)
    for taps in range(start, 4001, 2):
        for beta in np.arange(6.0, 8.01, 0.25):
            q = quantise(kaiser_lowpass(taps, cutoff, beta), up, stop)
            ripple, alias = bounds(q, up, passband, stop)
            worst = max(np.abs(q[p::up]).sum() for p in range(up))
            if ripple <= MAX_RIPPLE_DB and alias >= MIN_ALIAS_DB and worst < 2 * 2**Q:
                return q, beta, ripple, alias
    raise SystemExit(f"no filter for {up}/{down}")


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "src/resamplerfilters.inc"
    lines = [
        "// The input path's resampling filters: written by scripts/design_resampler.py, do not edit.",
        "// Q15 coefficients (32768 is a gain of 1), upsampling gain included; each polyphase",
        "// branch sums to exactly 32768. Bounds of the quantised filters, from the script's grid",
        "// (F is the rate a filter runs at, up x its input rate):",
    ]
    body = [f"// The passband of every conversion, as a fraction of the analysis rate's Nyquist frequency.",
            f"inline constexpr double kPassband = {PASSBAND};", ""]
    for name, up, down, passband, stop, meaning in FILTERS:
        q, beta, ripple, alias = design(up, down, passband, stop)
        lines.append(f"//   {name}: {meaning}: passes 0 to {passband:.4f} F, stops from {stop:.4f} F;")
        lines.append(f"//     {len(q)} taps, Kaiser beta {beta:g}, ripple {ripple:.4f} dB, stopband -{alias:.1f} dB")
        body.append(f"inline constexpr short {name}Taps[] = {{")
        for i in range(0, len(q), 12):
            body.append("    " + ", ".join(str(int(v)) for v in q[i:i + 12]) + ",")
        body.append("};")
        body.append(f"inline constexpr FirDesign {name} = {{{up}, {down}, {len(q)}, {name}Taps, "
                    f"{ripple:.4f}, {alias:.1f}}};")
    text = "\n".join(lines + [""] + body) + "\n"
    with open(out, "w") as f:
        f.write(text)
    print("\n".join(lines))


if __name__ == "__main__":
    main()
