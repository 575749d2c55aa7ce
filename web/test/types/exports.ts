// The names the typings declare, checked both ways by the compiler (a name
// missing here or not declared there fails): the module's value exports, and
// the members of the library object and of its classes' objects. The test
// compares them with what exists at run time.
import type * as pkg from 'oku-speech';
import type { Agc, Oku, Vad } from 'oku-speech';

type Names<T> = { [K in keyof T]-?: true };

export const module: Names<typeof pkg> = { load: true, wasmBytes: true, OkuNode: true };
export const oku: Names<Oku> = {
  version: true, rates: true, inputRates: true, maxChannels: true, resultTypes: true, assessments: true, controls: true,
  Vad: true, Agc: true, chunkSamples: true, analysisRate: true, memoryBytes: true,
};
const handle = { rate: true, channels: true, analysisRate: true, unknownKeys: true, nonfinite: true, closed: true, close: true } as const;
export const vad: Names<Vad> = { ...handle, process: true, write: true, take: true, flush: true, reset: true, segments: true };
export const agc: Names<Agc> = { ...handle, process: true, write: true, decision: true };
