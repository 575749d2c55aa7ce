// The package's API in Node: refusals, the forms samples take, slices and
// memory, close, and what a user meets first (an uncaught error, a wrong wasm
// module, the tarball).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { load, wasmBytes } from '../dist/index.js';
import { SLICE_SAMPLES } from '../src/core.js';
import { bursts, EXPECTED } from './audio.mjs';

const oku = await load();
const web = new URL('..', import.meta.url);
const refused = (error, message) => (e) => e instanceof error && (!message || message.test(e.message));

test('refusals: the error class, and the library\'s message', async () => {
  assert.equal(await load(), oku, 'one shared instance');
  const constructors = [
    [[44101], RangeError, /^oku: Sampling rate: 44101 Hz is not one of 8000, .*, 48000, .*192000 Hz$/],
    [[16000.5], RangeError, /that rate is not one of/], [[2 ** 40], RangeError], [['16000'], TypeError],
    [[16000, 42], TypeError], [[16000, 'a\0b'], RangeError], [[16000, { params: 'novalue' }], RangeError, /Invalid format/],
    [[48000, { channels: 65 }], RangeError, /channels must lie in 1 to 64/], [[48000, { channels: 1.5 }], RangeError],
  ];
  const vad = new oku.Vad(48000, { channels: 2 });
  const agc = new oku.Agc(48000, { channels: 2 });
  const samples = [
    [new Float64Array(4), TypeError], [[new Float32Array(4), new Int16Array(4)], TypeError],
    [new Float32Array(3), RangeError, /sample count \(3\) is not a whole number of frames of 2 channels/],
    [[new Float32Array(4)], RangeError, /1 channel arrays for 2 channels/],
    [[new Float32Array(4), new Float32Array(5)], RangeError, /differ in length/],
  ];
  for (const [args, error, message] of constructors) {
    for (const Class of [oku.Vad, oku.Agc]) assert.throws(() => new Class(...args), refused(error, message), String(args));
  }
  for (const [input, error, message] of samples) {
    assert.throws(() => vad.process(input), refused(error, message));
    assert.throws(() => agc.process(input, 0.5), refused(error, message));
  }
  assert.throws(() => agc.process(new Int16Array(960), 1.5), RangeError);
  assert.throws(() => agc.write(new Float32Array(SLICE_SAMPLES + 2), 0.5), /at most 1048576 samples/);
  assert.throws(() => oku.Vad(16000), /Class constructor Vad/);
  // A refused call takes no audio.
  assert.equal(agc.process(new Int16Array(0), 0.5).decision.timeMs, 0);
  assert.deepEqual(vad.flush(), []);
  assert.deepEqual(new oku.Vad(16000, 'EOSTimeoutMs=600;LeastGain=0.01;Foo=1').unknownKeys, ['Foo', 'LeastGain']);
});

test('every form of the same samples gives the same results; a long input goes in slices', () => {
  const mono = bursts(48000);
  const floats = Float32Array.from(mono, (x) => x / 32768);
  const stereo = new Int16Array(mono.length * 2).map((_, i) => mono[i >> 1]);
  const run = (options, samples) => {
    const vad = new oku.Vad(48000, options);
    return [...vad.process(samples), ...vad.flush()];
  };
  const want = run(undefined, mono);
  const starts = want.filter((r) => r.type === 'speech_start').map((r) => r.position);
  assert.deepEqual(starts, EXPECTED.map(([s]) => Math.round(s * 48000)));
  assert.deepEqual(run({ channels: 1 }, floats), want);
  assert.deepEqual(run({ channels: 2 }, stereo), want);
  assert.deepEqual(run({ channels: 2 }, [floats, floats]), want);
  assert.deepEqual(new oku.Vad(48000, { channels: 2 }).segments(Float32Array.from(stereo, (x) => x / 32768)).map((s) => s.start), starts);
  // Ten copies in one call: slices of SLICE_SAMPLES, each with its reading,
  // and the speech events of calls of 100 ms.
  const long = new Float32Array(floats.length * 10).map((_, i) => floats[i % floats.length]);
  const events = (results) => results.filter((r) => r.type !== 'volume');
  const whole = new oku.Vad(48000, { channels: 2 }).process([long, long]);
  assert.equal(whole.length - events(whole).length, Math.ceil((2 * long.length) / SLICE_SAMPLES));
  const chunked = new oku.Vad(48000);
  const got = [];
  for (let i = 0; i < long.length; i += 4800) got.push(...events(chunked.process(long.subarray(i, i + 4800))));
  assert.equal(got.length, 40);
  assert.deepEqual(events(whole), got);
});

test('wasm memory holds a few slices, whatever the input\'s length; closed objects\' memory is reused', () => {
  const vad = new oku.Vad(16000);
  vad.process(new Float32Array(SLICE_SAMPLES));
  const before = oku.memoryBytes;
  vad.process(new Float32Array(32 * SLICE_SAMPLES)); // 35 minutes at 16 kHz: 128 MB
  for (let i = 0; i < 300; i++) {
    new oku.Vad(48000, { channels: 2 }).close();
    new oku.Agc(44100).close();
  }
  assert.ok(oku.memoryBytes - before <= 8 * SLICE_SAMPLES, `${oku.memoryBytes - before} bytes more`);
  vad.close();
  vad.close(); // a second close does nothing
  for (const use of [() => vad.process(new Int16Array(2)), () => vad.flush(), () => vad.take({}), () => vad.nonfinite]) {
    assert.throws(use, /analyzer is closed/);
  }
});

test('a wrong wasm module is named; an uncaught error prints a few lines; the tarball has README and LICENSE', async () => {
  assert.equal((await load({ wasmBinary: (await wasmBytes()).slice().buffer })).version, oku.version);
  const empty = new Uint8Array([0, 97, 115, 109, 1, 0, 0, 0]); // valid, but not the library
  await assert.rejects(load({ wasmBinary: empty }), /not an oku build of this package: it lacks malloc/);
  await assert.rejects(load({ wasmBinary: new Uint8Array(8) }), WebAssembly.CompileError);
  await assert.rejects(load({ wasmBinary: 'oku.wasm' }), TypeError);

  const script = "import { load } from './dist/index.js'; const oku = await load(); new oku.Vad(44100.5);";
  const r = spawnSync(process.execPath, ['--input-type=module', '-e', script], { cwd: web, encoding: 'utf8' });
  assert.match(r.stderr, /RangeError: oku: Sampling rate: that rate is not one of/);
  assert.ok(r.status !== 0 && r.stderr.length < 2000, `${r.stderr.length} characters`);

  const [pack] = JSON.parse(execFileSync('npm', ['pack', '--dry-run', '--json'], { cwd: web, encoding: 'utf8' }));
  assert.deepEqual(pack.files.map((f) => f.path).sort(),
    ['LICENSE', 'README.md', 'dist/index.d.ts', 'dist/index.js', 'dist/processor.js', 'package.json']);
  assert.equal(readFileSync(new URL('LICENSE', web), 'utf8'), readFileSync(new URL('../LICENSE', web), 'utf8'));
});
