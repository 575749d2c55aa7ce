// OkuNode in headless Chromium, fed by a fake microphone that plays a
// generated 48 kHz recording: the speech starts and ends it reports lie
// within one frame plus the resampler's delay of the analyzer's results for
// the same recording converted the same way (at the context's rate, through
// the same resampler). The browser's capture starts at an instant the page
// cannot see, so the events are compared relative to the first speech start.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { load, toInt16 } from '../dist/index.js';
import { Resampler } from '../src/resample.js';
import { bursts } from './audio.mjs';
import { chromiumMissing, guard, launch, serve } from './browser.mjs';

const missing = chromiumMissing();

// The analyzer's events for the recording at the context's rate, resampled
// as the worklet does, in context frames.
async function reference(contextRate, libraryRate) {
  const oku = await load();
  const input = Float32Array.from(bursts(contextRate), (x) => x / 32768);
  const r = new Resampler(contextRate, libraryRate, input.length);
  const out = new Float64Array(Math.ceil(input.length / r.step) + 2);
  const n = r.push(input, input.length, out);
  const vad = new oku.Vad(libraryRate);
  const chunk = oku.chunkSamples(libraryRate, 20);
  const events = [];
  const samples = Int16Array.from(out.subarray(0, n), toInt16);
  for (let i = 0; i + chunk <= n; i += chunk) {
    events.push(...vad.process(samples.subarray(i, i + chunk)).filter((e) => e.type !== 'volume'));
  }
  return events.map((e) => ({ type: e.type, position: Math.round(e.position * r.step) }));
}

test('the worklet node finds the recording\'s segments in Chromium', { skip: missing || false }, async () => {
  const server = await serve();
  const browser = launch(server.url + '/test/chromium.html', bursts(48000), 48000);
  try {
    const got = await guard(Promise.race([server.result, browser.exited]), 90, 'the Chromium page');
    assert.equal(got.error, undefined, got.error);
    const want = await reference(got.sampleRate, got.libraryRate);
    assert.deepEqual(got.events.map((e) => e.type), want.map((e) => e.type));
    assert.equal(want.length, 4);
    const frame = Math.round(got.sampleRate * 0.02);
    const offset = got.events[0].position - want[0].position;
    got.events.forEach((e, i) => {
      assert.ok(Math.abs(e.position - offset - want[i].position) <= frame + got.delay,
        `${e.type} at ${e.position - offset}, the analyzer says ${want[i].position}`);
      assert.ok(Math.abs(e.time * got.sampleRate - e.position) < 1e-6, 'time is position in context seconds');
    });
    assert.ok(got.events[0].position > 0);
    // One reading per 20 ms of the ~5 s heard.
    assert.ok(got.volumes > 200, `${got.volumes} volume readings`);
  } finally {
    server.close();
    await browser.stop();
  }
});
