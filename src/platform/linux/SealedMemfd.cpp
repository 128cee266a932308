#include "platform/linux/SealedMemfd.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix {
namespace {

constexpr int requiredSeals = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW;

bool writeAll(int fd, std::string_view bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::pwrite(fd, bytes.data() + written, bytes.size() - written, static_cast<off_t>(written));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    written += static_cast<size_t>(n);
  }
  return true;
}

} // namespace

int makeSealedMemfd(std::string_view name, std::string_view bytes) {
  std::string label(name);
  int fd = ::memfd_create(label.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0)
    return -1;
  if (!writeAll(fd, bytes) || ::fcntl(fd, F_ADD_SEALS, requiredSeals | F_SEAL_SEAL) < 0) {
    int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

std::optional<std::string> readSealedMemfd(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) < 0 || !S_ISREG(status.st_mode))
    return std::nullopt;
  int seals = ::fcntl(fd, F_GET_SEALS);
  if (seals < 0 || (seals & requiredSeals) != requiredSeals)
    return std::nullopt;
  if (status.st_size < 0 || static_cast<uint64_t>(status.st_size) > sealedPayloadLimit)
    return std::nullopt;
  std::string bytes(static_cast<size_t>(status.st_size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return std::nullopt;
    done += static_cast<size_t>(n);
  }
  return bytes;
}

} // namespace tavix
