#!/usr/bin/env bash
# Makes speech16k.wav: two spoken sentences with pauses, a little noise, 16 kHz
# mono 16-bit. The timing is fixed so that tests know where speech lies:
#   1.00 s silence, sentence one, 1.50 s silence, sentence two, 1.00 s silence.
# speech16k.txt receives the start and end of each sentence in samples.
# Needs espeak-ng and sox; sox runs in repeatable mode so the noise is the same each time.
set -euo pipefail
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

say() {  # say TEXT OUT: speech at 16 kHz, trimmed of espeak's own leading/trailing silence
  espeak-ng -v en-us -s 155 -a 120 -w "$tmp/raw.wav" "$1"
  sox -R "$tmp/raw.wav" -r 16000 -c 1 -b 16 "$2" silence 1 0.01 0.5% reverse silence 1 0.01 0.5% reverse
}
say "The quick brown fox jumps over the lazy dog." "$tmp/s1.wav"
say "Please call me back when you have a moment." "$tmp/s2.wav"

sox -R -n -r 16000 -c 1 -b 16 "$tmp/sil1.wav" trim 0 1.00
sox -R -n -r 16000 -c 1 -b 16 "$tmp/sil2.wav" trim 0 1.50
sox -R "$tmp/sil1.wav" "$tmp/s1.wav" "$tmp/sil2.wav" "$tmp/s2.wav" "$tmp/sil1.wav" "$tmp/speech.wav" gain -n -6

len=$(soxi -s "$tmp/speech.wav")
sox -R -n -r 16000 -c 1 -b 16 "$tmp/noise.wav" synth "${len}s" pinknoise vol 0.004
sox -R -m -v 1 "$tmp/speech.wav" -v 1 "$tmp/noise.wav" -b 16 speech16k.wav

n1=$(soxi -s "$tmp/s1.wav"); n2=$(soxi -s "$tmp/s2.wav")
s1=16000; e1=$((s1 + n1)); s2=$((e1 + 24000)); e2=$((s2 + n2))
printf '# sentence start_sample end_sample (16000 Hz)\n1 %d %d\n2 %d %d\n' "$s1" "$e1" "$s2" "$e2" > speech16k.txt
echo "speech16k.wav: $len samples"; cat speech16k.txt
