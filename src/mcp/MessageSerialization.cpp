#include "mcp/MessageSerialization.h"

#include "logging/Logger.h"
#include "support/JSON.h"

namespace tavix {

std::optional<std::string> serializeMessage(const nlohmann::json &message) {
  auto bytes = serializeJSON(message);
  if (!bytes)
    Log::error(LogCategory::transport, "response_serialization_failed");
  return bytes;
}

} // namespace tavix
