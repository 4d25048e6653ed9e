// bench/sessions.mjs: the sessions of the command-line tools and MCP servers the benchmarks
// start: a folder of its own per session, commands run with a time limit, and every process of
// the session found by its folder and ended with it.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

// What every session shares: the pinned packages, the system Chromium, the one address it may
// reach, and the time a command may take.
export const modules = path.join(path.dirname(fileURLToPath(import.meta.url)), 'node_modules');
export const chromium = process.env.NUREL_CHROMIUM ||
  ['/usr/bin/chromium', '/usr/bin/chromium-headless-shell'].find((p) => fs.existsSync(p));
export const hostRules = '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1';
export const asRoot = process.getuid?.() === 0;
export const callLimitMs = 60000;

// Runs one command to its end or its time limit (`limitMs`): what it printed, its status, its
// wall time (to its exit: a daemon it leaves behind may keep its output open a little longer).
export function runCommand(command, args, env, cwd, limitMs) {
  return new Promise((resolve) => {
    const started = performance.now();
    const child = spawn(command, args, { env, cwd, stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    let err = '';
    let timedOut = false;
    let ms = 0;
    let status = null;
    child.stdout.setEncoding('utf8').on('data', (data) => { out += data; });
    child.stderr.setEncoding('utf8').on('data', (data) => { err += data; });
    const limit = setTimeout(() => { timedOut = true; child.kill('SIGKILL'); }, limitMs);
    const done = () => {
      clearTimeout(limit);
      resolve({ out, err, status, ms, timedOut });
    };
    child.on('error', (error) => { err += error.message; status = -1; ms = performance.now() - started; done(); });
    child.on('exit', (code, signal) => {
      ms = performance.now() - started;
      status = code ?? signal;
      let closed = false;
      child.on('close', () => { closed = true; done(); });
      setTimeout(() => {
        if (closed) return;
        child.stdout.destroy();
        child.stderr.destroy();
        done();
      }, 500);
    });
  });
}

// The processes of a session: every one whose environment names its folder (the tool's
// daemon, the back end, their Chromiums and crash handlers), however they detached.
export function sessionProcesses(scratch) {
  const found = [];
  for (const name of fs.readdirSync('/proc')) {
    if (!/^\d+$/.test(name) || Number(name) === process.pid) continue;
    try {
      if (fs.readFileSync(`/proc/${name}/environ`, 'latin1').includes(scratch)) found.push(Number(name));
    } catch {}
  }
  return found;
}
export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const parentOf = (pid) => {
  try { const stat = fs.readFileSync(`/proc/${pid}/stat`, 'latin1'); return Number(stat.slice(stat.lastIndexOf(')') + 2).split(' ')[1]); } catch { return 0; }
};
// Asks the session's topmost processes to end (a daemon closes its browser), then the rest,
// then kills what is left, each by its id.
export async function endSession(scratch) {
  const waitFor = async (pids, tenths) => {
    for (let i = 0; i < tenths && pids.some((pid) => fs.existsSync(`/proc/${pid}`)); i += 1) await sleep(100);
  };
  let left = sessionProcesses(scratch);
  const top = left.filter((pid) => !left.includes(parentOf(pid)));
  for (const pid of top) try { process.kill(pid, 'SIGTERM'); } catch {}
  await waitFor(top, 30);
  left = sessionProcesses(scratch);
  for (const pid of left) try { process.kill(pid, 'SIGTERM'); } catch {}
  await waitFor(left, 20);
  for (const pid of sessionProcesses(scratch)) try { process.kill(pid, 'SIGKILL'); } catch {}
  fs.rmSync(scratch, { recursive: true, force: true });
}

// A session's own folder under `root`, with the `home` and `tmp` it is given as HOME and TMPDIR.
export function scratchFor(root, name) {
  const scratch = fs.mkdtempSync(path.join(root, name.replace(/[^a-z]+/g, '') + '-'));
  for (const folder of ['home', 'tmp']) fs.mkdirSync(path.join(scratch, folder));
  return scratch;
}

// A folder for a run's sessions, removed with every process left in it however the run ends
// (done, interrupted, or a crash).
export function sessionsRoot(prefix) {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), prefix));
  process.on('exit', () => {
    if (!fs.existsSync(root)) return;
    for (const name of fs.readdirSync(root)) for (const pid of sessionProcesses(path.join(root, name))) try { process.kill(pid, 'SIGKILL'); } catch {}
    fs.rmSync(root, { recursive: true, force: true });
  });
  process.on('SIGINT', () => process.exit(130));
  process.on('SIGTERM', () => process.exit(143));
  return root;
}
