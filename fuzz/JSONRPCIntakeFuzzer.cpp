// Runs arbitrary message bytes through the dispatcher, the server's methods and the tool
// gateway (over a transport that answers every request with a small tool result), and
// checks what a host relies on: every answer is a JSON-RPC response, a request with an
// id gets exactly one answer carrying that id, a notification gets none, and a message
// that is not a request gets exactly one error without an id.

#include "fakes/FakeMessageTransport.h"
#include "fakes/CannedRequestTransport.h"
#include "gateway/MCPToolGateway.h"
#include "mcp/ComputerUseMCPServer.h"

#include <cstdint>
#include <cstdlib>
#include <thread>

using nlohmann::json;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const auto client = std::make_shared<tavix::ComputerUseClient>(
      std::make_unique<tavix::test::CannedRequestTransport>(R"({"content":[{"type":"text","text":"ok"}],"isError":false})"));
  static tavix::ComputerUseMCPServer server(
      tavix::MCPServerMode::computerUse,
      std::make_shared<tavix::MCPToolGateway>(tavix::MCPServerMode::computerUse, client,
                                              tavix::AppInstructionProvider({}),
                                              [](const char *) { return std::optional<std::string>(); }));
  // A request the queue runs after the input's: once it is answered, the input's request
  // has been too. At end of input requests that have not started are dropped, so input
  // stays open until then.
  static const std::string syncRequest =
      R"({"jsonrpc":"2.0","id":"fuzz-sync-7f3a","method":"fuzz/sync-7f3a"})";
  static const std::string syncAnswer = R"({"id":"fuzz-sync-7f3a","jsonrpc":"2.0","result":{}})";
  auto methods = server.methods();
  methods.emplace("fuzz/sync-7f3a",
                  [](const tavix::JSONRPCRequest &, tavix::JSONRPCReply reply) { reply(json::object()); });
  const std::string message(reinterpret_cast<const char *>(data), size);
  tavix::test::FakeMessageTransport transport;
  {
    tavix::JSONRPCDispatcher dispatcher(transport, std::move(methods));
    std::thread serving([&] { dispatcher.serve(); });
    transport.deliver(message);
    transport.deliver(syncRequest);
    transport.sentThrough(syncAnswer);
    transport.endInput();
    serving.join();
  }
  auto answers = transport.takeSent();
  if (std::erase(answers, syncAnswer) != 1)
    abort();

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
