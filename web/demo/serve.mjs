// Serves web/ on http://localhost:8080 (or the port given) for the demo page.
import { serve } from '../test/browser.mjs';

const port = Number(process.argv[2] || 8080);
const server = await serve(port);
console.log('oku-speech demo: ' + server.url.replace('127.0.0.1', 'localhost') + '/demo/  (Ctrl-C stops)');
