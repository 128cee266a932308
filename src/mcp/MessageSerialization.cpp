#include "mcp/MessageSerialization.h"

#include "logging/Logger.h"

namespace tavix {

std::optional<std::string> serializeMessage(const nlohmann::json &message) {
  try {
    return message.dump();
  } catch (const nlohmann::json::exception &) {
    Log::error(LogCategory::transport, "response_serialization_failed");
    return std::nullopt;
  }
}

} // namespace tavix
