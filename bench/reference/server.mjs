// Reference point for bench_e2e_driver: the smallest MCP server the official
// TypeScript SDK makes, served over stdio. It loads the SDK installed for the
// end-to-end tests (cd tests && npm ci). Its tools: echo; get_app_state, which returns
// from memory the screenshot whose base64 is in the file REFERENCE_IMAGE_BASE64_FILE (the
// driver saves the one the runtime simulator made); paste, which accepts a text.
//
//   node bench/reference/server.mjs
import { readFileSync } from 'node:fs';

const sdk = new URL('../../tests/node_modules/@modelcontextprotocol/sdk/dist/esm/', import.meta.url);
const { Server } = await import(new URL('server/index.js', sdk).href);
const { StdioServerTransport } = await import(new URL('server/stdio.js', sdk).href);
const { CallToolRequestSchema, ListToolsRequestSchema } = await import(new URL('types.js', sdk).href);

const imageFile = process.env.REFERENCE_IMAGE_BASE64_FILE;
const image = imageFile ? readFileSync(imageFile, 'utf8') : '';

const server = new Server({ name: 'reference', version: '1.0.0' }, { capabilities: { tools: {} } });
const textArgument = { type: 'object', properties: { text: { type: 'string' } } };
server.setRequestHandler(ListToolsRequestSchema, async () => ({
  tools: [
    { name: 'echo', description: 'Return the given text', inputSchema: textArgument },
    { name: 'get_app_state', description: 'Return a screenshot', inputSchema: { type: 'object' } },
    { name: 'paste', description: 'Accept a text', inputSchema: textArgument },
  ],
}));
server.setRequestHandler(CallToolRequestSchema, async ({ params }) => {
  const text = String(params.arguments?.text ?? '');
  switch (params.name) {
    case 'get_app_state':
      return { content: [{ type: 'text', text: '<app_state>Notes</app_state>' },
        { type: 'image', data: image, mimeType: 'image/png' }] };
    case 'paste':
      return { content: [{ type: 'text', text: `Pasted ${text.length} characters.` }] };
    default:
      return { content: [{ type: 'text', text }] };
  }
});
await server.connect(new StdioServerTransport());
