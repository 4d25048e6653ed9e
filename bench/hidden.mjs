// bench/hidden.mjs: how much of what a person can't see each tool hands the agent. The page
// tests/pages/hidden.html hides a marker word (HIDDEN01 to HIDDEN35) each way a page can hide a
// text, and shows fifteen others (KEPT01 to KEPT15) in ways that must stay: grey and small print,
// text in a frame and in a shadow root, below the fold of a scrolling box, under a veil, the
// visually hidden names of a button and a field. It is served on 127.0.0.1 and each tool reads
// it the ways it offers:
//
//   nurel               snapshot, snapshot --interactive, text, text --all (the command line)
//   agent-browser       snapshot, snapshot -i, read, get text body
//   @playwright/cli     snapshot (the file it writes and names)
//   @playwright/mcp     browser_snapshot
//   chrome-devtools-mcp take_snapshot, and take_snapshot with verbose
//
// Per reading: how many hidden markers it shows (of 35) and how many of the kept ones it has (of
// 15), and which. Not every reading is meant to hold all fifteen: an interactive snapshot shows
// controls and headings, and nurel's `text` is the article without the page's frames and shadow
// roots, `text --all` the page's text without the names of controls.
//
//   node bench/hidden.mjs <build folder> [tool...]     (bench/run.sh --hidden does this)
//
// Each tool gets a session of its own, as in tasks.mjs: its own temporary folder as HOME and
// TMPDIR, every process of it ended at the end. Every Chromium is /usr/bin/chromium (or
// $NUREL_CHROMIUM) and resolves no name but 127.0.0.1. NUREL_BENCH_KEEP=<folder> keeps each
// reading there, one file per tool and reading.
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { McpClient } from './mcp-client.mjs';
import {
  asRoot, callLimitMs, chromium, endSession, hostRules, modules, runCommand, scratchFor, sessionsRoot, sleep,
} from './sessions.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const build = path.resolve(process.argv[2] ?? path.join(here, '..', 'build-bench'));
const only = process.argv.slice(3);
const keep = process.env.NUREL_BENCH_KEEP;
const corpus = fs.readFileSync(path.join(here, '..', 'tests', 'pages', 'hidden.html'), 'utf8');

const markers = (word, count) => Array.from({ length: count }, (_, i) => word + String(i + 1).padStart(2, '0'));
const hidden = markers('HIDDEN', 35);
const kept = markers('KEPT', 15);

function serve() {
  const server = http.createServer((request, response) => {
    const { pathname } = new URL(request.url, 'http://127.0.0.1');
    const send = (status, type, body) => {
      response.writeHead(status, { 'content-type': type, 'cache-control': 'no-store' });
      response.end(body);
    };
    if (pathname === '/hidden.html') return send(200, 'text/html; charset=utf-8', corpus);
    if (pathname === '/start.html') return send(200, 'text/html; charset=utf-8', '<!doctype html><title>Start</title><p>Ready.</p>');
    if (pathname === '/favicon.ico') return send(204, 'image/x-icon', '');
    send(404, 'text/plain', 'not found');
  });
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () => resolve(server)));
}

// A reading that failed: the tool's own words, on one line.
class Failed extends Error {}
const firstLine = (text) => (text.split('\n').map((l) => l.trim()).find(Boolean) ?? '').slice(0, 120);

// A command-line tool in its session's folder: `run` answers what the agent reads (standard
// output, then standard error), and fails when the command does.
function shell(command, prefix, env, cwd) {
  return async (args) => {
    const result = await runCommand(command, [...prefix, ...args], env, cwd, callLimitMs);
    const text = result.out + result.err;
    if (result.timedOut) throw new Failed(`${args[0]}: no answer in ${callLimitMs / 1000} s`);
    if (result.status !== 0) throw new Failed(`${args[0]}: exit ${result.status}: ${firstLine(text)}`);
    return text;
  };
}

// An MCP server over stdio; `call` answers a tool's text, and fails as the tool does.
function mcpServer(command, args, env, cwd) {
  const client = new McpClient(command, args, env, cwd, callLimitMs);
  return {
    start: () => client.start(),
    stop: () => client.stop(),
    call: async (name, params) => {
      try {
        return await client.tool(name, params);
      } catch (error) {
        throw new Failed(firstLine(error.message));
      }
    },
  };
}

const sessionEnv = (scratch, own) => ({ ...process.env, HOME: path.join(scratch, 'home'), TMPDIR: path.join(scratch, 'tmp'), ...own });

// The tools: each starts in its folder, opens the page, and answers its readings by name.
const tools = {
  nurel: {
    async open(scratch, url) {
      const run = shell(path.join(build, 'nurel'), [], sessionEnv(scratch, {
        NUREL_SOCKET: path.join(scratch, 'agent.sock'), XDG_DATA_HOME: path.join(scratch, 'data'),
        NUREL_CHROMIUM_FLAGS: hostRules, NUREL_IDLE_MINUTES: '5', ...(process.env.NUREL_CHROMIUM ? { NUREL_CHROMIUM: chromium } : {}) }), scratch);
      const tab = (await run(['open', url])).split(' ')[0].trim();
      if (!/^t\d+$/.test(tab)) throw new Failed(`open: no tab (${tab})`);
      return {
        readings: {
          snapshot: () => run(['snapshot', tab]),
          'snapshot --interactive': () => run(['snapshot', tab, '--interactive']),
          text: () => run(['text', tab]),
          'text --all': () => run(['text', tab, '--all']),
        },
      };
    },
  },
  // The native program, as in tasks.mjs, its sockets in the session's folder.
  'agent-browser': {
    async open(scratch, url) {
      const program = path.join(modules, 'agent-browser', 'bin', `agent-browser-${os.platform()}-${os.arch() === 'arm64' ? 'arm64' : 'x64'}`);
      try { fs.accessSync(program, fs.constants.X_OK); } catch { fs.chmodSync(program, 0o755); }
      const run = shell(program, [], sessionEnv(scratch, {
        AGENT_BROWSER_SOCKET_DIR: path.join(scratch, 'sockets'), AGENT_BROWSER_SESSION: 'bench',
        AGENT_BROWSER_EXECUTABLE_PATH: chromium, AGENT_BROWSER_NO_VERSION_CHECK: '1', AGENT_BROWSER_IDLE_TIMEOUT_MS: '300000' }), scratch);
      // The first command starts its daemon and browser with the switches, then the page.
      await run(['--args', [...(asRoot ? ['--no-sandbox'] : []), hostRules].join('\n'), 'open', 'about:blank']);
      await run(['open', url]);
      return {
        readings: {
          snapshot: () => run(['snapshot']),
          'snapshot -i': () => run(['snapshot', '-i']),
          read: () => run(['read']),
          'get text body': () => run(['get', 'text', 'body']),
        },
        stop: () => run(['close']),
      };
    },
  },
  // Its snapshot goes to a file in .playwright-cli/ of the folder it runs in, which its answer
  // names: the agent reads both.
  '@playwright/cli': {
    async open(scratch, url) {
      const config = path.join(scratch, 'playwright-cli.json');
      fs.writeFileSync(config, JSON.stringify({ browser: { browserName: 'chromium',
        launchOptions: { executablePath: chromium, headless: true, args: [...(asRoot ? ['--no-sandbox'] : []), hostRules] } } }));
      const cwd = path.join(scratch, 'work');
      fs.mkdirSync(cwd);
      const run = shell(process.execPath, [path.join(modules, '@playwright/cli/playwright-cli.js')], sessionEnv(scratch, {
        XDG_CACHE_HOME: path.join(scratch, 'cache'), PLAYWRIGHT_CLI_SESSION: 'bench', NO_UPDATE_NOTIFIER: '1' }), cwd);
      await run(['open', `--config=${config}`, '--idle-timeout=300000']);
      await run(['goto', url]);
      return {
        readings: {
          async snapshot() {
            const answer = await run(['snapshot']);
            const file = answer.match(/\[Snapshot\]\(([^)]+)\)/)?.[1];
            return file ? answer + '\n' + fs.readFileSync(path.resolve(cwd, file), 'utf8') : answer;
          },
        },
        stop: () => run(['close']),
      };
    },
  },
  '@playwright/mcp': {
    async open(scratch, url) {
      const config = path.join(scratch, 'playwright-mcp.json');
      fs.writeFileSync(config, JSON.stringify({ browser: { browserName: 'chromium', isolated: true,
        launchOptions: { executablePath: chromium, headless: true, args: [...(asRoot ? ['--no-sandbox'] : []), hostRules] } } }));
      const server = mcpServer(process.execPath, [path.join(modules, '@playwright/mcp/cli.js'), '--config', config,
        '--headless', '--isolated', '--executable-path', chromium], sessionEnv(scratch, {}), scratch);
      await server.start();
      await server.call('browser_navigate', { url });
      return { readings: { browser_snapshot: () => server.call('browser_snapshot', {}) }, stop: server.stop };
    },
  },
  'chrome-devtools-mcp': {
    async open(scratch, url) {
      const server = mcpServer(process.execPath, [path.join(modules, 'chrome-devtools-mcp/build/src/bin/chrome-devtools-mcp.js'),
        '--headless', '--isolated', '--executablePath', chromium, '--chromeArg=' + hostRules,
        ...(asRoot ? ['--chromeArg=--no-sandbox'] : []), '--no-usage-statistics', '--no-performance-crux'],
      sessionEnv(scratch, { CHROME_DEVTOOLS_MCP_NO_USAGE_STATISTICS: '1', CHROME_DEVTOOLS_MCP_NO_UPDATE_CHECKS: '1' }), scratch);
      await server.start();
      await server.call('navigate_page', { pageId: 1, type: 'url', url });
      return {
        readings: {
          take_snapshot: () => server.call('take_snapshot', { pageId: 1 }),
          'take_snapshot verbose': () => server.call('take_snapshot', { pageId: 1, verbose: true }),
        },
        stop: server.stop,
      };
    },
  },
};

// Which markers of `list` a reading holds.
const fileName = (text) => text.replace(/[^a-z]+/gi, '-').replace(/^-|-$/g, '');
const found = (text, list) => list.filter((marker) => text.includes(marker));
// HIDDEN01, HIDDEN02, HIDDEN07 as "01, 02, 07".
const numbers = (list) => list.map((marker) => marker.replace(/^[A-Z]+/, '')).join(', ');

// One tool's session: every reading counted, or the reason it has none.
async function measure(name, url, root) {
  const scratch = scratchFor(root, name);
  const rows = [];
  let session;
  try {
    session = await tools[name].open(scratch, url);
    for (const [reading, read] of Object.entries(session.readings)) {
      try {
        const text = await read();
        if (keep) fs.writeFileSync(path.join(keep, `${fileName(name)}.${fileName(reading)}.txt`), text);
        rows.push({ tool: name, reading, shown: found(text, hidden), kept: found(text, kept), bytes: Buffer.byteLength(text) });
      } catch (error) {
        rows.push({ tool: name, reading, failed: error.message });
      }
    }
  } catch (error) {
    rows.push({ tool: name, reading: '(none)', failed: error instanceof Failed ? error.message : `failed: ${error.message}` });
  } finally {
    if (session?.stop) await Promise.race([session.stop().catch(() => {}), sleep(10000)]);
    await endSession(scratch);
  }
  return rows;
}

function report(rows) {
  console.log(`\nHidden texts shown and kept texts read, per tool and reading (${hidden.length} hidden, ${kept.length} kept)\n`);
  console.log(`| tool | reading | hidden shown / ${hidden.length} | kept / ${kept.length} | bytes |`);
  console.log('|---|---|---|---|---|');
  for (const row of rows) {
    if (row.failed) console.log(`| ${row.tool} | ${row.reading} | failed | failed | |`);
    else console.log(`| ${row.tool} | \`${row.reading}\` | ${row.shown.length} | ${row.kept.length} | ${row.bytes.toLocaleString('en-US')} |`);
  }
  console.log('\nWhich:');
  for (const row of rows) {
    if (row.failed) {
      console.log(`- ${row.tool}, ${row.reading}: ${row.failed}`);
      continue;
    }
    const missing = kept.filter((marker) => !row.kept.includes(marker));
    console.log(`- ${row.tool}, ${row.reading}: hidden shown ${row.shown.length ? numbers(row.shown) : 'none'}; ` +
      `kept missing ${missing.length ? numbers(missing) : 'none'}`);
  }
}

async function main() {
  if (keep) fs.mkdirSync(keep, { recursive: true });
  const server = await serve();
  const url = `http://127.0.0.1:${server.address().port}/hidden.html`;
  const root = sessionsRoot('nurel-hidden-');
  console.log(`The hidden-text corpus (tests/pages/hidden.html) read by each tool, every browser ${chromium}`);
  const rows = [];
  try {
    for (const name of Object.keys(tools).filter((n) => !only.length || only.includes(n))) {
      process.stderr.write(`${name}\n`);
      rows.push(...await measure(name, url, root));
    }
  } finally {
    server.close();
    fs.rmSync(root, { recursive: true, force: true });
  }
  report(rows);
}

main().catch((error) => { console.error(error.stack || error.message); process.exit(1); });
