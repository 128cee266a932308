#pragma once
// Writes one message, whole, in the connection's framing.

#include "mcp/FramingMode.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace tavix {

struct StdioWriteOptions {
  std::chrono::steady_clock::duration deadline = std::chrono::seconds(10);
  std::chrono::milliseconds blockedPollInterval{50};
};

// The bytes of one framed message: the message, then either a line feed or, before it,
// a "Content-Length" header.
std::string frameMessage(std::string message, FramingMode framing);

enum class WriteOutcome { written, failed, incomplete };

// One message on its way out. The descriptor is switched to non-blocking writes for the
// duration of each call, so a stalled reader never blocks the writing thread beyond the
// deadline; failures are logged.
class StdioMessageWrite {
public:
  StdioMessageWrite(std::string message, FramingMode framing);

  // Writes what the descriptor takes without waiting: `incomplete` when bytes remain.
  WriteOutcome tryWrite(int fd);
  // Writes the rest, waiting while the descriptor is full. Gives up when `shouldStop`
  // says so (ECANCELED) or the deadline passes (ETIMEDOUT).
  bool finish(int fd, const std::function<bool()> &shouldStop,
              const StdioWriteOptions &options = {});

private:
  std::string bytes_;
  size_t written_ = 0;
};

// Serialises one message as compact JSON with sorted keys and writes it whole to `fd`;
// returns whether it was written. A value that cannot be serialised is reported and not
// written.
bool writeMessage(const nlohmann::json &response, int fd, FramingMode framing,
                  const std::function<bool()> &shouldStop, const StdioWriteOptions &options = {});

} // namespace tavix
