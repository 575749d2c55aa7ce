// Generated recordings for the tests, the same as the native tests generate.

// The recordings behind tests/golden (tests/recordings.h): stretches of a
// voiced sound over uniform noise, from a 32-bit linear congruential generator.
export const GOLDEN = {
  bursts: [[1.2, 0, 30], [1.0, 2500, 30], [0.6, 0, 30], [1.4, 9000, 30], [0.8, 0, 300], [0.9, 60000, 300],
    [1.0, 0, 300], [0.5, 400, 8], [1.1, 0, 8]],
  gaps: [[3.0, 0, 0], [1.5, 6000, 20], [0.3, 0, 0], [0.8, 3000, 20], [1.0, 0, 0], [1.2, 8000, 0], [1.6, 0, 0],
    [0.7, 1500, 5], [6.0, 0, 0], [0.5, 0, 2], [1.0, 5000, 1], [2.0, 0, 0]],
};

// std::lround: halves away from zero.
const lround = (x) => (x < 0 ? -Math.floor(-x + 0.5) : Math.floor(x + 0.5));

export function render(stretches, rate, seed = 7) {
  let state = seed >>> 0;
  const next = (amplitude) => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return amplitude === 0 ? 0 : ((state >>> 8) % (2 * amplitude + 1)) - amplitude;
  };
  const out = [];
  let n = 0;
  for (const [seconds, voice, noise] of stretches) {
    const count = lround(seconds * rate);
    for (let i = 0; i < count; i++, n++) {
      const t = n / rate;
      let x = 0;
      if (voice > 0) {
        const syllable = 0.55 - 0.45 * Math.cos((2 * Math.PI * t) / 0.2);
        const f0 = 2 * Math.PI * 140 * t;
        x = voice * syllable * (0.5 * Math.sin(f0) + 0.3 * Math.sin(5 * f0) + 0.2 * Math.sin(17 * f0));
      }
      const v = lround(x + next(noise));
      out.push(v > 32767 ? 32767 : v < -32768 ? -32768 : v);
    }
  }
  return Int16Array.from(out);
}

// Tone bursts over noise on 20 ms frame boundaries (tests/testaudio.py), and
// the segments the analyzer's timing rules give for them: dated 7 frames
// (140 ms) before the first loud frame, ended 14 frames (280 ms) after the last.
export const BURSTS = [[1.0, 2.5], [3.5, 4.7]];
export const EXPECTED = [[0.86, 2.78], [3.36, 4.98]];

export function bursts(rate, seconds = 6, noise = 100, tone = 8000) {
  const out = new Int16Array(Math.round(seconds * rate));
  let state = 1;
  const edges = BURSTS.map(([a, b]) => [Math.round(a * rate), Math.round(b * rate)]);
  for (let i = 0; i < out.length; i++) {
    state = (Math.imul(state, 1103515245) + 12345) & 0x7fffffff;
    let x = ((state >> 8) % (2 * noise + 1)) - noise;
    if (edges.some(([a, b]) => a <= i && i < b)) x += tone * Math.sin((2 * Math.PI * 1000 * i) / rate);
    out[i] = Math.max(-32768, Math.min(32767, Math.round(x)));
  }
  return out;
}

// The stereo recording of the node tests: loud tone bursts (the gain control
// turns them down) on the left, at half their level on the right, in whole
// 128-frame quanta.
export function stereo(rate) {
  const samples = bursts(rate, 6, 100, 30000);
  const left = new Float32Array(Math.ceil(samples.length / 128) * 128);
  samples.forEach((x, i) => (left[i] = x / 32768));
  return [left, left.map((x) => x / 2)];
}

// What OkuNode posts for `planes` at `rate`, rendered from context frame
// `start` with the gain in force `gain`: the package's results for the same
// 128-frame quanta, in context frames.
export function nodeMessages(oku, planes, rate, start, gain) {
  const vad = new oku.Vad(rate, { channels: planes.length });
  const agc = new oku.Agc(rate, { channels: planes.length });
  const out = [];
  for (let i = 0; i + 128 <= planes[0].length; i += 128) {
    const quantum = planes.map((p) => p.subarray(i, i + 128));
    for (const r of vad.process(quantum)) {
      const { position, start: _, startMs, ...rest } = r;
      out.push({ ...rest, position: start + position, time: (start + position) / rate, libraryPosition: position });
    }
    const { gain: next, decision } = agc.process(quantum, gain);
    if (decision.changed) {
      const position = start + i + 128;
      out.push({ type: 'gain', gain: next, decision, position, time: position / rate });
      gain = next;
    }
  }
  vad.close();
  agc.close();
  return out;
}
