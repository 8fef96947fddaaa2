// The soak's load against a running orvel (pid and minutes on the command line): well-behaved
// streaming pages, idle connections, a page that stops reading and a page that floods pings
// without reading. Prints orvel's resident memory every minute, its descriptor count at the
// start and at the end, and how many messages each well-behaved page received.
'use strict';
const fs = require('fs');
const net = require('net');
const path = require('path');
const WebSocket = require(path.join(__dirname, '../../tests/node/node_modules/ws'));

const [pid, minutes, streams, idle, rate] = process.argv.slice(2).map(Number);
const url = 'ws://127.0.0.1:8505/';
const origin = 'http://localhost:3000';
const chunkBytes = Math.trunc(rate / 10) * 2;

const rssMiB = () => {
    const line = fs.readFileSync(`/proc/${pid}/status`, 'utf8').split('\n').find((l) => l.startsWith('VmRSS:'));
    return Number(line.split(/\s+/)[1]) / 1024;
};
const descriptors = () => fs.readdirSync(`/proc/${pid}/fd`).length;

function page(onOpen) {
    const ws = new WebSocket(url, { origin });
    ws.on('open', () => {
        ws.send(JSON.stringify({ type: 'loopback', sample_rate: rate }));
        onOpen(ws);
    });
    ws.on('error', () => {});
    return ws;
}

async function main() {
    const startDescriptors = descriptors();
    const counts = new Array(streams).fill(0);
    const wrongSize = new Array(streams).fill(0);
    // Pages start a quarter second apart, as tabs do, and come back if orvel ends their stream.
    let running = true;
    const reopened = new Array(streams).fill(0);
    const pages = new Array(streams);
    const openPage = (i) => {
        const ws = page(() => {});
        pages[i] = ws;
        ws.on('message', (data, isBinary) => {
            if (isBinary && data.length === chunkBytes) counts[i] += 1;
            else wrongSize[i] += 1;
        });
        ws.on('close', () => {
            if (!running) return;
            reopened[i] += 1;
            setTimeout(() => openPage(i), 1000);
        });
    };
    for (let i = 0; i < streams; ++i) {
        openPage(i);
        await new Promise((resolve) => setTimeout(resolve, 250));
    }
    const closes = { idle: 0 };
    const sockets = new Set();
    const idleConnection = () => {
        const socket = net.connect(8505, '127.0.0.1');
        sockets.add(socket);
        socket.on('error', () => {});
        socket.on('close', () => {
            sockets.delete(socket);
            closes.idle += 1;
            if (running) setTimeout(idleConnection, 100);
        });
    };
    for (let i = 0; i < idle; ++i) idleConnection();
    // The hostile ones never read, so they never learn that orvel dropped them: a new pair comes
    // every minute, keeping the pressure on for the whole run.
    let hostile = [];
    const ping = Buffer.alloc(125, 0x55);
    const startHostile = () => {
        for (const ws of hostile) ws.terminate();
        // Asks for a 384 kHz stream and reads nothing.
        const stalled = new WebSocket(url, { origin });
        stalled.on('open', () => {
            stalled._socket.pause();
            stalled.send(JSON.stringify({ type: 'loopback', sample_rate: 384000 }));
        });
        // Pings as fast as its socket takes them and never reads the pongs.
        const flooder = new WebSocket(url, { origin });
        flooder.on('open', () => {
            flooder._socket.pause();
            const more = () => {
                if (!running || flooder.readyState !== WebSocket.OPEN) return;
                // Bounded per turn, so the flood never starves this process's own timers and pages.
                for (let i = 0; i < 256 && flooder._socket.writableLength < 1 << 20; ++i) flooder.ping(ping);
                setImmediate(more);
            };
            more();
        });
        for (const ws of [stalled, flooder]) ws.on('error', () => {});
        hostile = [stalled, flooder];
    };
    startHostile();
    const hostileTimer = setInterval(startHostile, 60000);

    const started = Date.now();
    console.log(`soak: ${streams} pages at ${rate} Hz, ${idle} idle connections, a stalled page, a ping flood; ${minutes} min`);
    console.log(`soak: descriptors at start ${startDescriptors}`);
    for (let minute = 1; minute <= minutes; ++minute) {
        await new Promise((resolve) => setTimeout(resolve, started + minute * 60000 - Date.now()));
        const total = counts.reduce((a, b) => a + b, 0);
        console.log(`soak: minute ${minute}: RSS ${rssMiB().toFixed(1)} MiB, descriptors ${descriptors()}, messages ${total}`);
    }
    running = false;
    clearInterval(hostileTimer);
    const idleClosed = closes.idle;
    const seconds = (Date.now() - started) / 1000;
    for (const ws of pages) ws.close();
    for (const socket of sockets) socket.destroy();
    for (const ws of hostile) ws.terminate();
    // Give orvel a moment to close its side of everything.
    for (let i = 0; i < 100 && descriptors() !== startDescriptors; ++i) await new Promise((r) => setTimeout(r, 100));
    console.log(`soak: descriptors at end ${descriptors()} (start ${startDescriptors})`);
    console.log(`soak: idle connections closed by orvel: ${idleClosed}; pages whose stream orvel ended: ${reopened.join(' ')}`);
    const min = Math.min(...counts);
    const max = Math.max(...counts);
    console.log(`soak: messages per page in ${seconds.toFixed(0)} s: min ${min}, max ${max} (expected about ${Math.round(seconds * 10)}), ` +
        `wrong-sized ${wrongSize.reduce((a, b) => a + b, 0)}`);
    console.log(`soak: per page: ${counts.join(' ')}`);
}

main().then(() => process.exit(0), (error) => {
    console.error(`soak: ${error.stack || error}`);
    process.exit(1);
});
