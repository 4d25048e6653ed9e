// bench/snapshots.mjs: the snapshots agents read, side by side: nurel (nurel mcp, its back end
// and Chromium) and @playwright/mcp (pinned in package-lock.json) on the same Chromium, for
// every saved page in ../shared/pages served on 127.0.0.1. Prints bytes and time of a full
// snapshot for each, their ratio, and the size of nurel's interactive snapshot.
//
//   node bench/snapshots.mjs <build folder> [runs]      (bench/run.sh --snapshots does this)
//
// Both browsers resolve no name but 127.0.0.1, so nothing a saved page names is fetched.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const build = path.resolve(process.argv[2] ?? path.join(here, '..', 'build-bench'));
const runs = Number(process.argv[3] ?? 3);
const pages = path.join(here, '..', '..', 'shared', 'pages');
const chromium = ['/usr/bin/chromium', '/usr/bin/chromium-headless-shell'].find((p) => fs.existsSync(p));
const hostRules = '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1';

class Client {
  constructor(command, args, env) {
    this.child = spawn(command, args, { env: { ...process.env, ...env }, stdio: ['pipe', 'pipe', 'ignore'] });
    this.pending = new Map();
    this.next = 1;
    readline.createInterface({ input: this.child.stdout }).on('line', (line) => {
      let message;
      try { message = JSON.parse(line); } catch { return; }
      const waiting = this.pending.get(message.id);
      if (waiting) { this.pending.delete(message.id); waiting(message); }
    });
  }
  request(method, params = {}) {
    const id = this.next++;
    return new Promise((resolve) => {
      this.pending.set(id, resolve);
      this.child.stdin.write(JSON.stringify({ jsonrpc: '2.0', id, method, params }) + '\n');
    });
  }
  async tool(name, args) {
    const answer = await this.request('tools/call', { name, arguments: args });
    const text = (answer.result?.content ?? []).filter((c) => c.type === 'text').map((c) => c.text).join('\n');
    if (answer.result?.isError || answer.error) throw new Error(`${name}: ${text || JSON.stringify(answer.error)}`);
    return text;
  }
  async start() {
    await this.request('initialize', { protocolVersion: '2025-06-18', capabilities: {}, clientInfo: { name: 'bench', version: '1' } });
    this.child.stdin.write(JSON.stringify({ jsonrpc: '2.0', method: 'notifications/initialized' }) + '\n');
  }
  stop() { this.child.kill('SIGTERM'); }
}

const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

async function main() {
  const names = fs.readdirSync(pages).filter((n) => n.endsWith('.html')).sort();
  const server = http.createServer((request, response) => {
    const name = path.basename(decodeURIComponent(request.url.split('?')[0]));
    const file = path.join(pages, name);
    if (!names.includes(name)) { response.writeHead(404); response.end(); return; }
    response.writeHead(200, { 'content-type': 'text/html; charset=utf-8' });
    response.end(fs.readFileSync(file));
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const base = `http://127.0.0.1:${server.address().port}/`;
  const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'nurel-snapshots-'));

  // nurel: its own back end on a socket of the run's, started from the bundle.
  const wrapper = path.join(scratch, 'chromium');
  fs.writeFileSync(wrapper, `#!/bin/sh\nexec ${chromium} '${hostRules}' "$@"\n`, { mode: 0o755 });
  const nurelEnv = { NUREL_SOCKET: path.join(scratch, 'agent.sock'), XDG_DATA_HOME: path.join(scratch, 'data'),
    NUREL_CHROMIUM: wrapper, NUREL_IDLE_MINUTES: '1' };
  const backEnd = spawn(path.join(build, 'Nurel.app/Contents/MacOS/nurel-browser'), [],
    { env: { ...process.env, ...nurelEnv }, stdio: 'ignore' });
  const nurel = new Client(path.join(build, 'nurel'), ['mcp'], nurelEnv);
  await nurel.start();

  const config = path.join(scratch, 'playwright.json');
  fs.writeFileSync(config, JSON.stringify({ browser: { browserName: 'chromium', isolated: true,
    launchOptions: { executablePath: chromium, headless: true, args: [hostRules, '--no-sandbox'] } } }));
  const playwright = new Client('node', [path.join(here, 'node_modules/@playwright/mcp/cli.js'),
    '--config', config, '--headless', '--isolated', '--executable-path', chromium], {});
  await playwright.start();

  const opened = await nurel.tool('open_tab', { url: 'about:blank' });
  const tab = opened.split(' ')[0];
  const saved = path.join(scratch, 'snapshot.txt');
  console.log(`snapshots of the saved pages, median of ${runs} runs each (nurel full snapshot saved whole)`);
  console.log('page               nurel bytes  interactive  playwright-mcp   ratio   nurel ms  playwright ms');
  for (const name of names) {
    const address = base + name;
    await nurel.tool('navigate', { tab, url: address });
    await playwright.tool('browser_navigate', { url: address });
    const ours = [], theirs = [];
    let ourBytes = 0, theirBytes = 0, interactive = 0;
    for (let i = 0; i < runs; ++i) {
      let start = performance.now();
      await nurel.tool('snapshot', { tab, file: saved });
      ours.push(performance.now() - start);
      ourBytes = fs.statSync(saved).size;
      start = performance.now();
      const text = await playwright.tool('browser_snapshot', {});
      theirs.push(performance.now() - start);
      theirBytes = Buffer.byteLength(text);
    }
    await nurel.tool('snapshot', { tab, interactive: true, file: saved });
    interactive = fs.statSync(saved).size;
    console.log(`${name.padEnd(18)} ${String(ourBytes).padStart(11)} ${String(interactive).padStart(12)} ` +
      `${String(theirBytes).padStart(15)} ${(ourBytes / theirBytes).toFixed(2).padStart(7)} ` +
      `${median(ours).toFixed(1).padStart(10)} ${median(theirs).toFixed(1).padStart(14)}`);
  }
  nurel.stop();
  playwright.stop();
  backEnd.kill('SIGTERM');
  server.close();
  fs.rmSync(scratch, { recursive: true, force: true });
}

main().catch((error) => { console.error(error.message); process.exit(1); });
