// The package's API in Node: refusals, the forms samples take, slices and
// memory, close, and what a user meets first (the tarball, an uncaught
// error, a wrong wasm module).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { load, wasmBytes } from '../dist/index.js';
import { SLICE_SAMPLES } from '../src/core.js';
import { bursts, EXPECTED } from './audio.mjs';

const oku = await load();
const web = new URL('..', import.meta.url);

test('one shared instance of the library build\'s version', async () => {
  assert.equal(await load(), oku);
  const cmake = readFileSync(new URL('../CMakeLists.txt', web), 'utf8');
  assert.equal(oku.version, cmake.match(/project\(OKUVAD VERSION ([0-9.]+)/)[1]);
  assert.equal(JSON.parse(readFileSync(new URL('package.json', web), 'utf8')).version, oku.version);
});

test('refusals: the right error class, with the library\'s message', () => {
  const refused = [
    // constructor arguments, error, message
    [[44101], RangeError, /44101 Hz is not one of 8000, .*, 48000, .*192000 Hz/],
    [[16000.5], RangeError, /that rate is not one of/],
    [[NaN], RangeError], [[-16000], RangeError], [[2 ** 40], RangeError],
    [['16000'], TypeError], [[16000n], TypeError], [[undefined], TypeError],
    [[16000, 42], TypeError], [[16000, { params: 7 }], TypeError], [[16000, { channels: '2' }], TypeError],
    [[16000, 'a\0b'], RangeError], [[16000, 'novalue'], RangeError, /Invalid format/],
    [[48000, { channels: 0 }], RangeError, /channels must lie in 1 to 64/], [[48000, { channels: 65 }], RangeError],
    [[48000, { channels: 1.5 }], RangeError],
  ];
  for (const Class of [oku.Vad, oku.Agc]) {
    for (const [args, error, message] of refused) {
      assert.throws(() => new Class(...args), (e) => e instanceof error && (!message || message.test(e.message)), String(args));
    }
  }
  assert.throws(() => new oku.Vad(16000, 'EOSTimeoutMs=soon'), { name: 'RangeError', message: /EOSTimeoutMs: 'soon'/ });
  assert.throws(() => new oku.Agc(16000, 'LeastGain=2'), { name: 'RangeError', message: /LeastGain must lie in/ });
  assert.throws(() => oku.Vad(16000), /Class constructor Vad/);

  const vad = new oku.Vad(48000, { channels: 2 });
  const agc = new oku.Agc(48000, { channels: 2 });
  const samples = [
    [[1, 2], TypeError], [new Int32Array(4), TypeError], [new Float64Array(4), TypeError], [null, TypeError],
    [new Float32Array(3), RangeError, /sample count \(3\) is not a whole number of frames of 2 channels/],
    [[new Float32Array(4)], RangeError, /1 channel arrays for 2 channels/],
    [[new Float32Array(4), new Float32Array(5)], RangeError, /differ in length/],
    [[new Float32Array(4), new Int16Array(4)], TypeError],
  ];
  for (const [input, error, message] of samples) {
    const check = (e) => e instanceof error && (!message || message.test(e.message));
    assert.throws(() => vad.process(input), check);
    assert.throws(() => agc.process(input, 0.5), check);
  }
  for (const gain of [-0.1, 1.5, NaN]) assert.throws(() => agc.process(new Int16Array(960), gain), RangeError);
  assert.throws(() => agc.process(new Int16Array(960), '0.5'), TypeError);
  assert.throws(() => agc.write(new Float32Array(SLICE_SAMPLES + 2), 0.5), /at most 1048576 samples/);
  // A refused call takes no audio.
  assert.equal(agc.process(new Int16Array(0), 0.5).decision.timeMs, 0);
  assert.deepEqual(vad.flush(), []);
});

test('keys a service does not read are named', () => {
  assert.deepEqual(new oku.Vad(16000, 'EOSTimeoutMs=600;LeastGain=0.01;Foo=1').unknownKeys, ['Foo', 'LeastGain']);
  assert.deepEqual(new oku.Agc(16000, { params: 'LeastGain=0.01' }).unknownKeys, []);
});

test('every form of the same samples gives the same results; long inputs go in slices with the same events', () => {
  const mono = bursts(48000);
  const stereo = new Int16Array(mono.length * 2);
  mono.forEach((x, i) => stereo.set([x, x], 2 * i));
  const floats = Float32Array.from(mono, (x) => x / 32768);
  const run = (options, samples) => {
    const vad = new oku.Vad(48000, options);
    return [...vad.process(samples), ...vad.flush()];
  };
  const want = run(undefined, mono);
  assert.deepEqual(want.filter((r) => r.type !== 'volume').map((r) => r.position),
    EXPECTED.flat().map((t) => Math.round(t * 48000)));
  assert.deepEqual(run({ channels: 1 }, floats), want);
  assert.deepEqual(run({ channels: 2 }, stereo), want);
  assert.deepEqual(run({ channels: 2 }, Float32Array.from(stereo, (x) => x / 32768)), want);
  assert.deepEqual(run({ channels: 2 }, [floats, floats]), want);
  assert.deepEqual(new oku.Vad(48000, { channels: 2 }).segments([floats, floats]),
    oku.Vad.prototype.segments.call(new oku.Vad(48000), mono));
  // Ten copies in one call go in slices, each with its reading; the speech
  // events are those of calls of 100 ms.
  const long = new Float32Array(floats.length * 10);
  for (let i = 0; i < 10; i++) long.set(floats, i * floats.length);
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
    const v = new oku.Vad(48000, { channels: 2 });
    v.process(new Float32Array(1920));
    v.close();
    new oku.Agc(44100).close();
  }
  assert.ok(oku.memoryBytes - before <= 8 * SLICE_SAMPLES, `${oku.memoryBytes - before} bytes more`);
  vad.close();
  vad.close(); // a second close does nothing
  assert.ok(vad.closed);
  for (const use of [() => vad.process(new Int16Array(2)), () => vad.flush(), () => vad.reset(), () => vad.take({}),
    () => vad.nonfinite]) {
    assert.throws(use, /analyzer is closed/);
  }
});

test('the gain control proposes a change exactly when the decision says so', () => {
  const agc = new oku.Agc(16000);
  const quiet = bursts(16000, 3, 3, 300);
  let gain = 0.05;
  let changes = 0;
  for (let i = 0; i + 320 <= quiet.length; i += 320) {
    const { gain: next, decision } = agc.process(quiet.subarray(i, i + 320), gain);
    assert.equal(decision.changed, next !== gain);
    if (!decision.updated) assert.equal(next, gain);
    changes += decision.changed;
    gain = next;
  }
  assert.ok(changes > 0 && gain > 0.05, 'a quiet recording is turned up');
});

test('a wrong wasm module, or none, is named as such', async () => {
  assert.equal((await load({ wasmBinary: (await wasmBytes()).slice().buffer })).version, oku.version);
  // The smallest module: valid, but not the library.
  const empty = new Uint8Array([0, 97, 115, 109, 1, 0, 0, 0]);
  await assert.rejects(load({ wasmBinary: empty }), /not an oku build of this package: it lacks malloc/);
  await assert.rejects(load({ wasmBinary: new Uint8Array(8) }), WebAssembly.CompileError);
  await assert.rejects(load({ wasmBinary: 'oku.wasm' }), TypeError);
});

test('an uncaught error prints a few lines, not the bundle', () => {
  const script = "import { load } from './dist/index.js'; const oku = await load(); new oku.Vad(44100.5);";
  const r = spawnSync(process.execPath, ['--input-type=module', '-e', script], { cwd: web, encoding: 'utf8' });
  assert.notEqual(r.status, 0);
  assert.match(r.stderr, /RangeError: oku: Sampling rate: that rate is not one of/);
  assert.ok(r.stderr.length < 2000, `${r.stderr.length} characters`);
});

test('the npm tarball holds the package, its README and its LICENSE', () => {
  const [pack] = JSON.parse(execFileSync('npm', ['pack', '--dry-run', '--json'], { cwd: web, encoding: 'utf8' }));
  assert.deepEqual(pack.files.map((f) => f.path).sort(),
    ['LICENSE', 'README.md', 'dist/index.d.ts', 'dist/index.js', 'dist/processor.js', 'package.json']);
  assert.equal(readFileSync(new URL('LICENSE', web), 'utf8'), readFileSync(new URL('../LICENSE', web), 'utf8'));
});
