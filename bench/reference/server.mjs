// Reference point for bench_e2e_driver: the smallest MCP server the official
// TypeScript SDK makes, one trivial tool, served over stdio. It loads the SDK
// installed for the end-to-end tests (cd tests && npm ci).
//
//   node bench/reference/server.mjs
const sdk = new URL('../../tests/node_modules/@modelcontextprotocol/sdk/dist/esm/', import.meta.url);
const { Server } = await import(new URL('server/index.js', sdk).href);
const { StdioServerTransport } = await import(new URL('server/stdio.js', sdk).href);
const { CallToolRequestSchema, ListToolsRequestSchema } = await import(new URL('types.js', sdk).href);

const server = new Server({ name: 'reference', version: '1.0.0' }, { capabilities: { tools: {} } });
server.setRequestHandler(ListToolsRequestSchema, async () => ({
  tools: [{
    name: 'echo',
    description: 'Return the given text',
    inputSchema: { type: 'object', properties: { text: { type: 'string' } } },
  }],
}));
server.setRequestHandler(CallToolRequestSchema, async ({ params }) => ({
  content: [{ type: 'text', text: String(params.arguments?.text ?? '') }],
}));
await server.connect(new StdioServerTransport());
