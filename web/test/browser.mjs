// Headless Chromium for the tests: open() serves a folder on 127.0.0.1 under
// a strict Content-Security-Policy, opens a page in a browser of its own
// (whose microphone may play a recording) and returns what the page POSTs to
// /result. Nothing leaves the machine; the test waits on the page's POST, with
// an overall time limit only as a guard against a page that never reports.
import { spawn, spawnSync } from 'node:child_process';
import { createServer } from 'node:http';
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { extname, join, normalize } from 'node:path';
import { fileURLToPath } from 'node:url';

export const WEB = fileURLToPath(new URL('..', import.meta.url));
// The build folder of web/build.sh (the native program, and the tests' files).
export const BUILD = process.env.OKU_WEB_BUILD || fileURLToPath(new URL('../../build-web/', import.meta.url));

// Why the browser tests cannot run here, or false when they can.
export const chromiumMissing = () =>
  spawnSync('chromium', ['--version']).status === 0 ? false : 'chromium is not installed (make web-setup installs it)';

const TYPES = { '.html': 'text/html', '.js': 'text/javascript', '.mjs': 'text/javascript', '.css': 'text/css' };

// Opens root/path and returns the page's report. Options: mic, [Int16Array,
// rate], for the fake microphone; mark(dir), which answers the page's POSTs
// to /mark (dir: the browser's profile); screenshot, which adds the page as
// a PNG to the report once it has reported.
export async function open(root, path, { mic, mark, screenshot } = {}) {
  const dir = mkdtempSync(join(tmpdir(), 'oku-chromium-'));
  let deliver;
  const result = new Promise((resolve) => (deliver = resolve));
  const server = createServer((req, res) => {
    if (req.method === 'POST') {
      let body = '';
      req.on('data', (d) => (body += d));
      req.on('end', () => {
        res.end(JSON.stringify(req.url === '/mark' ? mark(dir) : {}));
        if (req.url === '/result') deliver(JSON.parse(body));
      });
      return;
    }
    let file = normalize(join(root, decodeURIComponent(new URL(req.url, 'http://x').pathname)));
    if (file.endsWith('/')) file += 'index.html';
    try {
      if (!file.startsWith(root)) throw new Error('outside');
      const body = readFileSync(file);
      // The package must work under a strict policy: wasm, no eval.
      res.writeHead(200, { 'Content-Type': TYPES[extname(file)] || 'application/octet-stream',
        'Content-Security-Policy': "script-src 'self' 'wasm-unsafe-eval'; connect-src 'self'" });
      res.end(body);
    } catch {
      res.writeHead(404).end();
    }
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  if (mic) writeFileSync(join(dir, 'mic.wav'), wav(...mic));
  const args = ['--headless=new', '--no-sandbox', '--no-first-run', '--disable-gpu', '--mute-audio',
    '--user-data-dir=' + join(dir, 'profile'), '--window-size=760,640', '--autoplay-policy=no-user-gesture-required',
    '--use-fake-ui-for-media-stream', '--use-fake-device-for-media-stream',
    ...(mic ? ['--use-file-for-fake-audio-capture=' + join(dir, 'mic.wav') + '%noloop'] : []),
    ...(screenshot ? ['--remote-debugging-pipe'] : []), `http://127.0.0.1:${server.address().port}${path}`];
  // A process group of its own, so that its helpers (renderer, audio) end with it.
  const child = spawn('chromium', args, { detached: true, stdio: ['ignore', 'ignore', 'pipe', 'pipe', 'pipe'] });
  let log = '';
  child.stderr.on('data', (d) => (log = (log + d).slice(-4000)));
  const ended = new Promise((resolve) => child.on('exit', resolve).on('error', resolve));
  let timer;
  try {
    const report = await Promise.race([
      result,
      ended.then((code) => Promise.reject(new Error(`chromium ended (${code}) before ${path} reported:\n${log}`))),
      new Promise((_, reject) => (timer = setTimeout(() => reject(new Error(path + ': no report in 180 s')), 180e3))),
    ]);
    if (report.error) throw new Error(path + ': ' + report.error);
    if (screenshot) report.png = await capture(child);
    return report;
  } finally {
    clearTimeout(timer);
    server.close();
    try {
      process.kill(-child.pid, 'SIGKILL');
    } catch {
      // Already gone.
    }
    await ended;
    rmSync(dir, { recursive: true, force: true, maxRetries: 20, retryDelay: 100 });
  }
}

// The page as a PNG, through the DevTools protocol on fds 3 and 4.
async function capture(child) {
  let id = 0;
  let buffer = '';
  const waiting = new Map();
  child.stdio[4].on('data', (d) => {
    buffer += d;
    for (let i; (i = buffer.indexOf('\0')) >= 0; buffer = buffer.slice(i + 1)) {
      const msg = JSON.parse(buffer.slice(0, i));
      if (waiting.has(msg.id)) waiting.get(msg.id)(msg.result);
    }
  });
  const send = (method, params = {}, sessionId) =>
    new Promise((resolve) => {
      waiting.set(++id, resolve);
      child.stdio[3].write(JSON.stringify({ id, method, params, sessionId }) + '\0');
    });
  const { targetInfos } = await send('Target.getTargets');
  const { targetId } = targetInfos.find((t) => t.type === 'page');
  const { sessionId } = await send('Target.attachToTarget', { targetId, flatten: true });
  return Buffer.from((await send('Page.captureScreenshot', { format: 'png' }, sessionId)).data, 'base64');
}

// The resident memory of the renderer processes of the browser whose
// profile is in `dir`, in bytes.
export function rendererMemory(dir) {
  let bytes = 0;
  for (const pid of readdirSync('/proc').filter((p) => /^[0-9]+$/.test(p))) {
    try {
      const cmdline = readFileSync(`/proc/${pid}/cmdline`, 'utf8');
      if (!cmdline.includes('--type=renderer') || !cmdline.includes(dir)) continue;
      bytes += Number(readFileSync(`/proc/${pid}/status`, 'utf8').match(/VmRSS:\s+([0-9]+) kB/)[1]) * 1024;
    } catch {
      // The process ended meanwhile.
    }
  }
  return bytes;
}

// A mono 16-bit WAV file.
function wav(samples, rate) {
  const h = Buffer.alloc(44);
  h.write('RIFF\0\0\0\0WAVEfmt \x10\0\0\0\x01\0\x01\0', 0, 'latin1');
  h.writeUInt32LE(36 + samples.byteLength, 4);
  h.writeUInt32LE(rate, 24);
  h.writeUInt32LE(rate * 2, 28);
  h.write('\x02\0\x10\0data', 32, 'latin1');
  h.writeUInt32LE(samples.byteLength, 40);
  return Buffer.concat([h, Buffer.from(samples.buffer, samples.byteOffset, samples.byteLength)]);
}
