// OkuNode in headless Chromium under a strict Content-Security-Policy. The
// test application (test/app/) runs as a plain ES module and as the bundles
// of esbuild (ESM and iife), Vite and webpack, built as docs/web.md says: every message its
// nodes post (speech starts and ends, readings, gain proposals, in context
// frames) is the package's result in Node for the same 128-frame quanta, bit
// for bit, at 48 and 44.1 kHz in stereo. And one context creates and closes
// 1000 nodes, then keeps 32 alive, its memory flat after the first 100.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { copyFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { load } from '../dist/index.js';
import { nodeMessages, stereo } from './audio.mjs';
import { BUILD, WEB, chromiumMissing, open, rendererMemory } from './browser.mjs';

const skip = chromiumMissing();
const APP = join(WEB, 'test', 'app');
const require = createRequire(join(WEB, 'package.json'));
const tools = (() => {
  try {
    return { vite: require.resolve('vite'), webpack: require('webpack') };
  } catch {
    return null;
  }
})();

// Each bundler's build as docs/web.md gives it, and the page that loads it.
const esbuild = (format) => (out) =>
  execFileSync('esbuild', ['main.js', 'oku-speech/processor.js', '--bundle', '--format=' + format, '--entry-names=[name]',
    '--outdir=' + out, '--log-level=error'], { cwd: APP });
const BUNDLERS = {
  esbuild: [esbuild('esm'), 'index.html'],
  'esbuild (iife)': [esbuild('iife'), 'classic.html'],
  vite: [async (out) =>
    (await import(tools.vite)).build({ root: APP, logLevel: 'warn', build: { outDir: out, emptyOutDir: true } })],
  webpack: [(out) =>
    new Promise((resolve, reject) =>
      tools.webpack({ mode: 'production', context: APP, entry: './main.js', experiments: { outputModule: true },
        output: { path: out, filename: 'main.js', module: true } }, (e, stats) =>
        e || stats.hasErrors() ? reject(e || new Error(stats.toString('errors-only'))) : resolve())), 'index.html'],
};

const oku = await load();
const want = {};
for (const rate of [48000, 44100]) want[rate] = nodeMessages(oku, stereo(rate), rate, 0, 0.5);

for (const name of ['plain', ...Object.keys(BUNDLERS)]) {
  const missing = skip || ((name === 'vite' || name === 'webpack') && !tools && 'run make web-setup for Vite and webpack');
  test(`the test application, ${name === 'plain' ? 'as a plain module' : 'bundled by ' + name}: the package's results`, { skip: missing }, async () => {
    let root = WEB;
    let path = '/test/app/plain.html';
    if (name !== 'plain') {
      const [build, page] = BUNDLERS[name];
      root = join(BUILD, 'bundles', name.replace(/\W+/g, '-'));
      await build(root);
      if (page) copyFileSync(join(APP, page), join(root, 'index.html'));
      path = '/index.html';
    }
    const got = await open(root, path);
    for (const rate of [48000, 44100]) {
      assert.ok(want[rate].filter((m) => m.type === 'speech_end').length === 2 && want[rate].some((m) => m.type === 'gain'));
      assert.deepEqual(got.messages[rate], want[rate], `${rate} Hz`);
    }
  });
}

test('one context: a missing worklet file named, 1000 nodes created and closed, 32 alive, in flat memory', { skip }, async () => {
  const { missing, marks } = await open(WEB, '/test/app/nodes.html', { mark: (dir) => ({ renderer: rendererMemory(dir) }) });
  // A worklet file that is not there is named, with the remedy, and the
  // failure is not kept: the nodes after it load the right one.
  assert.match(missing, /could not be loaded from \/nowhere\/processor\.js .*processorUrl/);
  assert.deepEqual(marks.map((m) => m.nodes), [100, 1000, 1032]);
  // The worklet's one instance reuses what closed nodes gave back.
  assert.equal(marks[1].wasm, marks[0].wasm);
  assert.equal(marks[2].wasm, marks[0].wasm);
  // What the renderer keeps per closed node is what Chromium keeps of any
  // AudioWorkletNode (25 to 30 KB, an empty processor's too), far from an
  // instance of 16 MiB per node.
  const perNode = (marks[1].renderer - marks[0].renderer) / 900;
  assert.ok(perNode < 128 << 10, `the renderer grew by ${perNode >> 10} KiB per node from node 100 to node 1000`);
});
