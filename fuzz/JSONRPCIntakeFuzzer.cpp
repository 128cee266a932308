// Runs arbitrary message bytes through parsing, request validation and the server's
// method table, and checks that every answer serialises.

#include "mcp/ComputerUseMCPServer.h"
#include "mcp/StdioMessageWriter.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static tavix::ComputerUseMCPServer server(tavix::ComputerUseMCPServer::Mode::computerUse);
  auto value = nlohmann::json::parse(data, data + size, nullptr, false);
  if (value.is_discarded())
    return 0;
  const auto request = tavix::JSONRPCRequest::from(std::move(value));
  if (!request)
    return 0;
  if (const auto response = server.handleRequest(*request)) {
    if (!tavix::serializeResponse(*response, tavix::FramingMode::contentLength))
      abort();
    if (request->id && response->value("id", nlohmann::json()) != request->id->toJSON())
      abort();
  }
  return 0;
}
