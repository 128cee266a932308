// Runs a real MCP session against the bridge with the official client, with the runtime
// simulator on a private session bus: the bridge launches the simulator itself, then the
// session lists apps, reads the Notes window, clicks, types, saves and reads it again,
// keeps the last screenshot, and tries the record-and-replay tools. Prints each request
// and answer, then the bridge's log file. tests/e2e runs it too, and checks what it prints.
// Usage: node tests/demo/session.mjs <bridge> <simulator> <log directory> <output directory>
// with DBUS_SESSION_BUS_ADDRESS naming the private bus.
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { getDefaultEnvironment, StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const [bridge, simulator, logDir, outDir] = process.argv.slice(2);
if (!bridge || !simulator || !logDir || !outDir || !process.env.DBUS_SESSION_BUS_ADDRESS) {
  console.error('usage: DBUS_SESSION_BUS_ADDRESS=... node tests/demo/session.mjs <bridge> <simulator> <log directory> <output directory>');
  process.exit(2);
}
for (const directory of [logDir, outDir]) mkdirSync(directory, { recursive: true });

const show = (label, value) => console.log(`\n>>> ${label}\n${typeof value === 'string' ? value : JSON.stringify(value, null, 2)}`);

async function connect(modeArgs) {
  console.log(`\n===== ${bridge} ${modeArgs.join(' ')}`);
  // A host passes a stripped environment; the bus and the runtime's path are added here.
  const env = { ...getDefaultEnvironment(), TAVIX_CU_LOG_DIR: logDir, TAVIX_COMPUTER_USE_RUNTIME_PATH: simulator,
    DBUS_SESSION_BUS_ADDRESS: process.env.DBUS_SESSION_BUS_ADDRESS };
  const transport = new StdioClientTransport({ command: bridge, args: modeArgs, stderr: 'inherit', env });
  const client = new Client({ name: 'bridge-demo', version: '1.0.0' });
  await client.connect(transport);
  show('initialize: server', { serverInfo: client.getServerVersion() });
  const { tools } = await client.listTools();
  show(`tools/list: ${tools.length} tools`, tools.map((t) => t.name).join(', '));
  return client;
}

async function call(client, name, args) {
  const result = await client.callTool({ name, arguments: args });
  // Images are shown by size: the model gets the bytes, a terminal does not need them.
  show(`tools/call ${name} ${JSON.stringify(args)}`, { ...result, content: result.content?.map((item) =>
    (item.type === 'image' ? { type: 'image', mimeType: item.mimeType, data: `<${item.data.length} bytes of base64>` } : item)) });
  if (result.isError) throw new Error(`${name} failed: ${result.content?.[0]?.text}`);
  return result;
}

const stateText = (result) => result.content.find((item) => item.text?.startsWith('<app_state>')).text;
const elementIndex = (state, pattern) => {
  const match = state.match(new RegExp(`^\\s*(\\d+) ${pattern}`, 'm'));
  if (!match) throw new Error(`no element ${pattern} in the state:\n${state}`);
  return match[1];
};

const client = await connect(['mcp']);
await call(client, 'list_apps', {});
const before = stateText(await call(client, 'get_app_state', { app: 'Notes' }));
await call(client, 'click', { app: 'Notes', element_index: elementIndex(before, 'text field "Title"') });
await call(client, 'type_text', { app: 'Notes', text: 'Hello from the bridge' });
await call(client, 'click', { app: 'Notes', element_index: elementIndex(before, 'button "Save"') });
const after = await call(client, 'get_app_state', { app: 'Notes', _meta: { sessionId: 'demo' } });
show('the Notes window now', stateText(after));
const screenshot = join(outDir, 'notes-after-typing.png');
writeFileSync(screenshot, Buffer.from(after.content.find((item) => item.type === 'image').data, 'base64'));
console.log(`\nScreenshot of the Notes window saved to ${screenshot}`);
await client.close();

const recorder = await connect(['event-stream', 'mcp']);
for (const [name, args] of [['event_stream_start', { max_duration_seconds: 60 }], ['event_stream_status', {}], ['event_stream_stop', {}]])
  await call(recorder, name, args);
await recorder.close();

const logFile = join(logDir, 'computer-use-runtime.log');
console.log(`\n===== ${logFile}\n${readFileSync(logFile, 'utf8')}\nScreenshot: ${screenshot}`);
