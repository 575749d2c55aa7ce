"""Turns a JSON run of oku_bench into the table of figures and ratios.

usage: python3 bench/report.py results.json
Medians of the repetitions are used when the run has them. Kernel ratio: time
per sample over the reference kernel's at the same rate (lower is better);
peer ratio: the peer's time per sample over ours (higher is better).
"""
import json
import sys


def load(path):
    with open(path) as f:
        run = json.load(f)
    rows = {}
    for b in run["benchmarks"]:
        name = b["run_name"] if "run_name" in b else b["name"]
        name = name.split("/iterations:")[0]
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        rows[name] = {"ns": 1e9 / b["items_per_second"], "x": b.get("x_realtime", 0.0)}
    return run.get("context", {}), rows


def main(path):
    context, rows = load(path)
    ns = lambda name: rows[name]["ns"] if name in rows else None
    print("Machine: %s CPUs at %s MHz; load average %s" % (context.get("num_cpus"), context.get("mhz_per_cpu"),
                                                          context.get("load_avg")))
    print()
    print("| case | ns/sample | x real time | kernel ratio |")
    print("|---|---:|---:|---:|")
    kinds = ["kernel", "vad_exported", "vad_class", "agc_exported", "agc_class"]

    def order(name):
        parts = name.split("/")
        chunk = int(parts[2].rstrip("ms")) if len(parts) > 2 else 0
        return (int(parts[1]), kinds.index(parts[0]) if parts[0] in kinds else 99, chunk)

    for name in sorted(rows, key=order):
        r = rows[name]
        if name.startswith(("webrtc", "speex")) or "_1" in name.split("/")[0]:
            continue
        rate = name.split("/")[1]
        kernel = ns("kernel/" + rate)
        print("| %s | %.2f | %.0f | %.2f |" % (name, r["ns"], r["x"], r["ns"] / kernel if kernel else 0))
    print()
    print("| peer | ns/sample | compared with | ours ns/sample | peer / ours |")
    print("|---|---:|---|---:|---:|")
    peers = []
    for rate in ("8000", "16000"):
        vad, agc = "vad_exported/%s/20ms" % rate, "agc_exported/%s/20ms" % rate
        both = ns(vad) + ns(agc) if ns(vad) and ns(agc) else None
        for peer, ours, value in (("webrtc_vad/" + rate, vad, ns(vad)), ("webrtc_agc/" + rate, agc, ns(agc)),
                                  ("speex_preprocess/" + rate, vad + " + " + agc, both)):
            if ns(peer) and value:
                peers.append((peer, ns(peer) / value))
                print("| %s | %.2f | %s | %.2f | %.2f |" % (peer, ns(peer), ours, value, ns(peer) / value))
    print()
    print("| stream length | ns/sample | 1 hour over 1 minute |")
    print("|---|---:|---:|")
    for what in ("vad_exported", "agc_exported"):
        short, long_ = ns(what + "_1min/16000/20ms"), ns(what + "_1h/16000/20ms")
        if short and long_:
            print("| %s 1 min / 1 h | %.2f / %.2f | %.3f |" % (what, short, long_, long_ / short))

    print()
    goals = []
    for rate in ("8000", "16000"):
        k = ns("kernel/" + rate)
        goals.append(("analyzer, exported, 20 ms, %s Hz: at most 1.3 x kernel" % rate,
                      ns("vad_exported/%s/20ms" % rate) / k, lambda v: v <= 1.3))
        goals.append(("gain control, exported, 20 ms, %s Hz: at most 1.3 x kernel" % rate,
                      ns("agc_exported/%s/20ms" % rate) / k, lambda v: v <= 1.3))
    goals.append(("WebRTC VAD / ours at 8000 Hz: at least 2", dict(peers)["webrtc_vad/8000"], lambda v: v >= 2.0))
    goals.append(("WebRTC VAD / ours at 16000 Hz: at least 1.3", dict(peers)["webrtc_vad/16000"], lambda v: v >= 1.3))
    for rate in ("8000", "16000"):
        goals.append(("WebRTC analog AGC / ours at %s Hz: at least 2.5" % rate, dict(peers)["webrtc_agc/" + rate],
                      lambda v: v >= 2.5))
    failed = 0
    for text, value, ok in goals:
        met = ok(value)
        failed += not met
        print("%-62s %6.2f  %s" % (text, value, "met" if met else "NOT MET"))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
