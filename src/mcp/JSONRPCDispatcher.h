#pragma once
// What the messages of one connection mean: parses each as JSON-RPC, answers what it can
// answer at once (parse errors, invalid requests, ping), carries out cancellations,
// admits the rest into the request queue and runs each through the method table with a
// reply that answers exactly once.

#include "mcp/JSONRPCMessage.h"
#include "mcp/JSONRPCReply.h"
#include "mcp/JSONRPCResponseChannel.h"
#include "mcp/MCPStdioRequestQueue.h"
#include "mcp/MessageTransport.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tavix {

class JSONRPCDispatcher final : public MessageTransport::MessageHandler {
public:
  // Answers one request through `reply`, from any thread, before it returns: the request
  // holds the queue's running slot, and sees its cancellation, until then. Runs with the
  // request's context installed. A notification's reply sends nothing.
  using Handler = std::function<void(const JSONRPCRequest &request, JSONRPCReply reply)>;
  using MethodTable = std::map<std::string, Handler, std::less<>>;

  JSONRPCDispatcher(MessageTransport &transport, MethodTable methods,
                    size_t queueCapacity = MCPStdioRequestQueue::defaultCapacity);
  // As `shutdown`.
  ~JSONRPCDispatcher() override;
  JSONRPCDispatcher(const JSONRPCDispatcher &) = delete;
  JSONRPCDispatcher &operator=(const JSONRPCDispatcher &) = delete;

  // Runs the transport until its input ends or it closes, then shuts down. When the
  // transport closes, the request queue closes at once.
  void serve();
  // Closes the request queue (waiting requests are dropped unanswered, the running one
  // is cancelled), waits for the running request, and then refuses every later answer.
  void shutdown();

  void onMessage(std::string_view message) override;

private:
  void respond(const nlohmann::json &response) { channel_->send(response); }
  void cancel(const JSONRPCRequest &notification);
  void submit(std::shared_ptr<const JSONRPCRequest> request);
  void handleRequest(const JSONRPCRequest &request, JSONRPCReply reply) const;

  MessageTransport &transport_;
  const MethodTable methods_;
  const std::shared_ptr<JSONRPCResponseChannel> channel_;
  MCPStdioRequestQueue requests_; // last: its worker runs the method table
};

} // namespace tavix
