"""Scores speech segments against known utterances.

Spans are (start, end) pairs of sample positions, end excluded, sorted and
not overlapping one another. A segment and an utterance meet when they share
at least one sample. Each utterance is, in this order of precedence:

- missed: no segment meets it;
- merged: a segment that meets it also meets another utterance (its clip
  would hold speech of both);
- split: two or more segments meet it;
- one: exactly one segment meets it, and that segment meets no other
  utterance. Only these have boundary offsets: segment start minus utterance
  start and segment end minus utterance end (negative: earlier), and count as
  clipped when the segment leaves speech of the utterance outside it.

A segment that meets no utterance is false: on noise alone when it meets the
file's noise-only stretch, else in a pause. A pause between two utterances is
bridged when one segment meets both. Frame scores count 10 ms frames (at the
truth's rate) by their centre: speech when the centre lies in an utterance,
detected when it lies in a segment.

scores() sums these over a corpus (its truth as eval/corpus.py writes it) by
SNR and kind of noise; pick() is the rule the offline preset was chosen by.
"""
from collections import Counter, defaultdict


def meets(a, b):
    return a[0] < b[1] and b[0] < a[1]


def intersection(xs, ys):
    """The spans where two lists of sorted, disjoint spans overlap."""
    out, i, j = [], 0, 0
    while i < len(xs) and j < len(ys):
        a, b = max(xs[i][0], ys[j][0]), min(xs[i][1], ys[j][1])
        if a < b:
            out.append((a, b))
        if xs[i][1] < ys[j][1]:
            i += 1
        else:
            j += 1
    return out


def frames_in(spans, frame):
    """How many frames of `frame` samples have their centre in the spans."""
    half = frame // 2
    first = lambda x: -((half - x) // frame)  # the first frame whose centre is at or after x
    return sum(max(0, first(b) - first(a)) for a, b in spans)


def score_file(utterances, segments, noise_alone=None, frame=160):
    """The counts of one file (a Counter) and its boundary offsets in samples
    (starts, ends of the utterances found as one segment)."""
    utterances = [tuple(u) for u in utterances]
    segments = [tuple(s) for s in segments]
    c = Counter(utterances=len(utterances), segments=len(segments))
    starts, ends = [], []
    touching = [[k for k, u in enumerate(utterances) if meets(s, u)] for s in segments]
    for k, u in enumerate(utterances):
        mine = [i for i, t in enumerate(touching) if k in t]
        if not mine:
            c["missed"] += 1
        elif any(len(touching[i]) > 1 for i in mine):
            c["merged"] += 1
        elif len(mine) > 1:
            c["split"] += 1
        else:
            c["one"] += 1
            s = segments[mine[0]]
            starts.append(s[0] - u[0])
            ends.append(s[1] - u[1])
            c["clipped"] += s[0] > u[0] or s[1] < u[1]
    for s, t in zip(segments, touching):
        if not t:
            c["false_noise" if noise_alone and meets(s, noise_alone) else "false_pause"] += 1
    speech, detected = frames_in(utterances, frame), frames_in(segments, frame)
    c["tp"] = frames_in(intersection(utterances, segments), frame)
    c["fp"], c["fn"] = detected - c["tp"], speech - c["tp"]
    return c, starts, ends


def bridged(utterances, segments):
    """For each pause between consecutive utterances, whether one segment meets both."""
    return [any(meets(s, a) and meets(s, b) for s in segments) for a, b in zip(utterances, utterances[1:])]


def f1(c):
    """Frame precision, recall and F1 of summed counts (None where undefined)."""
    p = c["tp"] / (c["tp"] + c["fp"]) if c["tp"] + c["fp"] else None
    r = c["tp"] / (c["tp"] + c["fn"]) if c["tp"] + c["fn"] else None
    f = 2 * p * r / (p + r) if p and r else (0.0 if p is not None and r is not None else None)
    return p, r, f


def percentile(values, q):
    """The q-th percentile (0-100) of values by linear interpolation, None if empty."""
    if not values:
        return None
    v = sorted(values)
    x = (len(v) - 1) * q / 100
    i = int(x)
    return v[i] if i + 1 >= len(v) else v[i] + (v[i + 1] - v[i]) * (x - i)


def summarize(records, rate):
    """Summed counts and boundary percentiles (ms) of score_file's records."""
    c, starts, ends = Counter(), [], []
    for r, s, e in records:
        c.update(r)
        starts += s
        ends += e
    ms = lambda v: None if v is None else v * 1000.0 / rate
    p, r, f = f1(c)
    out = {k: c[k] for k in ("utterances", "one", "merged", "split", "missed", "clipped", "segments",
                             "false_noise", "false_pause", "tp", "fp", "fn")}
    out.update(precision=p, recall=r, f1=f)
    for name, values in (("start", starts), ("end", ends)):
        for q in (10, 50, 90):
            out["%s_p%d_ms" % (name, q)] = ms(percentile(values, q))
    return out


def scores(truth, found, systems):
    """The figures of each system over a corpus: by SNR and noise ("all" for
    all together), pauses bridged by length, and the steady-noise files; and
    the seconds of noise alone at each SNR. found maps a file's name to
    {system: segments}; a system missing for a file is left out there."""
    rate = truth["rate"]
    frame = rate // 100
    by = defaultdict(list)
    pauses = defaultdict(Counter)
    steady = defaultdict(list)
    noise_s = Counter()
    for t in truth["files"]:
        if t.get("steady"):
            for system in systems:
                segs = found[t["file"]].get(system)
                if segs is not None:
                    steady[system].append({"noise": t["noise"], "dbfs": t["noise_dbfs"], "segments": len(segs),
                                           "detected": frames_in(segs, frame) / (t["frames"] // frame)})
            continue
        noise_s[str(t["snr_db"])] += (t["noise_alone"][1] - t["noise_alone"][0]) / rate
        for system in systems:
            segs = found[t["file"]].get(system)
            if segs is None:
                continue
            record = score_file(t["utterances"], segs, t["noise_alone"], frame)
            for key in ((t["snr_db"], "all"), (t["snr_db"], t["noise"]), ("all", "all")):
                by[(system,) + key].append(record)
            for pause, b in zip(t["pauses_after_s"], bridged(t["utterances"], segs)):
                if pause is not None:  # the gap that holds the noise-only stretch
                    pauses[system]["%g" % pause, "pauses"] += 1
                    pauses[system]["%g" % pause, "bridged"] += b
    results = {}
    for system in systems:
        lengths = sorted({p for p, _ in pauses[system]}, key=float)
        results[system] = {
            "by": [dict(snr=snr, noise=noise, **summarize(records, rate))
                   for (s, snr, noise), records in by.items() if s == system],
            "bridged": {p: {"pauses": pauses[system][p, "pauses"], "bridged": pauses[system][p, "bridged"]}
                        for p in lengths},
            "steady": steady[system],
        }
    return results, dict(noise_s)


def within_limits(row, base):
    """Whether settings scored `row` miss no more utterances than the default
    settings (`base`) and put at most twice their false segments on noise alone."""
    return row["missed"] <= base["missed"] and row["false_noise"] <= 2 * max(base["false_noise"], 1)


def pick(table):
    """The rule the offline preset was chosen by, over {settings: summed
    figures} with the default settings under "default": of the settings
    within_limits, the one finding the most utterances as exactly one segment;
    ties go to fewer false segments on noise alone, then to the first listed.
    None when no settings qualify."""
    base = table["default"]
    best = None
    for name, row in table.items():
        if name != "default" and within_limits(row, base):
            if best is None or (row["one"], -row["false_noise"]) > (table[best]["one"], -table[best]["false_noise"]):
                best = name
    return best
