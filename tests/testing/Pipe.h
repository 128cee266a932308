#pragma once
// A pipe for tests of code that reads or writes descriptors.

#include <algorithm>
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
    if (::pipe(fds_) != 0)
      throw std::runtime_error("pipe failed");
  }
  ~Pipe() { closeRead(), closeWrite(); }
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  int readEnd() const { return fds_[0]; }
  int writeEnd() const { return fds_[1]; }
  void closeRead() { closeEnd(0); }
  void closeWrite() { closeEnd(1); }

  void write(std::string_view bytes) const { writeAll(fds_[1], bytes); }
  // Writes, then waits until the reader has taken every byte, so that the next write
  // arrives in a separate read.
  void writeAndDrain(std::string_view bytes) const {
    write(bytes);
    while (unread() > 0)
      std::this_thread::yield();
  }
  // What can be read without waiting.
  std::string readAvailable() const {
    std::string bytes(static_cast<size_t>(unread()), '\0');
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(0, ::read(fds_[0], bytes.data(), bytes.size()))));
    return bytes;
  }

private:
  int unread() const { int count = 0; return ioctl(fds_[0], FIONREAD, &count) == 0 ? count : 0; }
  void closeEnd(int end) {
    if (fds_[end] >= 0)
      ::close(std::exchange(fds_[end], -1));
  }

  int fds_[2] = {-1, -1};
};

} // namespace tavix::test
