#include "mcp/MCPStdioRequestQueue.h"

#include "logging/Logger.h"
#include "support/Uuid.h"

#include <algorithm>

namespace tavix {

MCPStdioRequestQueue::MCPStdioRequestQueue(size_t capacity)
    : capacity_(capacity), worker_([this](std::stop_token stop) { runWorker(std::move(stop)); }) {}

void MCPStdioRequestQueue::shutdown() {
  close();
  worker_.request_stop();
  if (worker_.joinable())
    worker_.join();
}

bool MCPStdioRequestQueue::hasID(const JSONRPCId &id) const {
  if (active_ && active_->id == id)
    return true;
  return std::any_of(queued_.begin(), queued_.end(),
                     [&](const EntryPtr &entry) { return entry->id == id; });
}

MCPStdioRequestQueue::Admission MCPStdioRequestQueue::enqueue(std::optional<JSONRPCId> id,
                                                              Operation operation) {
  std::lock_guard guard(lock_);
  if (closed_)
    return Admission::closed;
  if (id && hasID(*id))
    return Admission::duplicateID;
  if (queued_.size() >= capacity_)
    return Admission::queueFull;
  queued_.push_back(std::make_shared<Entry>(
      Entry{std::move(id), makeUUIDString(), std::move(operation), std::stop_source()}));
  startNextLocked();
  return Admission::accepted;
}

void MCPStdioRequestQueue::startNextLocked() {
  if (closed_ || active_ || queued_.empty())
    return;
  active_ = std::move(queued_.front());
  queued_.pop_front();
  toStart_ = active_;
  wake_.notify_one();
}

void MCPStdioRequestQueue::finish(const EntryPtr &entry) {
  std::lock_guard guard(lock_);
  if (active_ != entry)
    return;
  active_.reset();
  startNextLocked();
}

void MCPStdioRequestQueue::cancel(const JSONRPCId &id) {
  EntryPtr found;
  std::optional<std::stop_source> task;
  {
    std::lock_guard guard(lock_);
    const auto waiting = std::find_if(queued_.begin(), queued_.end(),
                                      [&](const EntryPtr &entry) { return entry->id == id; });
    if (waiting != queued_.end()) {
      found = *waiting;
      queued_.erase(waiting);
    } else if (active_ && active_->id == id) {
      found = active_;
      task = active_->task;
    }
  }
  // Cancelled outside the lock: a stop callback that runs at once may call back in.
  if (task)
    task->request_stop();
  if (found)
    Log::info(LogCategory::transport, "mcp_request_cancelled",
              {{"requestID", found->correlationID}, {"mcpRequestID", id.text()}});
}

void MCPStdioRequestQueue::close() {
  std::optional<std::stop_source> task;
  {
    std::lock_guard guard(lock_);
    closed_ = true;
    queued_.clear();
    if (active_)
      task = active_->task;
  }
  if (task)
    task->request_stop();
  wake_.notify_all();
}

bool MCPStdioRequestQueue::isClosed() const {
  std::lock_guard guard(lock_);
  return closed_;
}

void MCPStdioRequestQueue::runWorker(std::stop_token stop) {
  for (;;) {
    EntryPtr entry;
    {
      std::unique_lock guard(lock_);
      if (!wake_.wait(guard, stop, [this] { return toStart_ != nullptr; }))
        return;
      entry = std::exchange(toStart_, nullptr);
    }
    try {
      entry->operation(entry->correlationID, entry->task.get_token());
    } catch (const std::exception &) {
      // An operation that throws is logged; the connection goes on.
      Log::error(LogCategory::transport, "mcp_request_failed",
                 {{"requestID", entry->correlationID}});
    }
    finish(entry);
  }
}

} // namespace tavix
