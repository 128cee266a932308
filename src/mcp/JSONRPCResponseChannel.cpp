#include "mcp/JSONRPCResponseChannel.h"

#include "mcp/MessageSerialization.h"

namespace tavix {

bool JSONRPCResponseChannel::send(const nlohmann::json &response) {
  MessageTransport *transport;
  {
    std::lock_guard guard(lock_);
    transport = transport_;
    if (transport == nullptr)
      return false;
    ++sending_;
  }
  // Serialised and sent outside the lock: a send may take as long as the output allows.
  if (auto message = serializeMessage(response))
    transport->send(std::move(*message));
  else
    transport->close();
  {
    std::lock_guard guard(lock_);
    --sending_;
  }
  idle_.notify_all();
  return true;
}

void JSONRPCResponseChannel::close() {
  std::unique_lock guard(lock_);
  transport_ = nullptr;
  idle_.wait(guard, [this] { return sending_ == 0; });
}

} // namespace tavix
