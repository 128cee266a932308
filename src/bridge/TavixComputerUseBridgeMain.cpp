#include "bridge/TavixComputerUseBridgeMain.h"

#include "bridge/AppshotStdioServer.h"
#include "bridge/ModeWords.h"
#include "bridge/ParentAuthorization.h"
#include "bridge/TerminationSignals.h"
#include "client/AppleEventComputerUseTransport.h"
#include "client/ComputerUseClient.h"
#include "client/IPCBlockingSendExecutor.h"
#include "gateway/MCPToolGateway.h"
#include "mcp/ComputerUseMCPServer.h"
#include "platform/UnifiedLog.h"
#include "support/FileName.h"
#include "logging/Logger.h"
#include "logging/TavixComputerUseLogFile.h"

#include <chrono>
#include <csignal>
#include <exception>

namespace tavix {
namespace {

// How often the log file is checked against the host's newest log session.
constexpr double logFileRefreshIntervalSeconds = 60.0;

// The version of the client protocol that every event to the runtime app carries.
constexpr const char *clientVersion = "1.0";

// How long the end of the process waits for cancellations on their way to the runtime app.
constexpr auto cancellationArrivalBound = std::chrono::seconds(1);

// Requests that the end of input cut short have had their cancellations sent on; letting
// them arrive spares the runtime app from working on for a client that is gone.
void letCancellationsArrive() {
  IPCBlockingSendExecutor::cancellations().waitUntilIdle(std::chrono::steady_clock::now() +
                                                         cancellationArrivalBound);
}

std::shared_ptr<const ComputerUseClient> makeClient() {
  return std::make_shared<const ComputerUseClient>(AppleEventComputerUseTransport::makeSystemTransport(clientVersion));
}

// Serves on the main thread; the signal handler thread cancels it through `cancellation`.
// One client to the runtime app serves the tools and the heartbeat.
int serveMCP(MCPServerMode mode) {
  auto client = makeClient();
  ComputerUseMCPServer server(mode, std::make_shared<MCPToolGateway>(mode, client), client);
  std::stop_source cancellation;
  installTerminationSignalHandlers([cancellation]() mutable { cancellation.request_stop(); });
  try {
    server.start(MCPTransport::stdio(), cancellation.get_token());
    letCancellationsArrive();
    return 0;
  } catch (const std::exception &) {
    if (cancellation.stop_requested())
      return 0;
  }
  Log::error(LogCategory::lifecycle,
             mode == MCPServerMode::computerUse ? "mcp_server_start_failed"
                                                : "record_replay_mcp_server_start_failed",
             {{"error", LogError{"std::exception", "tavix.bridge", 1}}});
  return 1;
}

// Serves until standard input ends; a termination signal ends the process at once.
int serveAppshot() {
  installTerminationSignalHandlers(nullptr);
  AppshotStdioServer server(makeClient());
  server.run();
  letCancellationsArrive();
  return 0;
}

} // namespace

void TavixComputerUseBridgeMain::printUsage(const std::vector<std::string> &arguments) {
  const std::string_view executable =
      arguments.empty() ? "TavixComputerUseBridge" : fileName(arguments.front());
  Log::error(LogCategory::lifecycle, "invalid_command", {{"executable", std::string(executable)}});
}

int TavixComputerUseBridgeMain::main(const std::vector<std::string> &arguments) {
  // Before any thread exists, so that only the handler thread ever receives them.
  blockTerminationSignals();
  auto sinks = Log::defaultSinks();
  sinks.unifiedLog = makeSystemUnifiedLog();
  Log::replaceSinks(std::move(sinks));
  TavixComputerUseLogFile::installStderrRedirection(logFileRefreshIntervalSeconds);
  // A write to a closed pipe must be an error to handle, not the end of the process.
  std::signal(SIGPIPE, SIG_IGN);

  if (arguments.size() < 2) {
    printUsage(arguments);
    return 1;
  }
  if (const auto authorized = verifyParentProcessIfNeeded(); !authorized) {
    Log::error(LogCategory::lifecycle, "startup_rejected",
               {{"error", authorized.error().description()}, {"reason", "parent_authorization"}});
    return 1;
  }
  const auto mode = parseBridgeMode({arguments.begin() + 1, arguments.end()});
  if (!mode) {
    installTerminationSignalHandlers(nullptr);
    printUsage(arguments);
    return 1;
  }
  if (const auto mcpMode = mcpServerMode(*mode))
    return serveMCP(*mcpMode);
  return serveAppshot();
}

} // namespace tavix
