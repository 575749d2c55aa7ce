// The library's handle interface (oku.h) over its WebAssembly build: the
// instance, memory helpers, and the Vad and Agc classes. Shared by the main
// module and the AudioWorklet processor, so it uses nothing a worklet lacks
// (no fetch, no TextEncoder, no atob).

// Status codes of oku.h.
const OKU_ERR_NULL = -1;
const OKU_ERR_MEMORY = -5;

// Layouts of the mirrored structures in wasm32; checked against
// oku_struct_size when an instance starts.
const VAD_RESULT_SIZE = 72;
const AGC_DECISION_SIZE = 32;
const RESULTS_PER_CALL = 64;

function utf8Encode(text) {
  const out = [];
  for (const ch of text) {
    let c = ch.codePointAt(0);
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

// Float samples in -1..1 to 16-bit: x * 32768 rounded to the nearest integer
// (halves up), held to -32768..32767; NaN gives 0.
export function toInt16(x) {
  const v = Math.round(x * 32768);
  return v > 32767 ? 32767 : v < -32768 ? -32768 : v | 0;
}

// "speech_start" -> "speech-start": the library's names in the package's spelling.
function jsName(name) {
  return name.replace(/_/g, '-');
}

// Starts an instance of the library from a compiled WebAssembly.Module and
// returns the package's interface to it.
export function instantiate(module) {
  let memory;
  let u8, i32, f32, f64;
  const views = () => {
    const b = memory.buffer;
    u8 = new Uint8Array(b);
    i32 = new Int32Array(b);
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
  const instance = new WebAssembly.Instance(module, {
    env: { emscripten_notify_memory_growth: () => views() },
    wasi_snapshot_preview1: wasi,
  });
  const w = instance.exports;
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
  // A string in wasm memory (0 for null); the caller frees it.
  const newString = (text) => {
    if (text == null || text === '') return 0;
    const bytes = utf8Encode(text);
    const p = alloc(bytes.length + 1);
    u8.set(bytes, p);
    u8[p + bytes.length] = 0;
    return p;
  };
  // One scratch cell for out-parameters (8 bytes, 8-aligned), kept for the instance.
  const cell = alloc(8);

  const check = (status) => {
    if (status === 0) return;
    const message = cString(w.oku_last_error()) || cString(w.oku_status_message(status));
    if (status === OKU_ERR_NULL) throw new TypeError('oku: ' + message);
    if (status === OKU_ERR_MEMORY) throw new Error('oku: out of memory: ' + message);
    if (status < OKU_ERR_MEMORY) throw new Error('oku: ' + message + ' (status ' + status + ')');
    throw new RangeError('oku: ' + message);
  };
  const names = (fn) => {
    const out = [];
    for (let p; (p = fn(out.length)); ) out.push(jsName(cString(p)));
    return Object.freeze(out);
  };

  for (const [name, size] of [['oku_vad_result', VAD_RESULT_SIZE], ['oku_agc_decision', AGC_DECISION_SIZE]]) {
    const p = newString(name);
    const have = w.oku_struct_size(p);
    w.free(p);
    if (have !== size) throw new Error('oku: ' + name + ' is ' + have + ' bytes in the library, ' + size + ' here');
  }

  const version = cString(w.oku_version());
  const ratesPtr = w.oku_rates(cell);
  const rates = Object.freeze(Array.from(i32.subarray(ratesPtr >> 2, (ratesPtr >> 2) + i32[cell >> 2])));
  const resultTypes = names(w.oku_vad_result_name);
  const assessments = names(w.oku_assessment_name);
  const controls = names(w.oku_agc_control_name);
  const SERVICES = { vad: 0, agc: 1 };

  // Samples per chunk of `ms` at `rate`, by the library's rounding rule.
  const chunkSamples = (rate, ms) => {
    if (typeof rate !== 'number' || typeof ms !== 'number') throw new TypeError('oku: rate and ms must be numbers');
    check(w.oku_chunk_samples(rate, ms, cell));
    return i32[cell >> 2] >>> 0;
  };

  // The keys of a parameter string that the service does not read (a
  // misspelt key would otherwise be ignored without a word). A string the
  // service refuses is reported by its create function instead.
  const unknownKeys = (service, params) => {
    if (!params) return [];
    const p = newString(params);
    try {
      const list = w.okuweb_unknown_keys(SERVICES[service], p);
      return list ? cString(list).split('\n').filter(Boolean) : [];
    } finally {
      w.free(p);
    }
  };

  const checkParams = (params) => {
    if (params != null && typeof params !== 'string') {
      throw new TypeError('oku: params must be a string ("Key=Value;...") or undefined');
    }
    if (params && params.includes('\0')) throw new RangeError('oku: params must not contain a NUL character');
  };

  // Memory of objects the application dropped without close().
  const registry =
    typeof FinalizationRegistry === 'function'
      ? new FinalizationRegistry((held) => held.release())
      : { register() {}, unregister() {} };

  // The wasm side of one object: its handle and scratch buffers, freed once.
  class Owned {
    constructor(destroy) {
      this.destroy = destroy;
      this.handle = 0;
      this.buffers = [];
    }
    release() {
      if (this.handle) this.destroy(this.handle);
      this.handle = 0;
      for (const p of this.buffers) w.free(p);
      this.buffers.length = 0;
    }
  }

  // A growing sample buffer in wasm memory for one object.
  class SampleBuffer {
    constructor(owned) {
      this.owned = owned;
      this.ptr = 0;
      this.capacity = 0;
    }
    reserve(n) {
      if (n <= this.capacity) return this.ptr;
      const p = alloc(Math.max(n, 1024) * 2);
      if (this.ptr) {
        w.free(this.ptr);
        this.owned.buffers.splice(this.owned.buffers.indexOf(this.ptr), 1);
      }
      this.owned.buffers.push(p);
      this.ptr = p;
      this.capacity = Math.max(n, 1024);
      return p;
    }
    // Copies samples (Int16Array, or Float32Array by toInt16) from `from`,
    // `n` of them, into the buffer; returns its address.
    fill(samples, from, n) {
      const p = this.reserve(n);
      if (samples instanceof Int16Array) {
        new Int16Array(memory.buffer, p, n).set(samples.subarray(from, from + n));
      } else {
        const out = new Int16Array(memory.buffer, p, n);
        for (let i = 0; i < n; i++) out[i] = toInt16(samples[from + i]);
      }
      return p;
    }
  }

  const checkSamples = (samples) => {
    if (!(samples instanceof Int16Array || samples instanceof Float32Array)) {
      throw new TypeError('oku: samples must be an Int16Array, or a Float32Array in -1..1 (mono)');
    }
  };
  const checkRate = (rate) => {
    if (typeof rate !== 'number') throw new TypeError('oku: rate must be a number (Hz)');
    if (!rates.includes(rate)) {
      const near = w.oku_nearest_rate(rate);
      throw new RangeError(
        'oku: rate ' + rate + ' Hz is not supported (supported: ' + rates.join(', ') + ')' +
          (near ? '; resample to ' + near + ' Hz first' : ''),
      );
    }
  };

  // One result of oku_vad_results at address p, as the package reports it.
  const readResult = (p) => {
    const q = p >> 2;
    const type = resultTypes[i32[q]];
    const result = { type, position: i32[q + 4] + i32[q + 5] * 4294967296, timeMs: f64[(p + 8) >> 3] };
    if (type === 'volume') {
      result.peak = f64[(p + 32) >> 3];
      result.levelDbfs = f64[(p + 40) >> 3];
      result.snrPct = f64[(p + 48) >> 3];
      result.assessment = assessments[i32[q + 6]];
      result.speech = i32[q + 1] !== 0;
    }
    return result;
  };

  class Vad {
    constructor(rate, params) {
      checkRate(rate);
      checkParams(params);
      const owned = new Owned((h) => w.oku_vad_destroy(h));
      const p = newString(params);
      try {
        check(w.oku_vad_create_ex(rate, p, 0, cell));
      } finally {
        if (p) w.free(p);
      }
      owned.handle = i32[cell >> 2];
      this._owned = owned;
      this._samples = new SampleBuffer(owned);
      this._results = alloc(VAD_RESULT_SIZE * RESULTS_PER_CALL);
      owned.buffers.push(this._results);
      this.rate = rate;
      this.unknownKeys = unknownKeys('vad', params);
      for (const key of this.unknownKeys) console.warn("oku: params: '" + key + "' is not a setting of the analyzer; it is ignored");
      registry.register(this, owned, owned);
    }
    _handle() {
      if (!this._owned.handle) throw new Error('oku: the analyzer is closed');
      return this._owned.handle;
    }
    // Calls fn(address) for every queued result, oldest first.
    _drain(fn) {
      const h = this._handle();
      for (;;) {
        check(w.oku_vad_results(h, this._results, RESULTS_PER_CALL, cell));
        const n = i32[cell >> 2];
        for (let i = 0; i < n; i++) fn(this._results + i * VAD_RESULT_SIZE);
        if (n < RESULTS_PER_CALL) return;
      }
    }
    // Analyses `n` samples already written at this._samples.ptr.
    _feed(n) {
      check(w.oku_vad_process(this._handle(), this._samples.ptr, n));
    }
    _collect() {
      const out = [];
      this._drain((p) => out.push(readResult(p)));
      return out;
    }
    process(samples) {
      checkSamples(samples);
      this._handle();
      this._samples.fill(samples, 0, samples.length);
      this._feed(samples.length);
      return this._collect();
    }
    flush() {
      check(w.oku_vad_flush(this._handle()));
      return this._collect();
    }
    reset() {
      check(w.oku_vad_reset(this._handle()));
    }
    segments(samples, chunkMs = 20) {
      checkSamples(samples);
      this._handle();
      const step = chunkSamples(this.rate, chunkMs);
      const events = [];
      const keep = (p) => {
        const r = readResult(p);
        if (r.type !== 'volume') events.push(r);
      };
      for (let i = 0; i < samples.length; i += step) {
        const n = Math.min(step, samples.length - i);
        this._samples.fill(samples, i, n);
        this._feed(n);
        this._drain(keep);
      }
      check(w.oku_vad_flush(this._handle()));
      this._drain(keep);
      return toSegments(events, this.rate);
    }
    close() {
      registry.unregister(this._owned);
      this._owned.release();
    }
    get closed() {
      return this._owned.handle === 0;
    }
  }

  class Agc {
    constructor(rate, params) {
      checkRate(rate);
      checkParams(params);
      const owned = new Owned((h) => w.oku_agc_destroy(h));
      const p = newString(params);
      try {
        check(w.oku_agc_create(rate, p, cell));
      } finally {
        if (p) w.free(p);
      }
      owned.handle = i32[cell >> 2];
      this._owned = owned;
      this._samples = new SampleBuffer(owned);
      this._decision = alloc(AGC_DECISION_SIZE);
      owned.buffers.push(this._decision);
      this.rate = rate;
      this.unknownKeys = unknownKeys('agc', params);
      for (const key of this.unknownKeys) console.warn("oku: params: '" + key + "' is not a setting of the gain control; it is ignored");
      registry.register(this, owned, owned);
    }
    _handle() {
      if (!this._owned.handle) throw new Error('oku: the gain control is closed');
      return this._owned.handle;
    }
    // Analyses `n` samples already written at this._samples.ptr, captured at
    // `gain`; returns the gain to apply next.
    _feed(n, gain) {
      check(w.oku_agc_process(this._handle(), this._samples.ptr, n, gain, cell));
      return f64[cell >> 3];
    }
    // Whether the last call proposed another gain (oku_agc_decision.changed).
    _changed() {
      check(w.oku_agc_info(this._handle(), this._decision));
      return i32[(this._decision + 24) >> 2] !== 0;
    }
    process(samples, gain) {
      checkSamples(samples);
      if (typeof gain !== 'number') throw new TypeError('oku: gain must be a number from 0 to 1');
      this._handle();
      this._samples.fill(samples, 0, samples.length);
      const next = this._feed(samples.length, gain);
      return { gain: next, decision: this.decision() };
    }
    decision() {
      const d = this._decision;
      check(w.oku_agc_info(this._handle(), d));
      return {
        control: controls[i32[d >> 2]],
        updated: i32[(d + 4) >> 2] !== 0,
        changed: i32[(d + 24) >> 2] !== 0,
        timeMs: f64[(d + 8) >> 3],
        pauseDb: f32[(d + 16) >> 2],
        speechDb: f32[(d + 20) >> 2],
      };
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
    resultTypes: resultTypes.filter((t) => t !== 'none' && t !== 'frame'),
    assessments,
    controls,
    Vad,
    Agc,
    chunkSamples,
    nearestRate: (rate) => w.oku_nearest_rate(rate),
    toSegments,
    toInt16,
    // For the worklet processor: results read in place, and the memory.
    readResult,
    memory: () => memory,
  };
}

// Pairs each speech start with the speech end that follows it, into
// { start, end, startMs, endMs } (positions in samples); other results are
// passed over. A start without an end yet gives no segment.
export function toSegments(results) {
  const out = [];
  let start = null;
  for (const r of results) {
    if (r.type === 'speech-start') start = r;
    else if (r.type === 'speech-end' && start) {
      out.push({ start: start.position, end: r.position, startMs: start.timeMs, endMs: r.timeMs });
      start = null;
    }
  }
  return out;
}
