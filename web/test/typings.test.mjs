// The typings: tsc --strict compiles a Node program without the DOM library
// and a page with it (test/types/), and the names they declare (listed in
// test/types/exports.ts, which the compiler holds to the typings both ways)
// are the names that exist at run time.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { pathToFileURL } from 'node:url';
import * as pkg from '../dist/index.js';
import { BUILD, WEB } from './browser.mjs';

let tsc = null;
try {
  tsc = createRequire(join(WEB, 'package.json')).resolve('typescript/bin/tsc');
} catch {
  // Not installed: the test says so.
}

// The public names of an object: its own and its class's, without the
// underscored ones.
const names = (object) => {
  const proto = Object.getPrototypeOf(object);
  const inherited = proto === Object.prototype ? [] : Object.getOwnPropertyNames(proto);
  return [...new Set([...Object.keys(object), ...inherited])].filter((n) => n !== 'constructor' && !n.startsWith('_')).sort();
};

test('the typings compile in both projects and name what exists at run time', { skip: !tsc && 'run make web-setup for TypeScript' }, async () => {
  for (const project of ['node', 'browser']) {
    execFileSync(process.execPath, [tsc, '-p', join(WEB, 'test', 'types', `tsconfig.${project}.json`)], { stdio: 'inherit' });
  }
  const declared = await import(pathToFileURL(join(BUILD, 'types', 'exports.js')));
  const oku = await pkg.load();
  const actual = { module: Object.keys(pkg).sort(), oku: names(oku), vad: names(new oku.Vad(16000)), agc: names(new oku.Agc(16000)) };
  for (const [what, list] of Object.entries(actual)) assert.deepEqual(Object.keys(declared[what]).sort(), list, what);
});
