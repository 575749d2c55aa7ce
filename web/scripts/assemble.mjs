// Assembles web/dist/ from the wasm file and web/src/ with esbuild:
//   index.js      the package: the API, the node, and the wasm gzipped as
//                 base64 (no fetch, works in any bundler or none; gzip halves
//                 the download, DecompressionStream undoes it)
//   processor.js  the worklet processor, one file that stands alone (a
//                 bundler copies a worklet file as it is)
//   index.d.ts    the types
// It copies the library's LICENSE to web/LICENSE for the npm tarball, and
// refuses a build whose JavaScript holds eval( or new Function.
// Usage: node web/scripts/assemble.mjs build-web/oku.wasm VERSION
import { cpSync, mkdirSync, readFileSync, writeFileSync, copyFileSync, readdirSync, rmSync } from 'node:fs';
import { execFileSync } from 'node:child_process';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const [wasmPath, version] = process.argv.slice(2);
if (!wasmPath || !version) {
  console.error('usage: node assemble.mjs WASM VERSION');
  process.exit(2);
}
const web = join(dirname(fileURLToPath(import.meta.url)), '..');
const dist = join(web, 'dist');
const staging = join(dirname(wasmPath), 'src');
rmSync(dist, { recursive: true, force: true });
mkdirSync(dist, { recursive: true });
cpSync(join(web, 'src'), staging, { recursive: true });

const wasm = readFileSync(wasmPath);
// zopfli writes a standard gzip stream about 6 % smaller than zlib's best.
const packed = execFileSync('zopfli', ['--i15', '-c', wasmPath], { maxBuffer: 1 << 26 });
writeFileSync(
  join(staging, 'wasm.js'),
  "export const WASM_GZIP_BASE64 = '" + packed.toString('base64') + "';\n",
);
// Minified in syntax only: line breaks and names stay, so that an error
// shows its own short line of code (never the line of the embedded wasm)
// and names the class or function it comes from, for 0.3 KB of gzip.
for (const entry of ['index.js', 'processor.js']) {
  execFileSync('esbuild', [join(staging, entry), '--bundle', '--format=esm', '--minify-syntax', '--target=es2020',
    '--log-level=warning', '--banner:js=// oku-speech ' + version + ' (BSD-3-Clause)', '--outfile=' + join(dist, entry)],
  { stdio: 'inherit' });
}
copyFileSync(join(web, 'src', 'index.d.ts'), join(dist, 'index.d.ts'));
// npm packs the notice the licence asks for (web/LICENSE, not kept in git).
copyFileSync(join(web, '..', 'LICENSE'), join(web, 'LICENSE'));

const pkg = JSON.parse(readFileSync(join(web, 'package.json'), 'utf8'));
if (pkg.version !== version) throw new Error('web/package.json has version ' + pkg.version + ', the library ' + version);

for (const f of readdirSync(dist).filter((f) => f.endsWith('.js'))) {
  const text = readFileSync(join(dist, f), 'utf8');
  if (/\beval\(|new Function/.test(text)) throw new Error(f + ' holds eval( or new Function');
}
console.log('web: dist/ built (wasm ' + wasm.length + ' bytes)');
