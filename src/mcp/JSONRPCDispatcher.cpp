#include "mcp/JSONRPCDispatcher.h"

#include "support/JSON.h"
#include "support/RequestContext.h"

namespace tavix {

JSONRPCDispatcher::JSONRPCDispatcher(MessageTransport &transport, MethodTable methods,
                                     size_t queueCapacity)
    : transport_(transport), methods_(std::move(methods)),
      channel_(std::make_shared<JSONRPCResponseChannel>(transport)), requests_(queueCapacity) {}

JSONRPCDispatcher::~JSONRPCDispatcher() { shutdown(); }

void JSONRPCDispatcher::serve() {
  {
    // A transport that closes (a stop, or output the host no longer takes) cancels the
    // running request and drops the waiting ones at once, before another can start.
    std::stop_callback onClosing(transport_.closing(), [this] { requests_.close(); });
    transport_.run(*this);
  }
  shutdown();
}

void JSONRPCDispatcher::shutdown() {
  // The running request may still answer while the transport writes; only then is the
  // channel closed to answers that come later from elsewhere.
  requests_.shutdown();
  channel_->close();
}

void JSONRPCDispatcher::onMessage(std::string_view message) {
  static_assert(MessageTransport::messagePadding >= jsonParsePadding);
  auto value = parseJSON(message, JSONInput::padded);
  if (!value)
    return respond(buildErrorResponse(std::nullopt, JSONRPCError::parseErrorCode,
                                      JSONRPCError::parseErrorMessage));
  auto request = JSONRPCRequest::from(std::move(*value));
  if (!request)
    return respond(buildErrorResponse(std::nullopt, JSONRPCError::invalidRequestCode,
                                      JSONRPCError::invalidRequestMessage));
  if (request->method == "notifications/cancelled" && !request->id)
    return cancel(*request);
  if (request->method == "ping") {
    // Answered at once, so that a host can tell a busy server from a stuck one.
    if (request->id)
      respond(buildSuccessResponse(request->id, nlohmann::json::object()));
    return;
  }
  submit(std::make_shared<const JSONRPCRequest>(std::move(*request)));
}

void JSONRPCDispatcher::cancel(const JSONRPCRequest &notification) {
  if (!notification.params)
    return;
  const auto requestID = notification.params->find("requestId");
  if (requestID == notification.params->end())
    return;
  if (auto id = JSONRPCId::from(*requestID))
    requests_.cancel(*id);
}

void JSONRPCDispatcher::submit(std::shared_ptr<const JSONRPCRequest> request) {
  const auto admission = requests_.enqueue(
      request->id, [this, request](const std::string &correlationID, std::stop_token token) {
        WithRequestContext scope(std::make_shared<const RequestContext>(correlationID, token));
        if (token.stop_requested())
          return;
        handleRequest(*request, JSONRPCReply(request->id, request->method, channel_, token));
      });
  if (!request->id)
    return;
  using Admission = MCPStdioRequestQueue::Admission;
  if (admission == Admission::queueFull)
    respond(buildErrorResponse(request->id, JSONRPCError::queueFullCode,
                               JSONRPCError::queueFullMessage));
  else if (admission == Admission::duplicateID)
    respond(buildErrorResponse(request->id, JSONRPCError::invalidRequestCode,
                               JSONRPCError::duplicateIDMessage));
}

void JSONRPCDispatcher::handleRequest(const JSONRPCRequest &request, JSONRPCReply reply) const {
  const auto method = methods_.find(request.method);
  if (method == methods_.end())
    return reply.error(JSONRPCError::methodNotFoundCode,
                       std::string(JSONRPCError::methodNotFoundPrefix) + request.method);
  method->second(request, std::move(reply));
}

} // namespace tavix
