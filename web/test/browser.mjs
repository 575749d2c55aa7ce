// Headless Chromium for the tests: a loopback server for web/ that takes the
// page's results by POST, and a browser whose microphone plays a file.
// Nothing leaves the machine; the test waits on the page's POST, with an
// overall time limit only as a guard against a page that never reports.
import { spawn, spawnSync } from 'node:child_process';
import { createServer } from 'node:http';
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { extname, join, normalize } from 'node:path';
import { fileURLToPath } from 'node:url';

export const WEB = fileURLToPath(new URL('..', import.meta.url));
// The build folder of web/build.sh (the native program, and the tests' files).
export const BUILD = process.env.OKU_WEB_BUILD || fileURLToPath(new URL('../../build-web/', import.meta.url));

const TYPES = { '.html': 'text/html', '.js': 'text/javascript', '.mjs': 'text/javascript', '.css': 'text/css' };

// Why the browser tests cannot run here, or null when they can.
export function chromiumMissing() {
  const r = spawnSync('chromium', ['--version'], { encoding: 'utf8' });
  return r.status === 0 ? null : 'chromium is not installed (scripts/setup.sh --web installs it)';
}

// Serves `root` on 127.0.0.1 and resolves `result` with the first POST
// /result body; a POST /mark is answered with what server.mark() returns.
export async function serve(root = WEB, port = 0) {
  let deliver;
  const result = new Promise((resolve) => (deliver = resolve));
  const server = createServer((req, res) => {
    if (req.method === 'POST') {
      let body = '';
      req.on('data', (d) => (body += d));
      req.on('end', () => {
        if (req.url === '/mark') return res.end(JSON.stringify(self.mark()));
        res.end('{}');
        if (req.url === '/result') deliver(JSON.parse(body));
      });
      return;
    }
    let path = normalize(join(root, decodeURIComponent(new URL(req.url, 'http://x').pathname)));
    if (path.endsWith('/')) path += 'index.html';
    if (!path.startsWith(root)) {
      res.writeHead(403).end();
      return;
    }
    try {
      const body = readFileSync(path);
      res.writeHead(200, {
        'Content-Type': TYPES[extname(path)] || 'application/octet-stream',
        // The package must work under a strict policy: wasm, no eval.
        'Content-Security-Policy': "script-src 'self' 'wasm-unsafe-eval'; connect-src 'self'",
      });
      res.end(body);
    } catch {
      res.writeHead(404).end();
    }
  });
  await new Promise((resolve) => server.listen(port, '127.0.0.1', resolve));
  const self = { url: 'http://127.0.0.1:' + server.address().port, result, mark: () => ({}), close: () => server.close() };
  return self;
}

// The resident memory of the renderer processes of the browser whose
// profile is in `dir`, in bytes (from /proc).
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

// Starts headless Chromium on `url`; `mic`, [samples, rate], is played as its
// microphone. With `pipe`, the DevTools protocol is open on fds 3 and 4.
export function launch(url, { mic, pipe = false, size = '900,700' } = {}) {
  const dir = mkdtempSync(join(tmpdir(), 'oku-chromium-'));
  const wavPath = join(dir, 'mic.wav');
  if (mic) writeFileSync(wavPath, wav(...mic));
  const args = [
    '--headless=new', '--no-sandbox', '--no-first-run', '--disable-gpu', '--mute-audio',
    '--user-data-dir=' + join(dir, 'profile'), '--window-size=' + size,
    '--use-fake-ui-for-media-stream', '--use-fake-device-for-media-stream',
    ...(mic ? ['--use-file-for-fake-audio-capture=' + wavPath + '%noloop'] : []),
    '--autoplay-policy=no-user-gesture-required',
    ...(pipe ? ['--remote-debugging-pipe'] : []),
    url,
  ];
  // Chromium leads a process group of its own, so that stop() can end its helper processes
  // (renderer, GPU, audio) together with it: killed alone, the browser leaves them writing
  // into the profile folder for a moment.
  const child = spawn('chromium', args, {
    detached: true,
    stdio: ['ignore', 'ignore', 'pipe', ...(pipe ? ['pipe', 'pipe'] : [])],
  });
  let log = '';
  child.stderr.on('data', (d) => (log = (log + d).slice(-4000)));
  const exited = new Promise((_, reject) =>
    child.on('exit', (code, signal) => reject(new Error('chromium ended (' + (signal || code) + ') before the page reported:\n' + log))));
  exited.catch(() => {});
  // Settles when the browser has ended, or could not be started at all.
  const ended = new Promise((resolve) => {
    child.on('exit', resolve);
    child.on('error', resolve);
  });
  return {
    child,
    dir,
    exited,
    // Ends the browser and its helpers and removes its folder. Never throws: a folder that
    // a lingering helper keeps writing into is left behind with a warning, since the tests'
    // results do not depend on it.
    async stop() {
      try {
        process.kill(-child.pid, 'SIGKILL');
      } catch {
        // Already gone, or never started.
      }
      await ended;
      try {
        rmSync(dir, { recursive: true, force: true, maxRetries: 20, retryDelay: 100 });
      } catch (e) {
        console.warn('# could not remove ' + dir + ': ' + e.message);
      }
    },
  };
}

// Sends DevTools commands over the pipe: send(method, params, sessionId).
export function devtools(child) {
  let id = 0;
  let buffer = '';
  const waiting = new Map();
  child.stdio[4].on('data', (d) => {
    buffer += d;
    for (let i; (i = buffer.indexOf('\0')) >= 0; ) {
      const msg = JSON.parse(buffer.slice(0, i));
      buffer = buffer.slice(i + 1);
      if (msg.id && waiting.has(msg.id)) {
        const { resolve, reject } = waiting.get(msg.id);
        waiting.delete(msg.id);
        if (msg.error) reject(new Error(msg.error.message));
        else resolve(msg.result);
      }
    }
  });
  return (method, params = {}, sessionId) =>
    new Promise((resolve, reject) => {
      waiting.set(++id, { resolve, reject });
      child.stdio[3].write(JSON.stringify({ id, method, params, ...(sessionId ? { sessionId } : {}) }) + '\0');
    });
}

// A guard for a page that never reports: rejects after `seconds`.
export function guard(promise, seconds, what) {
  let timer;
  const limit = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(what + ': no report within ' + seconds + ' s')), seconds * 1000);
  });
  return Promise.race([promise, limit]).finally(() => clearTimeout(timer));
}

function wav(samples, rate) {
  const data = Buffer.from(samples.buffer, samples.byteOffset, samples.byteLength);
  const h = Buffer.alloc(44);
  h.write('RIFF', 0);
  h.writeUInt32LE(36 + data.length, 4);
  h.write('WAVEfmt ', 8);
  h.writeUInt32LE(16, 16);
  h.writeUInt16LE(1, 20);
  h.writeUInt16LE(1, 22);
  h.writeUInt32LE(rate, 24);
  h.writeUInt32LE(rate * 2, 28);
  h.writeUInt16LE(2, 32);
  h.writeUInt16LE(16, 34);
  h.write('data', 36);
  h.writeUInt32LE(data.length, 40);
  return Buffer.concat([h, data]);
}
