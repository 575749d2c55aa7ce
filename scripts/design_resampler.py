#!/usr/bin/env python3
"""Designs the input path's resampling filters and writes src/resamplerfilters.inc.

Usage: scripts/design_resampler.py [output [name ...]]
  output: default src/resamplerfilters.inc; names: design only these filters (a trial)

Every filter is a linear-phase low-pass FIR (a Kaiser-windowed sinc) that runs
at the stage's upsampled rate F = up x (input rate) and feeds a decimation by
`down`. Its coefficients are 16-bit integers in Q15 with the upsampling gain
folded in; each polyphase branch sums to exactly 32768, so that a constant
passes through unchanged, and the filter stays symmetric.

What the conversion to an analysis rate R must do:
  - pass 0 to PASSBAND x R/2 with a ripple of at most MAX_RIPPLE_DB
    (PASSBAND is where high-quality resamplers end their passband too, so
    that the meter's peaks agree with theirs);
  - attenuate by at least MIN_ALIAS_DB everything that would fold onto
    0 to R/2: a final stage's stopband starts at R/2 itself, and the band
    from PASSBAND x R/2 to R/2 is a transition band, attenuated but never
    folded into.
Every conversion ends in one of two final stages, 2:1 (kDown2) or 2:3
(kUp2Down3); 3:1 is done as 2:1 then 2:3, which costs half as much as one
3:1 filter of the same quality. The 2:1 stages ahead of a final one
(kHalfband) keep their own folding off 0 to R/2: they pass all of 0 to R/2
(so that the final stage alone shapes the transition band) and stop from
F/2 - R/2, both taken at their strictest, 48 kHz to 24 kHz.

For each filter the search takes the fewest taps (and then the Kaiser shape)
whose quantised response meets the bounds. Plain rounding to Q15 leaves a
noise floor in the stopband near -70 dB for filters of a few hundred taps;
the rounding is therefore refined, moving symmetric pairs of coefficients by
one step while that lowers the largest stopband response, before the branch
sums are made exact again. The dot products add 32-bit lanes, then 64-bit
sums; lane_bound keeps every lane inside 32 bits for every input.
The bounds printed for each filter are the quantised filter's, on a grid of
20001 frequencies; tests/inputpath_test.cpp measures them again through the
library with sines.

Needs numpy only. The output is deterministic: rerunning rewrites the same file.
"""
import sys

import numpy as np

PASSBAND = 0.913      # of the analysis rate's Nyquist frequency
MAX_RIPPLE_DB = 0.02  # peak to peak, in the passband
MIN_ALIAS_DB = 71.0   # design target; the header and the tests promise 70
Q = 15                # coefficient scale: 2^Q is a gain of 1

# name, up, down, passband edge and stopband edge as fractions of the filter's rate F, meaning
FILTERS = [
    ("kHalfband", 1, 2, 8000 / 48000, (24000 - 8000) / 48000,
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


def cosines(taps, f):
    """The response matrix of a symmetric filter: one column per symmetric
    pair (the centre tap's column counted once), one row per frequency."""
    centre = (taps - 1) // 2
    k = np.arange(centre + 1)
    C = 2 * np.cos(2 * np.pi * np.outer(f, centre - k))
    C[:, centre] = 1
    return C


def response(q, up, f):
    centre = (len(q) - 1) // 2
    return cosines(len(q), f) @ q[:centre + 1] / (up * 2**Q)


def quantise(h, up, stop):
    """Q15 integers with gain `up`, rounding refined against the stopband.

    After plain rounding, steepest descent on a high power sum of the
    stopband response (which weighs every peak near the largest: moving one
    pair rarely lowers the largest peak alone), one step of one symmetric pair
    or of the centre tap at a time, each branch's sum kept within SLACK of
    exact; then the branch sums are repaired, greedily, by the steps towards
    exact that cost least."""
    h = h / h.sum() * up
    q = np.round(h * 2**Q).astype(np.int64)
    taps = len(q)
    centre = (taps - 1) // 2
    C = cosines(taps, np.linspace(stop, 0.5, 1500)) / (up * 2**Q)
    weight = np.array([2] * centre + [1])          # how much a step moves its branch's sum
    branch = np.arange(centre + 1) % up
    error = np.array([int(q[p::up].sum()) - 2**Q for p in range(up)])
    r = C @ q[:centre + 1]
    scale = np.abs(r).max()

    def costs(step):
        return ((np.abs(r[:, None] + step * C) / scale) ** 16).sum(axis=0)

    def move(k, step):
        nonlocal r
        r = r + step * C[:, k]
        q[k] += step
        if k != centre:
            q[taps - 1 - k] += step
        error[branch[k]] += step * weight[k]

    SLACK = 8
    for _ in range(3000):
        now = ((np.abs(r) / scale) ** 16).sum()
        best = None
        for step in (1, -1):
            c = np.where(np.abs(error[branch] + step * weight) <= SLACK, costs(step), np.inf)
            k = int(np.argmin(c))
            if best is None or c[k] < best[0]:
                best = (c[k], k, step)
        if best[0] >= now * (1 - 1e-12):
            break
        move(best[1], best[2])
    # Repair: each branch towards its exact sum, by the cheapest step that
    # does not overshoot (a pair moves the sum by 2, the centre by 1).
    while abs(error).max() > 0:
        p = int(np.argmax(np.abs(error)))
        step = -1 if error[p] > 0 else 1
        fits = (branch == p) & (weight <= abs(error[p]))
        c = np.where(fits, costs(step), np.inf)
        move(int(np.argmin(c)), step)
    return q


def bounds(q, up, passband, stop):
    """Passband ripple (dB, peak to peak) and the least stopband attenuation (dB)."""
    f = np.linspace(0, 0.5, 20001)
    a = np.abs(response(q, up, f))
    inside = f <= passband
    return 20 * np.log10(a[inside].max() / a[inside].min()), -20 * np.log10(a[f >= stop].max())


def lane_bound(q, up):
    """The largest sum of |h| over the taps whose products one 32-bit lane
    of the dot products adds up. A branch's taps go 16 at a time into eight
    lanes (lane j takes taps 2j and 2j + 1 of each sixteen); lanes j and
    j + 4 are added before the sum goes to 64 bits. Under 2 x 32768, no
    lane can leave 32 bits, whatever the input."""
    worst = 0
    for p in range(up):
        branch = np.abs(q[p::up])
        for lane in range(4):
            worst = max(worst, int(sum(branch[t] for t in range(len(branch)) if (t % 16) // 2 % 4 == lane)))
    return worst


def design(up, passband, stop):
    cutoff = (passband + stop) / 2
    # Kaiser's estimate of the length for a little more than the target,
    # less a margin, is where the search starts.
    estimate = (MIN_ALIAS_DB + 2 - 8) / (2.285 * 2 * np.pi * (stop - passband))
    start = max(9, int(0.85 * estimate) // 2 * 2 + 1)
    for taps in range(start, int(1.6 * estimate) + 3, 2):
        for beta in np.arange(6.5, 8.51, 0.25):
            q = quantise(kaiser_lowpass(taps, cutoff, beta), up, stop)
            ripple, alias = bounds(q, up, passband, stop)
            worst = lane_bound(q, up)
            if ripple <= MAX_RIPPLE_DB and alias >= MIN_ALIAS_DB and worst < 2 * 2**Q:
                return q, beta, ripple, alias
    raise SystemExit(f"no {up}-branch filter from {passband:.4f} to {stop:.4f} within the searched lengths")


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "src/resamplerfilters.inc"
    lines = [
        "// The input path's resampling filters: written by scripts/design_resampler.py, do not edit.",
        "// Q15 coefficients (32768 is a gain of 1), upsampling gain included; each polyphase",
        "// branch sums to exactly 32768. Bounds of the quantised filters, from the script's grid",
        "// (F is the rate a filter runs at, up x its input rate):",
    ]
    body = ["// The passband of every conversion, as a fraction of the analysis rate's Nyquist frequency.",
            f"inline constexpr double kPassband = {PASSBAND};", ""]
    for name, up, down, passband, stop, meaning in FILTERS:
        if len(sys.argv) > 2 and name not in sys.argv[2:]:
            continue
        q, beta, ripple, alias = design(up, passband, stop)
        lines.append(f"//   {name}: {meaning}: passes 0 to {passband:.4f} F, stops from {stop:.4f} F;")
        lines.append(f"//     {len(q)} taps, Kaiser beta {beta:g}, ripple {ripple:.4f} dB, stopband -{alias:.1f} dB")
        body.append(f"inline constexpr short {name}Taps[] = {{")
        for i in range(0, len(q), 12):
            body.append("    " + ", ".join(str(int(v)) for v in q[i:i + 12]) + ",")
        body.append("};")
        body.append(f"inline constexpr FirDesign {name} = {{{up}, {down}, {len(q)}, {name}Taps, "
                    f"{ripple:.4f}, {alias:.1f}}};")
        print(lines[-2] + "\n" + lines[-1], flush=True)
    text = "\n".join(lines + [""] + body) + "\n"
    with open(out, "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
