// Conversion of an AudioContext's rate to a rate the library takes, inside
// the worklet: a linear-phase windowed-sinc (Kaiser) low-pass evaluated at
// each output instant, so one design serves whole-number ratios (48000 ->
// 16000, 44100 -> 22050) and any other ratio alike.
//
// Response, relative to the lower of the two rates, `low`:
//   passband  0 to 0.4 * low (80 % of its Nyquist frequency): within +-0.02 dB
//   stopband  from 0.5 * low (its Nyquist frequency): at least 60 dB down
// Output n stands for input instant n * inRate / outRate exactly (the filter
// is centred there, so positions carry no delay); producing it needs the
// input up to `delay` frames later (the filter's half length): 61 frames at
// 48 kHz (1.27 ms), 41 at 44.1 kHz (0.93 ms).

export const PASSBAND = 0.4;
export const STOPBAND = 0.5;
export const STOPBAND_DB = 60;
export const PASSBAND_DB = 0.02;

// Designed with margin over the documented figures.
const DESIGN_DB = 66;
// Kernel table steps per input frame (linear interpolation between them).
const TABLE_STEPS = 256;

// The library rate for a context rate: the highest supported rate that
// divides it (48000 -> 16000 by 3, 44100 -> 22050 by 2, 96000 -> 16000 by 6),
// else the nearest supported rate (`nearest`, the library's rule).
export function libraryRate(contextRate, rates, nearest) {
  for (let i = rates.length - 1; i >= 0; i--) {
    if (contextRate >= rates[i] && contextRate % rates[i] === 0) return rates[i];
  }
  return nearest(contextRate);
}

// Modified Bessel function of the first kind, order 0 (for the Kaiser window).
function bessel0(x) {
  let sum = 1;
  let term = 1;
  for (let k = 1; k < 50; k++) {
    term *= (x / (2 * k)) * (x / (2 * k));
    sum += term;
    if (term < sum * 1e-17) break;
  }
  return sum;
}

export class Resampler {
  // maxBlock: the most input frames one push() may bring.
  constructor(inRate, outRate, maxBlock = 128) {
    if (!(inRate > 0 && outRate > 0)) throw new RangeError('oku: resampler rates must be above 0');
    this.inRate = inRate;
    this.outRate = outRate;
    this.step = inRate / outRate;
    const low = Math.min(inRate, outRate);
    // Band edges and cut-off in cycles per input frame.
    const pass = (PASSBAND * low) / inRate;
    const stop = (STOPBAND * low) / inRate;
    const cutoff = (pass + stop) / 2;
    const beta = 0.1102 * (DESIGN_DB - 8.7);
    const taps = (DESIGN_DB - 8) / (2.285 * 2 * Math.PI * (stop - pass));
    const half = Math.ceil(taps / 2);
    this.delay = half;
    // h(tau) for tau = i / TABLE_STEPS, 0 <= tau <= half (the kernel is even).
    const table = new Float64Array(half * TABLE_STEPS + 2);
    const norm = bessel0(beta);
    for (let i = 0; i <= half * TABLE_STEPS; i++) {
      const tau = i / TABLE_STEPS;
      const r = tau / half;
      const window = bessel0(beta * Math.sqrt(Math.max(0, 1 - r * r))) / norm;
      const x = 2 * Math.PI * cutoff * tau;
      table[i] = 2 * cutoff * (x === 0 ? 1 : Math.sin(x) / x) * window;
    }
    // Unity gain at 0 Hz for taps on whole frames.
    let sum = table[0];
    for (let k = 1; k < half; k++) sum += 2 * table[k * TABLE_STEPS];
    for (let i = 0; i < table.length; i++) table[i] /= sum;
    this.table = table;
    // Input history: buf[i] is input frame base + i. It starts with `half`
    // frames of silence before the first frame.
    this.buf = new Float64Array(4 * half + 4 * maxBlock + Math.ceil(this.step) + 16);
    this.base = -half;
    this.avail = half;
    this.next = 0; // index of the next output
  }

  // Takes n input frames from input[0..n) and writes the outputs they
  // complete to out (room for at least ceil(n / step) + 1); returns how many.
  push(input, n, out) {
    const buf = this.buf;
    const half = this.delay;
    if (this.avail + n > buf.length) {
      // Drop the frames no later output needs.
      const keep = Math.max(0, Math.floor(this.next * this.step) - half - 1 - this.base);
      buf.copyWithin(0, keep, this.avail);
      this.base += keep;
      this.avail -= keep;
      if (this.avail + n > buf.length) throw new RangeError('oku: more input frames in one block than the resampler holds');
    }
    for (let i = 0; i < n; i++) buf[this.avail + i] = input[i];
    this.avail += n;
    const table = this.table;
    const last = this.base + this.avail - 1;
    let count = 0;
    for (;;) {
      const centre = this.next * this.step;
      if (centre + half > last) break;
      const first = Math.max(Math.ceil(centre - half), this.base);
      const end = Math.floor(centre + half);
      let acc = 0;
      for (let k = first; k <= end; k++) {
        const pos = Math.abs(centre - k) * TABLE_STEPS;
        const i = Math.floor(pos);
        const f = pos - i;
        const h = f === 0 ? table[i] : table[i] + f * (table[i + 1] - table[i]);
        acc += buf[k - this.base] * h;
      }
      out[count++] = acc;
      this.next++;
    }
    return count;
  }
}
