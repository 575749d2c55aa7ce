// The package against the native library built from the same sources
// (build-web/native, from web/build.sh and native.c), on the same samples:
// every result of the analyzer in odd chunks and after a flush (with the
// segment a speech end closes), every update of the gain control with its
// proposals fed back, and the count of NaN and infinite samples, number for
// number. The one allowance is for the two values the library computes with
// log10, the level in dBFS and the SNR percentage: the wasm build's C library
// takes logarithms by another route than the GNU C library (to 1e-12).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { load } from '../dist/index.js';
import { GOLDEN, render } from './audio.mjs';
import { BUILD } from './browser.mjs';

const oku = await load();
const name = (s) => s.replace(/-/g, '_'); // the library's names, as the native program prints them

// The package's results as the native program prints them, numbers as numbers.
function packageRun(samples, rate, channels, chunk) {
  const vad = new oku.Vad(rate, { channels });
  const agc = new oku.Agc(rate, { channels });
  const lines = [];
  const line = (r) =>
    lines.push([name(r.type), r.position, r.timeMs,
      ...(r.type === 'volume' ? [r.peak, r.levelDbfs, r.snrPct, name(r.assessment), Number(r.speech)] : []),
      ...(r.type === 'speech_end' ? [r.start, r.startMs] : [])]);
  for (let i = 0; i < samples.length; i += chunk) vad.process(samples.subarray(i, i + chunk)).forEach(line);
  vad.flush().forEach(line);
  let gain = 0.2;
  for (let i = 0, tenth = Math.floor(rate / 10) * channels; i + tenth <= samples.length; i += tenth) {
    const { gain: next, decision: d } = agc.process(samples.subarray(i, i + tenth), gain);
    if (d.updated || d.changed) lines.push(['gain', gain, next, name(d.control), Number(d.changed), d.timeMs, d.pauseDb, d.speechDb]);
    gain = next;
  }
  lines.push(['nonfinite', vad.nonfinite, agc.nonfinite]);
  return lines;
}

function nativeRun(samples, rate, channels, chunk) {
  const file = join(BUILD, 'native.raw');
  writeFileSync(file, samples);
  const args = [rate, channels, samples instanceof Float32Array ? 'f32' : 's16', chunk / channels, file].map(String);
  const text = execFileSync(join(BUILD, 'native'), args, { encoding: 'utf8', maxBuffer: 1 << 26 });
  // Doubles printed with 17 digits and floats with 9 read back to their bits.
  return text.trim().split('\n').map((l) => l.split(' ').map((w, i, all) =>
    !/^-?[0-9]/.test(w) ? w : all[0] === 'gain' && i >= 6 ? Math.fround(Number(w)) : Number(w)));
}

const CASES = [
  // rate, channels, floats
  [8000, 1, false], [11025, 2, true], [16000, 1, false], [22050, 1, true], [12000, 2, true],
  [44100, 2, true], [44100, 1, false], [48000, 1, true], [48000, 2, false],
];

for (const [rate, channels, floats] of CASES) {
  test(`${rate} Hz, ${channels} channel(s), ${floats ? 'float' : '16-bit'}: the native library's results`, () => {
    // Each channel a different mix of the golden recordings; floats hold a NaN and an infinity.
    const a = render(GOLDEN.bursts, rate);
    const b = render(GOLDEN.gaps, rate);
    const samples = (floats ? Float32Array : Int16Array).from({ length: a.length * channels }, (_, i) => {
      const x = i % channels ? (a[i / channels | 0] >> 1) + (b[i / channels | 0] >> 1) : a[i / channels | 0];
      return floats ? x / 32768 : x;
    });
    if (floats) samples.set([NaN, Infinity], samples.length >> 1);
    const chunk = (Math.floor(0.143 * rate) + 3) * channels;
    const want = nativeRun(samples, rate, channels, chunk);
    const got = packageRun(samples, rate, channels, chunk);
    assert.ok(want.filter((l) => l[0] === 'speech_end').length >= 2 && want.some((l) => l[0] === 'gain'));
    assert.deepEqual(want.at(-1), ['nonfinite', floats ? 2 : 0, floats ? 2 : 0]);
    assert.equal(got.length, want.length);
    got.forEach((l, i) => {
      for (const k of l[0] === 'volume' ? [4, 5] : []) {
        assert.ok(Math.abs(l[k] - want[i][k]) < 1e-12, `line ${i}: ${l[k]}, not ${want[i][k]}`);
        l[k] = want[i][k];
      }
      assert.deepEqual(l, want[i], `line ${i}`);
    });
  });
}
