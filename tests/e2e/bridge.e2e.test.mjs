// End-to-end: the demo session (tests/demo/session.mjs) drives the bridge executable with
// the official MCP client in both of its MCP modes, on a private session bus where the
// bridge launches the runtime simulator itself. The session fails on any tool error; this
// checks what it saw. What the bridge answers byte for byte is BridgeExecutableTest's.
//
//   TAVIX_BRIDGE_BIN=build/debug/src/bridge/TavixComputerUseBridge \
//   TAVIX_RUNTIME_SIMULATOR_BIN=build/debug/src/runtime/TavixComputerUseRuntimeSimulator \
//     node --test tests/e2e/
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';

// Unset, the session prints its usage, and the test fails with it.
const { TAVIX_BRIDGE_BIN: bridge, TAVIX_RUNTIME_SIMULATOR_BIN: simulator } = process.env;

test('the demo session lists, reads, clicks, types, saves and records', { timeout: 90_000 }, (t) => {
  // A bus of the test's own; the simulator the bridge launches on it ends when the bus does.
  const bus = spawnSync('dbus-daemon', ['--session', '--fork', '--print-address=1', '--print-pid=1'], { encoding: 'utf8' });
  assert.equal(bus.status, 0, bus.stderr);
  const [address, pid] = bus.stdout.trim().split('\n');
  const out = mkdtempSync(join(tmpdir(), 'bridge-e2e-'));
  t.after(() => { process.kill(Number(pid)); rmSync(out, { recursive: true, force: true }); });
  const demo = spawnSync(process.execPath, [fileURLToPath(new URL('../demo/session.mjs', import.meta.url)),
    bridge, simulator, join(out, 'logs'), out], { encoding: 'utf8', env: { ...process.env, DBUS_SESSION_BUS_ADDRESS: address } });
  assert.equal(demo.status, 0, `${demo.stdout}\n${demo.stderr}`);
  for (const seen of [
    /"name": "computer-use"[^]*tools\/list: 11 tools\nlist_apps, get_app_state, click, [^\n]*, paste, type_text\n/,
    /the Notes window now\n[^]*text field "Title" value: "Hello from the bridge"[^]*"Saved 1 time"/,
    /"name": "record-and-replay"[^]*tools\/list: 3 tools\nevent_stream_start, event_stream_status, event_stream_stop\n/,
    /tools\/call event_stream_status[^]*\\"isRecording\\": true[^]*tools\/call event_stream_stop[^]*\\"endReason\\": \\"toolStopped\\"/,
  ]) assert.match(demo.stdout, seen);
  assert.equal(readFileSync(join(out, 'notes-after-typing.png')).subarray(1, 4).toString(), 'PNG');
});
