// Runs OkuNode on the (fake) microphone and posts what it reported once the
// recording's two segments have ended, or an error.
import { OkuNode } from '../dist/index.js';

const report = (body) => fetch('/result', { method: 'POST', body: JSON.stringify(body) });

try {
  const stream = await navigator.mediaDevices.getUserMedia({
    audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false, channelCount: 1 },
  });
  const context = new AudioContext();
  const events = [];
  let volumes = 0;
  const gains = [];
  let done;
  const finished = new Promise((resolve) => (done = resolve));
  const keep = (e) => {
    events.push({ type: e.type, position: e.position, time: e.time });
    if (events.filter((x) => x.type === 'speech-end').length === 2) done();
  };
  const node = await OkuNode.create(context, {
    onSpeechStart: keep,
    onSpeechEnd: keep,
    onVolume: () => volumes++,
    onGain: (g) => gains.push(g.gain),
  });
  const mute = context.createGain();
  mute.gain.value = 0;
  context.createMediaStreamSource(stream).connect(node).connect(mute).connect(context.destination);
  await context.resume();
  await finished;
  node.close();
  await report({ sampleRate: context.sampleRate, libraryRate: node.libraryRate, delay: node.resamplerDelay, events,
    volumes, gains });
} catch (e) {
  await report({ error: String(e && e.stack ? e.stack : e) });
}
