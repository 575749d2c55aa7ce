// The AudioWorklet processor behind OkuNode: hands each render quantum, at
// the context's rate and as the floats of its channels, to an analyzer and a
// gain control of the library, and posts speech starts and ends, volume
// readings and gain proposals to the node, with positions in context frames.
// All nodes of a context share one instance of the library (instantiated
// from the module the page compiled); a closed node's memory is reused.
// A quantum costs two library calls and allocates nothing but the messages.
import { instantiate } from './core.js';

const libraries = new Map(); // module id -> the library

class OkuProcessor extends AudioWorkletProcessor {
  constructor(options) {
    super();
    this.alive = false;
    this.port.onmessage = ({ data }) => {
      if (data.type === 'close') {
        this.close();
        this.port.onmessage = null;
        this.port.postMessage({ type: 'closed', memoryBytes: this.oku ? this.oku.memoryBytes : 0 });
      }
    };
    try {
      this.start(options.processorOptions);
    } catch (e) {
      this.close();
      this.port.postMessage({ type: 'error', name: e.name, message: String(e.message) });
    }
  }

  start(o) {
    let oku = libraries.get(o.moduleId);
    if (!oku) {
      oku = instantiate(o.module instanceof WebAssembly.Module ? o.module : new WebAssembly.Module(o.module));
      libraries.set(o.moduleId, oku);
    }
    this.oku = oku;
    const options = (params) => ({ params, channels: o.channels });
    this.vad = new oku.Vad(sampleRate, options(o.vadParams));
    this.agc = new oku.Agc(sampleRate, options(o.agcParams));
    this.alive = true;
    this.applyGain = o.applyGain;
    this.reportVolume = o.volume;
    this.gain = o.gain;
    this.appliedGain = o.applyGain ? o.gain : 1;
    this.startFrame = -1;
    this.agcFrames = 0;
    this.result = {};
    this.decision = {};
    this.planes = [];
    this.resize(128);
    this.port.postMessage({
      type: 'ready',
      analysisRate: this.vad.analysisRate,
      unknownKeys: this.vad.unknownKeys.concat(this.agc.unknownKeys),
      memoryBytes: oku.memoryBytes,
    });
  }

  // Buffers for quanta of n frames: the audio as analysed, per channel.
  resize(n) {
    for (let c = 0; c < this.vad.channels; c++) this.planes[c] = new Float32Array(n);
    this.frames = n;
  }

  close() {
    this.alive = false;
    if (this.vad) this.vad.close();
    if (this.agc) this.agc.close();
  }

  // Posts the result just taken, in context frames and seconds.
  report(r) {
    if (r.type === 'volume' && !this.reportVolume) return;
    const position = this.startFrame + r.position;
    const message = { type: r.type, position, time: position / sampleRate, libraryPosition: r.position, timeMs: r.timeMs };
    if (r.type === 'volume') {
      message.peak = r.peak;
      message.levelDbfs = r.levelDbfs;
      message.snrPct = r.snrPct;
      message.assessment = r.assessment;
      message.speech = r.speech;
    }
    this.port.postMessage(message);
  }

  process(inputs, outputs) {
    if (!this.alive) return false;
    if (this.startFrame < 0) this.startFrame = currentFrame;
    const input = inputs[0];
    const output = outputs[0];
    const n = output.length ? output[0].length : input.length ? input[0].length : 128;
    if (n !== this.frames) this.resize(n);
    // The input (silence while nothing is connected) times the gain, which
    // moves linearly to a new gain over one quantum so that it does not click.
    const from = this.appliedGain;
    const to = this.applyGain ? this.gain : 1;
    const planes = this.planes;
    for (let c = 0; c < planes.length; c++) {
      const x = input[c];
      const y = planes[c];
      if (!x) y.fill(0);
      else if (from === 1 && to === 1) y.set(x);
      else for (let i = 0; i < n; i++) y[i] = x[i] * (from + ((to - from) * (i + 1)) / n);
      if (output[c]) output[c].set(y);
    }
    this.appliedGain = to;
    this.vad.write(planes);
    while (this.vad.take(this.result)) this.report(this.result);
    const next = this.agc.write(planes, this.gain);
    if (this.agc.decision(this.decision).changed) {
      this.gain = next;
      const position = this.startFrame + this.agcFrames + n;
      this.port.postMessage({ type: 'gain', gain: next, decision: this.decision, position, time: position / sampleRate });
    }
    this.agcFrames += n;
    return true;
  }
}

registerProcessor('oku-processor', OkuProcessor);
