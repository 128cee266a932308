// One tool call through the server's tools/call, the gateway and the client, with a
// runtime that answers at once from memory: the bridge's own cost for a 5 MB screenshot
// and a 4 MB paste, to set beside a memcpy of the same bytes (the JSON benchmarks).

#include "BenchDocuments.h"
#include "fakes/CannedRequestTransport.h"
#include "fakes/FakeMessageTransport.h"
#include "gateway/MCPToolGateway.h"
#include "mcp/ComputerUseMCPServer.h"

#include <benchmark/benchmark.h>

namespace tavix {
namespace {

// The tools/call handler of a server whose runtime answers with `reply`.
struct CallPath {
  explicit CallPath(std::string reply)
      : server(MCPServerMode::computerUse,
               std::make_shared<MCPToolGateway>(
                   MCPServerMode::computerUse,
                   std::make_shared<ComputerUseClient>(std::make_unique<test::CannedRequestTransport>(std::move(reply))),
                   AppInstructionProvider({}), [](const char *) { return std::optional<std::string>(); })),
        toolsCall(server.methods().at("tools/call")), channel(std::make_shared<JSONRPCResponseChannel>(output)) {}

  // The answer's size; 0 when the call did not succeed, which would measure the wrong path.
  size_t call(const JSONRPCRequest &request) {
    toolsCall(request, JSONRPCReply(request.id, request.method, channel));
    const auto sent = output.takeSent();
    if (sent.empty() || sent.front().find(R"("isError":true)") != std::string::npos)
      return 0;
    return sent.front().size();
  }

  ComputerUseMCPServer server;
  JSONRPCDispatcher::Handler toolsCall;
  test::FakeMessageTransport output;
  std::shared_ptr<JSONRPCResponseChannel> channel;
};

void BM_ToolCallScreenshot(benchmark::State &state) {
  CallPath path(bench::screenshotReply());
  const JSONRPCRequest request{"2.0", JSONRPCId(1), "tools/call",
                               nlohmann::json{{"name", "get_app_state"}, {"arguments", {{"app", "Notes"}}}}};
  size_t answered = 0;
  for (auto _ : state)
    if ((answered = path.call(request)) == 0) {
      state.SkipWithError("the call failed");
      break;
    }
  state.SetLabel("get_app_state, 5MB screenshot reply");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(answered));
}
BENCHMARK(BM_ToolCallScreenshot)->Unit(benchmark::kMillisecond);

void BM_ToolCallPaste(benchmark::State &state) {
  CallPath path(R"({"content":[{"type":"text","text":"pasted"}],"isError":false})");
  // The largest paste accepted, cut back to whole UTF-8 characters.
  std::string text = bench::pasteText(4000000);
  while (!text.empty() && static_cast<unsigned char>(text.back()) >= 0x80)
    text.pop_back();
  const JSONRPCRequest request{"2.0", JSONRPCId(1), "tools/call",
                               nlohmann::json{{"name", "paste"}, {"arguments", {{"app", "TextEdit"}, {"text", text}}}}};
  for (auto _ : state)
    if (path.call(request) == 0) {
      state.SkipWithError("the call failed");
      break;
    }
  state.SetLabel("paste, 4MB text");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ToolCallPaste)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace tavix
