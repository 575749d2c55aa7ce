// The demo page in headless Chromium on a fake microphone (a live
// AudioContext): it lists the recording's two segments with their lengths,
// and its screenshot is saved (build-web/web-demo.png, or the file named by
// OKU_DEMO_SCREENSHOT).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { EXPECTED, bursts } from './audio.mjs';
import { BUILD, WEB, chromiumMissing, open } from './browser.mjs';

test('the demo page shows the segments, and its screenshot is taken', { skip: chromiumMissing() }, async () => {
  const got = await open(WEB, '/demo/?report', { mic: [bursts(48000), 48000], screenshot: true });
  // Lengths as the timing rules give them, within a frame (the capture
  // starts at an instant the page cannot choose).
  assert.deepEqual(got.segments.map((s, i) => Math.abs(s.end - s.start - (EXPECTED[i][1] - EXPECTED[i][0])) <= 0.021), [true, true]);
  assert.match(got.assessment, /^(OK|too noisy|too soft|too loud)$/);
  assert.equal(got.png.subarray(1, 4).toString(), 'PNG');
  writeFileSync(process.env.OKU_DEMO_SCREENSHOT || join(BUILD, 'web-demo.png'), got.png);
});
