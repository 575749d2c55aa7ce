// The demo: the microphone through OkuNode, with the live level and its
// assessment, a speech light, the segments found and the proposed gain.
// With ?report, it posts what it saw to /result after two segments (the test
// that takes the screenshot uses that).
import { load, OkuNode } from '../dist/index.js';

const $ = (id) => document.getElementById(id);
const report = new URLSearchParams(location.search).has('report');
const segments = [];
let start = null;

function onVolume(v) {
  $('level').style.width = Math.max(0, 100 + (v.levelDbfs * 100) / 90.3).toFixed(1) + '%';
  $('dbfs').textContent = v.levelDbfs.toFixed(1);
  $('peak').textContent = v.peak;
  $('assessment').textContent = { ok: 'OK', too_noisy: 'too noisy', too_soft: 'too soft', too_loud: 'too loud' }[v.assessment];
  $('assessment').className = v.assessment === 'ok' ? '' : 'bad';
}

function onSpeechStart(e) {
  start = e;
  $('speech').classList.add('on');
}

function onSpeechEnd(e) {
  $('speech').classList.remove('on');
  if (!start) return;
  segments.push({ start: start.time, end: e.time });
  const li = document.createElement('li');
  li.textContent = start.time.toFixed(2) + ' s \u2013 ' + e.time.toFixed(2) + ' s (' + (e.time - start.time).toFixed(2) + ' s)';
  $('segments').append(li);
  start = null;
  if (report && segments.length === 2) {
    fetch('/result', { method: 'POST', body: JSON.stringify({ segments, assessment: $('assessment').textContent }) });
  }
}

function onGain(g) {
  $('gain').textContent = g.gain.toFixed(3);
  $('control').textContent = '(' + g.decision.control + ')';
}

async function run() {
  $('start').disabled = true;
  $('status').textContent = 'starting';
  const stream = await navigator.mediaDevices.getUserMedia({
    audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false },
  });
  const context = new AudioContext();
  const node = await OkuNode.create(context, { onVolume, onSpeechStart, onSpeechEnd, onGain });
  const mute = context.createGain();
  mute.gain.value = 0;
  context.createMediaStreamSource(stream).connect(node).connect(mute).connect(context.destination);
  await context.resume();
  $('status').textContent = 'listening at ' + context.sampleRate + ' Hz (analysed at ' + node.analysisRate + ' Hz)';
}

load().then((oku) => ($('version').textContent = oku.version));
$('start').onclick = () => run().catch((e) => ($('status').textContent = String(e)));
if (report) $('start').click();
