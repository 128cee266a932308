#pragma once
// Standard output in the appshot mode: each answer is written whole, as one line, by one
// writer at a time, so that the answers of requests finishing together never interleave.

#include <atomic>
#include <mutex>
#include <string>

namespace tavix {

class AppshotStdioWriter {
public:
  explicit AppshotStdioWriter(int fd) : fd_(fd) {}

  // Writes `line` and a line feed; returns whether all of it was written. A reader that
  // takes nothing for ten seconds, or a closed writer, ends the write (logged).
  bool writeLine(std::string line);

  // Makes a write under way give up and later ones fail at once: for the end of the
  // process, so that a host that stopped reading cannot hold it up.
  void close() { closed_ = true; }

private:
  const int fd_;
  std::mutex writing_;
  std::atomic<bool> closed_ = false;
};

} // namespace tavix
