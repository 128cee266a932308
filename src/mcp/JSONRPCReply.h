#pragma once
// The answer to one request, given exactly once. A handler answers through its reply at
// once or later, from any thread. A reply dropped unanswered answers an internal error
// itself, so the host never waits for a response that cannot come, unless the request
// was cancelled (by the host, or because the connection ended): those stay unanswered.
// A second answer is refused and logged. Notifications get a reply that sends nothing.

#include "mcp/JSONRPCId.h"
#include "mcp/JSONRPCResponseChannel.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

namespace tavix {

class JSONRPCReply {
public:
  // `cancellation` fires when the request is cancelled; without an id the reply is a
  // notification's, and sends nothing.
  JSONRPCReply(std::optional<JSONRPCId> id, std::string method,
               std::shared_ptr<JSONRPCResponseChannel> channel,
               std::stop_token cancellation = {});
  JSONRPCReply(JSONRPCReply &&other) noexcept;
  JSONRPCReply &operator=(JSONRPCReply &&other) noexcept;
  JSONRPCReply(const JSONRPCReply &) = delete;
  JSONRPCReply &operator=(const JSONRPCReply &) = delete;
  ~JSONRPCReply();

  // Answers with a success response carrying `result`.
  void operator()(nlohmann::json result);
  // Answers with an error response.
  void error(int code, std::string_view message);

private:
  // Whether this is the first answer; a later one is logged and refused.
  bool claim();
  void send(const nlohmann::json &response);
  void answerIfDropped();

  std::optional<JSONRPCId> id_;
  std::string method_;
  std::shared_ptr<JSONRPCResponseChannel> channel_; // null once moved from
  std::stop_token cancellation_;
  std::atomic<bool> answered_ = false;
};

} // namespace tavix
