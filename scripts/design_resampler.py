#!/usr/bin/env python3
"""Designs the input path's resampling filters and writes src/resamplerfilters.inc.

Usage: scripts/design_resampler.py [output]   (default: src/resamplerfilters.inc)

Every filter is a linear-phase low-pass FIR (a Kaiser-windowed sinc) that runs
at the stage's upsampled rate F = up x (input rate) and feeds a decimation by
`down`. Its coefficients are 16-bit integers in Q15 with the upsampling gain
folded in, and each polyphase branch sums to exactly 32768, so that a
constant passes through unchanged. The search takes, for each filter, the
fewest taps (and then the Kaiser shape) whose quantised response meets:

  - passband: 0 to PASSBAND of the final analysis rate's Nyquist frequency,
    ripple at most MAX_RIPPLE_DB;
  - aliasing: every frequency that the decimation folds into that passband
    attenuated by at least MIN_ALIAS_DB.

The band from PASSBAND to the Nyquist frequency is a transition band: it is
attenuated partly and takes the folded edge of the spectrum. The accumulator
bound (sum of |h| per branch under 2) keeps the integer dot products inside
32 bits for every input. The bounds printed for each filter are the quantised
filter's, computed here on a grid of 40001 frequencies; tests/resampler_test
measures them again through the library with sines.

Needs numpy only. The output is deterministic: rerunning rewrites the same file.
"""
import sys

import numpy as np

PASSBAND = 0.8        # of the analysis rate's Nyquist frequency
MAX_RIPPLE_DB = 0.02  # peak to peak, in the passband
MIN_ALIAS_DB = 74.0   # design target; the header promises 70
Q = 15                # coefficient scale: 2^15 is a gain of 1

# name, up, down, passband edge as a fraction of the filter's rate F, meaning
FILTERS = [
    ("kHalfband", 1, 2, 0.1,
     "2:1 ahead of a final stage (64000, 88200, 96000, 176400, 192000 Hz): keeps 0 to F/10, "
     "which covers the final passband at every such rate"),
    ("kDown2", 1, 2, PASSBAND / 4, "2:1 to the analysis rate (32000, 44100 Hz, and after the halfband stages)"),
    ("kDown3", 1, 3, PASSBAND / 6, "3:1 to the analysis rate (48000 Hz, and after the halfband stages)"),
    ("kUp2Down3", 2, 3, PASSBAND / 6, "2:3 to the analysis rate (12000 and 24000 Hz)"),
]


def kaiser_lowpass(taps, cutoff, beta):
    """Windowed sinc; cutoff relative to the filter's rate."""
    n = np.arange(taps) - (taps - 1) / 2
    return 2 * cutoff * np.sinc(2 * cutoff * n) * np.kaiser(taps, beta)


def quantise(h, up):
    """Q15 integers with gain `up`; every polyphase branch sums to exactly 2^Q
    and the filter stays symmetric (linear phase): the branch that holds the
    centre tap corrects its sum there, any other by its largest symmetric pair
    (such a branch holds pairs only, so its sum and 2^Q are both even)."""
    q = np.round(h / h.sum() * up * 2**Q).astype(np.int64)
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


def bounds(q, up, down, passband):
    """Passband ripple (dB, peak to peak) and the least attenuation (dB) of
    what the decimation folds into the passband, for the quantised filter."""
    h = q / (up * 2**Q)
    f = np.linspace(0, 0.5, 40001)
    n = np.arange(len(h)) - (len(h) - 1) / 2
    response = np.abs(np.cos(2 * np.pi * np.outer(f, n)) @ h)
    inside = f <= passband
    ripple = 20 * np.log10(response[inside].max() / response[inside].min())
    folded = np.zeros_like(f, dtype=bool)
    for k in range(1, down + 1):
        folded |= np.abs(f - k / down) <= passband
    return ripple, -20 * np.log10(response[folded].max())


def design(up, down, passband):
    for taps in range(9, 999, 2):
        for beta in np.arange(4.0, 10.001, 0.25):
            q = quantise(kaiser_lowpass(taps, 0.5 / down, beta), up)
            ripple, alias = bounds(q, up, down, passband)
            worst = max(np.abs(q[p::up]).sum() for p in range(up))
            if ripple <= MAX_RIPPLE_DB and alias >= MIN_ALIAS_DB and worst < 2 * 2**Q:
                return q, beta, ripple, alias
    raise SystemExit(f"no filter for {up}/{down}")


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "src/resamplerfilters.inc"
    lines = [
        "// The input path's resampling filters: written by scripts/design_resampler.py, do not edit.",
        f"// Q15 coefficients (32768 is a gain of 1), upsampling gain included; each polyphase",
        f"// branch sums to exactly 32768. Passband: 0 to {PASSBAND:g} of the analysis rate's Nyquist",
        f"// frequency. Bounds of the quantised filters, from the script's grid:",
    ]
    body = []
    for name, up, down, passband, meaning in FILTERS:
        q, beta, ripple, alias = design(up, down, passband)
        lines.append(f"//   {name}: {meaning};")
        lines.append(f"//     {len(q)} taps, Kaiser beta {beta:g}, ripple {ripple:.4f} dB, aliasing -{alias:.1f} dB")
        body.append(f"inline constexpr short {name}Taps[] = {{")
        for i in range(0, len(q), 12):
            body.append("    " + ", ".join(str(int(v)) for v in q[i:i + 12]) + ",")
        body.append("};")
        body.append(f"inline constexpr FirDesign {name} = {{{up}, {down}, {len(q)}, {name}Taps, "
                    f"{ripple:.4f}, {alias:.1f}}};")
    text = "\n".join(lines + [""] + body) + "\n"
    with open(out, "w") as f:
        f.write(text)
    print(text.split("\n\n")[0])


if __name__ == "__main__":
    main()
