// Benchmark of the npm package, in one run on the same audio (the golden
// "bursts" recording at 16 kHz, repeated to a minute, in 20 ms chunks):
//   - ns per sample of the wasm analyzer in Node against the native library
//     (goal: at most 2x), each the best of several runs;
//   - a published WebAssembly VAD, @ozymandiasthegreat/vad (libfvad), installed
//     by npm into a cache folder, not a dependency of the package;
//   - the package's size, raw and gzip (goal: under 80 KB gzip).
// Usage: node web/bench/bench.mjs [native build folder, default build]
import { execFileSync } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { homedir, tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { gzipSync } from 'node:zlib';
import { fileURLToPath } from 'node:url';
import { load } from '../dist/index.js';
import { GOLDEN, render } from '../test/audio.mjs';

const RUNS = 7;
const web = fileURLToPath(new URL('..', import.meta.url));
const build = resolve(process.argv[2] || join(web, '..', 'build'));
const once = render(GOLDEN.bursts, 16000);
const samples = new Int16Array(once.length * 7);
for (let i = 0; i < 7; i++) samples.set(once, i * once.length);
const rows = [];

const best = (fn) => {
  let t = Infinity;
  for (let i = 0; i < RUNS; i++) {
    const t0 = process.hrtime.bigint();
    fn();
    t = Math.min(t, Number(process.hrtime.bigint() - t0) / samples.length);
  }
  return t;
};

// The package.
const oku = await load();
const wasm = best(() => {
  const vad = new oku.Vad(16000);
  for (let i = 0; i < samples.length; i += 320) vad.process(samples.subarray(i, i + 320));
  vad.close();
});
rows.push(['oku-speech (wasm, Node ' + process.versions.node + ')', wasm]);

// The native library, same audio and chunks.
const lib = join(build, 'libOKUVAD.so');
let native = null;
if (existsSync(lib)) {
  const exe = join(build, 'web-bench-native');
  execFileSync('cc', ['-O2', '-I', join(web, '..', 'OKUVAD'), join(web, 'bench', 'native.c'), lib,
    '-Wl,-rpath,' + build, '-o', exe]);
  const raw = join(tmpdir(), 'oku-web-bench.raw');
  writeFileSync(raw, Buffer.from(samples.buffer));
  native = Number(execFileSync(exe, [raw, String(RUNS)], { encoding: 'utf8' }));
  rows.push(['oku native (' + lib + ')', native]);
} else {
  console.log('native library not found in ' + build + ' (make build makes it); its row is left out');
}

// libfvad compiled to wasm, from npm, into a cache folder.
const cache = join(homedir(), '.cache', 'oku-web-bench');
const peer = join(cache, 'node_modules', '@ozymandiasthegreat', 'vad', 'lib', 'embedded.js');
try {
  if (!existsSync(peer)) {
    mkdirSync(cache, { recursive: true });
    execFileSync('npm', ['install', '--prefix', cache, '--no-audit', '--no-fund', '--silent', '@ozymandiasthegreat/vad@2'],
      { stdio: 'inherit' });
  }
  const { default: VADBuilder, VADMode } = await import(peer);
  const VAD = await VADBuilder();
  // It reads a frame's whole buffer, so each frame gets its own (made before timing).
  const frames = [];
  for (let i = 0; i + 320 <= samples.length; i += 320) frames.push(samples.slice(i, i + 320));
  const t = best(() => {
    const vad = new VAD(VADMode.AGGRESSIVE, 16000);
    for (const frame of frames) vad.processFrame(frame);
    vad.destroy();
  });
  rows.push(['@ozymandiasthegreat/vad 2 (libfvad, wasm)', t]);
} catch (e) {
  console.log('@ozymandiasthegreat/vad could not be run (' + e.message + '); its row is left out');
}

console.log('\nAnalyzer speed: ' + (samples.length / 16000).toFixed(0) + ' s of speech-like audio at 16 kHz in 20 ms chunks, best of ' + RUNS);
console.log('| implementation | ns per sample | x real time |');
console.log('|---|---:|---:|');
for (const [name, t] of rows) console.log(`| ${name} | ${t.toFixed(2)} | ${(1e9 / 16000 / t).toFixed(0)} |`);
if (native) console.log(`\nwasm / native: ${(wasm / native).toFixed(2)}x (goal: at most 2x) ${wasm / native <= 2 ? 'met' : 'NOT MET'}`);

const files = JSON.parse(readFileSync(join(web, 'package.json'), 'utf8')).files;
let raw = 0;
let gz = 0;
console.log('\nPackage size\n| file | bytes | gzip |\n|---|---:|---:|');
for (const f of files.filter((f) => f.endsWith('.js'))) {
  const b = readFileSync(join(web, f));
  const g = gzipSync(b, { level: 9 }).length;
  raw += b.length;
  gz += g;
  console.log(`| ${f} | ${b.length} | ${g} |`);
}
console.log(`| total (wasm embedded) | ${raw} | ${gz} |`);
console.log(`\ngzip total ${(gz / 1024).toFixed(1)} KB (goal: under 80 KB) ${gz < 80 * 1024 ? 'met' : 'NOT MET'}`);
