// The package against the native library built from the same sources
// (build-web/native, made by web/build.sh), on the same samples: every result
// of the analyzer in odd chunks and after a flush, with the segment each
// speech end closes, every update of the gain control with its proposals fed
// back, and the count of NaN and infinite samples, number for number. The one
// allowance is for the two values the library computes with log10, the level
// in dBFS and the SNR percentage: the wasm build's C library takes logarithms
// by another route than the GNU C library (compared to 1e-12).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { load } from '../dist/index.js';
import { GOLDEN, render } from './audio.mjs';
import { BUILD } from './browser.mjs';

const oku = await load();

// A recording at `rate` with `channels` channels (each a different mix of the
// golden recordings), interleaved, as 16-bit samples or floats; floats carry
// a NaN and an infinity.
function recording(rate, channels, floats) {
  const a = render(GOLDEN.bursts, rate);
  const b = render(GOLDEN.gaps, rate).subarray(0, a.length);
  const out = floats ? new Float32Array(a.length * channels) : new Int16Array(a.length * channels);
  for (let i = 0; i < a.length; i++) {
    for (let c = 0; c < channels; c++) {
      const x = c === 0 ? a[i] : (a[i] >> 1) + (b[i] >> 1);
      out[i * channels + c] = floats ? x / 32768 : x;
    }
  }
  if (floats) out.set([NaN, Infinity], out.length >> 1);
  return out;
}

// The package's results in the native program's form: the library's names,
// numbers as numbers.
function packageRun(samples, rate, channels, chunk) {
  const vad = new oku.Vad(rate, { channels });
  const agc = new oku.Agc(rate, { channels });
  const lines = [];
  const line = (r) => {
    const l = [r.type.replace('-', '_'), r.position, r.timeMs];
    if (r.type === 'volume') l.push(r.peak, r.levelDbfs, r.snrPct, r.assessment.replace('-', '_'), Number(r.speech));
    if (r.type === 'speech-end') l.push(r.start, r.startMs);
    lines.push(l);
  };
  for (let i = 0; i < samples.length; i += chunk * channels) vad.process(samples.subarray(i, i + chunk * channels)).forEach(line);
  vad.flush().forEach(line);
  const tenth = (rate / 10) * channels;
  let gain = 0.2;
  for (let i = 0; i + tenth <= samples.length; i += tenth) {
    const { gain: next, decision: d } = agc.process(samples.subarray(i, i + tenth), gain);
    if (d.updated || d.changed) lines.push(['gain', gain, next, d.control.replace(/-/g, '_'), Number(d.changed), d.timeMs, d.pauseDb, d.speechDb]);
    gain = next;
  }
  lines.push(['nonfinite', vad.nonfinite, agc.nonfinite]);
  return { lines, segments: vad.segments(samples) };
}

function nativeRun(samples, rate, channels, chunk) {
  const file = join(BUILD, `native-${rate}-${channels}.raw`);
  writeFileSync(file, samples);
  const format = samples instanceof Float32Array ? 'f32' : 's16';
  const text = execFileSync(join(BUILD, 'native'), [rate, channels, format, chunk, file].map(String), { encoding: 'utf8', maxBuffer: 1 << 26 });
  // Numbers as the package reads them: doubles from 17 digits, floats from 9.
  return text.trim().split('\n').map((l) =>
    l.split(' ').map((w, i, all) => {
      if (!/^-?[0-9.]/.test(w) && !/^-?(inf|nan)$/.test(w)) return w;
      const x = Number(w);
      return all[0] === 'gain' && i >= 6 ? Math.fround(x) : x;
    }));
}

const CASES = [
  // rate, channels, floats
  [16000, 1, false],
  [22050, 1, true],
  [44100, 2, true],
  [44100, 1, false],
  [48000, 1, true],
  [48000, 2, false],
  [12000, 2, true],
];

for (const [rate, channels, floats] of CASES) {
  test(`${rate} Hz, ${channels} channel(s), ${floats ? 'float' : '16-bit'}: the native library's results`, () => {
    const samples = recording(rate, channels, floats);
    const chunk = Math.floor(0.143 * rate) + 3;
    const want = nativeRun(samples, rate, channels, chunk);
    const { lines, segments } = packageRun(samples, rate, channels, chunk);
    assert.equal(lines.length, want.length);
    assert.ok(want.filter((l) => l[0] === 'speech_end').length >= 2 && want.some((l) => l[0] === 'gain'));
    lines.forEach((l, i) => {
      if (l[0] === 'volume') {
        for (const k of [4, 5]) {
          assert.ok(Math.abs(l[k] - want[i][k]) < 1e-12, `line ${i}: ${l[k]}, not ${want[i][k]}`);
          l[k] = want[i][k];
        }
      }
      assert.deepEqual(l, want[i], `line ${i}`);
    });
    assert.deepEqual(want.at(-1), ['nonfinite', floats ? 2 : 0, floats ? 2 : 0]);
    // segments() cuts the whole recording in other chunks: the same segments.
    const ends = want.filter((l) => l[0] === 'speech_end');
    assert.deepEqual(segments, ends.map((l) => ({ start: l[3], end: l[1], startMs: l[4], endMs: l[2] })));
  });
}
