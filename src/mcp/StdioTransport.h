#pragma once
// Serves one MCP connection over a pair of descriptors: reads framed messages, answers
// what the reader answers itself (parse errors, invalid requests, ping, cancellations),
// queues the rest, and writes every response through the bounded output queue.

#include "mcp/MCPRequestHandler.h"
#include "mcp/StdioMessageWriter.h"

#include <stop_token>

namespace tavix {

// Returns when the input ends or the connection stops: on `stop`, on an output backlog,
// or after a failed write.
void runStdioTransport(MCPRequestHandler &handler, int inputFd, int outputFd,
                       std::stop_token stop, const StdioWriteOptions &writeOptions = {});

} // namespace tavix
