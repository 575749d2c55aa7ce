"""Builds a labelled corpus for measuring speech detection: espeak-ng speech
with pauses of known length, in white, pink or brown noise at set signal-to-
noise ratios, with a stretch of noise alone holding bursts of other sounds.

usage: python3 eval/corpus.py OUT_DIR [--seed N] [--tracks N] [--jobs N]

Everything follows from the seed: the same seed gives the same files, sample
for sample, on any machine with the same espeak-ng and sox. OUT_DIR receives
one 16-bit mono WAV file per track and signal-to-noise ratio, the steady-noise
files, and truth.json, which lists each file's utterances, pauses, noise-only
stretch and bursts in samples at 16 kHz.

A track is one voice reading sentences:

    noise 1.5-3 s | 7 utterances with pauses | 2 s | noise alone, 30 s, with
    6 bursts | 2 s | 7 utterances with pauses | noise 1.5 s

An utterance is one espeak-ng sentence cut to the 10 ms frames that lie
within UTTERANCE_RANGE_DB of its loudest frame, so its speech is exactly the
span the truth gives. The twelve pauses between utterances take each length of
PAUSES_S twice, in a shuffled order. The speech level of a track is drawn from
SPEECH_DBFS and is the RMS over its utterances; the noise lies SNR dB under
it (RMS over the whole file). Bursts (knocks, beeps, rustles) are set against
the speech level (BURST_DB), the same in every SNR's file of a track.
"""
import argparse
import json
import multiprocessing
import os
import subprocess
import sys

import numpy as np
import soundfile

RATE = 16000
FRAME = RATE // 100                 # 10 ms, the grain of the truth
NOISES = ("white", "pink", "brown")
SNRS_DB = (30, 20, 10, 5, 0)
PAUSES_S = (0.3, 0.5, 0.7, 1.0, 1.5, 3.0)
UTTERANCES = 14                     # per track: 2 x 7 around the noise-only stretch
UTTERANCE_RANGE_DB = 35.0
SPEECH_DBFS = (-36.0, -26.0)
NOISE_ALONE_S = 30.0
BURSTS = 6
BURST_DB = (-20.0, 0.0)             # burst RMS against the speech level
STEADY_DBFS = (-60, -40, -30, -25, -20, -15)
STEADY_S = 60.0
# (voice+variant, words per minute, pitch 0-99)
VOICES = (("en-us+m3", 165, 45), ("en-gb+f3", 170, 60), ("en-gb-scotland+m1", 150, 40),
          ("en-029+f2", 175, 65), ("en-gb-x-rp+m7", 160, 50), ("en-us+f4", 185, 70))

SUBJECTS = ("the old man", "a young girl", "my neighbour", "the teacher", "our driver", "the doctor",
            "a tall stranger", "her brother", "the baker", "every student", "the captain", "his mother")
VERBS = ("walked to", "looked at", "painted", "talked about", "carried", "cleaned", "found",
         "waited near", "sold", "remembered", "photographed", "repaired")
OBJECTS = ("the station", "a small red car", "the garden gate", "an empty box", "the river bank",
           "a broken clock", "the kitchen table", "a yellow umbrella", "the village church",
           "seven wooden chairs", "the last train", "a bowl of soup")
TAILS = ("", " this morning", " after lunch", " in the rain", " without a word", " twice last week",
         " before the storm", " on the way home")
LINKS = (", and then", ", but", ", because", ", while", " and")


def sentence(rng):
    """A short sentence; one in two gets a second clause after a comma."""
    def clause():
        return "%s %s %s%s" % (rng.choice(SUBJECTS), rng.choice(VERBS), rng.choice(OBJECTS), rng.choice(TAILS))
    text = clause()
    if rng.random() < 0.5:
        text += "%s %s" % (rng.choice(LINKS), clause())
    return text[0].upper() + text[1:] + "."


def synthesize(text, voice, speed, pitch):
    """espeak-ng's speech at RATE as floats of full scale 1 (sox converts the rate)."""
    speech = subprocess.run(["espeak-ng", "-v", voice, "-s", str(speed), "-p", str(pitch), "--stdout", text],
                            capture_output=True, check=True).stdout
    raw = subprocess.run(["sox", "-R", "-t", "wav", "-", "-t", "raw", "-e", "floating-point", "-b", "32",
                          "-r", str(RATE), "-c", "1", "-"], input=speech, capture_output=True, check=True).stdout
    return np.frombuffer(raw, dtype="<f4").astype(np.float64)


def trim(x):
    """x cut to its first and last 10 ms frame within UTTERANCE_RANGE_DB of its loudest."""
    frames = x[:len(x) // FRAME * FRAME].reshape(-1, FRAME)
    level = 10 * np.log10(np.mean(frames ** 2, axis=1) + 1e-20)
    loud = np.nonzero(level >= level.max() - UTTERANCE_RANGE_DB)[0]
    return x[loud[0] * FRAME:(loud[-1] + 1) * FRAME]


def colored(kind, n, rng):
    """n samples of noise of unit RMS: white, pink (power falling 3 dB an
    octave) or brown (6 dB an octave), shaped in the frequency domain above
    20 Hz (flat below, so that the noise does not drift)."""
    white = rng.standard_normal(n)
    if kind != "white":
        spectrum = np.fft.rfft(white)
        f = np.maximum(np.fft.rfftfreq(n, 1 / RATE), 20.0)
        spectrum /= f ** (0.5 if kind == "pink" else 1.0)
        white = np.fft.irfft(spectrum, n)
    return white / np.sqrt(np.mean(white ** 2))


def burst(kind, rng):
    """One burst of unit RMS: a knock (decaying click), a beep (a tone) or a
    rustle (band-limited noise under a smooth envelope)."""
    if kind == "knock":
        n = int(rng.uniform(0.03, 0.12) * RATE)
        x = rng.standard_normal(n) * np.exp(-np.arange(n) / (rng.uniform(0.005, 0.03) * RATE))
    elif kind == "beep":
        n = int(rng.uniform(0.1, 0.4) * RATE)
        x = np.sin(2 * np.pi * rng.uniform(400, 2500) * np.arange(n) / RATE)
        ramp = np.minimum(1.0, np.minimum(np.arange(n), np.arange(n)[::-1]) / (0.005 * RATE))
        x *= ramp
    else:
        n = int(rng.uniform(0.2, 0.8) * RATE)
        spectrum = np.fft.rfft(rng.standard_normal(n))
        f = np.fft.rfftfreq(n, 1 / RATE)
        spectrum[(f < 300) | (f > 3000)] = 0
        x = np.fft.irfft(spectrum, n) * np.hanning(n)
    return x / np.sqrt(np.mean(x ** 2))


def rms_db(x):
    return 10 * np.log10(np.mean(x ** 2))


def track(spec):
    """The files of one track (one per SNR) as (name, samples, truth)."""
    noise_kind, index, seed = spec
    rng = np.random.default_rng([seed, NOISES.index(noise_kind), index])
    voice, speed, pitch = VOICES[(index + NOISES.index(noise_kind)) % len(VOICES)]
    texts = [sentence(rng) for _ in range(UTTERANCES)]
    utterances = [trim(synthesize(t, voice, speed, pitch)) for t in texts]
    pauses = list(rng.permutation(PAUSES_S * 2))
    half = UTTERANCES // 2

    # Lay out the speech track and its truth.
    pos = int(rng.uniform(1.5, 3.0) * RATE)
    spans, after = [], []
    for i, u in enumerate(utterances):
        spans.append((pos, pos + len(u)))
        pos += len(u)
        if i == half - 1:
            noise_alone = (pos + 2 * RATE, pos + 2 * RATE + int(NOISE_ALONE_S * RATE))
            pos = noise_alone[1] + 2 * RATE
            after.append(None)
        elif i < UTTERANCES - 1:
            gap = pauses.pop()
            after.append(float(gap))
            pos += int(round(gap * RATE))
    length = pos + int(1.5 * RATE)
    speech = np.zeros(length)
    for (a, b), u in zip(spans, utterances):
        speech[a:b] = u
    in_speech = np.concatenate([speech[a:b] for a, b in spans])
    speech_db = rng.uniform(*SPEECH_DBFS)
    speech *= 10 ** ((speech_db - rms_db(in_speech)) / 20)

    # Bursts in the noise-only stretch, one to a 2 s slot, at least 0.4 s apart.
    bursts, others = [], np.zeros(length)
    slots = np.sort(rng.choice(np.arange(1, int(NOISE_ALONE_S) - 1, 2), BURSTS, replace=False))
    for slot in slots:
        kind = ("knock", "beep", "rustle")[rng.integers(3)]
        x = burst(kind, rng) * 10 ** ((speech_db + rng.uniform(*BURST_DB)) / 20)
        a = noise_alone[0] + int((slot + rng.uniform(0, 0.8)) * RATE)
        others[a:a + len(x)] += x
        bursts.append({"kind": kind, "start": a, "end": a + len(x), "dbfs": round(rms_db(x), 2)})

    noise = colored(noise_kind, length, rng)
    files = []
    for snr in SNRS_DB:
        noise_db = speech_db - snr
        mix = speech + others + noise * 10 ** (noise_db / 20)
        peak = np.max(np.abs(mix))
        if peak > 0.99:
            sys.exit("corpus: %s track %d at %d dB clips (peak %.3f): lower SPEECH_DBFS" % (noise_kind, index, snr, peak))
        name = "%s-%02d-snr%02d.wav" % (noise_kind, index, snr)
        files.append((name, np.round(mix * 32768).astype(np.int16), {
            "file": name, "rate": RATE, "frames": length, "noise": noise_kind, "snr_db": snr,
            "voice": voice, "speech_dbfs": round(speech_db, 2), "noise_dbfs": round(noise_db, 2),
            "utterances": [list(s) for s in spans], "pauses_after_s": after, "texts": texts,
            "noise_alone": list(noise_alone), "bursts": bursts}))
    return files


def steady(spec):
    """A file of one kind of noise alone at a steady level."""
    noise_kind, level, seed = spec
    rng = np.random.default_rng([seed, 100 + NOISES.index(noise_kind), -level])
    n = int(STEADY_S * RATE)
    x = colored(noise_kind, n, rng) * 10 ** (level / 20)
    name = "steady-%s-%02ddbfs.wav" % (noise_kind, -level)
    return [(name, np.round(np.clip(x * 32768, -32768, 32767)).astype(np.int16), {
        "file": name, "rate": RATE, "frames": n, "noise": noise_kind, "noise_dbfs": level, "steady": True,
        "utterances": [], "noise_alone": [0, n], "bursts": []})]


def write(out_dir, job):
    fn, spec = job
    truths = []
    for name, samples, truth in fn(spec):
        soundfile.write(os.path.join(out_dir, name), samples, RATE, subtype="PCM_16")
        truths.append(truth)
    return truths


def build(out_dir, seed, tracks, jobs=2, steady_files=True):
    """Writes the corpus into out_dir and returns its truth (also in truth.json)."""
    os.makedirs(out_dir, exist_ok=True)
    work = [(track, (noise, i, seed)) for noise in NOISES for i in range(tracks)]
    if steady_files:
        work += [(steady, (noise, level, seed)) for noise in NOISES for level in STEADY_DBFS]
    with multiprocessing.Pool(jobs) as pool:
        truths = [t for ts in pool.starmap(write, [(out_dir, w) for w in work]) for t in ts]
    truths.sort(key=lambda t: t["file"])
    with open(os.path.join(out_dir, "truth.json"), "w") as f:
        json.dump({"seed": seed, "rate": RATE, "files": truths}, f, indent=1)
    return truths


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("out_dir")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--tracks", type=int, default=6, help="tracks per kind of noise")
    parser.add_argument("--jobs", type=int, default=2)
    args = parser.parse_args(argv)
    truths = build(args.out_dir, args.seed, args.tracks, args.jobs)
    print("corpus: %d files in %s" % (len(truths), args.out_dir))


if __name__ == "__main__":
    main(sys.argv[1:])
