#pragma once
// Writes one response, whole, in the connection's framing.

#include "mcp/FramingMode.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <string>

namespace tavix {

struct StdioWriteOptions {
  std::chrono::steady_clock::duration deadline = std::chrono::seconds(10);
  std::chrono::milliseconds blockedPollInterval{50};
};

// The bytes of one framed message: the compact JSON text with sorted keys, then either a
// line feed or, before it, a "Content-Length" header. Nothing when the value cannot be
// serialised (text that is not UTF-8).
std::optional<std::string> serializeResponse(const nlohmann::json &response, FramingMode framing);

// Serialises and writes one response to `fd`, which is switched to non-blocking writes
// for the duration. Gives up when `shouldStop` says so (ECANCELED) or the deadline passes
// (ETIMEDOUT). Failures are logged; returns whether the whole message was written.
bool writeMessage(const nlohmann::json &response, int fd, FramingMode framing,
                  const std::function<bool()> &shouldStop, const StdioWriteOptions &options = {});

} // namespace tavix
