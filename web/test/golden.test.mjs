// The recordings behind tests/golden through the wasm build give the native
// library's results: every speech event and volume reading of the analyzer
// (chunks of 7 frames + 3 samples, flushed at the end) and every update of the
// gain control (chunks of 10 ms scaled by the gain in force), number for
// number. The golden files print doubles with 17 significant digits and
// floats with 9, so parsing them gives back the very bits the native library
// produced, and the comparison is exact, with one exception: the wasm build's
// C library takes logarithms by another route than the GNU C library, so a
// level in dBFS may differ in its last bits (it is compared to 1e-14 dB).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { load } from '../dist/index.js';
import { GOLDEN, render } from './audio.mjs';

const oku = await load();
const goldenDir = new URL('../../tests/golden/', import.meta.url);
const RATES = [8000, 11025, 16000, 22050];

// The golden file's lines of one section (by the start of its heading).
function section(text, heading) {
  const lines = text.split('\n');
  const start = lines.findIndex((l) => l.startsWith('## ' + heading));
  assert.ok(start >= 0, 'no section ' + heading);
  const end = lines.findIndex((l, i) => i > start && l.startsWith('## ') && !lines[i - 1].startsWith('## '));
  return lines.slice(start + 1, end < 0 ? undefined : end).filter((l) => !l.startsWith('## '));
}

const fields = (line) =>
  Object.fromEntries(line.split(' ').filter((w) => w.includes('=')).map((w) => w.split('=')).map(([k, v]) => [k, Number(v)]));

for (const [name, stretches] of Object.entries(GOLDEN)) {
  for (const rate of RATES) {
    const text = readFileSync(new URL(name + '-' + rate + '.txt', goldenDir), 'utf8');
    const samples = render(stretches, rate);

    test(`${name} at ${rate} Hz: the analyzer's events and readings`, () => {
      assert.match(text, new RegExp(`^# ${name} at ${rate} Hz, ${samples.length} samples`), 'the recording differs');
      const chunk = 7 * Math.floor((20 * rate) / 1000) + 3;
      const want = section(text, 'analyzer class')
        .filter((l) => /^(event speech_|meter |flush)/.test(l))
        .map((l) => {
          const w = l.split(' ');
          if (w[0] === 'flush') return { type: 'flush' };
          if (w[0] === 'event') return { type: w[1].replace('_', '-'), timeMs: Number(w[2]) };
          const f = fields(l);
          return { type: 'volume', timeMs: Number(w[1]), assessment: w[2].replace('_', '-'), peak: f.peak,
            levelDbfs: f.dbfs, snrPct: f.snr_pct, speech: f.speech === 1 };
        });
      const vad = new oku.Vad(rate);
      const got = [];
      const keep = (results) => {
        for (const r of results) {
          const { position, ...rest } = r;
          // A position is its time in whole samples.
          assert.equal(position, Math.round((r.timeMs * rate) / 1000));
          got.push(rest);
        }
      };
      for (let i = 0; i < samples.length; i += chunk) keep(vad.process(samples.subarray(i, i + chunk)));
      got.push({ type: 'flush' });
      keep(vad.flush());
      vad.close();
      assert.equal(got.length, want.length);
      got.forEach((r, i) => {
        const w = want[i];
        if (r.type === 'volume') {
          assert.ok(Math.abs(r.levelDbfs - w.levelDbfs) < 1e-14, `reading ${i}: ${r.levelDbfs} dBFS, not ${w.levelDbfs}`);
          r = { ...r, levelDbfs: w.levelDbfs };
        }
        assert.deepEqual(r, w, `result ${i}`);
      });

      // segments() in chunks of the same length pairs the same events.
      const chunkMs = (chunk * 1000) / rate;
      assert.equal(oku.chunkSamples(rate, chunkMs), chunk);
      const seg = new oku.Vad(rate).segments(samples, chunkMs);
      const events = want.filter((r) => r.type.startsWith('speech'));
      assert.ok(events.length >= 4);
      assert.deepEqual(
        seg,
        oku.toSegments(events.map((e) => ({ ...e, position: Math.round((e.timeMs * rate) / 1000) }))),
      );
    });

    test(`${name} at ${rate} Hz: the gain control's updates`, () => {
      const chunk = Math.floor(rate / 100);
      const want = section(text, 'gain control class')
        .filter((l) => l.startsWith('update '))
        .map((l) => {
          const w = l.split(' ');
          const f = fields(l);
          const float = Math.fround;
          return [float(Number(w[1])), float(Number(w[2])), oku.controls[f.control], f.time, float(f.pause), float(f.speech)];
        });
      const agc = new oku.Agc(rate);
      const got = [];
      let gain = Math.fround(0.2);
      for (let i = 0; i + chunk <= samples.length; i += chunk) {
        // The microphone follows the gain: each sample times the gain as a
        // float, truncated, as the native test scales it.
        const part = samples.slice(i, i + chunk).map((x) => Math.trunc(Math.fround(x * gain)));
        const { gain: next, decision: d } = agc.process(part, gain);
        if (d.updated || next !== gain) got.push([gain, next, d.control, d.timeMs, d.pauseDb, d.speechDb]);
        gain = next;
      }
      agc.close();
      assert.ok(want.length > 10);
      assert.deepEqual(got, want);
    });
  }
}
