"""Checks that the manuals say what the library and the command do.

Run by ctest with OKU_LIBRARY (the built libOKUVAD) and OKU_COMMAND (the built
oku command, or empty when it is not built) in the environment.
"""
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "scripts"))
sys.path.insert(0, os.path.join(ROOT, "python"))


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as f:
        return f.read()


def manuals():
    """README.md, the folders' README.md and every page of docs/, relative to ROOT."""
    pages = ["README.md"] + sorted(d + "/README.md" for d in os.listdir(ROOT)
                                   if os.path.isfile(os.path.join(ROOT, d, "README.md")))
    pages += sorted("docs/" + n for n in os.listdir(os.path.join(ROOT, "docs")) if n.endswith(".md"))
    return pages


def slug(heading):
    """The anchor a Markdown renderer gives a heading: lower case, punctuation
    other than hyphens and underscores dropped, spaces as hyphens."""
    text = re.sub(r"[`*]", "", heading.strip().lower())
    text = re.sub(r"[^\w\- ]", "", text)
    return text.replace(" ", "-")


def anchors(text):
    text = re.sub(r"```.*?```", "", text, flags=re.S)
    return {slug(m.group(1)) for m in re.finditer(r"^#{1,6} +(.+)$", text, flags=re.M)}


class CInterfaceManual(unittest.TestCase):
    def test_every_declared_function_is_described(self):
        page = read("docs", "c-api.md")
        described = set(re.findall(r"^\| `((?:oku|OKUVAD|OKUAGC)_\w+)` \| [\w.]+ \| \S", page, flags=re.M))
        declared = set()
        for header in ("okuvad.h", "oku.h"):
            for line in read("include", header).splitlines():
                m = re.match(r"^(?:OKU_API|OKUVAD_API)\s.*?\b((?:oku|OKUVAD|OKUAGC)_\w+)\s*\(", line)
                if m:
                    declared.add(m.group(1))
        self.assertGreaterEqual(len(declared), 7 + 30, "the headers' declarations were not found")
        self.assertEqual(sorted(declared - described), [], "declared but not described in docs/c-api.md")
        self.assertEqual(sorted(described - declared), [], "described in docs/c-api.md but not declared")


class SettingsPage(unittest.TestCase):
    def test_settings_page_is_what_the_script_writes(self):
        import gen_settings
        self.assertEqual(read("docs", "settings.md"), gen_settings.page(),
                         "docs/settings.md is out of date: run make docs")


class Links(unittest.TestCase):
    def test_relative_links_resolve(self):
        broken = []
        for page in manuals():
            text = read(page)
            text_no_code = re.sub(r"```.*?```", "", text, flags=re.S)
            for target in re.findall(r"\]\(([^)\s]+)\)", text_no_code):
                if re.match(r"^[a-z]+:", target):
                    continue
                path, _, anchor = target.partition("#")
                full = os.path.normpath(os.path.join(ROOT, os.path.dirname(page), path)) if path else \
                    os.path.join(ROOT, page)
                if not os.path.exists(full):
                    broken.append("%s: %s (no such file)" % (page, target))
                elif anchor and full.endswith(".md"):
                    with open(full, encoding="utf-8") as f:
                        if anchor not in anchors(f.read()):
                            broken.append("%s: %s (no such heading)" % (page, target))
        self.assertEqual(broken, [])


class ManPage(unittest.TestCase):
    def test_lints_clean(self):
        groff = shutil.which("groff")
        self.assertTrue(groff, "groff is missing: scripts/setup.sh installs groff-base")
        run = subprocess.run([groff, "-man", "-ww", "-z", os.path.join(ROOT, "oku.1")],
                             capture_output=True, text=True, timeout=120)
        self.assertEqual((run.returncode, run.stderr), (0, ""))

    def test_every_option_of_the_command_is_documented(self):
        # The options the parser takes, read from its source, each appear in
        # the man page (as \-\-name).
        source = read("tools", "oku", "options.cpp")
        options = set(re.findall(r'a == "(--[a-z-]+)"', source))
        self.assertIn("--split", options)
        page = read("oku.1").replace("\\-", "-")
        self.assertEqual(sorted(o for o in options if o not in page), [])


def command_lines():
    """Every `oku ...` line in the README's shell blocks and the man page's
    examples, as argument lists after the command's name."""
    blocks = re.findall(r"```sh\n(.*?)```", read("README.md"), flags=re.S)
    blocks += re.findall(r"^\.EX\n(.*?)^\.EE", read("oku.1").replace("\\-", "-"), flags=re.S | re.M)
    found = []
    for line in "\n".join(blocks).splitlines():
        for part in line.split("#")[0].split("|"):
            words = shlex.split(part)
            if words and os.path.basename(words[0]) == "oku":
                found.append(words[1:])
    return found


class CommandLines(unittest.TestCase):
    OUTPUTS = {"--plot", "--split", "--log", "--out"}

    def setUp(self):
        self.command = os.environ.get("OKU_COMMAND")
        if not self.command:
            self.skipTest("the oku command is not built")

    def test_shown_command_lines_run(self):
        shown = command_lines()
        self.assertGreaterEqual(len(shown), 5)
        speech = os.path.join(ROOT, "data", "speech16k.wav")
        with open(speech, "rb") as f:
            audio = f.read()
        for args in shown:
            with self.subTest(args=args), tempfile.TemporaryDirectory() as tmp:
                # Inputs become the shipped recording, outputs go to a temporary folder.
                fixed, previous = [], None
                for a in args:
                    if previous in self.OUTPUTS:
                        a = os.path.join(tmp, os.path.basename(a))
                    elif a.endswith(".wav") and not a.startswith("-"):
                        a = speech
                    fixed.append(a)
                    previous = a
                run = subprocess.run([self.command] + fixed + ["--no-progress"], input=audio, capture_output=True,
                                     timeout=300, cwd=tmp)
                self.assertEqual(run.returncode, 0, run.stderr.decode(errors="replace"))
                self.assertTrue(run.stdout, "no records printed")

    def test_output_shown_in_the_readme_is_the_commands(self):
        shown = re.search(r"```sh\nbuild/oku vad data/speech16k.wav\n```\n```\n(.*?)```", read("README.md"), flags=re.S)
        self.assertTrue(shown, "the README shows no output of oku vad on the recording")
        run = subprocess.run([self.command, "vad", "--no-progress", os.path.join(ROOT, "data", "speech16k.wav")],
                             capture_output=True, text=True, timeout=300)
        self.assertEqual(run.returncode, 0, run.stderr)
        actual = run.stdout.splitlines()
        for line in shown.group(1).splitlines():
            # The summary is shown cut short ("..."): its shown part must begin the real one.
            prefix = line[:-3].rstrip() if line.endswith("...") else None
            self.assertTrue(any(a.startswith(prefix) for a in actual) if prefix else line in actual, line)


class ReadmeExample(unittest.TestCase):
    """The README's C example, built against the headers and the library and
    run over the shipped recording in its 20 ms chunks: it must find the two
    sentences (data/speech16k.txt puts them at samples 16000-62822 and
    86822-122855; a segment is dated back before its first loud frame and
    closes after the end-of-speech pause)."""

    def test_example_builds_and_finds_both_sentences(self):
        library = os.environ.get("OKU_LIBRARY")
        compiler = shutil.which("cc") or shutil.which("gcc")
        if not library or not compiler:
            self.skipTest("needs OKU_LIBRARY and a C compiler")
        example = re.search(r"```c\n(.*?)```", read("README.md"), flags=re.S).group(1)
        host = example + r"""
#include <stdlib.h>
int main(int argc, char** argv)
{
    FILE* f = fopen(argv[1], "rb");
    static int16_t pcm[1 << 20];
    size_t total, at;
    if (argc < 2 || !f || fseek(f, 44, SEEK_SET) != 0) return 2;   /* the recording has a plain 44-byte header */
    total = fread(pcm, 2, sizeof pcm / 2, f);
    fclose(f);
    if (start() != 0) return 1;
    for (at = 0; at < total; at += chunk)
        on_capture(pcm + at, total - at < chunk ? total - at : chunk);
    stop();
    return 0;
}
"""
        with tempfile.TemporaryDirectory() as tmp:
            source, program = os.path.join(tmp, "host.c"), os.path.join(tmp, "host")
            with open(source, "w") as f:
                f.write(host)
            build = subprocess.run([compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-I", os.path.join(ROOT, "include"),
                                    source, library, "-o", program, "-Wl,-rpath," + os.path.dirname(library)],
                                   capture_output=True, text=True, timeout=300)
            self.assertEqual(build.returncode, 0, build.stderr)
            run = subprocess.run([program, os.path.join(ROOT, "data", "speech16k.wav")], capture_output=True,
                                 text=True, timeout=300)
        self.assertEqual(run.returncode, 0, run.stderr)
        starts = [int(l.split()[-1]) for l in run.stdout.splitlines() if l.startswith("speech from")]
        ends = [int(l.split()[-1]) for l in run.stdout.splitlines() if l.startswith("speech to")]
        self.assertEqual(len(starts), 2, run.stdout)
        self.assertEqual(len(ends), 2, run.stdout)
        for start, end, (first, last) in zip(starts, ends, ((16000, 62822), (86822, 122855))):
            self.assertTrue(first - 16000 * 0.5 < start <= first, (start, first))
            self.assertTrue(last < end < last + 16000 * 1.0, (end, last))


if __name__ == "__main__":
    unittest.main(verbosity=2)
