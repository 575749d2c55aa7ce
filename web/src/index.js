// oku-speech: the voice-activity analyzer and gain control of oku for
// browsers, Electron and Node, from the library's WebAssembly build.
//
//   const oku = await load();               // the wasm embedded in the package
//   const vad = new oku.Vad(16000);
//   vad.process(int16Samples);              // [{ type, position, timeMs, ... }]
//
// Nothing is fetched and nothing is evaluated from text: a Content-Security-
// Policy needs only 'wasm-unsafe-eval'.
import { instantiate, toSegments, toInt16 } from './core.js';
import { WASM_GZIP_BASE64 } from './wasm.js';

export { toSegments, toInt16 };

const ALPHABET = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/';

function decodeBase64(text) {
  const lookup = new Uint8Array(128);
  for (let i = 0; i < 64; i++) lookup[ALPHABET.charCodeAt(i)] = i;
  const padding = text.endsWith('==') ? 2 : text.endsWith('=') ? 1 : 0;
  const out = new Uint8Array((text.length / 4) * 3 - padding);
  for (let i = 0, j = 0; i < text.length; i += 4) {
    const n =
      (lookup[text.charCodeAt(i)] << 18) |
      (lookup[text.charCodeAt(i + 1)] << 12) |
      (lookup[text.charCodeAt(i + 2)] << 6) |
      lookup[text.charCodeAt(i + 3)];
    out[j++] = n >> 16;
    if (j < out.length) out[j++] = (n >> 8) & 255;
    if (j < out.length) out[j++] = n & 255;
  }
  return out;
}

let embedded = null;

// The embedded wasm file's bytes (unpacked once).
export function wasmBytes() {
  if (!embedded) {
    if (typeof DecompressionStream !== 'function') {
      return Promise.reject(new Error('oku: this runtime has no DecompressionStream; pass the wasm file as load({ wasmBinary })'));
    }
    const packed = new Blob([decodeBase64(WASM_GZIP_BASE64)]).stream();
    embedded = new Response(packed.pipeThrough(new DecompressionStream('gzip')))
      .arrayBuffer()
      .then((b) => new Uint8Array(b));
  }
  return embedded;
}

function bytesOf(wasmBinary) {
  if (wasmBinary instanceof ArrayBuffer) return new Uint8Array(wasmBinary);
  if (ArrayBuffer.isView(wasmBinary)) {
    return new Uint8Array(wasmBinary.buffer, wasmBinary.byteOffset, wasmBinary.byteLength);
  }
  throw new TypeError('oku: wasmBinary must be an ArrayBuffer or a typed array of the wasm file');
}

let embeddedModule = null;

async function compile(wasmBinary) {
  if (wasmBinary === undefined) {
    if (!embeddedModule) embeddedModule = wasmBytes().then((bytes) => WebAssembly.compile(bytes));
    return embeddedModule;
  }
  return WebAssembly.compile(bytesOf(wasmBinary));
}

// A new instance of the library: { version, rates, Vad, Agc, ... }.
// options.wasmBinary: the wasm file's bytes, to use instead of the embedded copy.
export async function load(options = {}) {
  return instantiate(await compile(options.wasmBinary));
}

const PROCESSOR = 'oku-processor';
const registered = new WeakMap(); // context -> Promise of addModule

// An AudioWorkletNode that analyses the audio connected to it at the
// context's rate and passes it through (times the proposed gain when
// applyGain is set). See docs/web.md.
export class OkuNode {
  static async create(context, options = {}) {
    const {
      params = {},
      onSpeechStart,
      onSpeechEnd,
      onVolume,
      onGain,
      applyGain = false,
      gain = 1,
      wasmBinary,
      processorUrl = new URL('./processor.js', import.meta.url),
    } = options;
    if (typeof params !== 'object' || params === null) {
      throw new TypeError('oku: params must be an object { vad, agc } of parameter strings');
    }
    if (typeof gain !== 'number' || !(gain > 0 && gain <= 1)) {
      throw new RangeError('oku: gain must lie in (0, 1]');
    }
    const bytes = wasmBinary === undefined ? await wasmBytes() : bytesOf(wasmBinary);
    if (!registered.has(context)) registered.set(context, context.audioWorklet.addModule(processorUrl));
    await registered.get(context);
    const node = new AudioWorkletNode(context, PROCESSOR, {
      numberOfInputs: 1,
      numberOfOutputs: 1,
      outputChannelCount: [1],
      processorOptions: {
        wasm: bytes,
        vadParams: params.vad,
        agcParams: params.agc,
        applyGain: !!applyGain,
        gain,
        volume: typeof onVolume === 'function',
      },
    });
    const handlers = {
      'speech-start': onSpeechStart,
      'speech-end': onSpeechEnd,
      volume: onVolume,
      gain: onGain,
    };
    const ready = new Promise((resolve, reject) => {
      node.port.onmessage = ({ data }) => {
        if (data.type === 'ready') {
          Object.defineProperties(node, {
            libraryRate: { value: data.libraryRate, enumerable: true },
            resamplerDelay: { value: data.delay, enumerable: true },
            unknownKeys: { value: data.unknownKeys, enumerable: true },
          });
          resolve(node);
        } else if (data.type === 'error') {
          reject(new RangeError(data.message));
        } else if (typeof handlers[data.type] === 'function') {
          handlers[data.type](data);
        }
      };
      node.onprocessorerror = () => reject(new Error('oku: the worklet processor failed'));
    });
    node.close = () => {
      node.port.postMessage({ type: 'close' });
      node.disconnect();
    };
    return ready;
  }
}
