// A page, as a user writes it, with the DOM library.
import { OkuNode, type NodeSpeechEvent } from 'oku-speech';

const context = new AudioContext();
const node = await OkuNode.create(context, {
  channels: 1,
  onSpeechStart: (e: NodeSpeechEvent) => console.log(e.time, e.libraryPosition),
  onVolume: (v) => console.log(v.levelDbfs, v.assessment),
  processorUrl: new URL('processor.js', location.href),
});
const stream = await navigator.mediaDevices.getUserMedia({ audio: true });
context.createMediaStreamSource(stream).connect(node).connect(context.destination);
node.port.postMessage('the DOM port');
console.log(node.analysisRate, node.unknownKeys);
await node.close();
