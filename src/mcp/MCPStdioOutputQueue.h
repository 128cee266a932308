#pragma once
// The bounded line of responses waiting to be written. Writes happen one at a time and in
// order, so responses never interleave; a host that stops draining the output loses the
// connection instead of growing the backlog.
//
// A response that finds the line empty is first tried on the thread that produced it,
// without waiting; only what the descriptor does not take at once goes to the writer
// thread. Most answers therefore reach the host without a thread switch.

#include "mcp/StdioMessageWriter.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tavix {

class MCPStdioOutputQueue {
public:
  static constexpr int maxPending = 16;
  // Writes one response. With `tryOnly` it must not wait: it writes what it can and
  // answers `incomplete`, and is called again (without `tryOnly`) to finish.
  using WriteJob = std::function<WriteOutcome(bool tryOnly)>;

  MCPStdioOutputQueue();
  // Closes the queue and joins the writer; jobs still waiting are skipped.
  ~MCPStdioOutputQueue() { shutdown(); }
  MCPStdioOutputQueue(const MCPStdioOutputQueue &) = delete;
  MCPStdioOutputQueue &operator=(const MCPStdioOutputQueue &) = delete;

  // Accepts a write job. When the queue is closed or already holds `maxPending` jobs it
  // closes, and `onFailure` runs at once; it also runs later if the job's write fails.
  void enqueue(WriteJob job, std::function<void()> onFailure);
  void close();
  bool isClosed() const;
  // As the destructor, for owners that must stop the writer before other members go.
  void shutdown();

private:
  struct Job {
    WriteJob write;
    std::function<void()> onFailure;
  };
  void runWriter(std::stop_token stop);
  // Records the end of a write; returns whether the writer has work waiting.
  bool finishWrite(bool written);

  mutable std::mutex lock_;
  std::condition_variable_any wake_;
  std::deque<Job> jobs_;
  int pending_ = 0;    // accepted and not yet written, the one being written included
  bool writing_ = false; // a write is under way, on the writer or a producing thread
  bool closed_ = false;
  std::jthread writer_; // last: starts after the state it uses exists
};

} // namespace tavix
