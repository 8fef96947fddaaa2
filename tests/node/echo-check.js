// Independent peer for the WebSocket interoperability test: talks to an echoing server at the
// URL given as the first argument and checks what comes back. Prints one JSON line with the
// results and exits 0 only when every check passed.
'use strict';
const WebSocket = require('ws');

const url = process.argv[2];
if (!url) {
    console.error('usage: node echo-check.js ws://127.0.0.1:PORT/path');
    process.exit(2);
}

const ws = new WebSocket(url, { perMessageDeflate: false, maxPayload: 64 * 1024 * 1024 });
const results = { open: false, checks: [] };
const pending = [];  // resolvers waiting for the next message, in order

ws.on('message', (data, isBinary) => {
    const next = pending.shift();
    if (next) next({ data, isBinary });
});

function nextMessage() {
    return new Promise((resolve) => pending.push(resolve));
}

function check(name, ok, detail) {
    results.checks.push({ name, ok, ...(ok ? {} : { detail }) });
}

async function run() {
    await new Promise((resolve, reject) => {
        ws.once('open', resolve);
        ws.once('error', reject);
        ws.once('unexpected-response', (req, res) => reject(new Error(`status ${res.statusCode}`)));
    });
    results.open = true;

    ws.send('héllo wörld');
    let m = await nextMessage();
    check('text round trip', !m.isBinary && m.data.toString('utf8') === 'héllo wörld', m.data.toString());

    const binary = Buffer.from([0, 1, 2, 250, 251, 252, 253, 254, 255]);
    ws.send(binary);
    m = await nextMessage();
    check('binary round trip', m.isBinary && Buffer.compare(m.data, binary) === 0, m.data.length);

    const big = Buffer.alloc(1024 * 1024);
    for (let i = 0; i < big.length; i++) big[i] = (i * 31 + 7) & 0xff;
    ws.send(big);
    m = await nextMessage();
    check('1 MiB round trip', m.isBinary && Buffer.compare(m.data, big) === 0, m.data.length);

    // One text message in three fragments.
    ws.send('frag', { binary: false, fin: false });
    ws.send('ment', { binary: false, fin: false });
    ws.send('ed', { binary: false, fin: true });
    m = await nextMessage();
    check('fragmented send', !m.isBinary && m.data.toString() === 'fragmented', m.data.toString());

    const pong = new Promise((resolve) => ws.once('pong', resolve));
    ws.ping(Buffer.from([1, 2]));
    const pongData = await pong;
    check('ping answered', Buffer.compare(pongData, Buffer.from([1, 2])) === 0, [...pongData]);

    const closed = new Promise((resolve) => ws.once('close', (code, reason) => resolve({ code, reason })));
    ws.close(1000);
    const close = await closed;
    results.close = { code: close.code, reason: close.reason.toString() };
}

const guard = setTimeout(() => {
    results.error = 'timed out';
    finish();
}, 20000);

function finish() {
    clearTimeout(guard);
    console.log(JSON.stringify(results));
    const ok = results.open && !results.error && results.checks.length === 5 && results.checks.every((c) => c.ok);
    process.exit(ok ? 0 : 1);
}

run().then(finish, (error) => {
    results.error = String(error && error.message ? error.message : error);
    finish();
});
