#pragma once
// A pipe for tests of code that reads or writes descriptors.

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace tavix::test {

// Writes every byte to a blocking descriptor, or throws.
inline void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      throw std::runtime_error("write failed");
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

class Pipe {
public:
  Pipe() {
    int fds[2];
    if (::pipe(fds) != 0)
      throw std::runtime_error("pipe failed");
    readEnd_ = fds[0];
    writeEnd_ = fds[1];
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  int readEnd() const { return readEnd_; }
  int writeEnd() const { return writeEnd_; }
  void closeRead() {
    if (readEnd_ >= 0)
      ::close(std::exchange(readEnd_, -1));
  }
  void closeWrite() {
    if (writeEnd_ >= 0)
      ::close(std::exchange(writeEnd_, -1));
  }

  void write(std::string_view bytes) const { writeAll(writeEnd_, bytes); }

  // Writes, then waits until the reader has taken every byte, so that the next write
  // arrives in a separate read.
  void writeAndDrain(std::string_view bytes) const {
    write(bytes);
    int unread = 1;
    while (ioctl(readEnd_, FIONREAD, &unread) == 0 && unread > 0)
      std::this_thread::yield();
  }

  std::string readAvailable() const {
    std::string result;
    int unread = 0;
    while (ioctl(readEnd_, FIONREAD, &unread) == 0 && unread > 0) {
      std::string chunk(static_cast<size_t>(unread), '\0');
      const ssize_t n = ::read(readEnd_, chunk.data(), chunk.size());
      if (n <= 0)
        break;
      result.append(chunk, 0, static_cast<size_t>(n));
    }
    return result;
  }

private:
  int readEnd_ = -1;
  int writeEnd_ = -1;
};

} // namespace tavix::test
