// Micro-benchmarks of the per-message work: reading a framed message, turning it into a
// request, answering it and encoding a log line.

#include "fakes/FakeMessageTransport.h"
#include "fakes/ScriptedRequestTransport.h"
#include "gateway/MCPToolGateway.h"
#include "mcp/ComputerUseMCPServer.h"
#include "mcp/StdioMessageReader.h"
#include "mcp/StdioMessageWriter.h"
#include "config/BundleIdentifiers.h"
#include "logging/LogFileCompaction.h"
#include "logging/LogLineEncoder.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace tavix {
namespace {

void BM_PingIntake(benchmark::State &state) {
  test::FakeMessageTransport transport;
  JSONRPCDispatcher dispatcher(transport, {});
  // Followed by readable bytes, as the transport delivers it.
  const std::string ping = R"({"jsonrpc":"2.0","id":12345,"method":"ping"})";
  const std::string padded = ping + std::string(MessageTransport::messagePadding, ' ');
  const std::string_view message = std::string_view(padded).substr(0, ping.size());
  for (auto _ : state) {
    dispatcher.onMessage(message);
    benchmark::DoNotOptimize(transport.takeSent());
  }
}
BENCHMARK(BM_PingIntake);

void BM_ToolsListResponse(benchmark::State &state) {
  const auto client = std::make_shared<ComputerUseClient>(std::make_unique<test::ScriptedRequestTransport>());
  ComputerUseMCPServer server(ComputerUseMCPServer::Mode::computerUse,
                              std::make_shared<MCPToolGateway>(MCPServerMode::computerUse, client));
  const auto toolsList = server.methods().at("tools/list");
  test::FakeMessageTransport transport;
  const auto channel = std::make_shared<JSONRPCResponseChannel>(transport);
  const JSONRPCRequest request{"2.0", JSONRPCId(1), "tools/list", std::nullopt};
  for (auto _ : state) {
    toolsList(request, JSONRPCReply(request.id, request.method, channel));
    benchmark::DoNotOptimize(transport.takeSent());
  }
}
BENCHMARK(BM_ToolsListResponse);

// Reads one large newline-delimited message through a pipe, as standard input delivers it.
void BM_ReadLargeMessage(benchmark::State &state) {
  const std::string message =
      R"({"pad":")" + std::string(static_cast<size_t>(state.range(0)), 'x') + "\"}\n";
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0)
      state.SkipWithError("pipe");
    std::thread writer([&] {
      for (size_t at = 0; at < message.size();) {
        const ssize_t n = write(fds[1], message.data() + at, message.size() - at);
        if (n <= 0)
          break;
        at += static_cast<size_t>(n);
      }
      close(fds[1]);
    });
    StdioMessageReader reader(fds[0], [] { return false; });
    if (reader.readMessage()->size() + 1 != message.size())
      state.SkipWithError("message cut short");
    writer.join();
    close(fds[0]);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}
BENCHMARK(BM_ReadLargeMessage)->Arg(4 << 20)->Unit(benchmark::kMillisecond);

void BM_EncodeLogLine(benchmark::State &state) {
  const LogFields fields = {{"tool", "click"}, {"durationMs", 12}, {"outcome", "success"},
                            {"appBundleID", "com.example.Editor"}, {"error", "secret"}};
  const LogLineContext context{std::chrono::system_clock::now(),
                               {"TavixComputerUseBridge", 4242},
                               "6F1C1E2A-0B7C-4C55-9A57-0C0E4D7B1A11",
                               "/home/user"};
  for (auto _ : state)
    benchmark::DoNotOptimize(
        encodeLogLine(LogLevel::info, LogCategory::transport, "tool_call_finished", fields, context));
}
BENCHMARK(BM_EncodeLogLine);

// A new directory under /tmp for one benchmark's files; empty when none could be made.
std::string scratchDirectory() {
  char directory[] = "/tmp/bench-micro-XXXXXX";
  return mkdtemp(directory) != nullptr ? directory : "";
}

// One configuration read: the information dictionary is read from disk every time.
void BM_ReadConfiguredBoolean(benchmark::State &state) {
  const std::string directory = scratchDirectory();
  if (directory.empty())
    return state.SkipWithError("mkdtemp failed");
  const std::string path = directory + "/Info.plist";
  std::ofstream(path) << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>com.tavix.computeruse.bridge</string>
<key>TavixComputerUseEnforceSenderAuthorization</key><false/>
</dict></plist>
)";
  const BundleIdentifiers identifiers(std::make_shared<const PropertyListFileSource>(path));
  for (auto _ : state)
    benchmark::DoNotOptimize(identifiers.senderAuthorizationEnforced());
  std::filesystem::remove_all(directory);
}
BENCHMARK(BM_ReadConfiguredBoolean);

// Compacting a 6 MiB log file of 120-byte lines down to its last 4 MiB.
void BM_CompactLogFile(benchmark::State &state) {
  const std::string directory = scratchDirectory();
  if (directory.empty())
    return state.SkipWithError("mkdtemp failed");
  const std::string path = directory + "/computer-use-runtime.log";
  const std::string line = std::string(119, 'x') + "\n";
  std::string contents;
  while (contents.size() < (6u << 20))
    contents += line;
  for (auto _ : state) {
    state.PauseTiming();
    std::ofstream(path, std::ios::trunc) << contents;
    state.ResumeTiming();
    benchmark::DoNotOptimize(compactLogFileIfNeeded(path));
  }
  std::filesystem::remove_all(directory);
}
BENCHMARK(BM_CompactLogFile)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace tavix

BENCHMARK_MAIN();
