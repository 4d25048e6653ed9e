// bench/mcp-client.mjs: an MCP server over stdio, as the benchmarks drive them. Each request is
// answered by the server, or fails: the server exited, couldn't be started (a build folder being
// relinked), or took longer than `limitMs` (none when 0).
import { spawn } from 'node:child_process';
import readline from 'node:readline';

export class McpClient {
  constructor(command, args, env, cwd, limitMs = 0) {
    this.child = spawn(command, args, { env, cwd, stdio: ['pipe', 'pipe', 'ignore'] });
    this.pending = new Map();
    this.next = 1;
    this.limitMs = limitMs;
    this.exited = new Promise((resolve) => { this.child.on('exit', resolve); this.child.on('error', resolve); });
    readline.createInterface({ input: this.child.stdout }).on('line', (line) => {
      let message;
      try { message = JSON.parse(line); } catch { return; }
      const waiting = this.pending.get(message.id);
      if (waiting) { this.pending.delete(message.id); waiting(message); }
    });
    const failAll = (message) => {
      for (const waiting of this.pending.values()) waiting({ error: { message } });
      this.pending.clear();
    };
    this.child.on('exit', () => failAll('the server exited'));
    this.child.on('error', (error) => failAll(error.message));
    this.child.stdin.on('error', () => {});
  }
  request(method, params = {}) {
    const id = this.next++;
    return new Promise((resolve) => {
      const limit = this.limitMs && setTimeout(() => {
        this.pending.delete(id);
        resolve({ error: { message: `no answer in ${this.limitMs / 1000} s` } });
      }, this.limitMs);
      this.pending.set(id, (message) => { clearTimeout(limit); resolve(message); });
      this.child.stdin.write(JSON.stringify({ jsonrpc: '2.0', id, method, params }) + '\n');
    });
  }
  // A tool's text, or an error with it.
  async tool(name, args) {
    const answer = await this.request('tools/call', { name, arguments: args });
    const text = (answer.result?.content ?? []).filter((c) => c.type === 'text').map((c) => c.text).join('\n');
    if (answer.result?.isError || answer.error) throw new Error(`${name}: ${text || JSON.stringify(answer.error)}`);
    return text;
  }
  async start() {
    const answer = await this.request('initialize', { protocolVersion: '2025-06-18', capabilities: {},
      clientInfo: { name: 'bench', version: '1' } });
    if (answer.error) throw new Error('initialize: ' + answer.error.message);
    this.child.stdin.write(JSON.stringify({ jsonrpc: '2.0', method: 'notifications/initialized' }) + '\n');
  }
  // Closes standard input (each server then ends, closing its browser), else terminates it.
  async stop() {
    this.child.stdin.end();
    const late = setTimeout(() => this.child.kill('SIGTERM'), 5000);
    await this.exited;
    clearTimeout(late);
  }
}
