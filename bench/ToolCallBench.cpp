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

  size_t call(const JSONRPCRequest &request) {
    toolsCall(request, JSONRPCReply(request.id, request.method, channel));
    const auto sent = output.takeSent();
    return sent.empty() ? 0 : sent.front().size();
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
    answered = path.call(request);
  state.SetLabel("get_app_state, 5MB screenshot reply");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(answered));
}
BENCHMARK(BM_ToolCallScreenshot)->Unit(benchmark::kMillisecond);

void BM_ToolCallPaste(benchmark::State &state) {
  CallPath path(R"({"content":[{"type":"text","text":"pasted"}],"isError":false})");
  const JSONRPCRequest request{
      "2.0", JSONRPCId(1), "tools/call",
      nlohmann::json{{"name", "paste"}, {"arguments", {{"app", "TextEdit"}, {"text", bench::pasteText(4 * 1024 * 1024)}}}}};
  for (auto _ : state)
    benchmark::DoNotOptimize(path.call(request));
  state.SetLabel("paste, 4MB text");
  state.SetBytesProcessed(state.iterations() * 4 * 1024 * 1024);
}
BENCHMARK(BM_ToolCallPaste)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace tavix
