#!/usr/bin/env bash
# Writes the recordings the input-path quality test reads: the shipped
# recording and two espeak-ng voices in noise, each converted by sox to
# 44.1 and 48 kHz, mono and stereo (the right channel at half the left's
# level), float and 16-bit (no dither, and sox in its repeatable mode, -R, whose
# noise is the same on every run: the files are the same on every run).
# Usage: tests/make_speech_variants.sh DATA_DIR OUT_DIR
set -euo pipefail
data="$1"
out="$2"
mkdir -p "$out"
tmp="$out/sources"
mkdir -p "$tmp"

cp "$data/speech16k.wav" "$tmp/shipped.wav"
# Two voices, a pause between sentences, in noise about 20 and 10 dB under the speech.
espeak-ng -v en-us -s 150 -w "$tmp/a.wav" \
  "The quick brown fox jumps over the lazy dog. [[_:_:_:_:]] Then it sleeps until the evening comes."
espeak-ng -v en-gb+f3 -s 140 -w "$tmp/b.wav" \
  "Please record the meeting notes for tomorrow. [[_:_:_:_:]] We start at nine sharp."
for v in a b; do
  seconds=$(soxi -D "$tmp/$v.wav")
  rate=$(soxi -r "$tmp/$v.wav")
  # Half a second of silence before and after the speech.
  sox -R -D "$tmp/$v.wav" "$tmp/$v-padded.wav" pad 0.5 0.5
  total=$(awk -v s="$seconds" 'BEGIN { print s + 1 }')
  if [ "$v" = a ]; then noise="pinknoise vol 0.02"; else noise="whitenoise vol 0.03"; fi
  sox -R -D -n -r "$rate" -c 1 -b 16 "$tmp/$v-noise.wav" synth "$total" $noise
  sox -R -D -m "$tmp/$v-padded.wav" "$tmp/$v-noise.wav" "$tmp/$v-noisy.wav"
done

for source in shipped a-noisy b-noisy; do
  for rate in 44100 48000; do
    for channels in 1 2; do
      # Stereo: the right channel at half the left's level.
      remix=()
      [ "$channels" = 2 ] && remix=(remix 1 1v0.5)
      sox -R -D "$tmp/$source.wav" -r "$rate" -b 16 "$out/$source-$rate-$channels-s16.wav" "${remix[@]}"
      sox -R -D "$tmp/$source.wav" -r "$rate" -e floating-point -b 32 "$out/$source-$rate-$channels-f32.wav" "${remix[@]}"
    done
  done
done
