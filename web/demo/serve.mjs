// Serves web/ on http://localhost:8080 (or the port given) for the demo page,
// under the strict Content-Security-Policy the package is made for.
import { createServer } from 'node:http';
import { readFileSync } from 'node:fs';
import { extname, join, normalize } from 'node:path';
import { fileURLToPath } from 'node:url';

const root = fileURLToPath(new URL('..', import.meta.url));
const types = { '.html': 'text/html', '.js': 'text/javascript', '.css': 'text/css', '.png': 'image/png' };
const port = Number(process.argv[2] || 8080);
createServer((req, res) => {
  let file = normalize(join(root, decodeURIComponent(new URL(req.url, 'http://x').pathname)));
  if (file.endsWith('/')) file += 'index.html';
  try {
    if (!file.startsWith(root)) throw new Error('outside');
    const body = readFileSync(file);
    res.writeHead(200, { 'Content-Type': types[extname(file)] || 'application/octet-stream',
      'Content-Security-Policy': "script-src 'self' 'wasm-unsafe-eval'; connect-src 'self'" });
    res.end(body);
  } catch {
    res.writeHead(404).end();
  }
}).listen(port, 'localhost', () => console.log(`oku-speech demo: http://localhost:${port}/demo/  (Ctrl-C stops)`));
