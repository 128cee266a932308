#include "logging/LogFileCompaction.h"

#include "logging/Logger.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix {
namespace {

// Closes the descriptor, and with it the lock, on every path.
class LockedFile {
public:
  explicit LockedFile(const std::string &path) : fd_(::open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    if (fd_ < 0)
      return;
    int result;
    do {
      result = ::flock(fd_, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    locked_ = result == 0;
  }
  ~LockedFile() {
    if (fd_ < 0)
      return;
    if (locked_)
      ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
  LockedFile(const LockedFile &) = delete;
  LockedFile &operator=(const LockedFile &) = delete;

  bool isLocked() const { return locked_; }
  int fd() const { return fd_; }

private:
  int fd_;
  bool locked_ = false;
};

std::optional<int64_t> sizeOf(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0)
    return std::nullopt;
  return static_cast<int64_t>(status.st_size);
}

// Moves all of `size` bytes at `offset` with `transfer` (pread or pwrite); returns 0 or
// the errno of the failure, EIO for a transfer that ends early.
template <typename Buffer, typename Transfer>
int transferFully(int fd, Buffer *data, size_t size, off_t offset, Transfer transfer) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = transfer(fd, data + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return n < 0 ? errno : EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

int readFully(int fd, std::string &buffer, off_t offset) {
  return transferFully(fd, buffer.data(), buffer.size(), offset, ::pread);
}

int writeFully(int fd, std::string_view bytes, off_t offset) {
  return transferFully(fd, bytes.data(), bytes.size(), offset, ::pwrite);
}

// Rewrites the file as `tail` followed by `notice`. The kept text is written over the
// start of the file before the file is cut to length, so the rewrite needs no free
// space on the disk and a failure part-way never leaves less than was there.
int rewrite(int fd, std::string_view tail, std::string_view notice) {
  if (int error = writeFully(fd, tail, 0))
    return error;
  if (int error = writeFully(fd, notice, static_cast<off_t>(tail.size())))
    return error;
  if (::ftruncate(fd, static_cast<off_t>(tail.size() + notice.size())) != 0 || ::fsync(fd) != 0)
    return errno;
  return 0;
}

} // namespace

bool compactLogFileIfNeeded(const std::string &path, const LogFileLimits &limits) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || status.st_size < limits.maxLogFileBytes)
    return false;
  const LockedFile file(path);
  if (!file.isLocked())
    return false;
  // Another process may have compacted the file while this one waited for the lock.
  const auto size = sizeOf(file.fd());
  if (!size || *size < limits.maxLogFileBytes)
    return false;

  const std::string notice = Log::encodeLine(LogLevel::warning, LogCategory::logging,
                                             "log_compacted",
                                             {{"previousBytes", *size}, {"reason", "size_limit"}});
  const int64_t kept = std::min(limits.retainedLogTailBytes, *size);
  std::string tail(static_cast<size_t>(kept), '\0');
  int error = readFully(file.fd(), tail, static_cast<off_t>(*size - kept));
  if (error == 0) {
    if (const size_t lineEnd = tail.find('\n'); lineEnd != std::string::npos)
      tail.erase(0, lineEnd + 1);
    error = rewrite(file.fd(), tail, notice);
  }
  if (error != 0)
    Log::emergencyUnifiedFault(
        LogCategory::logging, "log_compaction_failed",
        {{"error", LogError::fromErrorCode(std::error_code(error, std::generic_category()))},
         {"logPath", path}});
  return error == 0;
}

} // namespace tavix
