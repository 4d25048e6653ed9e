// bench/peers.mjs: nurel next to the MCP browser servers people install for the same job,
// @playwright/mcp and chrome-devtools-mcp (pinned in package-lock.json), each driving the same
// Chromium, all three through MCP over stdio. Per run, each server gets a fresh session of its
// own (the three take turns, so that load on the machine falls on all of them alike):
//
//   1. cold start: process start to the answer of the first snapshot of a page (for nurel,
//      `nurel mcp` with no back end running: nurel-browser and Chromium start inside the figure)
//   2. warm look: navigate to a page and take its snapshot, in the running session
//   3. one action: a click by ref on a button that changes the page, to its answer
//   4. memory: the peak resident set of the server's own processes, and of everything it
//      started, Chromium included (the process tree sampled every 20 ms from /proc)
//   5. snapshot size: bytes of a full snapshot of each saved page of ../shared/pages, and the
//      time of the snapshot call
//
// Each figure is printed as median, min and max over the runs, with the ratio of nurel's
// median to the best peer's and whether the goal is met.
//
//   node bench/peers.mjs <build folder> [runs] [figures]    (bench/run.sh --peers does this)
//
// With NUREL_BENCH_KEEP set to a folder, each server's full snapshot of each saved page is
// kept there (<page>.<server>.txt), to compare them line by line.
//
// Pages are served on 127.0.0.1, and every Chromium resolves no name but 127.0.0.1, so nothing
// a saved page names is fetched; chrome-devtools-mcp's usage statistics and update checks are
// turned off.
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { Worker } from 'node:worker_threads';

import { McpClient } from './mcp-client.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const build = path.resolve(process.argv[2] ?? path.join(here, '..', 'build-bench'));
const runs = Math.max(1, Number(process.argv[3] ?? 3));
const figures = process.argv[4] ?? '12345';
// NUREL_BENCH_KEEP names a folder where each server's full snapshot of each page is kept.
const keep = process.env.NUREL_BENCH_KEEP;
const looks = 5;    // warm looks per session
const clicks = 5;   // clicks per session
const pages = path.join(here, '..', '..', 'shared', 'pages');
const chromium = process.env.NUREL_CHROMIUM ||
  ['/usr/bin/chromium', '/usr/bin/chromium-headless-shell'].find((p) => fs.existsSync(p));
const hostRules = '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1';
const modules = path.join(here, 'node_modules');

// A page of the benchmark's own for figures 1 to 3: a small shop's list with a form, and a
// button that adds a row and says how many there are.
const lookPage = `<!doctype html><html lang="en"><head><meta charset="utf-8"><title>Orders</title></head>
<body><header><nav>${Array.from({ length: 12 }, (_, i) => `<a href="/section/${i}">Section ${i + 1}</a>`).join(' ')}</nav></header>
<main><h1>Orders</h1><p>Every order of the week, newest first. Add a row to see the list grow.</p>
<form onsubmit="return false"><label>Customer <input name="customer"></label>
<label>Status <select name="status"><option>Any</option><option>Open</option><option>Shipped</option></select></label>
<label><input type="checkbox" name="late"> Late only</label><button type="submit">Filter</button></form>
<p id="count">Rows: 30</p><button id="add" onclick="addRow()">Add a row</button>
<ul id="rows">${Array.from({ length: 30 }, (_, i) => `<li><a href="/order/${1000 + i}">Order ${1000 + i}</a> for customer ${i + 1}, ${i % 3 ? 'shipped' : 'open'}, ${(i * 7.25 + 10).toFixed(2)} EUR</li>`).join('')}</ul></main>
<footer><p>Shop of the benchmark</p><a href="/help">Help</a></footer>
<script>
let rows = 30;
function addRow() {
  rows += 1;
  const item = document.createElement('li');
  item.innerHTML = '<a href="/order/' + (1000 + rows) + '">Order ' + (1000 + rows) + '</a> added';
  document.getElementById('rows').prepend(item);
  document.getElementById('count').textContent = 'Rows: ' + rows;
}
</script></body></html>`;

// The servers, each with the environment of the benchmark and its own.
class Client extends McpClient {
  constructor(command, args, env, cwd) {
    super(command, args, { ...process.env, ...env }, cwd);
  }
}

// Peak resident sets of a process tree, sampled every 20 ms in a thread of its own: the sum
// over the server's own processes (by command name) and over all of them. `find` adds
// processes that are not descendants: nurel's back end, which detaches itself, found by its
// command name and the socket in its environment.
const samplerCode = `
const { parentPort } = require('node:worker_threads');
const fs = require('node:fs');
const page = 4096;
let watch = null, timer = null;
const seenOther = new Set();
function sample() {
  const ppid = new Map(), rss = new Map(), comm = new Map();
  for (const name of fs.readdirSync('/proc')) {
    if (name < '0' || name > '9z') continue;
    let stat;
    try { stat = fs.readFileSync('/proc/' + name + '/stat', 'latin1'); } catch { continue; }
    const close = stat.lastIndexOf(')');
    const fields = stat.slice(close + 2).split(' ');
    const pid = Number(name);
    comm.set(pid, stat.slice(stat.indexOf('(') + 1, close));
    ppid.set(pid, Number(fields[1]));
    rss.set(pid, Number(fields[21]) * page);
  }
  if (watch.find) {
    for (const [pid, name] of comm) {
      if (name !== watch.find.comm || watch.roots.has(pid) || seenOther.has(pid)) continue;
      seenOther.add(pid);
      try {
        const environ = fs.readFileSync('/proc/' + pid + '/environ', 'latin1').split('\\0');
        if (environ.includes(watch.find.env)) watch.roots.add(pid);
      } catch {}
    }
  }
  const tree = new Set();
  for (const pid of rss.keys()) {
    for (let up = pid, steps = 0; up > 1 && steps < 64; up = ppid.get(up), ++steps)
      if (watch.roots.has(up)) { tree.add(pid); break; }
  }
  let own = 0, total = 0;
  const parts = {};
  for (const pid of tree) {
    watch.seen.set(pid, comm.get(pid));
    total += rss.get(pid);
    if (watch.own.includes(comm.get(pid))) {
      own += rss.get(pid);
      parts[comm.get(pid)] = (parts[comm.get(pid)] || 0) + rss.get(pid);
    }
  }
  if (own > watch.own_peak) watch.parts = parts;
  watch.own_peak = Math.max(watch.own_peak, own);
  watch.total_peak = Math.max(watch.total_peak, total);
}
parentPort.on('message', (message) => {
  if (message.start) {
    watch = { roots: new Set(message.start.roots), own: message.start.own, find: message.start.find,
      seen: new Map(), own_peak: 0, total_peak: 0 };
    seenOther.clear();
    sample();
    timer = setInterval(sample, 20);
  } else if (message.stop) {
    clearInterval(timer);
    sample();
    parentPort.postMessage({ own: watch.own_peak, total: watch.total_peak, parts: watch.parts, seen: [...watch.seen] });
  }
});`;
const sampler = new Worker(samplerCode, { eval: true });
const sampling = (roots, own, find) => sampler.postMessage({ start: { roots, own, find } });
const sampled = () => new Promise((resolve) => {
  sampler.once('message', resolve);
  sampler.postMessage({ stop: true });
});

const alive = (pid) => fs.existsSync('/proc/' + pid);
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
// Ends what a session left behind: the processes the sampler saw in its tree, if still there
// under the same name.
async function reap(seen) {
  const commOf = (pid) => { try { const s = fs.readFileSync(`/proc/${pid}/stat`, 'latin1'); return s.slice(s.indexOf('(') + 1, s.lastIndexOf(')')); } catch { return null; } };
  for (let wait = 0; wait < 50 && seen.some(([pid, comm]) => commOf(pid) === comm); ++wait) await sleep(100);
  for (const [pid, comm] of seen) if (commOf(pid) === comm) try { process.kill(pid, 'SIGKILL'); } catch {}
}

// The three servers: how each is started and how it is asked to look and to click.
const roleLine = (role, name) => new RegExp(`${role} "${name}"`);
const servers = {
  nurel: {
    own: ['nurel', 'nurel-browser'],
    start(scratch) {
      const socket = path.join(scratch, 'agent.sock');
      // The Chromium nurel finds itself (for Debian's launcher script, the browser it starts),
      // unless NUREL_CHROMIUM names one for all three.
      const env = { NUREL_SOCKET: socket, XDG_DATA_HOME: path.join(scratch, 'data'),
        NUREL_CHROMIUM_FLAGS: hostRules, NUREL_IDLE_MINUTES: '2' };
      const client = new Client(path.join(build, 'nurel'), ['mcp'], env, scratch);
      return { client, find: { comm: 'nurel-browser', env: 'NUREL_SOCKET=' + socket } };
    },
    async open(session, url) {
      if (!session.tab) {
        session.tab = (await session.client.tool('open_tab', { url })).split(' ')[0];
      } else {
        await session.client.tool('navigate', { tab: session.tab, url, intent: 'look' });
      }
    },
    look: (session) => session.client.tool('snapshot', { tab: session.tab }),
    async full(session, file) {
      await session.client.tool('snapshot', { tab: session.tab, file });
      return fs.readFileSync(file, 'utf8');
    },
    refOf: (text, role, name) => text.split('\n').find((l) => roleLine(role, name).test(l))?.match(/\[ref=([^\]]+)\]/)?.[1],
    click: (session, ref) => session.client.tool('click', { tab: session.tab, ref, intent: 'add a row' }),
    // Refs go only on what can be acted on: every one counts.
    actionable: /\[ref=e/,
  },
  'playwright-mcp': {
    own: ['node'],
    start(scratch) {
      const config = path.join(scratch, 'playwright.json');
      fs.writeFileSync(config, JSON.stringify({ browser: { browserName: 'chromium', isolated: true,
        launchOptions: { executablePath: chromium, headless: true, args: [hostRules] } } }));
      const client = new Client('node', [path.join(modules, '@playwright/mcp/cli.js'), '--config', config,
        '--headless', '--isolated', '--executable-path', chromium], {}, scratch);
      return { client };
    },
    open: (session, url) => session.client.tool('browser_navigate', { url }),
    look: (session) => session.client.tool('browser_snapshot', {}),
    full: (session) => session.client.tool('browser_snapshot', {}),
    refOf: (text, role, name) => text.split('\n').find((l) => roleLine(role, name).test(l))?.match(/\[ref=([^\]]+)\]/)?.[1],
    click: (session, ref) => session.client.tool('browser_click', { element: 'Add a row', target: ref }),
    actionable: /^\s*- (link|button|textbox|searchbox|combobox|checkbox|radio|listbox|slider|spinbutton|switch)\b.*\[ref=/,
  },
  'chrome-devtools-mcp': {
    own: ['node'],
    start(scratch) {
      const client = new Client('node', [path.join(modules, 'chrome-devtools-mcp/build/src/bin/chrome-devtools-mcp.js'),
        '--headless', '--isolated', '--executablePath', chromium, '--chromeArg=' + hostRules,
        // Chromium refuses to run as root with its sandbox on (nurel and Playwright add the same).
        ...(process.getuid() === 0 ? ['--chromeArg=--no-sandbox'] : []),
        '--no-usage-statistics', '--no-performance-crux'],
      { CHROME_DEVTOOLS_MCP_NO_USAGE_STATISTICS: '1', CHROME_DEVTOOLS_MCP_NO_UPDATE_CHECKS: '1' }, scratch);
      return { client };
    },
    open: (session, url) => session.client.tool('navigate_page', { pageId: 1, type: 'url', url }),
    look: (session) => session.client.tool('take_snapshot', { pageId: 1 }),
    full: (session) => session.client.tool('take_snapshot', { pageId: 1 }),
    refOf: (text, role, name) => text.split('\n').find((l) => roleLine(role, name).test(l))?.match(/uid=(\S+)/)?.[1],
    click: (session, ref) => session.client.tool('click', { pageId: 1, uid: ref }),
    actionable: /^\s*uid=\S+ (link|button|textbox|searchbox|combobox|checkbox|radio|listbox|slider|spinbutton|switch)\b/,
  },
};
const names = Object.keys(servers);
const peers = names.filter((n) => n !== 'nurel');

// The figures, by server: arrays of milliseconds or bytes over all runs.
const results = Object.fromEntries(names.map((n) => [n, { cold: [], look: [], click: [], own: [], total: [], parts: [],
  bytes: {}, snapshotMs: {}, actionable: {} }]));
const pageRefs = {};  // what a person can act on, counted by each saved page itself
const interactive = {};  // bytes of nurel's interactive snapshot of each saved page

async function session(name, base, saved, scratchRoot, run) {
  const server = servers[name];
  const scratch = fs.mkdtempSync(path.join(scratchRoot, name + '-'));
  const into = results[name];
  const started = performance.now();
  const { client, find } = server.start(scratch);
  sampling([client.child.pid], server.own, find);
  const s = { client };
  try {
    await client.start();
    await server.open(s, base + 'look.html');
    let text = await server.look(s);
    if (figures.includes('1')) into.cold.push(performance.now() - started);
    if (figures.includes('2')) {
      for (let i = 0; i < looks; ++i) {
        const began = performance.now();
        await server.open(s, base + `look.html?${run}-${i}`);
        text = await server.look(s);
        into.look.push(performance.now() - began);
      }
    }
    if (figures.includes('3')) {
      for (let i = 0; i < clicks; ++i) {
        const ref = server.refOf(text, 'button', 'Add a row');
        if (!ref) throw new Error(`${name}: no ref for the button in\n${text}`);
        const began = performance.now();
        await server.click(s, ref);
        into.click.push(performance.now() - began);
        text = await server.look(s);
        if (!text.includes(`Rows: ${31 + i}`)) throw new Error(`${name}: the click did not add a row:\n${text}`);
      }
    }
    if (figures.includes('5')) {
      for (const page of saved) {
        await server.open(s, base + page);
        const began = performance.now();
        const snapshot = await server.full(s, path.join(scratch, 'snapshot.txt'));
        (into.snapshotMs[page] ??= []).push(performance.now() - began);
        into.bytes[page] = Buffer.byteLength(snapshot);
        if (keep) fs.writeFileSync(path.join(keep, `${page.replace(/\.html$/, '')}.${name}.txt`), snapshot);
        into.actionable[page] = snapshot.split('\n').filter((l) => server.actionable.test(l)).length;
        if (name === 'nurel' && run === 0) {
          const file = path.join(scratch, 'interactive.txt');
          await client.tool('snapshot', { tab: s.tab, interactive: true, file });
          interactive[page] = fs.statSync(file).size;
          pageRefs[page] = Number(await client.tool('evaluate', { tab: s.tab, intent: 'count',
            script: countActionable }));
        }
      }
    }
  } finally {
    await client.stop();
    const memory = await sampled();
    if (figures.includes('4')) {
      into.own.push(memory.own);
      into.total.push(memory.total);
      into.parts.push(memory.parts);
    }
    // nurel's back end outlives `nurel mcp` until it is idle: it is ended here, Chromium with it.
    for (const [pid, comm] of memory.seen) if (comm === 'nurel-browser' && alive(pid)) process.kill(pid, 'SIGTERM');
    await reap(memory.seen);
    fs.rmSync(scratch, { recursive: true, force: true });
  }
}
// What a person can act on, counted by the page itself (as the tests count it).
const countActionable = "return [...document.querySelectorAll('a[href], button, input:not([type=hidden]), select, " +
  "textarea')].filter((e) => e.checkVisibility({visibilityProperty: true}) && " +
  "!e.closest('[aria-hidden=true]') && e.getClientRects().length).length";

const sorted = (values) => [...values].sort((a, b) => a - b);
const median = (values) => {
  const s = sorted(values);
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
};
const fmt = (value, digits = 1) => value.toLocaleString('en-US', { minimumFractionDigits: digits, maximumFractionDigits: digits });

function table(title, key, unit, goal, scale = 1, digits = 1) {
  console.log(`\n${title}`);
  console.log(`  ${'server'.padEnd(22)}${('median ' + unit).padStart(14)}${'min'.padStart(10)}${'max'.padStart(10)}   nurel / this`);
  for (const name of names) {
    const values = results[name][key].map((v) => v / scale);
    if (!values.length) continue;
    const ratio = name === 'nurel' ? '' : (median(results.nurel[key]) / median(results[name][key])).toFixed(2);
    console.log(`  ${name.padEnd(22)}${fmt(median(values), digits).padStart(14)}${fmt(Math.min(...values), digits).padStart(10)}` +
      `${fmt(Math.max(...values), digits).padStart(10)}   ${ratio.padStart(12)}`);
  }
  const best = Math.min(...peers.map((n) => median(results[n][key])));
  const ratio = median(results.nurel[key]) / best;
  console.log(`  nurel / best peer: ${ratio.toFixed(2)} (goal ${goal.text}: ${ratio <= goal.most ? 'met' : 'NOT met'})`);
  return ratio;
}

async function main() {
  const saved = fs.existsSync(pages) ? fs.readdirSync(pages).filter((n) => n.endsWith('.html')).sort() : [];
  const server = http.createServer((request, response) => {
    const name = path.basename(decodeURIComponent(request.url.split('?')[0]));
    if (name === 'look.html') {
      response.writeHead(200, { 'content-type': 'text/html; charset=utf-8' });
      response.end(lookPage);
    } else if (saved.includes(name)) {
      response.writeHead(200, { 'content-type': 'text/html; charset=utf-8' });
      response.end(fs.readFileSync(path.join(pages, name)));
    } else {
      response.writeHead(404);
      response.end();
    }
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const base = `http://127.0.0.1:${server.address().port}/`;
  const scratchRoot = fs.mkdtempSync(path.join(os.tmpdir(), 'nurel-peers-'));
  console.log(`nurel, @playwright/mcp and chrome-devtools-mcp on ${chromium}, ${runs} runs ` +
    `(${looks} looks and ${clicks} clicks a run), figures ${figures}`);
  try {
    for (let run = 0; run < runs; ++run) {
      // The order turns each run, so that no server always goes first.
      const order = names.map((_, i) => names[(i + run) % names.length]);
      for (const name of order) {
        process.stderr.write(`run ${run + 1}/${runs}: ${name}\n`);
        await session(name, base, saved, scratchRoot, run);
      }
    }
  } finally {
    server.close();
    fs.rmSync(scratchRoot, { recursive: true, force: true });
    await sampler.terminate();
  }

  if (figures.includes('1'))
    table('1) cold start: process start to the answer of the first snapshot of a page', 'cold', 'ms', { text: '<= 0.5', most: 0.5 });
  if (figures.includes('2'))
    table('2) warm look: navigate to a page and take its snapshot', 'look', 'ms', { text: '<= 0.7', most: 0.7 });
  if (figures.includes('3'))
    table('3) one action: a click by ref on a button that changes the page, to its answer', 'click', 'ms', { text: '<= 0.5', most: 0.5 });
  if (figures.includes('4')) {
    table('4a) peak RSS of the server\'s own processes (nurel mcp + nurel-browser; node)', 'own', 'MiB', { text: '<= 0.2', most: 0.2 }, 1 << 20);
    // What made each server's median peak, by program.
    for (const name of names) {
      const at = results[name].own.indexOf(sorted(results[name].own)[Math.floor((results[name].own.length - 1) / 2)]);
      const parts = results[name].parts[at] || {};
      console.log(`  ${name} at its median peak: ` +
        Object.entries(parts).map(([program, bytes]) => `${program} ${fmt(bytes / (1 << 20))} MiB`).join(', '));
    }
    table('4b) peak RSS of everything, Chromium included', 'total', 'MiB', { text: '<= 1', most: 1 }, 1 << 20);
  }
  if (figures.includes('5') && saved.length) {
    console.log('\n5) full snapshot of each saved page: bytes (refs on links, buttons and fields), and median ms of the call;' +
      '\n   nurel\'s interactive snapshot and its share of the full one');
    const head = ['page', 'visible', ...names.map((n) => n + ' bytes (refs)'), 'nurel/smallest',
      'nurel interactive', 'of full', ...names.map((n) => n + ' ms')];
    console.log('  ' + head.join(' | '));
    let met = true;
    for (const page of saved) {
      const smallest = Math.min(...peers.map((n) => results[n].bytes[page]));
      const ratio = results.nurel.bytes[page] / smallest;
      const covered = results.nurel.actionable[page] >= pageRefs[page];
      met &&= ratio <= 1 && covered;
      console.log('  ' + [page, pageRefs[page],
        ...names.map((n) => `${results[n].bytes[page]} (${results[n].actionable[page]})`),
        ratio.toFixed(2) + (covered ? '' : ' (refs missing)'),
        interactive[page], (interactive[page] / results.nurel.bytes[page]).toFixed(2),
        ...names.map((n) => fmt(median(results[n].snapshotMs[page])))].join(' | '));
    }
    console.log(`  goal: nurel no larger than the smallest peer on every page, with a ref on every visible link, button and field: ${met ? 'met' : 'NOT met'}`);
  }
}

main().catch((error) => { console.error(error.stack || error.message); process.exit(1); });
