#include "bridge/AppshotStdioWriter.h"

#include "mcp/StdioMessageWriter.h"

namespace tavix {

bool AppshotStdioWriter::writeLine(std::string line) {
  StdioMessageWrite write(std::move(line), FramingMode::newlineDelimited);
  std::lock_guard guard(writing_);
  if (closed_)
    return false;
  switch (write.tryWrite(fd_)) {
  case WriteOutcome::written:
    return true;
  case WriteOutcome::failed:
    return false;
  case WriteOutcome::incomplete:
    break;
  }
  return write.finish(fd_, [this] { return closed_.load(); });
}

} // namespace tavix
