// The AudioWorklet processor behind OkuNode: mixes its input to mono,
// converts it to a library rate, cuts 20 ms chunks and hands them to an
// analyzer and a gain control; posts speech starts and ends, volume
// readings and gain proposals to the node, with positions in context frames.
// Each 128-frame quantum only fills preallocated buffers; a full chunk costs
// one call into the library and a message per result.
import { instantiate, toInt16 } from './core.js';
import { Resampler, libraryRate } from './resample.js';

const CHUNK_MS = 20;
const QUANTUM = 128;

class OkuProcessor extends AudioWorkletProcessor {
  constructor(options) {
    super();
    this.alive = true;
    this.port.onmessage = ({ data }) => {
      if (data.type === 'close') this.close();
    };
    try {
      this.start(options.processorOptions);
    } catch (e) {
      this.alive = false;
      this.port.postMessage({ type: 'error', message: String(e && e.message ? e.message : e) });
    }
  }

  start(o) {
    const oku = instantiate(new WebAssembly.Module(o.wasm));
    this.oku = oku;
    const rate = libraryRate(sampleRate, oku.rates, oku.nearestRate);
    this.vad = new oku.Vad(rate, o.vadParams);
    this.agc = new oku.Agc(rate, o.agcParams);
    this.resampler = new Resampler(sampleRate, rate, QUANTUM);
    this.ratio = sampleRate / rate;
    this.applyGain = o.applyGain;
    this.reportVolume = o.volume;
    this.gain = o.gain;
    this.appliedGain = o.applyGain ? o.gain : 1;
    this.chunkSize = oku.chunkSamples(rate, CHUNK_MS);
    this.chunk = new Int16Array(this.chunkSize);
    this.filled = 0;
    this.mono = new Float32Array(QUANTUM);
    this.resampled = new Float64Array(Math.ceil(QUANTUM / this.resampler.step) + 2);
    this.vadPtr = this.vad._samples.reserve(this.chunkSize);
    this.agcPtr = this.agc._samples.reserve(this.chunkSize);
    this.startFrame = -1;
    this.post = (p) => this.report(p);
    this.port.postMessage({
      type: 'ready',
      libraryRate: rate,
      delay: this.resampler.delay,
      unknownKeys: this.vad.unknownKeys.concat(this.agc.unknownKeys),
    });
  }

  close() {
    if (!this.alive) return;
    this.alive = false;
    this.vad.close();
    this.agc.close();
  }

  // A library position (samples of the analyzer's run) in context frames.
  frameOf(position) {
    return this.startFrame + Math.round(position * this.ratio);
  }

  // Posts one result of the analyzer, read from wasm memory at p.
  report(p) {
    const r = this.oku.readResult(p);
    if (r.type === 'volume' && !this.reportVolume) return;
    r.libraryPosition = r.position;
    r.position = this.frameOf(r.position);
    r.time = r.position / sampleRate;
    this.port.postMessage(r);
  }

  analyse() {
    const memory = this.oku.memory().buffer;
    new Int16Array(memory, this.vadPtr, this.chunkSize).set(this.chunk);
    new Int16Array(memory, this.agcPtr, this.chunkSize).set(this.chunk);
    this.vad._feed(this.chunkSize);
    this.vad._drain(this.post);
    const next = this.agc._feed(this.chunkSize, this.gain);
    if (this.agc._changed()) {
      this.gain = next;
      const d = this.agc.decision();
      const position = this.frameOf(this.agcSamples + this.chunkSize);
      this.port.postMessage({ type: 'gain', gain: next, decision: d, position, time: position / sampleRate });
    }
    this.agcSamples += this.chunkSize;
  }

  process(inputs, outputs) {
    if (!this.alive) return false;
    if (this.startFrame < 0) {
      this.startFrame = currentFrame;
      this.agcSamples = 0;
    }
    const input = inputs[0];
    const output = outputs[0];
    const n = input.length ? input[0].length : QUANTUM;
    const mono = this.mono;
    // Mix to mono (silence while nothing is connected) and apply the gain,
    // moving linearly to a new gain over one quantum so that it does not click.
    const from = this.appliedGain;
    const to = this.applyGain ? this.gain : 1;
    for (let i = 0; i < n; i++) {
      let x = 0;
      for (let c = 0; c < input.length; c++) x += input[c][i];
      if (input.length > 1) x /= input.length;
      mono[i] = x * (from + ((to - from) * (i + 1)) / n);
    }
    this.appliedGain = to;
    if (output && output.length) {
      for (let c = 0; c < output.length; c++) output[c].set(n === output[c].length ? mono : mono.subarray(0, n));
    }
    const count = this.resampler.push(mono, n, this.resampled);
    for (let i = 0; i < count; i++) {
      this.chunk[this.filled++] = toInt16(this.resampled[i]);
      if (this.filled === this.chunkSize) {
        this.filled = 0;
        this.analyse();
      }
    }
    return true;
  }
}

registerProcessor('oku-processor', OkuProcessor);
