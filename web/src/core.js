// The library's handle interface (oku.h) over its WebAssembly build: one
// instance with its facts, and the Vad and Agc classes. Shared by the main
// module and the AudioWorklet processor, so it uses nothing a worklet lacks
// (no fetch, no TextEncoder, no atob).
//
// Audio goes to the library as the caller has it (Int16Array or Float32Array,
// interleaved, or one Float32Array per channel): the library mixes the
// channels, rounds floats to 16 bits and converts the rate. What the package
// reads back (structures, names, messages) the library describes itself.

// The most samples handed to the library in one call: longer inputs go in
// slices, so that the wasm memory does not grow with the input.
export const SLICE_SAMPLES = 1 << 20;

// The functions of the wasm module the package calls.
const REQUIRED = ['malloc', 'free', 'oku_version', 'oku_rates', 'oku_input_rates', 'oku_analysis_rate',
  'oku_max_channels', 'oku_last_error', 'oku_status_message', 'oku_status_name', 'oku_chunk_samples',
  'oku_vad_result_name', 'oku_assessment_name', 'oku_agc_control_name', 'okuweb_layout', 'okuweb_unknown_keys',
  'oku_vad_create', 'oku_vad_open', 'oku_vad_process', 'oku_vad_process_f32', 'oku_vad_take', 'oku_vad_nonfinite',
  'oku_vad_flush', 'oku_vad_reset', 'oku_vad_destroy', 'oku_agc_open', 'oku_agc_process', 'oku_agc_process_f32',
  'oku_agc_info', 'oku_agc_nonfinite', 'oku_agc_destroy'];

// The error class for each status name of the library (oku_status_name):
// a value the library refuses is a RangeError; anything else an Error.
const ERRORS = { null: TypeError, argument: RangeError, rate: RangeError, params: RangeError };

function utf8Encode(text) {
  const out = [];
  for (const ch of text) {
    const c = ch.codePointAt(0);
    if (c < 0x80) out.push(c);
    else if (c < 0x800) out.push(0xc0 | (c >> 6), 0x80 | (c & 63));
    else if (c < 0x10000) out.push(0xe0 | (c >> 12), 0x80 | ((c >> 6) & 63), 0x80 | (c & 63));
    else out.push(0xf0 | (c >> 18), 0x80 | ((c >> 12) & 63), 0x80 | ((c >> 6) & 63), 0x80 | (c & 63));
  }
  return out;
}

function utf8Decode(bytes) {
  let s = '';
  for (let i = 0; i < bytes.length; ) {
    const b = bytes[i++];
    let c = b;
    if (b >= 0xf0) c = ((b & 7) << 18) | ((bytes[i++] & 63) << 12) | ((bytes[i++] & 63) << 6) | (bytes[i++] & 63);
    else if (b >= 0xe0) c = ((b & 15) << 12) | ((bytes[i++] & 63) << 6) | (bytes[i++] & 63);
    else if (b >= 0xc0) c = ((b & 31) << 6) | (bytes[i++] & 63);
    s += String.fromCodePoint(c);
  }
  return s;
}

// Starts an instance of the library from a compiled WebAssembly.Module and
// returns the package's interface to it.
export function instantiate(module) {
  let memory, u8, i16, i32, u32, f32, f64;
  const views = () => {
    const b = memory.buffer;
    u8 = new Uint8Array(b);
    i16 = new Int16Array(b);
    i32 = new Int32Array(b);
    u32 = new Uint32Array(b);
    f32 = new Float32Array(b);
    f64 = new Float64Array(b);
  };
  const wasi = {
    // The library writes nothing and reads no environment; these satisfy
    // the C runtime's references.
    fd_write: () => 0,
    fd_close: () => 0,
    fd_seek: () => 70,
    environ_sizes_get: (count, size) => {
      i32[count >> 2] = 0;
      i32[size >> 2] = 0;
      return 0;
    },
    environ_get: () => 0,
    proc_exit: (code) => {
      throw new Error('oku: the library stopped (exit ' + code + ')');
    },
  };
  let instance;
  try {
    instance = new WebAssembly.Instance(module, {
      env: { emscripten_notify_memory_growth: () => views() },
      wasi_snapshot_preview1: wasi,
    });
  } catch (e) {
    throw new Error('oku: the wasm module is not an oku build (' + e.message + ')');
  }
  const w = instance.exports;
  const missing = REQUIRED.filter((name) => typeof w[name] !== 'function');
  if (missing.length || !(w.memory instanceof WebAssembly.Memory)) {
    throw new Error('oku: the wasm module is not an oku build of this package: it lacks ' + (missing[0] || 'memory'));
  }
  memory = w.memory;
  views();
  if (w._initialize) w._initialize();

  const cString = (ptr) => {
    let end = ptr;
    while (u8[end] !== 0) end++;
    return utf8Decode(u8.subarray(ptr, end));
  };
  const alloc = (bytes) => {
    const p = w.malloc(bytes);
    if (!p) throw new Error('oku: out of memory');
    return p;
  };
  // A string in wasm memory (0 for null or ''); the caller frees it.
  const newString = (text) => {
    if (text == null || text === '') return 0;
    const bytes = utf8Encode(text);
    const p = alloc(bytes.length + 1);
    u8.set(bytes, p);
    u8[p + bytes.length] = 0;
    return p;
  };
  // The names of an enumeration of the library, from 0 until it has none.
  const names = (fn, from = 0, step = 1) => {
    const out = [];
    for (let i = from, p; (p = fn(i)); i += step) out.push(cString(p));
    return out;
  };
  const statusNames = names(w.oku_status_name, 0, -1);
  const check = (status) => {
    if (status === 0) return;
    const name = statusNames[-status];
    const message = 'oku: ' + (cString(w.oku_last_error()) || cString(w.oku_status_message(status)));
    const Class = ERRORS[name] || Error;
    throw new Class(Class === Error ? message + ' (' + (name || 'status ' + status) + ')' : message);
  };

  // The structures, as the library lays them out: layout.oku_vad_result.size,
  // and a reader per field, layout.oku_vad_result.position(address).
  const reader = (offset, kind) => {
    switch (kind) {
      case 'i4':
        return (p) => i32[(p + offset) >> 2];
      case 'f4':
        return (p) => f32[(p + offset) >> 2];
      case 'f8':
        return (p) => f64[(p + offset) >> 3];
      case 'i8': // exact to 2^53
        return (p) => u32[(p + offset) >> 2] + i32[(p + offset + 4) >> 2] * 4294967296;
      default:
        throw new Error('oku: the library has a field of kind ' + kind + ', which this package cannot read');
    }
  };
  const layout = {};
  for (const line of cString(w.okuweb_layout()).split('\n')) {
    const [head, ...fields] = line.split(' ');
    const [struct, size] = head.split(':');
    layout[struct] = { size: Number(size) };
    for (const field of fields) {
      const [name, offset, kind] = field.split(':');
      layout[struct][name] = reader(Number(offset), kind);
    }
  }
  const R = layout.oku_vad_result;
  const S = layout.oku_vad_segment;
  const D = layout.oku_agc_decision;

  // Scratch space of the instance: an out-parameter cell, one result, its
  // segment, one decision, and the samples of the call under way. Calls on
  // one instance never overlap (JavaScript runs one at a time).
  const cell = alloc(8);
  const result = alloc(R.size);
  const segment = alloc(S.size);
  const decisionCell = alloc(D.size);
  let staging = 0;
  let stagingBytes = 0;
  const stage = (bytes) => {
    if (bytes > stagingBytes) {
      if (staging) w.free(staging);
      staging = 0;
      stagingBytes = 0;
      staging = alloc(bytes);
      stagingBytes = bytes;
    }
    return staging;
  };
  const cellSize = () => u32[cell >> 2];
  const cellCount = () => u32[cell >> 2] + u32[(cell + 4) >> 2] * 4294967296;

  const version = cString(w.oku_version());
  const list = (fn) => {
    const p = fn(cell);
    return Object.freeze(Array.from(i32.subarray(p >> 2, (p >> 2) + cellSize())));
  };
  const rates = list(w.oku_rates);
  const inputRates = list(w.oku_input_rates);
  const maxChannels = w.oku_max_channels();
  const resultTypes = names(w.oku_vad_result_name);
  const NONE = resultTypes.indexOf('none');
  const assessments = Object.freeze(names(w.oku_assessment_name));
  const controls = Object.freeze(names(w.oku_agc_control_name));

  // Samples per chunk of `ms` at `rate`, by the library's rounding rule.
  const chunkSamples = (rate, ms) => {
    if (typeof rate !== 'number' || typeof ms !== 'number') throw new TypeError('oku: rate and ms must be numbers');
    check(w.oku_chunk_samples(rate, ms, cell));
    return cellSize();
  };

  // The keys of a parameter string that the service does not read (a
  // misspelt key would otherwise be ignored without a word). A string the
  // service refuses is reported by its open function instead.
  const unknownKeys = (service, params) => {
    if (!params) return [];
    const p = newString(params);
    try {
      const keys = w.okuweb_unknown_keys(service === 'agc' ? 1 : 0, p);
      return keys ? cString(keys).split('\n').filter(Boolean) : [];
    } finally {
      w.free(p);
    }
  };

  // The rate, channel count and parameter string of a constructor's
  // arguments: (rate, 'Key=Value;...') or (rate, { params, channels }).
  const settings = (rate, options) => {
    if (typeof rate !== 'number') throw new TypeError('oku: rate must be a number (Hz)');
    const o = typeof options === 'string' || options == null ? { params: options } : options;
    if (typeof o !== 'object') throw new TypeError('oku: options must be a parameter string or { params, channels }');
    const { params, channels = 1 } = o;
    if (params != null && typeof params !== 'string') {
      throw new TypeError('oku: params must be a string ("Key=Value;...") or undefined');
    }
    if (params && params.includes('\0')) throw new RangeError('oku: params must not contain a NUL character');
    if (typeof channels !== 'number') throw new TypeError('oku: channels must be a number');
    // A rate that is no whole number of Hz is refused with the library's words.
    if (!(Number.isInteger(rate) && Math.abs(rate) < 2 ** 31)) check(w.oku_vad_create(rate, 0, cell));
    return { rate, params: params || '', channels: Number.isInteger(channels) ? channels : 0 };
  };

  // Memory of objects the application dropped without close().
  const registry =
    typeof FinalizationRegistry === 'function'
      ? new FinalizationRegistry((owned) => owned.release())
      : { register() {}, unregister() {} };

  // The wasm side of one object: its handle, destroyed once.
  class Owned {
    constructor(destroy, what) {
      this.destroy = destroy;
      this.what = what;
      this.handle = 0;
    }
    release() {
      if (this.handle) this.destroy(this.handle);
      this.handle = 0;
    }
    get() {
      if (!this.handle) throw new Error('oku: the ' + this.what + ' is closed');
      return this.handle;
    }
  }

  // Opens a handle for one of the classes below, with `open` of oku.h.
  const start = (self, service, open, destroy, what, rate, options) => {
    const s = settings(rate, options);
    const owned = new Owned(destroy, what);
    const p = newString(s.params);
    try {
      check(open(s.rate, s.channels, p, 0, cell));
    } finally {
      if (p) w.free(p);
    }
    owned.handle = u32[cell >> 2];
    self._owned = owned;
    self.rate = rate;
    self.channels = s.channels;
    self.analysisRate = w.oku_analysis_rate(rate);
    self.unknownKeys = unknownKeys(service, s.params);
    for (const key of self.unknownKeys) console.warn("oku: params: '" + key + "' is not a setting of the " + what + '; it is ignored');
    registry.register(self, owned, owned);
  };

  // The samples of the call under way, as the caller has them: an
  // Int16Array or a Float32Array of interleaved samples (kind 1 or 2), or an
  // array of one Float32Array per channel (kind 3, as Web Audio has them).
  // Nothing is allocated for a call that fits one slice.
  let source = null;
  let kind = 0;
  let frames = 0;
  // Takes the samples of a call for `handle` of `channels`; `refuse(handle,
  // n)` hands the library a count of n samples without samples, to word a
  // refusal. Returns the number of frames.
  const accept = (samples, channels, refuse, handle) => {
    if (samples instanceof Int16Array || samples instanceof Float32Array) {
      // A count that is no whole number of frames: the library refuses it
      // (before it touches any sample) and says why.
      if (samples.length % channels !== 0) check(refuse(handle, samples.length));
      kind = samples instanceof Int16Array ? 1 : 2;
      frames = samples.length / channels;
    } else if (Array.isArray(samples) && samples.length === channels) {
      kind = 3;
      frames = channels ? samples[0].length : 0;
      for (let c = 0; c < channels; c++) {
        if (!(samples[c] instanceof Float32Array)) throw new TypeError('oku: each channel must be a Float32Array');
        if (samples[c].length !== frames) throw new RangeError('oku: the channel arrays differ in length');
      }
    } else if (Array.isArray(samples)) {
      throw new RangeError('oku: ' + samples.length + ' channel arrays for ' + channels + ' channels');
    } else {
      throw new TypeError(
        'oku: samples must be an Int16Array, a Float32Array in -1..1 (channels interleaved), or an array of one Float32Array per channel',
      );
    }
    source = samples;
    return frames;
  };
  // Copies `count` frames of the accepted samples from frame `from` into the
  // staging buffer; returns its address.
  const put = (from, count, channels) => {
    const whole = from === 0 && count === frames;
    if (kind === 1) {
      const p = stage(count * channels * 2);
      i16.set(whole ? source : source.subarray(from * channels, (from + count) * channels), p >> 1);
      return p;
    }
    const p = stage(count * channels * 4);
    if (kind === 2 || channels === 1) {
      const s = kind === 2 ? source : source[0];
      f32.set(whole ? s : s.subarray(from * channels, (from + count) * channels), p >> 2);
      return p;
    }
    for (let c = 0; c < channels; c++) {
      const plane = source[c];
      for (let i = 0, q = (p >> 2) + c; i < count; i++, q += channels) f32[q] = plane[from + i];
    }
    return p;
  };
  const done = () => {
    source = null;
  };
  const refuseVad = (h, n) => w.oku_vad_process(h, 0, n);
  const refuseAgc = (h, n) => w.oku_agc_process(h, 0, n, 0, cell);

  // Writes the result the library just took into `out`; speech ends carry
  // the segment they close.
  const readResult = (out) => {
    out.type = resultTypes[R.type(result)];
    out.position = R.position(result);
    out.timeMs = R.time_ms(result);
    if (out.type === 'volume') {
      out.peak = R.peak(result);
      out.levelDbfs = R.level_dbfs(result);
      out.snrPct = R.snr_pct(result);
      out.assessment = assessments[R.assessment(result)];
      out.speech = R.speech(result) !== 0;
    } else if (out.type === 'speech_end') {
      out.start = S.start(segment);
      out.startMs = S.start_ms(segment);
    }
    return out;
  };

  class Vad {
    // rate: one of inputRates; options: a parameter string, or { params, channels }.
    constructor(rate, options) {
      start(this, 'vad', w.oku_vad_open, w.oku_vad_destroy, 'analyzer', rate, options);
    }
    // Analyses the samples; the results wait in the library for take().
    // Allocates nothing for a call of at most SLICE_SAMPLES samples.
    write(samples) {
      this._slices(samples, null);
    }
    // Hands the samples to the library slice by slice, draining the results
    // into `out` after each (when given).
    _slices(samples, out) {
      const h = this._owned.get();
      const n = accept(samples, this.channels, refuseVad, h);
      try {
        const process = kind === 1 ? w.oku_vad_process : w.oku_vad_process_f32;
        const step = Math.max(1, Math.floor(SLICE_SAMPLES / this.channels));
        for (let from = 0; from < n || from === 0; from += step) {
          const count = Math.min(step, n - from);
          check(process(h, count ? put(from, count, this.channels) : 0, count * this.channels));
          if (out) this._drain(out);
        }
      } finally {
        done();
      }
      return out;
    }
    // Takes the oldest waiting result into `out` (its type, position, timeMs
    // and the fields of its type); false when none waits. Allocates nothing.
    take(out) {
      check(w.oku_vad_take(this._owned.get(), result, segment));
      if (R.type(result) === NONE) return false;
      readResult(out);
      return true;
    }
    _drain(into) {
      for (let r; this.take((r = {})); ) into.push(r);
      return into;
    }
    process(samples) {
      return this._slices(samples, []);
    }
    flush() {
      check(w.oku_vad_flush(this._owned.get()));
      return this._drain([]);
    }
    reset() {
      check(w.oku_vad_reset(this._owned.get()));
    }
    // The speech segments of a whole recording; the run is flushed after it.
    segments(samples) {
      const results = this._slices(samples, []);
      check(w.oku_vad_flush(this._owned.get()));
      this._drain(results);
      return results
        .filter((r) => r.type === 'speech_end')
        .map((r) => ({ start: r.start, end: r.position, startMs: r.startMs, endMs: r.timeMs }));
    }
    get nonfinite() {
      check(w.oku_vad_nonfinite(this._owned.get(), cell));
      return cellCount();
    }
    close() {
      registry.unregister(this._owned);
      this._owned.release();
    }
    get closed() {
      return this._owned.handle === 0;
    }
  }

  const readDecision = (out) => {
    out.control = controls[D.control(decisionCell)];
    out.updated = D.updated(decisionCell) !== 0;
    out.changed = D.changed(decisionCell) !== 0;
    out.timeMs = D.time_ms(decisionCell);
    out.pauseDb = D.pause_db(decisionCell);
    out.speechDb = D.speech_db(decisionCell);
    return out;
  };

  class Agc {
    constructor(rate, options) {
      start(this, 'agc', w.oku_agc_open, w.oku_agc_destroy, 'gain control', rate, options);
    }
    // Analyses the samples, captured at `gain` (0 to 1; 0 asks for a
    // starting gain), and returns the gain to apply next. The gain control
    // decides once per call, so a call takes at most SLICE_SAMPLES samples.
    // Allocates nothing.
    write(samples, gain) {
      const h = this._owned.get();
      const n = accept(samples, this.channels, refuseAgc, h);
      try {
        if (typeof gain !== 'number') throw new TypeError('oku: gain must be a number from 0 to 1');
        if (n * this.channels > SLICE_SAMPLES) {
          throw new RangeError('oku: the gain control takes at most ' + SLICE_SAMPLES + ' samples per call (it decides once per call)');
        }
        const process = kind === 1 ? w.oku_agc_process : w.oku_agc_process_f32;
        check(process(h, n ? put(0, n, this.channels) : 0, n * this.channels, gain, cell));
        return f64[cell >> 3];
      } finally {
        done();
      }
    }
    // The last decision, written into `out` (a new object without one).
    decision(out = {}) {
      check(w.oku_agc_info(this._owned.get(), decisionCell));
      return readDecision(out);
    }
    process(samples, gain) {
      const next = this.write(samples, gain);
      return { gain: next, decision: this.decision() };
    }
    get nonfinite() {
      check(w.oku_agc_nonfinite(this._owned.get(), cell));
      return cellCount();
    }
    close() {
      registry.unregister(this._owned);
      this._owned.release();
    }
    get closed() {
      return this._owned.handle === 0;
    }
  }

  return {
    version,
    rates,
    inputRates,
    maxChannels,
    resultTypes: Object.freeze(resultTypes.filter((t) => t !== 'none' && t !== 'frame')),
    assessments,
    controls,
    Vad,
    Agc,
    chunkSamples,
    analysisRate: (rate) => (typeof rate === 'number' ? w.oku_analysis_rate(rate) : 0),
    get memoryBytes() {
      return memory.buffer.byteLength;
    },
  };
}
