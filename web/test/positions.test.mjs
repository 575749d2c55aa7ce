// Positions past 2^31 and 2^32 frames, exact: in the API, on a stream of a
// reused silent chunk with the bursts recording after each mark; and in the
// worklet processor, driven in Node as the audio thread drives it, in a
// context that has run past 2^32 frames, where every message it posts is the
// API's result for the same quanta, moved to the context's frames.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { load, wasmBytes } from '../dist/index.js';
import { bursts, EXPECTED, nodeMessages, stereo } from './audio.mjs';

const oku = await load();

test('speech starts after 2^31 and 2^32 input frames lie where the timing rules put them', () => {
  const rate = 8000;
  const silence = new Int16Array(160 * 6400); // 128 s of 20 ms frames
  const speech = bursts(rate, 6, 0); // tone bursts in digital silence
  const vad = new oku.Vad(rate);
  const r = {};
  const starts = [];
  const marks = [];
  let at = 0;
  const feed = (samples) => {
    vad.write(samples);
    at += samples.length;
    while (vad.take(r)) if (r.type === 'speech_start') starts.push(r.position);
  };
  for (const mark of [2 ** 31, 2 ** 32]) {
    while (at < mark) feed(silence);
    marks.push(at);
    feed(speech);
  }
  assert.deepEqual(starts, marks.flatMap((m) => EXPECTED.map(([s]) => m + Math.round(s * rate))));
});

test('the worklet posts the API\'s results in context frames, past 2^32', async () => {
  const posted = [];
  let Processor;
  Object.assign(globalThis, {
    AudioWorkletProcessor: class {
      port = { postMessage: (m) => posted.push(structuredClone(m)) };
    },
    registerProcessor: (name, c) => (Processor = c),
    sampleRate: 48000,
    currentFrame: 2 ** 32 + 12345,
  });
  await import('../dist/processor.js');
  const module = await WebAssembly.compile(await wasmBytes());
  const p = new Processor({ processorOptions: { module, moduleId: 1, channels: 2, gain: 0.5, volume: true } });
  const { memoryBytes, ...ready } = posted.shift();
  assert.deepEqual(ready, { type: 'ready', analysisRate: 16000, unknownKeys: [] });
  assert.ok(memoryBytes > 0);

  const planes = stereo(48000);
  const out = [new Float32Array(128), new Float32Array(128)];
  for (let i = 0; i + 128 <= planes[0].length; i += 128) {
    const quantum = planes.map((x) => x.subarray(i, i + 128));
    assert.equal(p.process([quantum], [out]), true);
    assert.deepEqual(out, quantum, 'the node passes its input through');
  }
  const want = nodeMessages(oku, planes, 48000, 2 ** 32 + 12345, 0.5);
  assert.equal(want.filter((m) => m.type === 'speech_start').length, 2);
  assert.ok(want.some((m) => m.type === 'gain'));
  assert.deepEqual(posted, want);
  p.port.onmessage({ data: { type: 'close' } });
  assert.equal(p.process([[]], [out]), false);
});
