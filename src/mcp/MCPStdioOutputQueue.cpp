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
  enum { refused, queued, writeHere } decision;
  {
    std::lock_guard guard(lock_);
    if (closed_ || pending_ >= maxPending) {
      closed_ = true;
      decision = refused;
    } else if (jobs_.empty() && !writing_) {
      ++pending_;
      writing_ = true;
      decision = writeHere;
    } else {
      ++pending_;
      jobs_.push_back({std::move(job), std::move(onFailure)});
      decision = queued;
    }
  }
  switch (decision) {
  case refused:
    onFailure();
    return;
  case queued:
    // Woken outside the lock, so that the writer does not wake only to wait for it.
    wake_.notify_one();
    return;
  case writeHere:
    break;
  }
  const WriteOutcome outcome = job(true);
  if (outcome == WriteOutcome::incomplete) {
    {
      // The rest goes first in line: nothing else may be written before it.
      std::lock_guard guard(lock_);
      jobs_.push_front({std::move(job), std::move(onFailure)});
      writing_ = false;
    }
    wake_.notify_one();
    return;
  }
  const bool written = outcome == WriteOutcome::written;
  if (finishWrite(written))
    wake_.notify_one();
  if (!written)
    onFailure();
}

bool MCPStdioOutputQueue::finishWrite(bool written) {
  std::lock_guard guard(lock_);
  --pending_;
  writing_ = false;
  if (!written)
    closed_ = true;
  return !jobs_.empty();
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
      const bool ready =
          wake_.wait(guard, stop, [this] { return !jobs_.empty() && !writing_; });
      if (!ready && (jobs_.empty() || writing_)) {
        if (jobs_.empty())
          return;
        // Stopping while a producing thread finishes its write: wait for it.
        wake_.wait(guard, [this] { return !writing_; });
      }
      job = std::move(jobs_.front());
      jobs_.pop_front();
      writing_ = true;
      skip = closed_;
    }
    // A job that finds the queue closed is skipped and counts as written.
    const bool written = skip || job.write(false) == WriteOutcome::written;
    finishWrite(written);
    if (!written)
      job.onFailure();
  }
}

} // namespace tavix
