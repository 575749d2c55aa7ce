"""python -m oku: says where the command line went.

The package is a library; the command line of the project is the `oku`
command, which reads every format, writes the records documented in
docs/command.md and cuts a corpus with --jobs. Files are segmented from
Python with oku.segment_file (docs/corpus.md).
"""
import sys

MESSAGE = """\
python -m oku is no longer a command: use the oku command (oku vad FILE..., see
docs/command.md), or from Python oku.segment_file(path), which reads what the
command reads and gives the same segments (see docs/corpus.md)."""

if __name__ == "__main__":
    print(MESSAGE, file=sys.stderr)
    sys.exit(2)
