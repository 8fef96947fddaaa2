// A node program using the page library against the real orvel: streams at RATE until SECONDS of
// samples are in, writes them to FILE as 32-bit floats, and prints one JSON line about the chunks.
// It says "streaming" once the first chunk is in, so the caller can start the sound then.
//   node capture-client.mjs RATE SECONDS FILE
import fs from 'node:fs';
import WebSocket from 'ws';
import { connect } from '../../web/orvel-client/index.js';

const [rate, seconds, file] = [Number(process.argv[2]), Number(process.argv[3]), process.argv[4]];
const stream = connect({ sampleRate: rate, WebSocket });
const parts = [];
let have = 0;
let indicesInOrder = true;
try {
  for await (const chunk of stream) {
    if (parts.length === 0) console.log('streaming');
    indicesInOrder &&= chunk.index === parts.length;
    parts.push(chunk.samples);
    have += chunk.samples.length;
    if (have >= rate * seconds) stream.close();
  }
} catch (error) {
  console.log(JSON.stringify({ error: error.code, closeCode: error.closeCode }));
  process.exit(1);
}
fs.writeFileSync(file, Buffer.concat(parts.map((p) => Buffer.from(p.buffer, p.byteOffset, p.byteLength))));
console.log(JSON.stringify({ sizes: [...new Set(parts.map((p) => p.length))], indicesInOrder }));
