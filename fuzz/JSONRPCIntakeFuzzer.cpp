// Runs arbitrary message bytes through the dispatcher and the server's methods, and
// checks what a host relies on: every answer is a JSON-RPC response, a request with an
// id gets exactly one answer carrying that id, a notification gets none, and a message
// that is not a request gets exactly one error without an id.

#include "fakes/FakeMessageTransport.h"
#include "gateway/MCPToolGateway.h"
#include "mcp/ComputerUseMCPServer.h"

#include <cstdint>
#include <cstdlib>

using nlohmann::json;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static tavix::ComputerUseMCPServer server(
      tavix::MCPServerMode::computerUse,
      std::make_shared<tavix::MCPToolGateway>(tavix::MCPServerMode::computerUse));
  const std::string message(reinterpret_cast<const char *>(data), size);
  tavix::test::FakeMessageTransport transport;
  {
    tavix::JSONRPCDispatcher dispatcher(transport, server.methods());
    transport.deliver(message);
    transport.endInput();
    dispatcher.serve();
  }
  const auto answers = transport.takeSent();

  std::optional<tavix::JSONRPCRequest> request;
  if (auto value = json::parse(message, nullptr, false); !value.is_discarded())
    request = tavix::JSONRPCRequest::from(std::move(value));
  const size_t expected = !request ? 1 : request->id ? 1 : 0;
  if (answers.size() != expected)
    abort();
  for (const std::string &answer : answers) {
    const json response = json::parse(answer, nullptr, false);
    if (!response.is_object() || response.value("jsonrpc", "") != "2.0" ||
        response.contains("result") == response.contains("error"))
      abort();
    const json id = request && request->id ? request->id->toJSON() : json();
    if (response.contains("id") ? response["id"] != id : !id.is_null())
      abort();
  }
  return 0;
}
