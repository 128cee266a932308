#pragma once
// Tool calls with large payloads, side by side on one CPU: the bridge sending
// get_app_state (a screenshot of about 5 MB) and a 4 MiB paste to the runtime simulator on
// a private session bus; the official SDK's reference server returning the same image
// from memory and accepting the same argument; and the floor, a bare sd-bus client that
// fetches the same reply from the simulator and writes it to a pipe.

#include <optional>
#include <string>
#include <vector>

namespace e2e {

struct ToolCallOptions {
  int cpu = 0;
  int calls = 50;
  int warmup = 3;
  std::string bridge;
  std::string simulator;
  std::string reference;
  std::string screenSize = "1292x1292"; // a stored PNG of about 5.0 MB
};

struct ToolCallRow {
  std::string name;
  std::optional<double> stateP50Ms, pasteP50Ms, peakRssMiB;
  std::string error;
};

struct ToolCallReport {
  size_t pngBytes = 0;
  size_t replyBytes = 0;
  std::vector<ToolCallRow> rows;
};

ToolCallReport measureToolCalls(const ToolCallOptions &options);
void printToolCallReport(const ToolCallReport &report, const ToolCallOptions &options);

} // namespace e2e
