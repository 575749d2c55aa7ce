// A Node program as a user writes it, compiled without the DOM library (and
// without Node's, which declares no more of the browser).
import { load, OkuNode, type Vad, type VadResult } from 'oku-speech';

const use = (...values: unknown[]) => values;

const oku = await load();
const vad: Vad = new oku.Vad(48000, { channels: 2 });
const results: VadResult[] = vad.process(new Float32Array(960));
const r: Partial<VadResult> = {};
while (vad.take(r)) {
  const at: number = r.position;
  if (r.type === 'volume') use(at, r.assessment, r.levelDbfs);
  if (r.type === 'speech_end') use(r.start, r.startMs);
}
use(results.length, vad.segments([new Float32Array(10), new Float32Array(10)]), vad.nonfinite);
const agc = new oku.Agc(44100, 'LeastGain=0.1');
const next: number = agc.write(new Int16Array(441), 0.5);
const { decision } = agc.process(new Int16Array(441), next);
use(decision.control, oku.inputRates, oku.analysisRate(44100));
// The node's types are there without the DOM's.
const create: typeof OkuNode.create = OkuNode.create;
use(typeof create);
