#pragma once
// The bounded line of responses waiting to be written. One writer thread performs every
// write in order, so responses never interleave; a host that stops draining the output
// loses the connection instead of growing the backlog.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tavix {

class MCPStdioOutputQueue {
public:
  static constexpr int maxPending = 16;
  using WriteJob = std::function<bool()>;

  MCPStdioOutputQueue();
  // Closes the queue and joins the writer; jobs still waiting are skipped.
  ~MCPStdioOutputQueue() { shutdown(); }
  // As the destructor, for owners that must stop the writer before other members go.
  void shutdown();
  MCPStdioOutputQueue(const MCPStdioOutputQueue &) = delete;
  MCPStdioOutputQueue &operator=(const MCPStdioOutputQueue &) = delete;

  // Accepts a write job. When the queue is closed or already holds `maxPending` jobs it
  // closes, and `onFailure` runs at once; it also runs later if the job's write fails.
  void enqueue(WriteJob job, std::function<void()> onFailure);
  void close();
  bool isClosed() const;

private:
  struct Job {
    WriteJob write;
    std::function<void()> onFailure;
  };
  void runWriter(std::stop_token stop);

  mutable std::mutex lock_;
  std::condition_variable_any wake_;
  std::deque<Job> jobs_;
  int pending_ = 0;
  bool closed_ = false;
  std::jthread writer_; // last: starts after the state it uses exists
};

} // namespace tavix
