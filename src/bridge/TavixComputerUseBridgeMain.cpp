#include "bridge/TavixComputerUseBridgeMain.h"

#include "bridge/BridgeMode.h"
#include "bridge/ParentAuthorization.h"
#include "bridge/TerminationSignals.h"
#include "mcp/ComputerUseMCPServer.h"
#include "platform/UnifiedLog.h"
#include "logging/Logger.h"
#include "logging/TavixComputerUseLogFile.h"

#include <csignal>
#include <exception>
#include <thread>

namespace tavix {
namespace {

// How often the log file is checked against the host's newest log session.
constexpr double logFileRefreshIntervalSeconds = 60.0;

int serveMCP(BridgeMode mode) {
  ComputerUseMCPServer server(mode == BridgeMode::computerUse
                                  ? ComputerUseMCPServer::Mode::computerUse
                                  : ComputerUseMCPServer::Mode::recordReplay);
  std::stop_source cancellation;
  bool failed = false;
  std::thread task([&] {
    try {
      server.start(MCPTransport::stdio(), cancellation.get_token());
    } catch (const std::exception &) {
      failed = true;
    }
  });
  installTerminationSignalHandlers([cancellation]() mutable { cancellation.request_stop(); });
  task.join();
  if (!failed || cancellation.stop_requested())
    return 0;
  Log::error(LogCategory::lifecycle,
             mode == BridgeMode::computerUse ? "mcp_server_start_failed"
                                             : "record_replay_mcp_server_start_failed",
             {{"error", LogError{"std::exception", "tavix.bridge", 1}}});
  return 1;
}

} // namespace

void TavixComputerUseBridgeMain::printUsage(const std::vector<std::string> &arguments) {
  std::string executable = "TavixComputerUseBridge";
  if (!arguments.empty())
    executable = arguments.front().substr(arguments.front().find_last_of('/') + 1);
  Log::error(LogCategory::lifecycle, "invalid_command", {{"executable", executable}});
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
  return serveMCP(*mode);
}

} // namespace tavix
