// The live demo: finds Orvel, streams at the chosen rate and shows the sound as it comes.
import { connect, detect } from '../orvel-client/index.js';

const $ = (id) => document.getElementById(id);
const fftSize = 1024;  // the spectrogram shows one pixel row per frequency bin
let stream = null;
let running = false;
let recording = null;

function setState(state, text, code = '') {
  $('status').dataset.state = state;
  $('status').dataset.code = code;
  $('status').textContent = text;
}

async function findOrvel() {
  const version = await detect();
  $('version').textContent = version ? `Orvel ${version}` : 'Orvel is not running on this computer.';
  $('version').dataset.version = version ?? '';
  return version;
}

// RMS in dBFS, where a full-scale sine reads 0.
function showLevel(samples) {
  let sum = 0;
  for (const x of samples) sum += x * x;
  const dbfs = 20 * Math.log10(Math.sqrt(sum / samples.length) * Math.SQRT2);
  $('level').textContent = Number.isFinite(dbfs) ? `${dbfs.toFixed(1)} dBFS` : '−∞ dBFS';
  $('level').dataset.dbfs = Number.isFinite(dbfs) ? dbfs.toFixed(2) : '';
  $('level-bar').style.width = `${Math.max(0, Math.min(100, ((dbfs + 60) / 60) * 100))}%`;
}

// The lowest and highest sample under each pixel column, so no peak falls between pixels.
function drawWaveform(samples) {
  const canvas = $('waveform');
  const context = canvas.getContext('2d');
  const { width, height } = canvas;
  context.fillStyle = '#000';
  context.fillRect(0, 0, width, height);
  context.fillStyle = '#5ad1ff';
  const perColumn = samples.length / width;
  for (let x = 0; x < width; x++) {
    let low = 1, high = -1;
    for (let i = Math.floor(x * perColumn); i < Math.max(Math.floor((x + 1) * perColumn), Math.floor(x * perColumn) + 1); i++) {
      low = Math.min(low, samples[i]);
      high = Math.max(high, samples[i]);
    }
    const top = Math.round(((1 - high) / 2) * (height - 1));
    const bottom = Math.round(((1 - low) / 2) * (height - 1));
    context.fillRect(x, top, 1, bottom - top + 1);
  }
}

// Radix-2 FFT over a Hann window; magnitudes of bins 0 .. fftSize/2 - 1, scaled so that a
// full-scale sine's bin reads 1.
const hann = Float32Array.from({ length: fftSize }, (_, i) => 0.5 - 0.5 * Math.cos((2 * Math.PI * i) / fftSize));
const windowSum = hann.reduce((a, b) => a + b, 0);
const cosines = Float64Array.from({ length: fftSize / 2 }, (_, i) => Math.cos((2 * Math.PI * i) / fftSize));
const sines = Float64Array.from({ length: fftSize / 2 }, (_, i) => -Math.sin((2 * Math.PI * i) / fftSize));

function spectrum(block) {
  const re = new Float64Array(fftSize), im = new Float64Array(fftSize);
  for (let i = 0, j = 0; i < fftSize; i++) {
    re[j] = block[i] * hann[i];
    for (let bit = fftSize >> 1; (j ^= bit) < bit; bit >>= 1);  // j becomes the bit reversal of i + 1
  }
  for (let size = 2; size <= fftSize; size <<= 1) {
    const step = fftSize / size;
    for (let start = 0; start < fftSize; start += size) {
      for (let k = 0; k < size / 2; k++) {
        const a = start + k, b = a + size / 2;
        const tr = re[b] * cosines[k * step] - im[b] * sines[k * step];
        const ti = re[b] * sines[k * step] + im[b] * cosines[k * step];
        re[b] = re[a] - tr; im[b] = im[a] - ti;
        re[a] += tr; im[a] += ti;
      }
    }
  }
  return Float64Array.from({ length: fftSize / 2 }, (_, k) => (2 * Math.hypot(re[k], im[k])) / windowSum);
}

// Black through red and yellow to white: brightness rises with the level, -100 to 0 dB.
function heat(magnitude) {
  const t = Math.max(0, Math.min(1, (20 * Math.log10(magnitude + 1e-12) + 100) / 100)) * 3;
  return [Math.min(1, t), Math.max(0, Math.min(1, t - 1)), Math.max(0, Math.min(1, t - 2))].map((v) => Math.round(v * 255));
}

let pending = new Float32Array(0);

function addSpectrogramColumns(samples) {
  const joined = new Float32Array(pending.length + samples.length);
  joined.set(pending);
  joined.set(samples, pending.length);
  const canvas = $('spectrogram');
  const context = canvas.getContext('2d');
  let offset = 0;
  for (; offset + fftSize <= joined.length; offset += fftSize) {
    const magnitudes = spectrum(joined.subarray(offset, offset + fftSize));
    context.drawImage(canvas, -1, 0);  // scroll left one column
    const column = context.createImageData(1, canvas.height);
    for (let bin = 0; bin < canvas.height; bin++) {
      const [r, g, b] = heat(magnitudes[bin]);
      column.data.set([r, g, b, 255], (canvas.height - 1 - bin) * 4);  // low frequencies at the bottom
    }
    context.putImageData(column, canvas.width - 1, 0);
  }
  pending = joined.slice(offset);
}

function wav(chunks, sampleRate) {
  const count = chunks.reduce((n, c) => n + c.length, 0);
  const bytes = new DataView(new ArrayBuffer(44 + count * 2));
  const text = (at, s) => [...s].forEach((c, i) => bytes.setUint8(at + i, c.charCodeAt(0)));
  text(0, 'RIFF'); bytes.setUint32(4, 36 + count * 2, true); text(8, 'WAVE');
  text(12, 'fmt '); bytes.setUint32(16, 16, true); bytes.setUint16(20, 1, true); bytes.setUint16(22, 1, true);
  bytes.setUint32(24, sampleRate, true); bytes.setUint32(28, sampleRate * 2, true);
  bytes.setUint16(32, 2, true); bytes.setUint16(34, 16, true);
  text(36, 'data'); bytes.setUint32(40, count * 2, true);
  let at = 44;
  for (const chunk of chunks) for (const s of chunk) { bytes.setInt16(at, s, true); at += 2; }
  return new Blob([bytes.buffer], { type: 'audio/wav' });
}

function record(chunk) {
  if (!recording) return;
  recording.chunks.push(chunk.raw.slice());
  recording.have += chunk.raw.length;
  $('record').textContent = `Recording… ${Math.floor(recording.have / chunk.sampleRate)} s`;
  if (recording.have < chunk.sampleRate * 10) return;
  const link = document.createElement('a');
  link.href = URL.createObjectURL(wav(recording.chunks, chunk.sampleRate));
  link.download = `orvel-${new Date().toISOString().replace(/[:.]/g, '-')}.wav`;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 10000);
  recording = null;
  $('record').textContent = 'Record 10 s';
}

async function run() {
  const sampleRate = Number($('rate').value);
  running = true;
  $('connect').textContent = 'Disconnect';
  $('rate').disabled = true;
  $('spectrogram-range').textContent = `0 – ${sampleRate / 2} Hz`;
  setState('connecting', `Connecting at ${sampleRate} Hz…`);
  let count = 0;
  try {
    // Asking for /version first lets Chromium put its local-network prompt before the WebSocket.
    await findOrvel();
    stream = connect({ sampleRate });
    for await (const chunk of stream) {
      if (count === 0) {
        setState('streaming', `Streaming at ${sampleRate} Hz.`);
        $('record').disabled = false;
      }
      $('chunks').dataset.count = ++count;
      $('chunks').textContent = `${(count / 10).toFixed(1)} s received`;
      showLevel(chunk.samples);
      drawWaveform(chunk.samples);
      addSpectrogramColumns(chunk.samples);
      record(chunk);
    }
    setState('stopped', 'Stopped.');
  } catch (error) {
    setState('error', `Stream stopped: ${error.message}`, error.code ?? '');
  } finally {
    stream = null;
    running = false;
    recording = null;
    pending = new Float32Array(0);
    $('connect').textContent = 'Connect';
    $('rate').disabled = false;
    $('record').disabled = true;
    $('record').textContent = 'Record 10 s';
  }
}

$('connect').addEventListener('click', () => {
  if (stream) stream.close();
  else if (!running) run();
});
$('record').addEventListener('click', () => {
  if (recording || !stream) return;
  recording = { chunks: [], have: 0 };
  $('record').textContent = 'Recording… 0 s';
});
findOrvel();
