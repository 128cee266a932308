// Runs one MCP session against the bridge with the official client and prints each
// request and answer, then the bridge's log file.
// Usage: node tests/demo/session.mjs <bridge executable> <log directory>
import { mkdirSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { getDefaultEnvironment, StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { ResultSchema } from '@modelcontextprotocol/sdk/types.js';

const [bridge, logDir] = process.argv.slice(2);
if (!bridge || !logDir) {
  console.error('usage: node tests/demo/session.mjs <bridge executable> <log directory>');
  process.exit(2);
}
mkdirSync(logDir, { recursive: true });

const show = (label, value) => console.log(`\n>>> ${label}\n${JSON.stringify(value, null, 2)}`);

async function session(modeArgs) {
  console.log(`\n===== ${bridge} ${modeArgs.join(' ')}`);
  const transport = new StdioClientTransport({
    command: bridge, args: modeArgs, stderr: 'inherit',
    env: { ...getDefaultEnvironment(), TAVIX_CU_LOG_DIR: logDir },
  });
  const client = new Client({ name: 'bridge-demo', version: '1.0.0' });
  await client.connect(transport);
  show('initialize: server', { serverInfo: client.getServerVersion(),
    capabilities: client.getServerCapabilities() });
  const { tools } = await client.listTools();
  show(`tools/list: ${tools.length} tools`, tools.map((t) => `${t.name}: ${t.description.split('\n')[0]}`));
  show('ping', await client.ping());
  try {
    await client.request({ method: 'no/such/method' }, ResultSchema);
  } catch (error) {
    show('no/such/method', { code: error.code, message: error.message });
  }
  try {
    await client.request({ method: 'tools/call', params: { arguments: {} } }, ResultSchema);
  } catch (error) {
    show('tools/call without a name', { code: error.code, message: error.message });
  }
  await client.close();
}

await session(['mcp']);
await session(['event-stream', 'mcp']);
const logFile = join(logDir, 'computer-use-runtime.log');
console.log(`\n===== ${logFile}\n${readFileSync(logFile, 'utf8')}`);
