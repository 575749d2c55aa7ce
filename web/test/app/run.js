// The test application: renders the stereo recording through OkuNode in an
// OfflineAudioContext at 48 and 44.1 kHz and posts every message the node
// gave, or the error. The same code runs as a plain ES module and as the
// bundles of esbuild, Vite and webpack.
import { stereo } from '../audio.mjs';

export async function run(OkuNode) {
  const report = (body) => fetch('/result', { method: 'POST', body: JSON.stringify(body) });
  try {
    const messages = {};
    for (const rate of [48000, 44100]) {
      const planes = stereo(rate);
      const context = new OfflineAudioContext(2, planes[0].length, rate);
      const buffer = context.createBuffer(2, planes[0].length, rate);
      planes.forEach((p, c) => buffer.copyToChannel(p, c));
      const source = context.createBufferSource();
      source.buffer = buffer;
      const got = (messages[rate] = []);
      const keep = (m) => got.push(m);
      const node = await OkuNode.create(context, { onSpeechStart: keep, onSpeechEnd: keep, onVolume: keep, onGain: keep, gain: 0.5 });
      source.connect(node).connect(context.destination);
      source.start();
      await context.startRendering();
      await node.close();
    }
    await report({ messages });
  } catch (e) {
    await report({ error: String(e && e.stack ? e.stack : e) });
  }
}
