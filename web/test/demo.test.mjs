// The demo page in headless Chromium on the fake microphone: it lists the
// recording's two segments with their lengths, and its screenshot is saved
// (build-web/web-demo.png, or the file named by OKU_DEMO_SCREENSHOT).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, writeFileSync } from 'node:fs';
import { dirname, resolve } from 'node:path';
import { EXPECTED, bursts } from './audio.mjs';
import { WEB, chromiumMissing, devtools, guard, launch, serve } from './browser.mjs';

test('the demo page shows the segments, and its screenshot is taken', { skip: chromiumMissing() || false }, async () => {
  const server = await serve();
  const browser = launch(server.url + '/demo/?report', { mic: [bursts(48000), 48000], pipe: true, size: '760,640' });
  try {
    const got = await guard(Promise.race([server.result, browser.exited]), 90, 'the demo page');
    assert.equal(got.segments.length, 2);
    // Lengths as the timing rules give them, within a frame (the capture
    // starts at an instant the page cannot choose).
    got.segments.forEach((s, i) => {
      const want = EXPECTED[i][1] - EXPECTED[i][0];
      assert.ok(Math.abs(s.end - s.start - want) <= 0.021, `segment ${i}: ${s.end - s.start} s, not ${want}`);
    });
    assert.match(got.assessment, /^(OK|too noisy|too soft|too loud)$/);
    const send = devtools(browser.child);
    const { targetInfos } = await send('Target.getTargets');
    const page = targetInfos.find((t) => t.type === 'page' && t.url.includes('/demo/'));
    const { sessionId } = await send('Target.attachToTarget', { targetId: page.targetId, flatten: true });
    const { data } = await send('Page.captureScreenshot', { format: 'png' }, sessionId);
    const png = Buffer.from(data, 'base64');
    assert.equal(png.subarray(1, 4).toString(), 'PNG');
    const path = process.env.OKU_DEMO_SCREENSHOT || resolve(WEB, '../build-web/web-demo.png');
    mkdirSync(dirname(path), { recursive: true });
    writeFileSync(path, png);
  } finally {
    server.close();
    await browser.stop();
  }
});
