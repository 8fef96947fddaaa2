// The page library against a fake Orvel at the edge (the ws package): what a page gets from each
// way a stream goes, and what it sends. The real server's side is tested in tests/app.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import http from 'node:http';
import WebSocket, { WebSocketServer } from 'ws';
import { connect, detect, int16ToFloat32, OrvelError } from '../../web/orvel-client/index.js';

// Serves /version and runs `session(socket, index)` once a stream has sent its configuration;
// a refusing fake answers the handshake with 403 as Orvel does for a foreign origin.
async function fakeOrvel(session, { refuse = false } = {}) {
  const server = http.createServer((request, response) => response.end(request.url === '/version' ? 'fake-7' : ''));
  const sockets = new WebSocketServer({ server, verifyClient: () => !refuse });
  const configurations = [];
  sockets.on('connection', (socket, request) => {
    socket.once('message', (data) => {
      configurations.push({ text: data.toString(), origin: request.headers.origin });
      session(socket, configurations.length - 1);
    });
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    url: `ws://127.0.0.1:${server.address().port}`,
    configurations,
    stop: () => new Promise((resolve) => { sockets.close(); server.closeAllConnections(); server.close(resolve); }),
  };
}

// Only a guard against a hang; nothing here depends on timing.
const guard = { timeout: 60000 };

const chunkOf = (...values) => Buffer.from(new Int16Array(values).buffer);

async function drain(stream) {
  const chunks = [];
  try {
    for await (const chunk of stream) chunks.push(chunk);
  } catch (error) {
    return { chunks, error };
  }
  return { chunks, error: null };
}

test('samples map to [-1, 1) at both ends of the 16-bit range', guard, () => {
  const raw = new Int16Array([-32768, -16384, -1, 0, 1, 32767]);
  assert.deepEqual([...int16ToFloat32(raw)], [-1, -0.5, -1 / 32768, 0, 1 / 32768, 32767 / 32768]);
});

test('chunks arrive in order with their indices, samples and a rising capture time, and a stalled reader keeps the newest', guard, async (t) => {
  const orvel = await fakeOrvel((socket) => {
    for (const chunk of [chunkOf(1, 2), chunkOf(3, 4), chunkOf(-32768, 32767), chunkOf(5)]) socket.send(chunk);
    socket.close(1011, 'Audio capture failed');
  });
  t.after(orvel.stop);
  const { chunks, error } = await drain(connect({ sampleRate: 16000, url: orvel.url, WebSocket }));
  assert.deepEqual(chunks.map((c) => [c.index, [...c.raw]]), [[0, [1, 2]], [1, [3, 4]], [2, [-32768, 32767]], [3, [5]]]);
  assert.deepEqual([...chunks[2].samples], [-1, 32767 / 32768]);
  assert.ok(chunks.every((c, i) => i === 0 || c.captureTime > chunks[i - 1].captureTime));
  assert.equal(error.code, 'capture-failed');
  assert.deepEqual(JSON.parse(orvel.configurations[0].text), { type: 'loopback', sample_rate: 16000 });
  // A reader that does not keep up holds only the newest chunks; the indices show the gap.
  const slow = connect({ url: orvel.url, WebSocket, maxQueued: 2 });
  await slow.closed;
  assert.deepEqual((await drain(slow)).chunks.map((c) => c.index), [2, 3]);
  assert.equal(slow.dropped, 2);
  assert.equal(orvel.configurations[0].origin, 'http://localhost', 'Orvel refuses a handshake without an origin');
});

test('each way a stream ends becomes the error a page can show; detect() tells who answers', guard, async (t) => {
  const cases = [
    [(s) => s.close(1007, 'Invalid configuration'), 'invalid-configuration', 1007],
    [(s) => s.close(1011, 'Audio capture failed'), 'capture-failed', 1011],
    [(s) => s.close(1008, 'Client too slow'), 'client-too-slow', 1008],
    [(s) => s.close(1001, 'Going away'), 'going-away', 1001],
    [(s) => s.close(1000), 'stream-ended', 1000],
    [(s) => s.terminate(), 'connection-lost', 1006],
  ];
  for (const [end, code, closeCode] of cases) {
    const orvel = await fakeOrvel((socket) => { socket.send(chunkOf(9)); end(socket); });
    const { chunks, error } = await drain(connect({ url: orvel.url, WebSocket }));
    await orvel.stop();
    assert.equal(chunks.length, 1, code);
    assert.ok(error instanceof OrvelError, code);
    assert.deepEqual([error.code, error.closeCode], [code, closeCode]);
  }
  const refusing = await fakeOrvel(() => {}, { refuse: true });
  t.after(refusing.stop);
  assert.equal(await detect({ url: refusing.url }), 'fake-7');
  assert.equal((await drain(connect({ url: refusing.url, WebSocket }))).error.code, 'origin-refused');
  const nothing = await fakeOrvel(() => {});
  await nothing.stop();
  assert.equal(await detect({ url: nothing.url }), null);
  assert.equal((await drain(connect({ url: nothing.url, WebSocket }))).error.code, 'not-running');
});

test('a stream reconnects only when asked, with growing delays, and never after a refusal', guard, async () => {
  const cases = [
    { reconnect: false, close: 1011, connections: 1, delays: [] },
    { reconnect: { retries: 3, initialDelay: 5 }, close: 1011, connections: 4, delays: [5, 10, 20] },
    { reconnect: { retries: 4, initialDelay: 5, maxDelay: 15 }, close: 1001, connections: 5, delays: [5, 10, 15, 15] },
    { reconnect: { retries: 3, initialDelay: 5 }, close: 1007, connections: 1, delays: [] },
  ];
  for (const { reconnect, close, connections, delays } of cases) {
    const orvel = await fakeOrvel((socket) => socket.close(close));
    const planned = [];
    const { error } = await drain(connect({ url: orvel.url, WebSocket, reconnect, onReconnect: ({ delay }) => planned.push(delay) }));
    await orvel.stop();
    assert.equal(orvel.configurations.length, connections, JSON.stringify(reconnect));
    assert.deepEqual(planned, delays);
    assert.equal(error.closeCode, close);
  }
});

test('after a reconnection, close() ends the iteration without an error', guard, async (t) => {
  const orvel = await fakeOrvel((socket, index) => (index === 0 ? socket.close(1001) : socket.send(chunkOf(1))));
  t.after(orvel.stop);
  const stream = connect({ url: orvel.url, WebSocket, reconnect: { initialDelay: 5 } });
  for await (const chunk of stream) {
    assert.equal(chunk.index, 0);
    stream.close();
  }
  assert.equal(await stream.closed, null);
  assert.equal(orvel.configurations.length, 2);
});
