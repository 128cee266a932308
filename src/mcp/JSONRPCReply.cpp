#include "mcp/JSONRPCReply.h"

#include "logging/Logger.h"
#include "mcp/JSONRPCMessage.h"

namespace tavix {

JSONRPCReply::JSONRPCReply(std::optional<JSONRPCId> id, std::string method,
                           std::shared_ptr<JSONRPCResponseChannel> channel,
                           std::stop_token cancellation)
    : id_(std::move(id)), method_(std::move(method)), channel_(std::move(channel)),
      cancellation_(std::move(cancellation)) {}

JSONRPCReply::JSONRPCReply(JSONRPCReply &&other) noexcept
    : id_(std::move(other.id_)), method_(std::move(other.method_)),
      channel_(std::move(other.channel_)), cancellation_(std::move(other.cancellation_)),
      answered_(other.answered_.load()) {
  other.channel_.reset();
}

JSONRPCReply &JSONRPCReply::operator=(JSONRPCReply &&other) noexcept {
  if (this != &other) {
    answerIfDropped();
    id_ = std::move(other.id_);
    method_ = std::move(other.method_);
    channel_ = std::move(other.channel_);
    cancellation_ = std::move(other.cancellation_);
    answered_.store(other.answered_.load());
    other.channel_.reset();
  }
  return *this;
}

JSONRPCReply::~JSONRPCReply() { answerIfDropped(); }

void JSONRPCReply::answerIfDropped() {
  if (!channel_ || !id_ || answered_.load() || cancellation_.stop_requested())
    return;
  // Runs in a destructor, perhaps while an exception unwinds: nothing may escape.
  try {
    Log::error(LogCategory::transport, "mcp_request_unanswered",
               {{"mcpRequestID", id_->text()}, {"method", method_}});
    error(JSONRPCError::internalErrorCode, JSONRPCError::noResponseMessage);
  } catch (...) {
  }
}

void JSONRPCReply::operator()(nlohmann::json result) {
  if (claim())
    send(buildSuccessResponse(id_, std::move(result)));
}

void JSONRPCReply::error(int code, std::string_view message) {
  if (claim())
    send(buildErrorResponse(id_, code, message));
}

bool JSONRPCReply::claim() {
  if (!channel_ || !id_)
    return false;
  if (!answered_.exchange(true))
    return true;
  Log::error(LogCategory::transport, "mcp_response_refused",
             {{"mcpRequestID", id_->text()}, {"method", method_}, {"reason", "already_answered"}});
  return false;
}

void JSONRPCReply::send(const nlohmann::json &response) {
  if (!channel_->send(response))
    Log::warning(LogCategory::transport, "mcp_response_dropped",
                 {{"mcpRequestID", id_->text()}, {"method", method_}, {"reason", "connection_closed"}});
}

} // namespace tavix
