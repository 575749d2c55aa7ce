// Types of oku-speech. They need no DOM library: the node's types follow the
// DOM's where the project has it, and a small stand-in where it does not.

/**
 * The samples of one call: 16-bit integers, or floats of full scale -1..1
 * (rounded to 16 bits by the library), with the channels interleaved; or one
 * Float32Array per channel, as Web Audio has them.
 */
export type Samples = Int16Array | Float32Array | readonly Float32Array[];

export type Assessment = 'ok' | 'too_noisy' | 'too_soft' | 'too_loud';
export type Control =
  | 'unchanged'
  | 'pause_too_low'
  | 'speech_too_low'
  | 'speech_too_high'
  | 'operating_limit'
  | 'gain_estimate';

interface Instant {
  /** Input frames (samples of one channel at the input rate) from the start of the run (creation, reset or flush); exact to 2^53. */
  position: number;
  /** Milliseconds from the start of the run. */
  timeMs: number;
}

export interface SpeechStart extends Instant {
  type: 'speech_start';
}

export interface SpeechEnd extends Instant {
  type: 'speech_end';
  /** The segment's start (its speech start's position and time). */
  start: number;
  startMs: number;
}

export interface VolumeReading extends Instant {
  type: 'volume';
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

export type VadResult = SpeechStart | SpeechEnd | VolumeReading;

export interface Segment {
  /** First input frame of speech. */
  start: number;
  /** First input frame after speech. */
  end: number;
  startMs: number;
  endMs: number;
}

export interface Decision {
  control: Control;
  /** The last call took a decision (rather than only collecting audio). */
  updated: boolean;
  /** The last call proposed a gain other than the one given. */
  changed: boolean;
  timeMs: number;
  /** Pause (noise floor) level used, dB of frame power. */
  pauseDb: number;
  /** Speech level used, dB of frame power. */
  speechDb: number;
}

export interface Options {
  /** Parameter string, "Key=Value;..." (RangeError with the library's message when refused). */
  params?: string;
  /** Interleaved channels (or channel arrays) per call, 1 to maxChannels; default 1. */
  channels?: number;
}

interface Handle {
  /** The input rate, one of inputRates. */
  readonly rate: number;
  readonly channels: number;
  /** The rate the library analyses at (analysisRate(rate)). */
  readonly analysisRate: number;
  /** Keys of params that the service does not read (each also warned about on the console). */
  readonly unknownKeys: string[];
  /** NaN or infinite float samples met so far (each taken as 0). */
  readonly nonfinite: number;
  readonly closed: boolean;
  /** Frees the wasm memory at once; any later use throws. */
  close(): void;
}

export interface Vad extends Handle {
  /** The results the samples completed, in order. */
  process(samples: Samples): VadResult[];
  /** Analyses the samples; the results wait for take(). Allocates nothing (for the audio thread). */
  write(samples: Samples): void;
  /** Writes the oldest waiting result into `out`; false when none waits. Allocates nothing. */
  take(out: Partial<VadResult>): out is VadResult;
  /** Ends the run: everything pending, an open segment closed at the end of the audio. */
  flush(): VadResult[];
  /** Starts afresh as if just created. */
  reset(): void;
  /** The speech segments of a whole recording; the run is flushed after it. */
  segments(samples: Samples): Segment[];
}

export interface Agc extends Handle {
  /** gain: the gain the samples were captured at, 0 to 1 (0 asks for a starting gain). */
  process(samples: Samples, gain: number): { gain: number; decision: Decision };
  /** process() without the decision: returns the gain to apply next. Allocates nothing. */
  write(samples: Samples, gain: number): number;
  /** The last decision, written into `out` when given. */
  decision(out?: Partial<Decision>): Decision;
}

export interface VadConstructor {
  new (rate: number, options?: string | Options): Vad;
  readonly prototype: Vad;
}

export interface AgcConstructor {
  new (rate: number, options?: string | Options): Agc;
  readonly prototype: Agc;
}

export interface Oku {
  /** The library's version, "MAJOR.MINOR.PATCH". */
  readonly version: string;
  /** The rates the library analyses at: 8000, 11025, 16000, 22050. */
  readonly rates: readonly number[];
  /** The input rates the services take, ascending. */
  readonly inputRates: readonly number[];
  readonly maxChannels: number;
  readonly resultTypes: readonly VadResult['type'][];
  readonly assessments: readonly Assessment[];
  readonly controls: readonly Control[];
  readonly Vad: VadConstructor;
  readonly Agc: AgcConstructor;
  /** Samples in a chunk of ms at rate, by the library's rounding rule. */
  chunkSamples(rate: number, ms: number): number;
  /** The rate input of `rate` Hz is analysed at; 0 for a rate that is not an input rate. */
  analysisRate(rate: number): number;
  /** Bytes of wasm memory the instance holds (it grows to the largest need and never shrinks). */
  readonly memoryBytes: number;
}

export interface LoadOptions {
  /** The wasm file's bytes, instead of the copy embedded in the package (a new instance). */
  wasmBinary?: ArrayBuffer | ArrayBufferView;
}

/** The library; every call without wasmBinary gives the same instance. */
export declare function load(options?: LoadOptions): Promise<Oku>;
/** The embedded wasm file's bytes. */
export declare function wasmBytes(): Promise<Uint8Array>;

/** What the node posts: positions in context frames, time in context seconds (currentTime's clock). */
export interface NodeEventFields {
  position: number;
  time: number;
  /** The same instant in the analyzer's run (the library's position). */
  libraryPosition: number;
}
export type NodeSpeechEvent = (Omit<SpeechStart, 'position'> | Omit<SpeechEnd, 'position' | 'start' | 'startMs'>) &
  NodeEventFields;
export type NodeVolumeReading = Omit<VolumeReading, 'position'> & NodeEventFields;
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
  /** Channels the node takes (the browser mixes its input to them, the library mixes them to one); default 2. */
  channels?: number;
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
  /** Where the worklet file (dist/processor.js) is served, when the bundler does not place it beside the module. */
  processorUrl?: string | { readonly href: string };
}

// The DOM's types when the project has them, else what the package uses of them.
type Globals = typeof globalThis;
type WorkletNode = Globals extends { AudioWorkletNode: { prototype: infer T } }
  ? T
  : { readonly port: unknown; connect(destination: unknown): unknown; disconnect(): void };
type AudioContextOf = Globals extends { BaseAudioContext: { prototype: infer T } } ? T : object;

export type OkuNode = WorkletNode & {
  /** The rate the analyzer runs at. */
  readonly analysisRate: number;
  readonly unknownKeys: string[];
  /** Bytes of wasm memory of the context's worklet instance (shared by its nodes), as of the last start or close. */
  readonly workletMemoryBytes: number;
  /** Stops the analysis, frees the processor's memory and disconnects the node; resolves when the memory is free. */
  close(): Promise<void>;
};

export declare const OkuNode: {
  create(context: AudioContextOf, options?: OkuNodeOptions): Promise<OkuNode>;
};
