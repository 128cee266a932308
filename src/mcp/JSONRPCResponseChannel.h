#pragma once
// The way out for one connection's responses, shared by the dispatcher and every reply
// it hands out. A reply may be completed late, on another thread, after the connection
// has ended: once the channel is closed its responses are dropped, and closing waits for
// the sends under way, so no reply ever reaches a transport that is gone.

#include "mcp/MessageTransport.h"

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <mutex>

namespace tavix {

class JSONRPCResponseChannel {
public:
  explicit JSONRPCResponseChannel(MessageTransport &transport) : transport_(&transport) {}
  JSONRPCResponseChannel(const JSONRPCResponseChannel &) = delete;
  JSONRPCResponseChannel &operator=(const JSONRPCResponseChannel &) = delete;

  // Serialises the response and hands it to the transport; false when the channel is
  // closed. A response that cannot be serialised is lost and closes the transport,
  // since the host would wait for it forever.
  bool send(const nlohmann::json &response);

  // Refuses every later send, and returns once the sends under way have finished.
  void close();

private:
  std::mutex lock_;
  std::condition_variable idle_;
  MessageTransport *transport_; // null once closed
  int sending_ = 0;
};

} // namespace tavix
