#pragma once
// Decides which requests of one connection run, and when: one at a time, in arrival
// order, with a short waiting line. Duplicate ids and overflow are refused at once, and
// the host may cancel a waiting or running request by its id.

#include "mcp/JSONRPCId.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

namespace tavix {

class MCPStdioRequestQueue {
public:
  static constexpr size_t defaultCapacity = 8;

  enum class Admission { accepted, queueFull, duplicateID, closed };
  // Runs one request; the stop token fires when it is cancelled or the queue closes.
  using Operation = std::function<void(const std::string &correlationID, std::stop_token)>;

  explicit MCPStdioRequestQueue(size_t capacity = defaultCapacity);
  // Closes the queue and joins the worker once the running operation has returned.
  ~MCPStdioRequestQueue() { shutdown(); }
  // As the destructor, for owners that must stop the worker before other members go.
  void shutdown();
  MCPStdioRequestQueue(const MCPStdioRequestQueue &) = delete;
  MCPStdioRequestQueue &operator=(const MCPStdioRequestQueue &) = delete;

  Admission enqueue(std::optional<JSONRPCId> id, Operation operation);
  // A waiting request is dropped and never answered; a running one is asked to stop.
  void cancel(const JSONRPCId &id);
  // Drops every waiting request, cancels the running one, refuses everything after.
  void close();
  bool isClosed() const;

private:
  struct Entry {
    std::optional<JSONRPCId> id;
    std::string correlationID;
    Operation operation;
    std::stop_source task;
  };
  using EntryPtr = std::shared_ptr<Entry>;

  bool hasID(const JSONRPCId &id) const;
  void startNextLocked();
  void finish(const EntryPtr &entry);
  void runWorker(std::stop_token stop);

  mutable std::mutex lock_;
  std::condition_variable_any wake_;
  std::deque<EntryPtr> queued_;
  EntryPtr active_;
  EntryPtr toStart_; // the active entry until the worker picks it up
  bool closed_ = false;
  const size_t capacity_;
  std::jthread worker_; // last: starts after the state it uses exists
};

} // namespace tavix
