#!/usr/bin/env python3
"""Writes docs/settings.md from the library's own settings tables (oku_settings).

Usage: OKU_LIBRARY=build/libOKUVAD.so scripts/gen_settings.py [OUTPUT]

Reads the tables through the Python package's binding of the public C
interface, so the page lists exactly what the services read, with the
defaults they take. Without OUTPUT the page goes to standard output.
"""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
import oku  # noqa: E402

SERVICES = (
    ("vad", "Analyzer", "`oku_vad_create`, `oku::AudioAnalyzer`, `oku vad --params`, the `okuvad` element's "
     "`params`. Milliseconds become frames rounded to the nearest frame."),
    ("agc", "Gain control", "`oku_agc_create`, `oku::AGC`, `oku agc --params`, the `okuagc` element's "
     "`params`. Milliseconds become frames truncated to whole 20 ms."),
)


def number(value, kind):
    if kind == "int":
        return str(value)
    return repr(float(value)).removesuffix(".0") if float(value).is_integer() else repr(float(value))


def page():
    out = ["# Settings", "",
           "<!-- Written by scripts/gen_settings.py from the library's settings tables; "
           "`make docs` rewrites it, and a test checks that it is current. -->", "",
           "Both services take a parameter string of `Key=Value` entries separated by `;`",
           "(`\"EOSTimeoutMs=1000;HistogramWindowSizeMs=3000\"`); a key that is absent takes its default.",
           "How the string is read, and which values are refused, is in [cpp.md](cpp.md#settings) and",
           "[c-api.md](c-api.md#choices-this-library-makes). `int` settings read a whole number",
           "(\"1.5\" reads as 1), `real` settings a real number.", ""]
    for service, title, where in SERVICES:
        out += ["## " + title, "", where, "",
                "| key | name | default | unit | type | meaning |", "|---|---|---|---|---|---|"]
        for s in oku.settings(service):
            out.append("| `{}` | `{}` | {} | {} | {} | {} |".format(
                s.key, s.name, number(s.default, s.type), s.unit or "", s.type, s.meaning.replace("|", "\\|")))
        out.append("")
    return "\n".join(out)


if __name__ == "__main__":
    text = page()
    if len(sys.argv) > 1:
        with open(sys.argv[1], "w", encoding="utf-8") as f:
            f.write(text)
    else:
        sys.stdout.write(text)
