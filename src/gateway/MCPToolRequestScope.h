#pragma once
// The host chat session a tool call acts for, bound for the whole call so that every
// request the call sends carries it, whichever function builds the request.

#include "platform/Environment.h"
#include "support/RequestContext.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace tavix {

inline constexpr const char *chatSessionIDEnvironmentKey = "TAVIX_CHAT_SESSION_ID";

class MCPToolRequestScope {
public:
  explicit MCPToolRequestScope(std::optional<std::string> sessionId)
      : scope_(RequestContext::current()->withSessionID(std::move(sessionId))) {}

  // The session of the call the current thread serves; none outside one.
  static std::optional<std::string> sessionId() { return RequestContext::current()->sessionID(); }

private:
  WithRequestContext scope_;
};

// The call's session: the arguments' "_meta"."sessionId" text, else the environment's
// chat session, each trimmed; none when both are missing or blank.
std::optional<std::string> recordReplaySessionId(const nlohmann::json &arguments,
                                                 const EnvironmentLookup &environment);

} // namespace tavix
