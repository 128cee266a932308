#include "gateway/MCPToolRequestScope.h"

#include "support/Whitespace.h"

namespace tavix {

std::optional<std::string> recordReplaySessionId(const nlohmann::json &arguments,
                                                 const EnvironmentLookup &environment) {
  if (arguments.is_object())
    if (const auto meta = arguments.find("_meta"); meta != arguments.end() && meta->is_object())
      if (const auto id = meta->find("sessionId"); id != meta->end() && id->is_string())
        if (auto trimmed = trimmedNonEmpty(&id->get_ref<const std::string &>()))
          return trimmed;
  const auto variable = environment(chatSessionIDEnvironmentKey);
  return trimmedNonEmpty(variable ? &*variable : nullptr);
}

} // namespace tavix
