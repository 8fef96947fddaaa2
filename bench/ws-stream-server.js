// The reference for bench/ws.sh: the npm ws package doing what examples/ws_stream_server does.
// Every connection gets text commands: "burst N" sends N 9600-byte binary messages at once,
// "pace R" sends R a second until the client goes. Usage: node ws-stream-server.js PORT
'use strict';
const path = require('path');
const { WebSocketServer } = require(path.join(__dirname, '..', 'tests', 'node', 'node_modules', 'ws'));

const port = Number(process.argv[2]);
if (!Number.isInteger(port) || port < 0 || port > 65535) {
    console.error('usage: node ws-stream-server.js PORT');
    process.exit(2);
}

const body = Buffer.alloc(9600);
for (let i = 0; i < body.length; i++) body[i] = (i * 31 + 7) & 0xff;

const server = new WebSocketServer({ host: '127.0.0.1', port, perMessageDeflate: false });
server.on('connection', (ws) => {
    let timer = null;
    ws.on('message', (data, isBinary) => {
        if (isBinary) return;
        const [command, value] = data.toString().split(' ');
        const count = Number(value);
        if (!(count > 0)) return;
        if (command === 'burst') {
            for (let i = 0; i < count; i++) ws.send(body, { binary: true });
        } else if (command === 'pace' && timer === null) {
            // Deadlines from the start, like the C++ server, so the rate does not drift.
            const interval = 1000 / count;
            let next = performance.now();
            const tick = () => {
                ws.send(body, { binary: true });
                next += interval;
                timer = setTimeout(tick, Math.max(0, next - performance.now()));
            };
            next += interval;
            timer = setTimeout(tick, interval);
        }
    });
    ws.on('close', () => {
        if (timer !== null) clearTimeout(timer);
    });
});
