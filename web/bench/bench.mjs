// Benchmark of the npm package in Node, in one run on the same audio (the
// golden "bursts" recording repeated to a minute, in 20 ms chunks, results
// taken after each):
//   - ns of processor time (not of waiting for a core, so that a busy machine
//     measures as an idle one) per input frame of the package's Vad.process against the native
//     library with the Release build's flags (built here from the same
//     sources into build-web/bench-native), each the best of several runs:
//     16 kHz mono as Int16Array and as Float32Array, and 48 kHz float stereo.
//     Goals: Float32Array at most 1.5x Int16Array in the package, and the
//     package at most 1.5x native on both 16 kHz rows;
//   - a published WebAssembly VAD, @ozymandiasthegreat/vad (libfvad), installed
//     by npm into a cache folder, not a dependency of the package;
//   - the package's size, raw and gzip.
// Usage: node web/bench/bench.mjs
import { execFileSync } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import { homedir } from 'node:os';
import { join } from 'node:path';
import { gzipSync } from 'node:zlib';
import { fileURLToPath } from 'node:url';
import { load } from '../dist/index.js';
import { GOLDEN, render } from '../test/audio.mjs';
import { BUILD } from '../test/browser.mjs';

const RUNS = 11;
// Processor time of this process in ns (its other threads idle once the code is compiled).
const cpu = () => {
  const { user, system } = process.cpuUsage();
  return (user + system) * 1000;
};
const web = fileURLToPath(new URL('..', import.meta.url));
const root = join(web, '..');

// A minute of the recording at `rate`, `channels` interleaved (the second
// at half the level), as 16-bit samples or floats.
function minute(rate, channels, floats) {
  const once = render(GOLDEN.bursts, rate);
  const n = 7 * once.length;
  const out = floats ? new Float32Array(n * channels) : new Int16Array(n * channels);
  for (let i = 0; i < n; i++) {
    for (let c = 0; c < channels; c++) {
      const x = once[i % once.length] / (c + 1);
      out[i * channels + c] = floats ? x / 32768 : Math.round(x);
    }
  }
  return out;
}

// The native program, rebuilt when a source is newer.
const exe = join(BUILD, 'bench-native');
const sources = ['src/audioanalyzer.cpp', 'src/agc.cpp', 'src/measure.cpp', 'src/inputpath.cpp', 'OKUVAD/OKUVAD.cpp',
  'OKUVAD/OKUAGC.cpp', 'OKUVAD/oku.cpp', 'OKUVAD/status.cpp', 'OKUVAD/facts.cpp', 'web/bench/native.c'].map((s) => join(root, s));
const newest = Math.max(...[...sources, join(root, 'src/resamplerfilters.inc')].map((s) => statSync(s).mtimeMs));
if (!existsSync(exe) || statSync(exe).mtimeMs < newest) {
  console.log('building ' + exe + ' (g++ -O3 -DNDEBUG, as the Release build)');
  mkdirSync(BUILD, { recursive: true });
  const version = readFileSync(join(root, 'CMakeLists.txt'), 'utf8').match(/project\(OKUVAD VERSION ([0-9.]+)/)[1];
  execFileSync('g++', ['-O3', '-DNDEBUG', '-std=c++17', '-ffp-contract=off', `-DOKU_VERSION_STRING="${version}"`,
    ...['include', 'include/oku', 'include/oku/detail', 'src', 'OKUVAD'].flatMap((d) => ['-I', join(root, d)]), ...sources, '-o', exe], { stdio: 'inherit' });
}

const oku = await load();
const rows = [];
const goals = [];
for (const [rate, channels, floats] of [[16000, 1, false], [16000, 1, true], [48000, 2, true]]) {
  const samples = minute(rate, channels, floats);
  const chunk = (rate / 50) * channels;
  const raw = join(BUILD, 'bench.raw');
  writeFileSync(raw, samples);
  // The two in turn, so that both meet the machine in the same state.
  let wasm = Infinity;
  let native = Infinity;
  for (let run = 0; run < RUNS; run++) {
    const vad = new oku.Vad(rate, { channels });
    const t0 = cpu();
    for (let i = 0; i < samples.length; i += chunk) vad.process(samples.subarray(i, i + chunk));
    wasm = Math.min(wasm, (cpu() - t0) / (samples.length / channels));
    vad.close();
    const args = [raw, 1, rate, channels, floats ? 'f32' : 's16'].map(String);
    native = Math.min(native, Number(execFileSync(exe, args, { encoding: 'utf8' })));
  }
  const what = `${rate / 1000} kHz ${channels === 1 ? 'mono' : 'stereo'} ${floats ? 'Float32Array' : 'Int16Array'}`;
  rows.push([what, wasm, native]);
  if (rate === 16000) goals.push([`${what}: package / native`, wasm / native]);
}
goals.push(['16 kHz: Float32Array / Int16Array in the package', rows[1][1] / rows[0][1]]);

// libfvad compiled to wasm, from npm, into a cache folder.
let peerRow = null;
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
  const samples = minute(16000, 1, false);
  // It reads a frame's whole buffer, so each frame gets its own (made before timing).
  const frames = [];
  for (let i = 0; i + 320 <= samples.length; i += 320) frames.push(samples.slice(i, i + 320));
  let t = Infinity;
  for (let run = 0; run < RUNS; run++) {
    const vad = new VAD(VADMode.AGGRESSIVE, 16000);
    const t0 = cpu();
    for (const frame of frames) vad.processFrame(frame);
    t = Math.min(t, (cpu() - t0) / samples.length);
    vad.destroy();
  }
  peerRow = t;
} catch (e) {
  console.log('@ozymandiasthegreat/vad could not be run (' + e.message + '); its row is left out');
}

console.log(`\nAnalyzer speed in Node ${process.versions.node}: ns of processor time per input frame, a minute of speech-like audio in 20 ms chunks, best of ${RUNS}`);
console.log('| input | oku-speech (wasm) | oku native | wasm / native |\n|---|---:|---:|---:|');
for (const [what, wasm, native] of rows) console.log(`| ${what} | ${wasm.toFixed(2)} | ${native.toFixed(2)} | ${(wasm / native).toFixed(2)} |`);
if (peerRow) console.log(`| 16 kHz mono Int16Array, @ozymandiasthegreat/vad 2 (libfvad, wasm) | ${peerRow.toFixed(2)} | | |`);
console.log('');
let met = true;
for (const [what, ratio] of goals) {
  met = met && ratio <= 1.5;
  console.log(`${what}: ${ratio.toFixed(2)}x (goal: at most 1.5x) ${ratio <= 1.5 ? 'met' : 'NOT MET'}`);
}

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
process.exitCode = met ? 0 : 1;
