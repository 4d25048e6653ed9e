// tests/sdk/sdk_test.mjs: `nurel mcp` driven by the official MCP TypeScript SDK, as a host
// drives it: the SDK's stdio client starts the program, makes its initialize handshake,
// pings, lists the tools (checking them against its own schemas) and calls tools answered by
// the fake browser: a text result, an inline image, a saved file and a browser error.
//
//   node sdk_test.mjs [<nurel> [<nurel_fake_browser>]]    (defaults: the build/ folder)
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { fileURLToPath } from "node:url";

import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "../..");
const nurel = path.resolve(process.argv[2] ?? path.join(root, "build/nurel"));
const fakeBrowser = path.resolve(
  process.argv[3] ?? path.join(root, "build/tests/nurel_fake_browser"));

const png =
  "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAQAAAC1HAwCAAAAC0lEQVR42mNkYAAAAAYAAjCB0C8AAAAASUVORK5CYII=";
// The browser's replies, one per request, in the order the calls below make them.
const script = [
  '{"id":$id,"result":"t1 https://example.com/a/b"}',
  `{"id":$id,"result":{"png":"${png}","refs":"e1 button \\"Buy\\""}}`,
  '{"id":$id,"result":{"pdf":"JVBERi0xLjQ=","title":"Example"}}',
  '{"id":$id,"error":"no tab t9"}',
];

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Waits (up to 10 s) until `ready()` holds.
async function waitUntil(ready, what) {
  for (let i = 0; i < 500; i++) {
    if (ready()) return;
    await sleep(20);
  }
  throw new Error(`gave up waiting for ${what}`);
}

const checks = [];
function check(name, body) {
  checks.push({ name, body });
}

const dir = fs.mkdtempSync(path.join(os.tmpdir(), "nsdk."));
const socket = path.join(dir, "agent.sock");
const record = path.join(dir, "requests");
fs.writeFileSync(path.join(dir, "script"), script.join("\n") + "\n");
const browser = spawn(fakeBrowser, [socket, path.join(dir, "script"), record], {
  stdio: "inherit",
});

const transport = new StdioClientTransport({
  command: nurel,
  args: ["mcp"],
  env: { ...process.env, NUREL_SOCKET: socket, HOME: dir },
  stderr: "pipe",
});
let stderr = "";
transport.stderr.on("data", (chunk) => (stderr += chunk));
const client = new Client({ name: "nurel-sdk-test", version: "1.0.0" });

check("connect: the handshake names the server and offers tools", async () => {
  await waitUntil(() => fs.existsSync(socket), "the fake browser's socket");
  await client.connect(transport);
  assert.deepEqual(client.getServerVersion(), { name: "nurel", version: "1" });
  assert.deepEqual(client.getServerCapabilities(), { tools: {} });
  assert.match(client.getInstructions(), /^Nurel is a Mac browser; these tools drive it\./);
});

check("ping answers an empty result", async () => {
  assert.deepEqual(await client.ping(), {});
});

check("listTools: 36 tools that pass the SDK's schema", async () => {
  const { tools } = await client.listTools();
  assert.equal(tools.length, 36);
  assert.equal(tools[0].name, "open_tab");
  assert.equal(tools[35].name, "close_tab");
  for (const tool of tools) {
    assert.equal(tool.inputSchema.type, "object", tool.name);
    assert.equal(typeof tool.description, "string", tool.name);
    assert.equal(typeof tool.annotations.readOnlyHint, "boolean", tool.name);
  }
  const names = new Set(tools.map((tool) => tool.name));
  for (const name of ["get_text", "screenshot", "save_pdf", "click"]) assert.ok(names.has(name));
});

check("callTool: a text result", async () => {
  const result = await client.callTool({ name: "list_tabs", arguments: {} });
  assert.deepEqual(result.content, [{ type: "text", text: "t1 https://example.com/a/b" }]);
  assert.ok(!result.isError);
});

check("callTool: an inline image, then its refs", async () => {
  const result = await client.callTool({ name: "screenshot", arguments: { tab: "t1" } });
  assert.deepEqual(result.content, [
    { type: "image", data: png, mimeType: "image/png" },
    { type: "text", text: 'e1 button "Buy"' },
  ]);
  assert.ok(!result.isError);
});

check("callTool: a PDF saved to a file", async () => {
  const file = path.join(dir, "page.pdf");
  const result = await client.callTool({
    name: "save_pdf",
    arguments: { tab: "t1", file: "~/page.pdf", intent: "Keeping a copy" },
  });
  assert.deepEqual(result.content, [{ type: "text", text: `saved Example to ${file}` }]);
  assert.equal(fs.readFileSync(file, "latin1"), "%PDF-1.4");
});

check("callTool: the browser's error is a tool error", async () => {
  const result = await client.callTool({ name: "click", arguments: { tab: "t9", ref: "e1" } });
  assert.deepEqual(result.content, [{ type: "text", text: "no tab t9" }]);
  assert.equal(result.isError, true);
});

check("callTool: an unknown tool is a tool error", async () => {
  const result = await client.callTool({ name: "nope", arguments: {} });
  assert.deepEqual(result.content, [{ type: "text", text: "unknown tool nope" }]);
  assert.equal(result.isError, true);
});

check("the browser received the requests in order", async () => {
  const read = () =>
    fs.existsSync(record) ? fs.readFileSync(record, "utf8").split("\n").filter(Boolean) : [];
  await waitUntil(() => read().length >= 4, "the recorded requests");
  assert.deepEqual(read().map((line) => JSON.parse(line)), [
    { id: 1, method: "tabs", params: {} },
    { id: 2, method: "screenshot", params: { tab: "t1" } },
    { id: 3, method: "pdf", params: { tab: "t1" } },
    { id: 4, method: "click", params: { tab: "t9", ref: "e1" } },
  ]);
});

check("closing: nothing on standard error", async () => {
  await client.close();
  assert.equal(stderr, "");
});

let failed = 0;
for (const [i, { name, body }] of checks.entries()) {
  try {
    await body();
    console.log(`ok ${i + 1} - ${name}`);
  } catch (error) {
    failed++;
    console.log(`not ok ${i + 1} - ${name}\n  ${String(error.stack ?? error).replace(/\n/g, "\n  ")}`);
    if (i === 0) break;  // without a connection the rest cannot run
  }
}
console.log(`1..${checks.length}`);
browser.kill();
await client.close().catch(() => {});
fs.rmSync(dir, { recursive: true, force: true });
process.exit(failed ? 1 : 0);
