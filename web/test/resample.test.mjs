// The worklet's rate conversion: the rates it picks, and its response
// against the documented passband, stopband and timing.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { load } from '../dist/index.js';
import { PASSBAND, PASSBAND_DB, Resampler, STOPBAND, STOPBAND_DB, libraryRate } from '../src/resample.js';

const oku = await load();

test('context rates go to a whole fraction, else to the nearest library rate', () => {
  const pick = (rate) => libraryRate(rate, oku.rates, oku.nearestRate);
  const want = { 48000: 16000, 44100: 22050, 96000: 16000, 88200: 22050, 32000: 16000, 24000: 8000,
    22050: 22050, 16000: 16000, 11025: 11025, 8000: 8000, 12000: 11025, 37800: 22050 };
  for (const [rate, lib] of Object.entries(want)) assert.equal(pick(Number(rate)), lib, `${rate} Hz`);
});

// Feeds a sine through the resampler in 128-frame blocks; returns the output
// after the filter has filled, and the input instant of each output frame.
function run(inRate, outRate, freq, seconds = 0.5) {
  const r = new Resampler(inRate, outRate, 128);
  const n = Math.round(seconds * inRate);
  const input = new Float32Array(128);
  const out = new Float64Array(256);
  const got = [];
  for (let i = 0; i < n; i += 128) {
    const m = Math.min(128, n - i);
    for (let j = 0; j < m; j++) input[j] = Math.sin((2 * Math.PI * freq * (i + j)) / inRate);
    const c = r.push(input, m, out);
    for (let j = 0; j < c; j++) got.push(out[j]);
  }
  const skip = Math.ceil((2 * r.delay) / r.step) + 2;
  return { r, got, skip };
}

for (const [inRate, outRate] of [[48000, 16000], [44100, 22050], [12000, 11025], [16000, 22050]]) {
  test(`${inRate} -> ${outRate} Hz: passband, stopband and timing as documented`, () => {
    const low = Math.min(inRate, outRate);
    for (const f of [100, 1000, 0.25 * low, PASSBAND * low]) {
      const { r, got, skip } = run(inRate, outRate, f);
      let err = 0;
      for (let k = skip; k < got.length; k++) {
        // Output k stands for input instant k * step: no delay in positions.
        err = Math.max(err, Math.abs(got[k] - Math.sin((2 * Math.PI * f * k * r.step) / inRate)));
      }
      assert.ok(err < 10 ** (PASSBAND_DB / 20) - 1, `${f} Hz: off by ${err}`);
    }
    for (const f of [STOPBAND * low, 0.6 * low, 0.49 * inRate].filter((f) => f < inRate / 2 && f >= STOPBAND * low)) {
      const { got, skip } = run(inRate, outRate, f);
      const peak = Math.max(...got.slice(skip).map(Math.abs));
      assert.ok(20 * Math.log10(peak) <= -STOPBAND_DB, `${f} Hz: ${(20 * Math.log10(peak)).toFixed(1)} dB`);
    }
  });
}

test('blocks of any size up to the maximum give the same output', () => {
  const input = Float32Array.from({ length: 5000 }, (_, i) => Math.sin(i * 0.37) * 0.5 + Math.sin(i * 0.05) * 0.3);
  const collect = (sizes) => {
    const r = new Resampler(44100, 22050, 128);
    const out = new Float64Array(256);
    const got = [];
    for (let i = 0, s = 0; i < input.length; s++) {
      const m = Math.min(sizes[s % sizes.length], input.length - i);
      got.push(...out.subarray(0, r.push(input.subarray(i, i + m), m, out)));
      i += m;
    }
    return got;
  };
  const want = collect([128]);
  // Output n needs input up to n * 2 + delay.
  assert.equal(want.length, Math.floor((input.length - 1 - new Resampler(44100, 22050).delay) / 2) + 1);
  assert.deepEqual(collect([1, 127, 64, 3, 128]), want);
});
