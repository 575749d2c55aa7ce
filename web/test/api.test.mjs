// The package's API: facts, refusals, close, segments at the times of the
// analyzer's timing rules, and the float conversion rule.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { load, toInt16, wasmBytes } from '../dist/index.js';
import { bursts, EXPECTED } from './audio.mjs';

const oku = await load();

test('version and rates are the library build\'s', () => {
  const cmake = readFileSync(new URL('../../CMakeLists.txt', import.meta.url), 'utf8');
  assert.equal(oku.version, cmake.match(/project\(OKUVAD VERSION ([0-9.]+)/)[1]);
  assert.deepEqual(oku.rates, [8000, 11025, 16000, 22050]);
  const pkg = JSON.parse(readFileSync(new URL('../package.json', import.meta.url), 'utf8'));
  assert.equal(pkg.version, oku.version);
});

test('segments lie at the times of the timing rules, at every rate with whole-sample frames', () => {
  for (const rate of [8000, 16000, 22050]) {
    const samples = bursts(rate);
    const want = EXPECTED.map(([s, e]) => [s * 1000, e * 1000, Math.round(s * rate), Math.round(e * rate)]);
    const vad = new oku.Vad(rate);
    const round6 = (x) => Math.round(x * 1e6) / 1e6;
    const got = vad.segments(samples).map((g) => [round6(g.startMs), round6(g.endMs), g.start, g.end]);
    assert.deepEqual(got, want, `${rate} Hz`);
    // Chunking changes the volume readings, never the speech events; after
    // segments() the run starts afresh, at time 0.
    assert.deepEqual(vad.segments(samples, 7.3).map((g) => g.start), want.map((w) => w[2]));
    vad.close();
  }
});

test('chunks give the events of one call; floats in -1..1 give the events of their 16-bit values', () => {
  const samples = bursts(16000);
  const events = (results) => results.filter((r) => r.type !== 'volume');
  const whole = new oku.Vad(16000);
  const want = [...whole.process(samples), ...whole.flush()];
  const chunked = new oku.Vad(16000);
  const got = [];
  for (let i = 0; i < samples.length; i += 777) got.push(...chunked.process(samples.subarray(i, i + 777)));
  got.push(...chunked.flush());
  assert.deepEqual(events(got), events(want));
  assert.equal(got.filter((r) => r.type === 'volume').length, Math.ceil(samples.length / 777));
  const floats = Float32Array.from(samples, (x) => x / 32768);
  const f = new oku.Vad(16000);
  assert.deepEqual([...f.process(floats), ...f.flush()], want);
  assert.deepEqual(oku.toSegments(want), new oku.Vad(16000).segments(samples));
});

test('the float rule: x * 32768 rounded, halves up, held to 16 bits, NaN as 0', () => {
  const cases = [[1, 32767], [-1, -32768], [2, 32767], [-Infinity, -32768], [NaN, 0], [0.5 / 32768, 1],
    [-0.5 / 32768, 0], [-1.5 / 32768, -1], [1000.4 / 32768, 1000]];
  for (const [x, want] of cases) assert.equal(toInt16(x), want, String(x));
});

test('refusals carry the library\'s message', () => {
  for (const Cls of [oku.Vad, oku.Agc]) {
    assert.throws(() => new Cls(44100), { name: 'RangeError', message: /44100 Hz is not supported.*resample to 22050/ });
    for (const rate of [16000.5, 0, -16000, NaN, Infinity]) assert.throws(() => new Cls(rate), RangeError);
    for (const rate of ['16000', null, undefined, 16000n]) assert.throws(() => new Cls(rate), TypeError);
    assert.throws(() => new Cls(16000, 42), TypeError);
    assert.throws(() => new Cls(16000, 'a\0b'), RangeError);
    assert.throws(() => new Cls(16000, 'novalue'), { name: 'RangeError', message: /Invalid format/ });
  }
  assert.throws(() => new oku.Vad(16000, 'EOSTimeoutMs=soon'), { name: 'RangeError', message: /EOSTimeoutMs: 'soon'/ });
  assert.throws(() => new oku.Agc(16000, 'LeastGain=2'), { name: 'RangeError', message: /LeastGain must lie in/ });

  const vad = new oku.Vad(16000);
  for (const bad of [[1, 2], new Int32Array(4), new Float64Array(4), 'abc', null]) {
    assert.throws(() => vad.process(bad), TypeError);
  }
  for (const ms of [0, -20, NaN, Infinity, 1e-9]) assert.throws(() => vad.segments(new Int16Array(10), ms), RangeError);
  assert.throws(() => vad.segments(new Int16Array(10), '20'), TypeError);

  const agc = new oku.Agc(16000);
  for (const gain of [-0.1, 1.5, NaN]) assert.throws(() => agc.process(new Int16Array(160), gain), RangeError);
  assert.throws(() => agc.process(new Int16Array(160), '0.5'), TypeError);
  // A refused call takes no audio: the gain control still has none.
  assert.equal(agc.process(new Int16Array(0), 0.5).decision.timeMs, 0);
});

test('keys the service does not read are named and passed over', () => {
  const vad = new oku.Vad(16000, 'EOSTimeoutMs=600;LeastGain=0.01;Foo=1');
  assert.deepEqual(vad.unknownKeys, ['Foo', 'LeastGain']);
  const agc = new oku.Agc(16000, 'LeastGain=0.01');
  assert.deepEqual(agc.unknownKeys, []);
});

test('close frees once, and every use after it throws', () => {
  const vad = new oku.Vad(8000);
  const agc = new oku.Agc(8000);
  vad.close();
  agc.close();
  vad.close(); // a second close does nothing
  assert.ok(vad.closed && agc.closed);
  const samples = new Int16Array(160);
  for (const use of [() => vad.process(samples), () => vad.flush(), () => vad.reset(), () => vad.segments(samples),
    () => agc.process(samples, 0.5), () => agc.decision()]) {
    assert.throws(use, /closed/);
  }
  // The memory of closed objects is reused: many objects in turn do not grow the heap.
  const heap = () => oku.memory().buffer.byteLength;
  for (let i = 0; i < 50; i++) new oku.Vad(22050).close();
  const before = heap();
  for (let i = 0; i < 500; i++) {
    const v = new oku.Vad(22050);
    v.process(samples);
    v.close();
    new oku.Agc(22050).close();
  }
  assert.equal(heap(), before);
});

test('the gain control proposes a change exactly when the decision says so', async () => {
  const agc = new oku.Agc(16000);
  const quiet = bursts(16000, 3, 3, 300);
  let gain = 0.05;
  let changes = 0;
  for (let i = 0; i + 320 <= quiet.length; i += 320) {
    const { gain: next, decision } = agc.process(quiet.subarray(i, i + 320), gain);
    assert.equal(decision.changed, next !== gain);
    if (!decision.updated) assert.equal(next, gain);
    if (decision.changed) changes++;
    gain = next;
  }
  assert.ok(changes > 0 && gain > 0.05, 'a quiet recording is turned up');
  // load({ wasmBinary }) takes the wasm file from the application.
  const other = await load({ wasmBinary: (await wasmBytes()).slice().buffer });
  assert.equal(other.version, oku.version);
  await assert.rejects(load({ wasmBinary: 'oku.wasm' }), TypeError);
});
