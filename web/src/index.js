// oku-speech: the voice-activity analyzer and gain control of oku for
// browsers, Electron and Node, from the library's WebAssembly build.
//
//   const oku = await load();               // the wasm embedded in the package
//   const vad = new oku.Vad(48000, { channels: 2 });
//   vad.process(samples);                   // [{ type, position, timeMs, ... }]
//
// Nothing is fetched and nothing is evaluated from text: a Content-Security-
// Policy needs only 'wasm-unsafe-eval'.
import { instantiate } from './core.js';
import { WASM_GZIP_BASE64 } from './wasm.js';

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

// The compiled module: the embedded one is compiled once per page (or
// process), off the audio thread.
function compile(wasmBinary) {
  if (wasmBinary !== undefined) return WebAssembly.compile(bytesOf(wasmBinary));
  if (!embeddedModule) embeddedModule = wasmBytes().then((bytes) => WebAssembly.compile(bytes));
  return embeddedModule;
}

let shared = null;

// The library: { version, rates, inputRates, Vad, Agc, ... }. Every call
// without options gives the same instance (one wasm memory for all its
// objects); options.wasmBinary, the wasm file's bytes, starts a new one.
export async function load(options = {}) {
  if (options.wasmBinary !== undefined) return compile(options.wasmBinary).then(instantiate);
  if (!shared) {
    shared = compile().then(instantiate);
    shared.catch(() => (shared = null));
  }
  return shared;
}

const PROCESSOR = 'oku-processor';
const registered = new WeakMap(); // context -> Promise of addModule
const moduleIds = new WeakMap(); // module -> a number, the same in every worklet scope
let modules = 0;

// A classic-script bundle has no import.meta.url; its script's address stands in.
const SCRIPT = typeof document !== 'undefined' && document.currentScript ? document.currentScript.src : undefined;

// The worklet file beside this module (bundlers that follow
// new URL(..., import.meta.url) copy it and give its address), or beside
// the classic script.
function processorUrl() {
  try {
    return new URL('./processor.js', import.meta.url).href;
  } catch {
    return SCRIPT ? new URL('processor.js', SCRIPT).href : undefined;
  }
}

const REMEDY =
  'serve dist/processor.js of oku-speech at that address (bundlers that do not copy it, such as esbuild: ' +
  'copy it beside the bundle), or pass its address as processorUrl';

// Loads the worklet file into the context once; a failure is not kept, so
// that a corrected processorUrl is tried afresh.
function register(context, url) {
  if (!url) return Promise.reject(new Error('oku: the worklet file has no known address here (no import.meta.url); ' + REMEDY));
  let loading = registered.get(context);
  if (!loading) {
    loading = context.audioWorklet.addModule(url).catch((e) => {
      registered.delete(context);
      throw new Error('oku: the worklet file could not be loaded from ' + url + ' (' + e.message + '); ' + REMEDY);
    });
    registered.set(context, loading);
  }
  return loading;
}

// An AudioWorkletNode that analyses the audio connected to it at the
// context's rate and passes it through (times the proposed gain when
// applyGain is set). See docs/web.md.
export class OkuNode {
  static async create(context, options = {}) {
    const {
      params = {},
      channels = 2,
      onSpeechStart,
      onSpeechEnd,
      onVolume,
      onGain,
      applyGain = false,
      gain = 1,
      wasmBinary,
    } = options;
    if (typeof params !== 'object' || params === null) {
      throw new TypeError('oku: params must be an object { vad, agc } of parameter strings');
    }
    if (typeof gain !== 'number' || !(gain > 0 && gain <= 1)) throw new RangeError('oku: gain must lie in (0, 1]');
    const url = options.processorUrl === undefined ? processorUrl() : String(options.processorUrl);
    const module = await compile(wasmBinary);
    await register(context, url);
    if (!moduleIds.has(module)) moduleIds.set(module, ++modules);
    const processorOptions = {
      module,
      moduleId: moduleIds.get(module),
      vadParams: params.vad,
      agcParams: params.agc,
      channels,
      applyGain: !!applyGain,
      gain,
      volume: typeof onVolume === 'function',
    };
    const make = () =>
      new AudioWorkletNode(context, PROCESSOR, {
        numberOfInputs: 1,
        numberOfOutputs: 1,
        channelCount: Number.isInteger(channels) && channels > 0 ? channels : 1,
        channelCountMode: 'explicit',
        processorOptions,
      });
    let node;
    try {
      node = make();
    } catch (e) {
      if (e.name !== 'DataCloneError') throw e;
      // A browser that cannot hand a compiled module to the worklet gets the
      // bytes, which the worklet compiles once.
      processorOptions.module = wasmBinary === undefined ? await wasmBytes() : bytesOf(wasmBinary);
      node = make();
    }
    const handlers = { speech_start: onSpeechStart, speech_end: onSpeechEnd, volume: onVolume, gain: onGain };
    let closing = null;
    let closed;
    const ready = new Promise((resolve, reject) => {
      node.port.onmessage = ({ data }) => {
        if ('memoryBytes' in data) node.workletMemoryBytes = data.memoryBytes;
        if (data.type === 'ready') {
          Object.defineProperties(node, {
            analysisRate: { value: data.analysisRate, enumerable: true },
            unknownKeys: { value: data.unknownKeys, enumerable: true },
          });
          resolve(node);
        } else if (data.type === 'error') {
          const Class = { TypeError, RangeError }[data.name] || Error;
          reject(new Class(data.message));
        } else if (data.type === 'closed') {
          // The ports, entangled and listening, would keep each other, the
          // node and the processor alive.
          node.port.onmessage = null;
          node.port.close();
          closed();
        } else if (typeof handlers[data.type] === 'function') {
          handlers[data.type](data);
        }
      };
      node.onprocessorerror = () => reject(new Error('oku: the worklet processor failed'));
    });
    // Stops the analysis and frees the processor's memory; resolves when the
    // processor has, after every result it posted before.
    node.close = () => {
      if (!closing) {
        closing = new Promise((resolve) => (closed = resolve));
        node.port.postMessage({ type: 'close' });
        node.disconnect();
      }
      return closing;
    };
    return ready;
  }
}
