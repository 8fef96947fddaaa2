/** Orvel's address: ws://127.0.0.1:8505. */
export declare const defaultURL: string;

/** Why a stream ended, as a page can show it. */
export type OrvelErrorCode =
  | 'not-running'            // nothing answers on Orvel's address
  | 'origin-refused'         // Orvel answers /version but refused this page's WebSocket
  | 'invalid-configuration'  // close 1007: the rate or the configuration was refused
  | 'capture-failed'         // close 1011: the sound could not be captured
  | 'client-too-slow'        // close 1008: the page fell more than 10 s behind
  | 'going-away'             // close 1001: Orvel is quitting (or relaunching for an update)
  | 'stream-ended'           // close 1000: Orvel ended the stream without another reason
  | 'connection-lost';       // the connection broke without a close frame, or another code

export declare class OrvelError extends Error {
  readonly name: 'OrvelError';
  readonly code: OrvelErrorCode;
  /** The WebSocket close code (1006 when the connection broke without one). */
  readonly closeCode?: number;
  readonly reason?: string;
}

/** 100 ms of mono sound (shorter only for a stream's last chunk). */
export interface OrvelChunk {
  /** The samples as floats in [-1, 1): raw / 32768. */
  readonly samples: Float32Array;
  /** The samples as Orvel sent them, 16-bit signed. */
  readonly raw: Int16Array;
  /** 0, 1, 2, … over the stream's life, reconnections included; a gap means chunks were dropped. */
  readonly index: number;
  readonly sampleRate: number;
  /** Estimated wall-clock time (ms since the epoch, like Date.now()) of the chunk's first sample. */
  readonly captureTime: number;
}

export interface ReconnectOptions {
  /** Attempts before giving up (default 5); the count starts afresh once a chunk arrives. */
  retries?: number;
  /** Delay before the first attempt in ms (default 500); each further one doubles it. */
  initialDelay?: number;
  /** Longest delay in ms (default 10000). */
  maxDelay?: number;
}

/** Anything shaped like the browser's WebSocket class: node's global one, or the ws package. */
export type WebSocketClass = new (url: string, options?: unknown) => {
  binaryType: string;
  onopen: ((event: unknown) => void) | null;
  onmessage: ((event: { data: unknown }) => void) | null;
  onerror: ((event: unknown) => void) | null;
  onclose: ((event: { code: number; reason: string }) => void) | null;
  send(data: string): void;
  close(code?: number): void;
};

export interface ConnectOptions {
  /** Samples per second, 8000 to 384000 (default 48000). */
  sampleRate?: number;
  /** Default ws://127.0.0.1:8505. */
  url?: string;
  /** Default globalThis.WebSocket; in node < 22 pass the ws package. */
  WebSocket?: WebSocketClass;
  /** Node only: the Origin header sent (default http://localhost). Browsers send their own. */
  origin?: string;
  /** Reconnect after what may pass (not after a refused origin or configuration). Default off. */
  reconnect?: boolean | ReconnectOptions;
  onReconnect?: (attempt: { attempt: number; delay: number; error: OrvelError }) => void;
  /** Chunks kept for a reader that falls behind before the oldest are dropped (default 100: 10 s). */
  maxQueued?: number;
  fetch?: typeof fetch;
}

export declare class OrvelStream implements AsyncIterableIterator<OrvelChunk> {
  readonly sampleRate: number;
  readonly url: string;
  /** Chunks dropped because the reader fell more than maxQueued behind. */
  readonly dropped: number;
  /** Resolves when the stream is over: null after close(), else why it ended. */
  readonly closed: Promise<OrvelError | null>;
  /** Why the stream ended, or null. */
  readonly error: OrvelError | null;
  /** Ends the stream; the iteration finishes without an error and nothing reconnects. */
  close(): void;
  next(): Promise<IteratorResult<OrvelChunk, undefined>>;
  return(): Promise<IteratorResult<OrvelChunk, undefined>>;
  [Symbol.asyncIterator](): OrvelStream;
}

/** Opens a stream of the computer's sound; iterate it with `for await`. */
export declare function connect(options?: ConnectOptions): OrvelStream;

/**
 * The running Orvel's version, or null when none answers within `timeout` ms (default 2000).
 * In Chromium this request is what asks the user to let a public page reach this computer.
 */
export declare function detect(options?: { url?: string; timeout?: number; fetch?: typeof fetch }): Promise<string | null>;

/** Samples as floats in [-1, 1): -32768 gives -1, 32767 gives 32767/32768. */
export declare function int16ToFloat32(raw: Int16Array, out?: Float32Array): Float32Array;

export interface OrvelSourceNode extends AudioWorkletNode {
  /** The node's sound as a MediaStream (made on first use), for MediaRecorder, WebRTC or speech services. */
  readonly mediaStream: MediaStream;
}

/**
 * An AudioWorklet node that plays `stream` (resampled to the context's rate) after a jitter
 * buffer of `bufferMs` (default 200). The node reads the stream: do not iterate it elsewhere.
 */
export declare function createSourceNode(
  audioContext: BaseAudioContext, stream: OrvelStream, options?: { bufferMs?: number }): Promise<OrvelSourceNode>;
