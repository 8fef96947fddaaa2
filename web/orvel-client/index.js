// The computer's sound in a web page, from Orvel on 127.0.0.1:8505. No dependencies: browsers,
// and node >= 18 with a WebSocket class passed in (node's global one, or the ws package).

export const defaultURL = 'ws://127.0.0.1:8505';

const messages = {
  'not-running': 'Orvel is not running on this computer.',
  'origin-refused': 'Origin refused: Orvel does not stream to pages from this origin.',
  'invalid-configuration': 'Orvel refused the stream configuration (is the sample rate between 8000 and 384000 Hz?).',
  'capture-failed': 'Orvel could not capture the sound (is a sound server running?).',
  'client-too-slow': 'The page did not keep up with the sound, so Orvel ended the stream.',
  'going-away': 'Orvel is quitting.',
  'connection-lost': 'The connection to Orvel was lost.',
  'stream-ended': 'Orvel ended the stream.',
};

// The close codes Orvel gives a page so that it can tell why its stream ended.
const closeReasons = new Map([[1007, 'invalid-configuration'], [1011, 'capture-failed'],
  [1008, 'client-too-slow'], [1001, 'going-away'], [1000, 'stream-ended']]);

// What may pass with time: Orvel starting, coming back after an update or finding its sound
// server again. A refused origin or configuration fails the same way on every try.
const passing = new Set(['not-running', 'capture-failed', 'client-too-slow', 'going-away',
  'connection-lost', 'stream-ended']);

export class OrvelError extends Error {
  constructor(code, { closeCode, reason } = {}) {
    super(messages[code] ?? code);
    this.name = 'OrvelError';
    this.code = code;
    this.closeCode = closeCode;
    this.reason = reason;
  }
}

// -32768 maps to -1 and 32767 to 32767/32768, so every sample lies in [-1, 1).
export function int16ToFloat32(raw, out = new Float32Array(raw.length)) {
  for (let i = 0; i < raw.length; i++) out[i] = raw[i] / 32768;
  return out;
}

const littleEndian = new Uint8Array(new Uint16Array([1]).buffer)[0] === 1;

// The wire carries little-endian samples; a view is only made over an aligned buffer.
function samplesOf(data) {
  const bytes = data instanceof ArrayBuffer ? new Uint8Array(data) : new Uint8Array(data.buffer, data.byteOffset, data.byteLength);
  const count = bytes.byteLength >> 1;
  if (littleEndian && bytes.byteOffset % 2 === 0) return new Int16Array(bytes.buffer, bytes.byteOffset, count);
  const raw = new Int16Array(count);
  const view = new DataView(bytes.buffer, bytes.byteOffset, count * 2);
  for (let i = 0; i < count; i++) raw[i] = view.getInt16(2 * i, true);
  return raw;
}

function versionURL(url) {
  const address = new URL(url);
  address.protocol = address.protocol === 'wss:' ? 'https:' : 'http:';
  address.pathname = '/version';
  address.search = address.hash = '';
  return address.href;
}

// The running Orvel's version, or null. In Chromium this request is also what asks the user
// to let a public page reach this computer, so call it before connect().
export async function detect({ url = defaultURL, timeout = 2000, fetch = globalThis.fetch } = {}) {
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), timeout);
  try {
    const response = await fetch(versionURL(url), { signal: abort.signal });
    return response.ok ? (await response.text()).trim() : null;
  } catch {
    return null;
  } finally {
    clearTimeout(timer);
  }
}

const inNode = typeof globalThis.process?.versions?.node === 'string';
const now = () => performance.timeOrigin + performance.now();

export class OrvelStream {
  #socket = null;
  #Socket;
  #origin;
  #fetch;
  #reconnect;
  #onReconnect;
  #maxQueued;
  #queue = [];
  #waiters = [];
  #end = null;  // { error } once the stream is over
  #closing = false;
  #timer = null;
  #attempt = 0;
  #index = 0;
  #settle;

  constructor({ sampleRate = 48000, url = defaultURL, WebSocket = globalThis.WebSocket, origin, reconnect = false,
    onReconnect, maxQueued = 100, fetch = globalThis.fetch } = {}) {
    if (typeof WebSocket !== 'function') throw new TypeError('No WebSocket class: pass one, e.g. connect({ WebSocket }) with the ws package');
    if (!Number.isSafeInteger(sampleRate) || sampleRate <= 0) throw new RangeError(`sampleRate must be a positive integer, not ${sampleRate}`);
    this.sampleRate = sampleRate;
    this.url = url;
    this.dropped = 0;
    this.closed = new Promise((resolve) => { this.#settle = resolve; });
    this.#Socket = WebSocket;
    // In node nobody sets Origin, and Orvel refuses a handshake without one; a browser sets its own.
    this.#origin = inNode ? origin ?? 'http://localhost' : undefined;
    this.#fetch = fetch;
    this.#reconnect = reconnect && { retries: 5, initialDelay: 500, maxDelay: 10000, ...(reconnect === true ? {} : reconnect) };
    this.#onReconnect = onReconnect;
    this.#maxQueued = maxQueued;
    this.#open();
  }

  #open() {
    const socket = this.#origin
      ? new this.#Socket(this.url, { origin: this.#origin, headers: { Origin: this.#origin } })
      : new this.#Socket(this.url);
    socket.binaryType = 'arraybuffer';
    const connection = { socket, opened: false, samples: 0, start: Infinity };
    socket.onopen = () => {
      connection.opened = true;
      socket.send(JSON.stringify({ type: 'loopback', sample_rate: this.sampleRate }));
    };
    socket.onmessage = (event) => this.#receive(connection, event.data);
    socket.onerror = () => {};  // the close event that follows says why
    socket.onclose = (event) => this.#closed(connection, event.code, event.reason);
    this.#socket = socket;
  }

  #receive(connection, data) {
    if (typeof data === 'string' || this.#end) return;
    const raw = samplesOf(data);
    // The capture time of the first sample: the least delayed message bounds it best.
    const before = connection.samples;
    connection.samples += raw.length;
    connection.start = Math.min(connection.start, now() - (connection.samples * 1000) / this.sampleRate);
    const chunk = { samples: int16ToFloat32(raw), raw, index: this.#index++, sampleRate: this.sampleRate,
      captureTime: connection.start + (before * 1000) / this.sampleRate };
    this.#attempt = 0;  // a stream that delivers starts its backoff afresh
    const waiter = this.#waiters.shift();
    if (waiter) return waiter.resolve({ value: chunk, done: false });
    if (this.#queue.length >= this.#maxQueued) {
      this.#queue.shift();  // memory stays bounded for a reader that stalls; the index shows the gap
      this.dropped++;
    }
    this.#queue.push(chunk);
  }

  async #closed(connection, code, reason) {
    if (connection.socket !== this.#socket || this.#closing) return;
    let error;
    if (!connection.opened) {
      // A browser hides the handshake's status: an answering /version means it was refused.
      const version = await detect({ url: this.url, fetch: this.#fetch });
      if (this.#closing) return;
      error = new OrvelError(version === null ? 'not-running' : 'origin-refused', { closeCode: code, reason });
    } else {
      error = new OrvelError(closeReasons.get(code) ?? 'connection-lost', { closeCode: code, reason });
    }
    const policy = this.#reconnect;
    if (policy && passing.has(error.code) && this.#attempt < policy.retries) {
      const delay = Math.min(policy.maxDelay, policy.initialDelay * 2 ** this.#attempt++);
      this.#timer = setTimeout(() => { this.#timer = null; this.#open(); }, delay);
      this.#onReconnect?.({ attempt: this.#attempt, delay, error });  // after: a callback that throws stops nothing
      return;
    }
    this.#finish(error);
  }

  #finish(error) {
    if (this.#end) return;
    const waiters = this.#waiters.splice(0);
    // The error is thrown once: to the readers waiting now, or else to the next read.
    this.#end = { error, pendingError: waiters.length ? null : error };
    this.#socket = null;
    this.#settle(error);
    for (const waiter of waiters) {
      if (error) waiter.reject(error);
      else waiter.resolve({ value: undefined, done: true });
    }
  }

  // Why the stream ended (an OrvelError), or null while it runs or after close().
  get error() { return this.#end?.error ?? null; }

  // Ends the stream: the iterator finishes and nothing reconnects.
  close() {
    if (this.#closing) return;
    this.#closing = true;
    clearTimeout(this.#timer);
    const socket = this.#socket;
    this.#queue.length = 0;
    this.#finish(null);
    try { socket?.close(1000); } catch { /* already closing */ }
  }

  next() {
    if (this.#queue.length) return Promise.resolve({ value: this.#queue.shift(), done: false });
    if (this.#end) {
      const error = this.#end.pendingError;
      this.#end.pendingError = null;  // thrown once, then the iterator is done
      return error ? Promise.reject(error) : Promise.resolve({ value: undefined, done: true });
    }
    return new Promise((resolve, reject) => this.#waiters.push({ resolve, reject }));
  }

  return() {
    this.close();
    return Promise.resolve({ value: undefined, done: true });
  }

  [Symbol.asyncIterator]() { return this; }
}

// Opens a stream of the computer's sound at `sampleRate`; iterate it with for await.
export function connect(options) {
  return new OrvelStream(options);
}

// Runs in the audio thread: a ring of samples that starts playing once `target` frames are in,
// resamples linearly to the context's rate, and when more than `limit` frames wait (a context
// that started late, or a clock slower than the sound server's) skips ahead to `target` again.
const processorSource = `
registerProcessor('orvel-source', class extends AudioWorkletProcessor {
  constructor(options) {
    super();
    const { ratio, target, limit } = options.processorOptions;
    this.ratio = ratio;
    this.target = target;
    this.limit = limit;
    this.ring = new Float32Array(1 << Math.ceil(Math.log2(limit + 65536)));
    this.mask = this.ring.length - 1;
    this.written = 0;
    this.read = 0;
    this.playing = false;
    this.ended = false;
    this.underruns = 0;
    this.port.onmessage = (event) => {
      const samples = event.data;
      if (samples === null) { this.ended = true; return; }
      for (let i = 0; i < samples.length; i++) this.ring[(this.written + i) & this.mask] = samples[i];
      this.written += samples.length;
      if (this.written - this.read > this.limit) this.read = this.written - this.target;
    };
  }
  process(inputs, outputs) {
    const out = outputs[0][0];
    if (!this.playing && this.written - this.read >= (this.ended ? 2 : this.target)) this.playing = true;
    let i = 0;
    for (; this.playing && i < out.length; i++) {
      const at = Math.floor(this.read);
      if (at + 1 >= this.written) {
        this.playing = false;
        if (!this.ended) this.port.postMessage({ underruns: ++this.underruns });
        break;
      }
      const a = this.ring[at & this.mask], b = this.ring[(at + 1) & this.mask];
      out[i] = a + (b - a) * (this.read - at);
      this.read += this.ratio;
    }
    out.fill(0, i);
    return !(this.ended && !this.playing);
  }
});
`;

const registrations = new WeakMap();

// An AudioWorkletNode (one output, mono) that plays `stream` with a jitter buffer of `bufferMs`;
// its `mediaStream` property gives the sound as a MediaStream for MediaRecorder, WebRTC or speech
// services. The node reads the stream itself, so do not iterate the same stream elsewhere.
export async function createSourceNode(audioContext, stream, { bufferMs = 200 } = {}) {
  if (!registrations.has(audioContext)) {
    const url = URL.createObjectURL(new Blob([processorSource], { type: 'text/javascript' }));
    registrations.set(audioContext, audioContext.audioWorklet.addModule(url).finally(() => URL.revokeObjectURL(url)));
  }
  await registrations.get(audioContext);
  const target = Math.max(1, Math.round((bufferMs / 1000) * stream.sampleRate));
  const node = new AudioWorkletNode(audioContext, 'orvel-source', {
    numberOfInputs: 0, numberOfOutputs: 1, outputChannelCount: [1],
    processorOptions: { ratio: stream.sampleRate / audioContext.sampleRate, target, limit: 2 * target + stream.sampleRate / 10 },
  });
  let destination = null;
  Object.defineProperty(node, 'mediaStream', {
    get() {
      if (!destination) {
        destination = audioContext.createMediaStreamDestination();
        destination.channelCount = 1;
        node.connect(destination);
      }
      return destination.stream;
    },
  });
  (async () => {
    try {
      for await (const chunk of stream) node.port.postMessage(chunk.samples, [chunk.samples.buffer]);
    } catch { /* the stream's error stays on stream.error and stream.closed */ }
    node.port.postMessage(null);
  })();
  return node;
}
