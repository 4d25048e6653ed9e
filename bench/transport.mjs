// bench/transport.mjs: the two DevTools transports of nurel-browser side by side, warm: one back
// end with its own Chromium on a pipe, one driving a Chromium it didn't start over its
// WebSocket (NUREL_CDP_URL), each asked over its socket directly. Prints the median, min and max
// of "navigate + snapshot" and of "one click by ref", the two interleaved run by run.
//
//   node bench/transport.mjs <build folder> [runs]       (bench/transport.sh does this)
//
// Both Chromiums resolve no name but 127.0.0.1, and the pages are served on 127.0.0.1.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';

const build = path.resolve(process.argv[2] ?? 'build-bench');
const runs = Number(process.argv[3] ?? 30);
const backEnd = path.join(build, 'Nurel.app', 'Contents', 'MacOS', 'nurel-browser');
const chromium = ['/usr/bin/chromium', '/usr/bin/chromium-headless-shell'].find((p) => fs.existsSync(p));
const hostRules = '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1';
const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'nurel-transport-'));
const children = [];

// A page of some size: a list of links, a form and a button that changes the page.
const links = Array.from({ length: 120 }, (_, i) => `<li><a href="/p/${i}">Item number ${i}</a></li>`).join('');
const page = `<title>Bench</title><h1>Transport</h1><nav><ul>${links}</ul></nav>
<form><label>Name <input name=n></label><select><option>One<option>Two</select></form>
<button onclick="this.textContent = 'Pressed ' + (++window.count || (window.count = 1))">Press</button>`;

class Connection {
  constructor(socket) {
    this.socket = net.createConnection(socket);
    this.pending = new Map();
    this.next = 1;
    readline.createInterface({ input: this.socket }).on('line', (line) => {
      const message = JSON.parse(line);
      const waiting = this.pending.get(message.id);
      if (waiting) { this.pending.delete(message.id); waiting(message); }
    });
  }
  request(method, params = {}) {
    const id = this.next++;
    return new Promise((resolve, reject) => {
      this.pending.set(id, (message) => (message.error ? reject(new Error(`${method}: ${message.error}`)) : resolve(message.result)));
      this.socket.write(JSON.stringify({ id, method, params }) + '\n');
    });
  }
}

function start(command, args, env) {
  const child = spawn(command, args, { env: { ...process.env, ...env }, stdio: ['ignore', 'ignore', 'inherit'] });
  children.push(child);
  return child;
}

async function until(condition, what) {
  for (let i = 0; i < 600; i++) {
    const value = condition();
    if (value) return value;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  throw new Error(`no ${what} in 30 s`);
}

async function backEndAt(name, env) {
  const socket = path.join(folder, `${name}.sock`);
  start(backEnd, [], { NUREL_SOCKET: socket, XDG_DATA_HOME: path.join(folder, `data-${name}`), NUREL_IDLE_MINUTES: '10', ...env });
  await until(() => fs.existsSync(socket), `socket of ${name}`);
  return new Connection(socket);
}

const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];
const shown = (values) => `${median(values).toFixed(1)} (${Math.min(...values).toFixed(1)}-${Math.max(...values).toFixed(1)})`;

async function main() {
  const server = http.createServer((request, response) => {
    response.writeHead(200, { 'content-type': 'text/html' });
    response.end(page);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const site = `http://127.0.0.1:${server.address().port}`;

  // The remote one: the switches a pool's headless Chromium might run with.
  const profile = path.join(folder, 'remote-profile');
  start(chromium, [hostRules, '--headless', '--remote-debugging-port=0', '--remote-debugging-address=127.0.0.1',
    `--user-data-dir=${profile}`, '--no-first-run', '--no-default-browser-check', '--hide-scrollbars', '--mute-audio',
    '--window-size=1280,800', '--disable-background-networking', '--disable-component-update',
    '--disable-background-timer-throttling', '--disable-renderer-backgrounding', '--disable-backgrounding-occluded-windows',
    ...(process.getuid() === 0 ? ['--no-sandbox'] : [])]);
  const active = await until(() => {
    try { const text = fs.readFileSync(path.join(profile, 'DevToolsActivePort'), 'utf8'); return text.includes('\n') && text; } catch { return false; }
  }, 'DevTools port');
  const [port, browserPath] = active.split('\n');

  const transports = {
    pipe: await backEndAt('pipe', { NUREL_CHROMIUM: chromium, NUREL_CHROMIUM_FLAGS: hostRules }),
    websocket: await backEndAt('websocket', { NUREL_CDP_URL: `ws://127.0.0.1:${port}${browserPath}` }),
  };
  const tabs = {};
  for (const [name, connection] of Object.entries(transports)) {
    tabs[name] = (await connection.request('open', { url: `${site}/p/start` })).split(' ')[0];
    for (let i = 0; i < 3; i++) {  // warm
      await connection.request('navigate', { tab: tabs[name], url: `${site}/p/warm${i}` });
      await connection.request('snapshot', { tab: tabs[name] });
    }
  }
  const figures = { pipe: { load: [], click: [] }, websocket: { load: [], click: [] } };
  for (let run = 0; run < runs; run++) {
    for (const [name, connection] of Object.entries(transports)) {
      const tab = tabs[name];
      let started = performance.now();
      await connection.request('navigate', { tab, url: `${site}/p/run${run}` });
      const snapshot = await connection.request('snapshot', { tab });
      figures[name].load.push(performance.now() - started);
      const ref = /button "Press" \[ref=(e\d+)\]/.exec(snapshot)?.[1];
      if (!ref) throw new Error(`no ref for the button in ${snapshot.slice(0, 200)}`);
      started = performance.now();
      await connection.request('click', { tab, ref });
      figures[name].click.push(performance.now() - started);
    }
  }
  console.log(`${runs} runs each, interleaved; ms, median (min-max)`);
  console.log('| transport | navigate + snapshot | click by ref |');
  console.log('|---|---|---|');
  for (const [name, figure] of Object.entries(figures))
    console.log(`| ${name} | ${shown(figure.load)} | ${shown(figure.click)} |`);
  server.close();
}

try {
  await main();
} finally {
  for (const child of children) child.kill('SIGTERM');
  await new Promise((resolve) => setTimeout(resolve, 500));
  for (const child of children) child.kill('SIGKILL');
  fs.rmSync(folder, { recursive: true, force: true });
}
