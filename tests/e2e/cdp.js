#!/usr/bin/env node
// Drives headless Chromium over the DevTools protocol on a pipe (--remote-debugging-pipe: fd 3
// carries commands, fd 4 replies, each a NUL-terminated JSON message) with node's standard
// library only. Serves PAGE at http://localhost:<free port>/ (so the page's origin is that), or
// the files of a folder (--serve DIR, loading --path), from another host if --host says so;
// loads it, evaluates EXPR (awaiting a promise), keeps a screenshot if asked, closes the browser
// and prints one JSON line:
//   {"ok":true,"value":...,"console":[...],"exceptions":[...]} or {"ok":false,"error":"...",...}
// Exit code: 0 ok, 1 the page failed to load or the expression threw, 2 time-out or browser failure.
//
// usage: node cdp.js (--page HTML | --serve DIR [--path /a/]) --expression EXPR [--host H]
//                    [--screenshot FILE.png] [--cpu yes] [--timeout MS] [--chromium PATH]
// --cpu adds "cpuSeconds": the CPU time every browser process spent during the evaluation.
'use strict';
const { spawn } = require('child_process');
const fs = require('fs');
const http = require('http');
const os = require('os');
const path = require('path');

const options = { timeout: 30000, chromium: '/usr/bin/chromium', host: 'localhost', path: '/' };
for (let i = 2; i + 1 < process.argv.length; i += 2) options[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
if ((options.page === undefined && options.serve === undefined) || options.expression === undefined) {
  process.stderr.write('usage: node cdp.js (--page HTML | --serve DIR [--path /a/]) --expression EXPR [--host H] [--screenshot FILE] [--timeout MS] [--chromium PATH]\n');
  process.exit(2);
}

const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'orvel-cdp-'));
const console_ = [];
const exceptions = [];
let finished = false;
let browser;

const types = { '.html': 'text/html', '.js': 'text/javascript', '.mjs': 'text/javascript', '.css': 'text/css', '.json': 'application/json' };

// A file of the served folder, or null; nothing outside it is ever read.
function served(url) {
  if (options.serve === undefined) return url === '/' ? { type: 'text/html', body: options.page } : null;
  const root = path.resolve(options.serve);
  let file = path.resolve(root, '.' + decodeURIComponent(new URL(url, 'http://x').pathname));
  if (file !== root && !file.startsWith(root + path.sep)) return null;
  if (fs.existsSync(file) && fs.statSync(file).isDirectory()) file = path.join(file, 'index.html');
  if (!fs.existsSync(file)) return null;
  return { type: types[path.extname(file)] || 'application/octet-stream', body: fs.readFileSync(file) };
}

// User plus system CPU seconds of the browser's process group, from /proc.
function browserCPU() {
  const ticks = Number(require('child_process').execFileSync('getconf', ['CLK_TCK']).toString());
  let total = 0;
  for (const entry of fs.readdirSync('/proc')) {
    if (!/^\d+$/.test(entry)) continue;
    let stat;
    try { stat = fs.readFileSync(`/proc/${entry}/stat`, 'utf8'); } catch (_) { continue; }
    const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');  // from field 3, the state
    if (Number(fields[2]) === browser.pid) total += Number(fields[11]) + Number(fields[12]);
  }
  return total / ticks;
}

const pages = http.createServer((request, response) => {
  const found = served(request.url);
  response.writeHead(found ? 200 : 404, { 'Content-Type': found ? found.type : 'text/plain', 'Cache-Control': 'no-store' });
  response.end(found ? found.body : 'not found');
});

function finish(code, result) {
  if (finished) return;
  finished = true;
  clearTimeout(timer);
  process.stdout.write(JSON.stringify({ ...result, console: console_, exceptions }) + '\n');
  pages.close();
  const done = () => {
    fs.rmSync(profile, { recursive: true, force: true });
    process.exit(code);
  };
  if (!browser || browser.exitCode !== null || browser.signalCode !== null) return done();
  // Browser.close lets it end cleanly; killing its process group is only the fallback.
  const fallback = setTimeout(() => {
    try { process.kill(-browser.pid, 'SIGKILL'); } catch (_) { /* already gone */ }
  }, 5000);
  browser.removeAllListeners('exit');
  browser.on('exit', () => { clearTimeout(fallback); done(); });
  send('Browser.close').catch(() => {});
}

const timer = setTimeout(() => finish(2, { ok: false, error: `timed out after ${options.timeout} ms` }), Number(options.timeout));

// The flags checked on Debian 12 for a headless browser without a session bus or GPU.
const flags = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--autoplay-policy=no-user-gesture-required', '--use-fake-ui-for-media-stream', `--user-data-dir=${profile}`, '--remote-debugging-pipe', 'about:blank'];
browser = spawn(options.chromium, flags, { stdio: ['ignore', 'ignore', 'pipe', 'pipe', 'pipe'], detached: true });
let browserLog = '';
browser.stderr.on('data', (chunk) => { browserLog = (browserLog + chunk.toString()).slice(-4000); });
browser.on('error', (error) => finish(2, { ok: false, error: `cannot start ${options.chromium}: ${error.message}` }));
browser.on('exit', (code, signal) => finish(2, { ok: false, error: `browser exited (${code ?? signal}) early: ${browserLog.slice(-500)}` }));

const commands = browser.stdio[3];
commands.on('error', () => {});  // a browser that died is reported by its exit
let nextId = 1;
const pending = new Map();
const waiters = [];

function send(method, params = {}, sessionId) {
  const id = nextId++;
  commands.write(JSON.stringify({ id, method, params, ...(sessionId ? { sessionId } : {}) }) + '\0');
  return new Promise((resolve, reject) => pending.set(id, { resolve, reject, method }));
}

let received = '';
browser.stdio[4].on('data', (chunk) => {
  received += chunk.toString();
  for (let end; (end = received.indexOf('\0')) >= 0;) {
    const message = JSON.parse(received.slice(0, end));
    received = received.slice(end + 1);
    const call = pending.get(message.id);
    if (call) {
      pending.delete(message.id);
      if (message.error) call.reject(new Error(`${call.method}: ${message.error.message}`));
      else call.resolve(message.result);
      continue;
    }
    if (message.method === 'Runtime.consoleAPICalled') {
      const text = message.params.args.map((a) => (a.value !== undefined ? String(a.value) : a.description || a.type));
      console_.push(`${message.params.type}: ${text.join(' ')}`);
    } else if (message.method === 'Runtime.exceptionThrown') {
      const details = message.params.exceptionDetails;
      exceptions.push((details.exception && details.exception.description) || details.text);
    }
    for (let i = waiters.length - 1; i >= 0; i--) {
      if (waiters[i].matches(message)) waiters.splice(i, 1)[0].resolve(message);
    }
  }
});

(async () => {
  await new Promise((resolve) => pages.listen(0, '127.0.0.1', resolve));
  const url = `http://${options.host}:${pages.address().port}${options.path}`;
  const { targetId } = await send('Target.createTarget', { url: 'about:blank' });
  const { sessionId } = await send('Target.attachToTarget', { targetId, flatten: true });
  await send('Page.enable', {}, sessionId);
  await send('Runtime.enable', {}, sessionId);
  const loaded = new Promise((resolve) => waiters.push({
    matches: (e) => e.method === 'Page.loadEventFired' && e.sessionId === sessionId, resolve }));
  const navigation = await send('Page.navigate', { url }, sessionId);
  if (navigation.errorText) return finish(1, { ok: false, error: `cannot load ${url}: ${navigation.errorText}` });
  await loaded;
  const cpuBefore = options.cpu ? browserCPU() : 0;
  const evaluation = await send('Runtime.evaluate', {
    expression: options.expression, awaitPromise: true, returnByValue: true,
  }, sessionId);
  const cpu = options.cpu ? { cpuSeconds: browserCPU() - cpuBefore } : {};
  if (evaluation.exceptionDetails) {
    const details = evaluation.exceptionDetails;
    return finish(1, { ok: false, error: (details.exception && details.exception.description) || details.text });
  }
  if (options.screenshot) {
    const { data } = await send('Page.captureScreenshot', { format: 'png', captureBeyondViewport: true }, sessionId);
    fs.writeFileSync(options.screenshot, Buffer.from(data, 'base64'));
  }
  finish(0, { ok: true, value: evaluation.result.value === undefined ? null : evaluation.result.value, ...cpu });
})().catch((error) => finish(2, { ok: false, error: error.message }));
