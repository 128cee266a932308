#include "platform/ExecutableLocation.h"

#include <array>
#include <unistd.h>

namespace tavix {

std::string currentExecutablePath() {
  std::array<char, 4096> buffer{};
  const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0)
    return {};
  return std::string(buffer.data(), static_cast<size_t>(length));
}

std::string currentExecutableName() {
  const std::string path = currentExecutablePath();
  return path.substr(path.find_last_of('/') + 1);
}

} // namespace tavix
