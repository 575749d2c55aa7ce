// Types of oku-speech.

/** 16-bit samples, or floats in -1..1 (x * 32768 rounded, halves up, held to -32768..32767; NaN is 0). Mono. */
export type Samples = Int16Array | Float32Array;

export type Assessment = 'ok' | 'too-noisy' | 'too-soft' | 'too-loud';
export type Control =
  | 'unchanged'
  | 'pause-too-low'
  | 'speech-too-low'
  | 'speech-too-high'
  | 'operating-limit'
  | 'gain-estimate';

export interface SpeechEvent {
  type: 'speech-start' | 'speech-end';
  /** Samples from the start of the run (creation, reset or flush). */
  position: number;
  /** Milliseconds from the start of the run. */
  timeMs: number;
}

export interface VolumeReading {
  type: 'volume';
  /** End of the audio measured, in samples from the start of the run. */
  position: number;
  timeMs: number;
  /** Largest absolute sample of the reading's audio, 0 to 32768. */
  peak: number;
  /** Peak level in dBFS, falling at a limited rate, -90.3 to 0. */
  levelDbfs: number;
  /** Speech over noise in percent of full scale; 0 in a pause. */
  snrPct: number;
  assessment: Assessment;
  /** The analyzer is inside speech. */
  speech: boolean;
}

export type VadResult = SpeechEvent | VolumeReading;

export interface Segment {
  /** First sample of speech. */
  start: number;
  /** First sample after speech. */
  end: number;
  startMs: number;
  endMs: number;
}

export interface Decision {
  control: Control;
  /** The last process() call took a decision (rather than only collecting audio). */
  updated: boolean;
  /** The last process() call proposed a gain other than the one given. */
  changed: boolean;
  timeMs: number;
  /** Pause (noise floor) level used, dB of frame power. */
  pauseDb: number;
  /** Speech level used, dB of frame power. */
  speechDb: number;
}

export declare class Vad {
  /** rate: one of `rates`; params: "Key=Value;..." (RangeError with the library's message when refused). */
  constructor(rate: number, params?: string);
  readonly rate: number;
  readonly closed: boolean;
  /** Keys of params that the analyzer does not read (each also warned about on the console). */
  readonly unknownKeys: string[];
  process(samples: Samples): VadResult[];
  flush(): VadResult[];
  reset(): void;
  segments(samples: Samples, chunkMs?: number): Segment[];
  close(): void;
}

export declare class Agc {
  constructor(rate: number, params?: string);
  readonly rate: number;
  readonly closed: boolean;
  readonly unknownKeys: string[];
  /** gain: the gain in force, 0 to 1 (0 asks for a starting gain). Returns the gain to apply next. */
  process(samples: Samples, gain: number): { gain: number; decision: Decision };
  decision(): Decision;
  close(): void;
}

export interface Oku {
  /** The library's version, "MAJOR.MINOR.PATCH". */
  readonly version: string;
  /** Supported rates in Hz, ascending: 8000, 11025, 16000, 22050. */
  readonly rates: readonly number[];
  readonly assessments: readonly Assessment[];
  readonly controls: readonly Control[];
  Vad: typeof Vad;
  Agc: typeof Agc;
  /** Samples in a chunk of ms at rate, by the library's rounding rule. */
  chunkSamples(rate: number, ms: number): number;
  /** The supported rate nearest to rate (0 for a rate that is not a positive finite number). */
  nearestRate(rate: number): number;
  toSegments(results: Iterable<VadResult>): Segment[];
}

export interface LoadOptions {
  /** The wasm file's bytes, instead of the copy embedded in the package. */
  wasmBinary?: ArrayBuffer | ArrayBufferView;
}

export declare function load(options?: LoadOptions): Promise<Oku>;
export declare function toSegments(results: Iterable<VadResult>): Segment[];
export declare function toInt16(x: number): number;
/** The embedded wasm file's bytes. */
export declare function wasmBytes(): Promise<Uint8Array>;

/** What the node posts: positions in context frames, time in context seconds (currentTime's clock). */
export interface NodeEventFields {
  position: number;
  time: number;
  /** The same instant in samples of the analyzer's run at the library rate. */
  libraryPosition: number;
}
export type NodeSpeechEvent = SpeechEvent & NodeEventFields;
export type NodeVolumeReading = VolumeReading & NodeEventFields;
export interface NodeGainProposal {
  type: 'gain';
  /** The proposed gain, 0 to 1. */
  gain: number;
  decision: Decision;
  position: number;
  time: number;
}

export interface OkuNodeOptions {
  /** Parameter strings of the analyzer and the gain control. */
  params?: { vad?: string; agc?: string };
  onSpeechStart?: (event: NodeSpeechEvent) => void;
  onSpeechEnd?: (event: NodeSpeechEvent) => void;
  /** One reading per 20 ms. */
  onVolume?: (reading: NodeVolumeReading) => void;
  onGain?: (proposal: NodeGainProposal) => void;
  /** Multiply the node's output by the proposed gain (for apps that cannot set the input volume). */
  applyGain?: boolean;
  /** The gain in force at the start, in (0, 1]; default 1. */
  gain?: number;
  wasmBinary?: ArrayBuffer | ArrayBufferView;
  /** Where the processor file is, when a bundler moved it. */
  processorUrl?: string | URL;
}

export interface OkuNode extends AudioWorkletNode {
  /** The rate the analyzer runs at. */
  readonly libraryRate: number;
  /** The resampler's half length in context frames (its latency). */
  readonly resamplerDelay: number;
  readonly unknownKeys: string[];
  /** Stops the analysis, frees the processor's memory and disconnects the node. */
  close(): void;
}

export declare const OkuNode: {
  create(context: BaseAudioContext, options?: OkuNodeOptions): Promise<OkuNode>;
};
