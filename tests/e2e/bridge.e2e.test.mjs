// End-to-end: the official MCP client drives the bridge executable over stdio.
//
//   TAVIX_BRIDGE_BIN=build/debug/src/bridge/TavixComputerUseBridge \
//     node --test tests/e2e/
//
// Only requests the bridge answers on its own are used here; nothing needs the
// runtime app or a session bus.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { accessSync, constants, mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { ErrorCode, McpError, ResultSchema } from '@modelcontextprotocol/sdk/types.js';

const BRIDGE = process.env.TAVIX_BRIDGE_BIN;
if (!BRIDGE) {
  throw new Error('TAVIX_BRIDGE_BIN is not set: point it at the bridge executable, '
    + 'e.g. build/debug/src/bridge/TavixComputerUseBridge');
}
accessSync(BRIDGE, constants.X_OK); // throws ENOENT/EACCES naming the path

const CATALOGUE = JSON.parse(readFileSync(
  new URL('../gateway/expected_tool_catalogue.json', import.meta.url), 'utf8'));
const EXIT_WAIT_MS = 10_000;

// Starts the bridge in the given mode and completes the MCP handshake. The log
// directory is private to the run so that no log lands in the user's home.
async function startBridge(modeArgs) {
  const logDir = mkdtempSync(join(tmpdir(), 'bridge-e2e-'));
  const transport = new StdioClientTransport({
    command: BRIDGE,
    args: modeArgs,
    env: { TAVIX_COMPUTER_USE_LOG_LEVEL: 'warning', TAVIX_CU_LOG_DIR: logDir },
    stderr: 'pipe',
  });
  const stderr = [];
  transport.stderr.on('data', (chunk) => stderr.push(chunk));
  const diagnostics = () => [Buffer.concat(stderr).toString(),
    ...readdirSync(logDir).map((f) => readFileSync(join(logDir, f), 'utf8'))].join('\n');
  const client = new Client({ name: 'bridge-e2e', version: '1.0.0' });
  try {
    await client.connect(transport);
  } catch (error) {
    throw new Error(`handshake with ${BRIDGE} ${modeArgs.join(' ')} failed: ${error.message}\n`
      + `bridge output:\n${diagnostics()}`);
  }
  // The exit status is only reachable through the transport's child process; the
  // SDK version is pinned exactly, so this field is stable.
  const child = transport._process;
  assert.ok(child?.stdin, 'the pinned client transport no longer exposes its child process');
  const cleanup = async () => {
    if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
    await client.close();
    rmSync(logDir, { recursive: true, force: true });
  };
  return { client, child, diagnostics, cleanup };
}

// Closes the bridge's standard input, as a host does, and expects a normal exit.
async function exitsCleanly({ child, diagnostics }) {
  const exited = new Promise((resolve) => {
    if (child.exitCode !== null || child.signalCode !== null) resolve();
    else child.once('exit', resolve);
  });
  child.stdin.end();
  let timer;
  const late = new Promise((resolve) => { timer = setTimeout(resolve, EXIT_WAIT_MS, 'late'); });
  const outcome = await Promise.race([exited, late]);
  clearTimeout(timer);
  assert.notEqual(outcome, 'late', `still running ${EXIT_WAIT_MS} ms after its input closed`);
  const status = { code: child.exitCode, signal: child.signalCode };
  assert.deepEqual(status, { code: 0, signal: null },
    `exited with ${JSON.stringify(status)}; bridge output:\n${diagnostics()}`);
}

async function rejectsWith(promise, code, text) {
  await assert.rejects(promise, (error) => {
    assert.ok(error instanceof McpError, `expected an McpError, got ${error}`);
    assert.equal(error.code, code);
    assert.ok(error.message.includes(text), `"${error.message}" lacks "${text}"`);
    return true;
  });
}

describe('computer-use mode (mcp)', { timeout: 60_000 }, () => {
  let bridge;
  before(async () => { bridge = await startBridge(['mcp']); });
  after(async () => { await bridge?.cleanup(); });

  test('identifies itself and offers tools only', () => {
    assert.deepEqual(bridge.client.getServerVersion(), { name: 'computer-use', version: '1.0.0' });
    assert.deepEqual(bridge.client.getServerCapabilities(), { tools: {} });
  });

  test('lists the eleven computer-use tools, in order, as catalogued', async () => {
    const { tools } = await bridge.client.listTools();
    assert.deepEqual(tools.map((t) => t.name), [
      'list_apps', 'get_app_state', 'click', 'perform_secondary_action', 'set_value',
      'select_text', 'scroll', 'drag', 'press_key', 'paste', 'type_text']);
    assert.deepEqual(tools, CATALOGUE.computerUse);
  });

  test('answers ping with an empty result', async () => {
    assert.deepEqual(await bridge.client.ping(), {});
  });

  test('rejects an unknown method and a tool call without a name', async () => {
    await rejectsWith(bridge.client.request({ method: 'no/such' }, ResultSchema),
      ErrorCode.MethodNotFound, 'Method not found: no/such');
    await rejectsWith(
      bridge.client.request({ method: 'tools/call', params: { arguments: {} } }, ResultSchema),
      ErrorCode.InvalidParams, 'Invalid params: missing tool name');
  });

  test('keeps serving after errors, then exits with status 0 when its input closes', async () => {
    assert.deepEqual(await bridge.client.ping(), {});
    await exitsCleanly(bridge);
  });
});

describe('record-and-replay mode (event-stream mcp)', { timeout: 60_000 }, () => {
  let bridge;
  before(async () => { bridge = await startBridge(['event-stream', 'mcp']); });
  after(async () => { await bridge?.cleanup(); });

  test('identifies itself as record-and-replay', () => {
    assert.deepEqual(bridge.client.getServerVersion(), { name: 'record-and-replay', version: '1.0.0' });
  });

  test('lists only the three event-stream tools', async () => {
    const { tools } = await bridge.client.listTools();
    assert.deepEqual(tools.map((t) => t.name),
      ['event_stream_start', 'event_stream_status', 'event_stream_stop']);
    assert.deepEqual(tools, CATALOGUE.recordReplay);
  });

  test('exits with status 0 when its input closes', async () => {
    await exitsCleanly(bridge);
  });
});
