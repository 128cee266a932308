#include "mcp/MCPStdioOutputQueue.h"

namespace tavix {

MCPStdioOutputQueue::MCPStdioOutputQueue()
    : writer_([this](std::stop_token stop) { runWriter(std::move(stop)); }) {}

void MCPStdioOutputQueue::shutdown() {
  close();
  writer_.request_stop();
  if (writer_.joinable())
    writer_.join();
}

void MCPStdioOutputQueue::enqueue(WriteJob job, std::function<void()> onFailure) {
  {
    std::lock_guard guard(lock_);
    if (!closed_ && pending_ < maxPending) {
      ++pending_;
      jobs_.push_back({std::move(job), std::move(onFailure)});
      wake_.notify_one();
      return;
    }
    closed_ = true;
  }
  onFailure();
}

void MCPStdioOutputQueue::close() {
  std::lock_guard guard(lock_);
  closed_ = true;
}

bool MCPStdioOutputQueue::isClosed() const {
  std::lock_guard guard(lock_);
  return closed_;
}

void MCPStdioOutputQueue::runWriter(std::stop_token stop) {
  for (;;) {
    Job job;
    bool skip = false;
    {
      std::unique_lock guard(lock_);
      if (!wake_.wait(guard, stop, [this] { return !jobs_.empty(); }) && jobs_.empty())
        return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
      skip = closed_;
    }
    // A job that finds the queue closed is skipped and counts as written.
    const bool written = skip || job.write();
    {
      std::lock_guard guard(lock_);
      --pending_;
      if (written)
        continue;
      closed_ = true;
    }
    job.onFailure();
  }
}

} // namespace tavix
