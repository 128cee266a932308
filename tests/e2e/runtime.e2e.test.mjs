// End-to-end with a runtime: the official MCP client drives the bridge executable, which
// launches the runtime simulator on a private session bus and sends it every tool of
// both catalogues.
//
//   TAVIX_BRIDGE_BIN=build/debug/src/bridge/TavixComputerUseBridge \
//   TAVIX_RUNTIME_SIMULATOR_BIN=build/debug/src/runtime/TavixComputerUseRuntimeSimulator \
//     node --test tests/e2e/
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { accessSync, constants, mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const BRIDGE = process.env.TAVIX_BRIDGE_BIN;
const SIMULATOR = process.env.TAVIX_RUNTIME_SIMULATOR_BIN;
if (!BRIDGE || !SIMULATOR) {
  throw new Error('TAVIX_BRIDGE_BIN and TAVIX_RUNTIME_SIMULATOR_BIN must name the bridge and the simulator');
}
accessSync(BRIDGE, constants.X_OK);
accessSync(SIMULATOR, constants.X_OK);

// A private bus; the simulator the bridge launches on it ends when the bus does.
function startBus() {
  const started = spawnSync('dbus-daemon', ['--session', '--fork', '--print-address=1', '--print-pid=1'],
    { encoding: 'utf8' });
  assert.equal(started.status, 0, started.stderr);
  const [address, pid] = started.stdout.trim().split('\n');
  return { address, stop: () => { try { process.kill(Number(pid)); } catch { /* already gone */ } } };
}

async function startBridge(modeArgs, bus, logDir) {
  const transport = new StdioClientTransport({
    command: BRIDGE,
    args: modeArgs,
    env: { TAVIX_CU_LOG_DIR: logDir, DBUS_SESSION_BUS_ADDRESS: bus.address,
      TAVIX_COMPUTER_USE_RUNTIME_PATH: SIMULATOR, TAVIX_COMPUTER_USE_LOG_LEVEL: 'warning' },
    stderr: 'pipe',
  });
  const client = new Client({ name: 'bridge-runtime-e2e', version: '1.0.0' });
  await client.connect(transport);
  return client;
}

const texts = (result) => result.content.filter((item) => item.type === 'text').map((item) => item.text);
const state = (result) => texts(result).find((text) => text.startsWith('<app_state>')) ?? '';
const indexOf = (text, pattern) => {
  const match = text.match(new RegExp(`^\\s*(\\d+) ${pattern}`, 'm'));
  assert.ok(match, `no ${pattern} in\n${text}`);
  return match[1];
};

describe('every tool reaches the runtime', () => {
  let bus;
  let logDir;
  const diagnostics = () => readdirSync(logDir).map((f) => readFileSync(join(logDir, f), 'utf8')).join('\n');
  before(() => {
    bus = startBus();
    logDir = mkdtempSync(join(tmpdir(), 'bridge-runtime-e2e-'));
  });
  after(() => {
    bus.stop();
    rmSync(logDir, { recursive: true, force: true });
  });

  test('the computer-use tools', async (t) => {
    const client = await startBridge(['mcp'], bus, logDir);
    t.after(() => client.close());
    const ok = async (name, args) => {
      const result = await client.callTool({ name, arguments: args });
      assert.notEqual(result.isError, true, `${name}: ${JSON.stringify(result).slice(0, 500)}\n${diagnostics()}`);
      assert.ok(result.content.length > 0, name);
      return result;
    };
    const apps = await ok('list_apps', {});
    assert.match(texts(apps).join('\n'), /Notes/);

    const first = await ok('get_app_state', { app: 'Notes' });
    const image = first.content.find((item) => item.type === 'image');
    assert.equal(image.mimeType, 'image/png');
    assert.equal(Buffer.from(image.data, 'base64').subarray(1, 4).toString(), 'PNG');
    const tree = state(first);
    const title = indexOf(tree, 'text field "Title"');
    const body = indexOf(tree, 'text area "Body"');
    const save = indexOf(tree, 'button "Save"');

    await ok('click', { app: 'Notes', element_index: title });
    await ok('type_text', { app: 'Notes', text: 'Groceries' });
    await ok('press_key', { app: 'Notes', key: 'BackSpace' });
    await ok('set_value', { app: 'Notes', element_index: body, value: 'eggs and milk' });
    await ok('select_text', { app: 'Notes', element_index: body, text: 'milk' });
    await ok('paste', { app: 'Notes', text: 'bread' });
    await ok('click', { app: 'Notes', element_index: save });
    await ok('scroll', { app: 'Notes', element_index: indexOf(tree, 'list "Recent notes"'), direction: 'down' });
    // The simulator's default 1024x768 window: the "Recent notes" rows start 656 pixels
    // down, 24 pixels apart.
    const dragged = await ok('drag', { app: 'Notes', from_x: 146, from_y: 670, to_x: 146, to_y: 718 });
    assert.match(texts(dragged)[0], /^Moved "/);
    const secondary = indexOf(tree, 'text area "Body"');
    await ok('perform_secondary_action', { app: 'Notes', element_index: secondary, action: 'Select All' });

    const now = state(await ok('get_app_state', { app: 'Notes' }));
    assert.match(now, /text field "Title" value: "Grocerie"/);
    assert.match(now, /"Saved 1 time"/);
    assert.match(now, /eggs and bread/);
  });

  test('the record-and-replay tools', async (t) => {
    const client = await startBridge(['event-stream', 'mcp'], bus, logDir);
    t.after(() => client.close());
    const status = async (name, args) => {
      const result = await client.callTool({ name, arguments: args });
      assert.notEqual(result.isError, true, `${name}: ${JSON.stringify(result)}`);
      return JSON.parse(texts(result)[0]);
    };
    assert.equal((await status('event_stream_start', { max_duration_seconds: 30 })).isRecording, true);
    const running = await status('event_stream_status', {});
    assert.equal(running.isRecording, true);
    assert.equal(running.maxDurationSeconds, 30);
    const stopped = await status('event_stream_stop', {});
    assert.equal(stopped.isRecording, false);
    assert.equal(stopped.endReason, 'toolStopped');
  });
});
