#include "platform/linux/ProcExecutable.h"

#include <unistd.h>

namespace tavix {

std::optional<std::string> procExecutablePath(int32_t pid) {
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char buffer[4096];
  const ssize_t size = ::readlink(link.c_str(), buffer, sizeof buffer);
  if (size <= 0 || static_cast<size_t>(size) >= sizeof buffer)
    return std::nullopt;
  return std::string(buffer, static_cast<size_t>(size));
}

} // namespace tavix
