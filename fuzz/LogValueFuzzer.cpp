// Encodes arbitrary bytes as a log value and checks the invariants a log reader relies
// on: one line, bounded length, valid UTF-8 whenever the input was.

#include "logging/LogLineEncoder.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

bool isValidUTF8(const std::string &text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : (lead >> 5) == 6 ? 2 : (lead >> 4) == 14 ? 3
                          : (lead >> 3) == 30 ? 4 : 0;
    if (length == 0 || i + length > text.size())
      return false;
    for (size_t k = 1; k < length; ++k)
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
        return false;
    i += length;
  }
  return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string encoded = tavix::encodeLogValue(input, "value", "/home/user");
  if (encoded.find('\n') != std::string::npos || encoded.find('\r') != std::string::npos)
    abort();
  // 1024 characters of at most a few code points each, escaped, quoted, plus the ellipsis.
  if (encoded.size() > 2 * 4 * 1024 * 8 + 8)
    abort();
  if (isValidUTF8(input) && !isValidUTF8(encoded))
    abort();
  const std::string line = tavix::encodeLogLine(
      tavix::LogLevel::info, tavix::LogCategory::transport, input, {{input, input}, {"k", input}},
      {std::chrono::system_clock::time_point(), {"TavixComputerUseBridge", 1}, input, "/home/user"});
  if (line.size() > tavix::maxEncodedLineBytes && line.find(" truncated=true\n") == std::string::npos)
    abort();
  if (line.back() != '\n' || line.find('\n') != line.size() - 1)
    abort();
  return 0;
}
