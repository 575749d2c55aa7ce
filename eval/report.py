"""Turns the figures of eval/evaluate.py into tables, and writes the pages.

usage: python3 eval/report.py results.json [--markdown OUT.md] [--corpus-page corpus.md]

Prints the tables. With --markdown, also writes OUT.md (docs/accuracy.md in
`make eval`): the prose of eval/accuracy.md.in with its @NAME@ markers
replaced by this run's tables. With --corpus-page, rewrites the block of the
preset's figures in that page (docs/corpus.md) between PAGE_START and
PAGE_END, so that no figure is copied by hand.
"""
import math
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import score  # noqa: E402

SNRS = ("30", "20", "10", "5", "0")
SYSTEMS = (("default", "default settings"), ("preset", "offline preset"), ("webrtc", "WebRTC VAD"))
# Settings of the grid shown whatever their rank: the first that users of
# offline cutting tried.
ALSO_SHOWN = ("EOSTimeoutMs=300;ThresholdOffsetPause=10;ThresholdOffsetSpeech=6",)
PAGE_START = "<!-- The preset's figures: written by `make eval` (eval/report.py) -->"
PAGE_END = "<!-- end of the preset's figures -->"


def pct(n, d):
    return "-" if not d else "%.0f" % (100.0 * n / d)


def num(v, digits=0):
    return "-" if v is None else "%.*f" % (digits, v)


def row_of(results, system, snr="all", noise="all"):
    for r in results[system]["by"]:
        if str(r["snr"]) == snr and r["noise"] == noise:
            return r
    return None


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |",
             "|" + "|".join("---" if i < 2 else "---:" for i in range(len(header))) + "|"]
    lines += ["| " + " | ".join(str(c) for c in r) + " |" for r in rows]
    return "\n".join(lines)


def per_10_min(count, seconds):
    return "-" if not seconds else "%.1f" % (count * 600.0 / seconds)


def utterances(info):
    res, noise_s = info["results"], info["noise_alone_s"]
    rows = []
    for snr in SNRS + ("all",):
        seconds = sum(noise_s.values()) if snr == "all" else noise_s.get(snr, 0)
        for system, name in SYSTEMS:
            r = row_of(res, system, snr)
            if r:
                u = r["utterances"]
                rows.append([snr if snr != "all" else "all", name, u, pct(r["one"], u), pct(r["merged"], u),
                             pct(r["split"], u), pct(r["missed"], u), r["false_noise"],
                             per_10_min(r["false_noise"], seconds), r["false_pause"]])
    return table(["SNR dB", "system", "utterances", "one %", "merged %", "split %", "missed %",
                  "false on noise alone", "per 10 min of it", "false in pauses"], rows)


def boundaries(info):
    res = info["results"]
    rows = []
    for snr in SNRS + ("all",):
        for system, name in SYSTEMS:
            r = row_of(res, system, snr)
            if r:
                spread = lambda w: "%s / %s / %s" % tuple(num(r["%s_p%d_ms" % (w, q)]) for q in (10, 50, 90))
                rows.append([snr, name, spread("start"), spread("end"), pct(r["clipped"], r["one"]),
                             num(r["precision"], 3), num(r["recall"], 3), num(r["f1"], 3)])
    return table(["SNR dB", "system", "start offset ms: p10 / median / p90", "end offset ms: p10 / median / p90",
                  "clipped % of one", "frame precision", "frame recall", "frame F1"], rows)


def noises(info):
    res = info["results"]
    kinds = sorted({r["noise"] for r in res["default"]["by"] if r["noise"] != "all"})
    rows = []
    for system, name in SYSTEMS:
        for kind in kinds:
            cells = []
            for snr in SNRS:
                r = row_of(res, system, snr, kind)
                cells.append("%s (%s)" % (pct(r["one"], r["utterances"]), pct(r["missed"], r["utterances"]))
                             if r else "-")
            rows.append([name, kind] + cells)
    return table(["system", "noise"] + ["%s dB" % s for s in SNRS], rows)


def pauses(info):
    res = info["results"]
    lengths = list(res["default"]["bridged"])
    rows = []
    for p in lengths:
        rows.append([p, res["default"]["bridged"][p]["pauses"]] +
                    [pct(res[s]["bridged"][p]["bridged"], res[s]["bridged"][p]["pauses"]) for s, _ in SYSTEMS])
    return table(["pause s", "pauses"] + ["%s: bridged %%" % n for _, n in SYSTEMS], rows)


def steady(info):
    res = info["results"]
    keyed = {s: {(x["noise"], x["dbfs"]): x for x in res[s]["steady"]} for s, _ in SYSTEMS}
    rows = []
    for key in sorted(keyed["default"], key=lambda k: (k[0], -k[1])):
        cells = []
        for s, _ in SYSTEMS:
            x = keyed[s].get(key)
            cells.append("%d, %s" % (x["segments"], pct(x["detected"], 1)) if x else "-")
        rows.append([key[0], key[1]] + cells)
    return table(["noise", "level dBFS"] + ["%s: segments, %% of time" % n for _, n in SYSTEMS], rows)


def rates(info):
    res, noise_s = info["results"], info["noise_alone_s"]
    rows = []
    for system, name in SYSTEMS[:2]:
        for suffix, how in (("", "16000, samples from oku.read_file"), ("@44100", "44100, oku.segment_file"),
                            ("@48000", "48000, oku.segment_file")):
            if system + suffix not in res:
                continue
            cells = []
            for snr in SNRS + ("all",):
                r = row_of(res, system + suffix, snr)
                cells.append(pct(r["one"], r["utterances"]) if r else "-")
            r = row_of(res, system + suffix)
            rows.append([name, how] + cells + [per_10_min(r["false_noise"], sum(noise_s.values())),
                                               num(r["end_p50_ms"]), num(r["f1"], 3)])
    return table(["system", "rate Hz, read by"] + ["one %% at %s dB" % s for s in SNRS] +
                 ["one % at all", "false on noise alone per 10 min", "end offset median ms", "frame F1"], rows)


def grid_rows(info, limit=15):
    """The grid's best settings by utterances found as one segment, with the
    default settings, the preset, the rule's pick on this run and ALSO_SHOWN."""
    g, by_snr = info["grid_results"], info["grid_by_snr"]
    base = g["default"]
    order = sorted((n for n in g if n != "default"), key=lambda n: (-g[n]["one"], g[n]["false_noise"]))
    shown = order[:limit]
    for extra in ("default", info["preset"], info.get("grid_pick")) + ALSO_SHOWN:
        if extra and extra in g and extra not in shown:
            shown.append(extra)
    rows = []
    for n in shown:
        r = g[n]
        u = r["utterances"]
        allowed = n == "default" or score.within_limits(r, base)
        label = "`%s`" % n if n != "default" else "default settings"
        if n == info["preset"]:
            label += " (the preset)"
        rows.append([label] + [pct(by_snr[n].get(s, 0), 1) for s in SNRS] +
                    [pct(r["one"], u), pct(r["merged"], u), pct(r["split"], u), pct(r["missed"], u),
                     r["false_noise"], num(r["f1"], 3), "yes" if allowed else "no"])
    return table(["settings"] + ["one %% at %s dB" % s for s in SNRS] +
                 ["one %", "merged %", "split %", "missed %", "false on noise alone", "frame F1", "within the limits"],
                 rows)


def pick(info):
    if info.get("grid_pick") == info["preset"]:
        return "On this run the rule picks the preset, `%s`." % info["preset"]
    return ("**On this run the rule picks `%s`, not the preset `%s`**: the figures have moved since the preset "
            "was chosen; see whether the preset should follow." % (info.get("grid_pick"), info["preset"]))


def machine(info):
    m = info["machine"]
    return ("%s, %s CPUs (load average %s when the run started); %s; Python %s, numpy %s; %s; %s; "
            "oku %s (`%s`); on %s" % (m["cpu"], m["cpus"], ", ".join("%.2f" % x for x in m["load"]), m["system"],
                                     m["python"], m["numpy"], m["espeak"], m["sox"], m["oku"], m["library"],
                                     m["date"]))


def runtime(info):
    s = info["seconds"]
    parts = ", ".join("%s %.0f s" % (k, v) for k, v in s.items() if k != "total")
    return "%.1f minutes with %d processes (%s)" % (s["total"] / 60, info["jobs"], parts)


def corpus(info):
    c = info["corpus"]
    noise_minutes = sum(info["noise_alone_s"].values()) / 60 / max(len(info["noise_alone_s"]), 1)
    return ("%d files with speech and %d of steady noise, %.2f hours at 16 kHz in all; %d utterances (%d at each "
            "SNR), %.1f minutes of noise alone at each SNR; voices %s. Tuning corpus: %d files, %d utterances."
            % (c["files"], c["steady_files"], c["hours"], c["utterances"], c["utterances"] // len(SNRS),
               noise_minutes, ", ".join("`%s`" % v for v in c["voices"]), c["tuning_files"], c["tuning_utterances"]))


def preset_figures(info):
    """The short table of docs/corpus.md: the three systems at each SNR."""
    res, noise_s = info["results"], info["noise_alone_s"]
    rows = []
    for system, name in SYSTEMS:
        cells = []
        for snr in SNRS:
            r = row_of(res, system, snr)
            cells.append("%s / %s / %s" % (pct(r["one"], r["utterances"]), pct(r["merged"] + r["split"], r["utterances"]),
                                           pct(r["missed"], r["utterances"])) if r else "-")
        r = row_of(res, system)
        rows.append([name] + cells + [per_10_min(r["false_noise"], sum(noise_s.values())), num(r["end_p50_ms"])])
    return table(["one / merged or split / missed %"] + ["%s dB" % s for s in SNRS] +
                 ["false segments per 10 min of noise alone", "segment end after speech, median ms"], rows)


def analysis_rates(info):
    return ", ".join("%s Hz for %s Hz" % (a, r) for r, a in sorted(info["analysis_rates"].items()))


def upper_limit(info):
    db = info["defaults"]["ThresholdUpperLimit"]
    return "%g dB, about %.0f dBFS for a frame's RMS" % (db, db - 20 * math.log10(32768))


def grid_settings(info):
    return "; ".join("`%s` (%s)" % (k, ", ".join("%g" % v for v in values)) for k, values in info["grid"].items())


def words(values, unit):
    values = ["%g" % v for v in values]
    return "%s and %s %s" % (", ".join(values[:-1]), values[-1], unit)


SECTIONS = (("UTTERANCES", utterances), ("BOUNDARIES", boundaries), ("NOISES", noises), ("PAUSES", pauses),
            ("STEADY", steady), ("RATES", rates), ("GRID", grid_rows), ("PICK", pick), ("MACHINE", machine),
            ("RUNTIME", runtime), ("CORPUS", corpus), ("PRESET_FIGURES", preset_figures),
            ("ANALYSIS_RATES", analysis_rates), ("UPPER_LIMIT", upper_limit), ("GRID_SETTINGS", grid_settings),
            ("SNRS", lambda info: words(info["corpus"]["snrs_db"], "dB")),
            ("PAUSES_S", lambda info: words(info["corpus"]["pauses_s"], "s")),
            ("SPEECH_DBFS", lambda info: "%g and %g dBFS" % tuple(info["corpus"]["speech_dbfs"])),
            ("STEADY_DBFS", lambda info: "%g to %g dBFS" % (min(info["corpus"]["steady_dbfs"]),
                                                            max(info["corpus"]["steady_dbfs"]))))


def write_markdown(info, template_path, out_path):
    with open(template_path, encoding="utf-8") as f:
        page = f.read()
    page = page.replace("@PRESET@", info["preset"])
    for key, fn in SECTIONS:
        page = page.replace("@%s@" % key, fn(info))
    with open(out_path, "w", encoding="utf-8") as f:
        f.write(page)


def write_corpus_page(info, path):
    """Replaces the block between PAGE_START and PAGE_END of the page."""
    with open(path, encoding="utf-8") as f:
        page = f.read()
    start, end = page.find(PAGE_START), page.find(PAGE_END)
    if start < 0 or end < start:
        raise ValueError("%s: the markers of the preset's figures were not found" % path)
    block = "%s\n%s\n\nFrom the run of %s.\n" % (PAGE_START, preset_figures(info), info["machine"]["date"])
    page = page[:start] + block + page[end:]
    with open(path, "w", encoding="utf-8") as f:
        f.write(page)


def main(argv):
    import json
    if not argv or argv[0].startswith("-"):
        sys.exit(__doc__.split("\n\n")[1])
    options = {"--markdown": None, "--corpus-page": None}
    rest = argv[1:]
    while rest:
        if rest[0] not in options or len(rest) < 2:
            sys.exit("report.py: unknown option or missing value: " + rest[0])
        options[rest[0]] = rest[1]
        rest = rest[2:]
    with open(argv[0], encoding="utf-8") as f:
        info = json.load(f)
    for key, fn in SECTIONS:
        print("%s\n\n%s\n" % (key, fn(info)))
    if options["--markdown"]:
        template = os.path.join(os.path.dirname(os.path.abspath(__file__)), "accuracy.md.in")
        write_markdown(info, template, options["--markdown"])
    if options["--corpus-page"]:
        write_corpus_page(info, options["--corpus-page"])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
