#pragma once
// The lines of standard input in the appshot mode, read in large chunks rather than a
// byte at a time. A line ends at a line feed, or at the end of input.

#include <cstddef>
#include <string>

namespace tavix {

class AppshotStdioLineReader {
public:
  // Requests are a few hundred bytes; a line longer than this is refused whole rather
  // than held in memory, however long it grows.
  static constexpr size_t longestLine = 1024 * 1024;

  struct Next {
    enum class Kind {
      line,    // `text` is the line, without its line feed
      tooLong, // a line of more than `longestLine` bytes was skipped
      end,     // the input ended
      failed,  // reading failed with `error` (an errno); nothing more is read
    };
    Kind kind = Kind::end;
    std::string text;
    int error = 0;
  };

  explicit AppshotStdioLineReader(int fd) : fd_(fd) {}

  Next next();

private:
  // Reads more into the buffer; false at the end of input or on failure (`error_` set).
  bool fill();

  const int fd_;
  std::string buffer_;
  size_t scanned_ = 0; // bytes of `buffer_` known to hold no line feed
  bool ended_ = false;
  int error_ = 0;
};

} // namespace tavix
